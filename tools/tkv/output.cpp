#include "output.h"

#include <sys/poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tkv::command {
namespace {
constexpr std::size_t kGathered = std::size_t{64} << 10;
}

void Output::write(std::string_view text) {
  if (error_ != 0) return;
  gathered_ += text;
  if (gathered_.size() >= kGathered) flush();
}

void Output::line(std::string_view text) {
  gathered_.reserve(gathered_.size() + text.size() + 1);  // a line is gathered whole or not at all
  write(text);
  write("\n");
}

bool Output::closed_early() const { return error_ == EPIPE; }

void Output::notice_reader() {
  pollfd file{descriptor_, 0, 0};
  if (error_ == 0 && ::poll(&file, 1, 0) == 1 && (file.revents & POLLERR) != 0) error_ = EPIPE;
}

Outcome Output::finish() {
  flush();
  if (error_ == 0 || error_ == EPIPE) return {};
  return {Exit::kOther, std::string("cannot write the output: ") + std::strerror(error_)};
}

void Output::flush() {
  std::string_view rest = gathered_;
  while (!rest.empty() && error_ == 0) {
    const ssize_t written = ::write(descriptor_, rest.data(), rest.size());
    const int error = errno;
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (error != EINTR) {
      error_ = error;
    }
  }
  gathered_.clear();
}

}  // namespace tkv::command
