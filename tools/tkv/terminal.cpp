#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>

#include "characters.h"

namespace tkv::command {
namespace {

constexpr std::chrono::milliseconds kFirstShown(300);
constexpr std::chrono::milliseconds kBetween(100);
constexpr std::size_t kBarColumns = 30;

std::size_t columns_of(int file, std::size_t otherwise) {
  winsize size{};
  if (ioctl(file, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return otherwise;
  return size.ws_col;
}

bool is_set(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool is_dumb() {
  const char* kind = std::getenv("TERM");
  return kind == nullptr || std::string_view(kind) == "dumb";
}

const char* code_of(Ink ink) {
  switch (ink) {
    case Ink::kKey:
      return "\x1b[1;34m";
    case Ink::kValue:
      return "\x1b[32m";
    case Ink::kFaint:
      return "\x1b[2m";
    case Ink::kAdded:
      return "\x1b[32m";
    case Ink::kRemoved:
      return "\x1b[31m";
  }
  return "";
}

// A message that cannot be written is lost: there is nobody to report that to.
void send(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    const int error = errno;
    if (written < 0 && error != EINTR) return;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string with_thousands(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
  return digits;
}

std::string bar(std::uint64_t done, std::uint64_t total) {
  const auto filled = static_cast<std::size_t>(done * kBarColumns / total);
  return "[" + std::string(filled, '#') + std::string(kBarColumns - filled, ' ') + "] ";
}

std::string numbers_of(std::uint64_t done, std::uint64_t total) {
  if (total == 0) return with_thousands(done);
  const std::uint64_t part = std::min(done, total);
  return std::to_string(part * 100 / total) + "% " + with_thousands(part) + " of " + with_thousands(total);
}

}  // namespace

Terminal Terminal::detect(bool quiet, bool no_colour) {
  Terminal terminal;
  terminal.input = isatty(STDIN_FILENO) == 1;
  terminal.output = isatty(STDOUT_FILENO) == 1;
  terminal.messages = isatty(STDERR_FILENO) == 1;
  terminal.colour = terminal.output && !no_colour && !is_set("NO_COLOR") && !is_dumb();
  terminal.quiet = quiet;
  return terminal;
}

std::size_t Terminal::columns(std::size_t otherwise) { return columns_of(STDOUT_FILENO, otherwise); }

std::string painted(const Terminal& terminal, Ink ink, std::string text) {
  if (!terminal.colour || text.empty()) return text;
  return code_of(ink) + text + "\x1b[0m";
}

std::string for_output(const Terminal& terminal, std::string_view text) {
  return terminal.output ? safe(text) : std::string(text);
}

void say(std::string_view text) { send(safe_lines(text) + "\n"); }

void note(const Terminal& terminal, std::string_view text) {
  if (!terminal.quiet) say(text);
}

bool confirm(const Terminal& terminal, const std::string& question) {
  if (!terminal.input || !terminal.messages) return false;
  send("tkv: " + safe(question) + " [y/N] ");
  std::string answer;
  if (!std::getline(std::cin, answer)) {
    send("\n");
    return false;
  }
  return answer == "y" || answer == "Y" || answer == "yes";
}

Progress::Progress(const Terminal& terminal, std::string label)
    : enabled_(terminal.messages && !terminal.quiet && !is_dumb()),
      label_(std::move(label)),
      next_(std::chrono::steady_clock::now() + kFirstShown) {}

Progress::~Progress() {
  if (drawn_) send("\r\x1b[K");
}

void Progress::show(std::uint64_t done, std::uint64_t total, std::string_view part) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kBetween;
  drawn_ = true;
  std::string line = safe(label_) + " ";
  if (!part.empty()) line += safe(part) + " ";
  const std::string numbers = numbers_of(done, total);
  const std::size_t room = columns_of(STDERR_FILENO, 80);
  if (total != 0 && line.size() + kBarColumns + numbers.size() + 3 < room) line += bar(std::min(done, total), total);
  send("\r" + (line + numbers).substr(0, room - 1) + "\x1b[K");  // a line that wraps could not be erased
}

}  // namespace tkv::command
