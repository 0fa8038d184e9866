#include "store/etcd/owner.h"

#include <signal.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <fstream>
#include <random>
#include <sstream>

namespace tkv::store::etcd {
namespace {

std::string first_word(const char* path) {
  std::ifstream file(path);
  std::string word;
  file >> word;
  return word.empty() ? "unknown" : word;
}

std::string process_namespace() {
  std::array<char, 64> target{};
  const ssize_t size = readlink("/proc/self/ns/pid", target.data(), target.size());
  return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : "unknown";
}

// Field 22 of the process's stat line, counted behind the name in parentheses; empty when there is no such process.
std::string start_of(const std::string& process) {
  std::ifstream file("/proc/" + process + "/stat");
  std::string line;
  std::getline(file, line);
  const auto name_end = line.rfind(')');
  if (name_end == std::string::npos) return {};
  std::istringstream rest(line.substr(name_end + 1));
  std::string word;
  constexpr int kWordsUpToStart = 20;
  for (int i = 0; i < kWordsUpToStart; ++i) rest >> word;
  return word;
}

}  // namespace

std::string this_owner() {
  const std::string process = std::to_string(getpid());
  return first_word("/proc/sys/kernel/random/boot_id") + " " + process_namespace() + " " + process + " " +
         start_of(process);
}

bool has_ended(std::string_view owner) {
  std::istringstream words{std::string(owner)};
  std::string boot, name_space, process, start;
  if (!(words >> boot >> name_space >> process >> start)) return false;
  pid_t number = 0;
  const char* const end = process.data() + process.size();
  if (std::from_chars(process.data(), end, number).ptr != end || number <= 0) return false;
  if (boot == "unknown" || boot != first_word("/proc/sys/kernel/random/boot_id")) return false;
  if (name_space == "unknown" || name_space != process_namespace()) return false;
  // The system may hide the processes of others from /proc, but not from kill().
  if (kill(number, 0) != 0) return errno == ESRCH;
  const std::string start_now = start_of(process);
  return !start_now.empty() && start_now != start;
}

std::int64_t seconds_now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool is_token(std::string_view text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string random_token() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::random_device device;
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(device());
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) text += {kDigits[byte >> 4], kDigits[byte & 0xf]};
  return text;
}

}  // namespace tkv::store::etcd
