#include "edited_file.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include "input.h"

namespace tkv::command {
namespace {

Outcome failed(const char* doing, const std::string& what, int error) {
  return {exit_of_error(error), std::string("cannot ") + doing + " " + what + ": " + std::strerror(error)};
}

Outcome write_all(int descriptor, const std::string& path, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    const int error = errno;
    if (written < 0 && error != EINTR) return failed("write", path, error);
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

std::string editor() {
  for (const char* name : {"VISUAL", "EDITOR"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return "vi";
}

// While a child has the terminal, its interrupts are not for this process.
class InterruptsIgnored {
 public:
  InterruptsIgnored() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (std::size_t at = 0; at < kSignals.size(); ++at) sigaction(kSignals[at], &ignore, &former_[at]);
  }
  ~InterruptsIgnored() { restore(); }
  InterruptsIgnored(const InterruptsIgnored&) = delete;
  InterruptsIgnored& operator=(const InterruptsIgnored&) = delete;

  void restore() {
    for (std::size_t at = 0; at < kSignals.size(); ++at) sigaction(kSignals[at], &former_[at], nullptr);
  }

 private:
  static constexpr std::array kSignals{SIGINT, SIGQUIT};
  std::array<struct sigaction, kSignals.size()> former_{};
};

}  // namespace

EditedFile::~EditedFile() {
  if (folder_.empty() || kept_) return;
  std::error_code ignored;  // an editor may have left files of its own there
  std::filesystem::remove_all(folder_, ignored);
}

Outcome EditedFile::create(std::string_view text) {
  const char* const place = std::getenv("TMPDIR");
  std::string pattern = (place != nullptr && *place != '\0' ? std::string(place) : "/tmp") + "/tkv-edit-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    const int error = errno;
    return failed("create a folder", pattern, error);
  }
  folder_ = pattern;
  path_ = folder_ + "/keys.json";
  const int descriptor = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const int error = errno;
  if (descriptor < 0) return failed("write", path_, error);
  Outcome written = write_all(descriptor, path_, text);
  ::close(descriptor);
  return written;
}

Outcome EditedFile::edit() {
  const std::string command = editor();
  const std::string line = command + " \"$@\"";
  int status = 0;
  InterruptsIgnored ignored;
  const pid_t child = ::fork();
  int error = errno;
  if (child < 0) return failed("run", command, error);
  if (child == 0) {
    ignored.restore();
    static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
    ::execl("/bin/sh", "sh", "-c", line.c_str(), command.c_str(), path_.c_str(), nullptr);
    ::_exit(127);
  }
  while (::waitpid(child, &status, 0) < 0) {
    error = errno;
    if (error != EINTR) return failed("wait for", command, error);
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  return {Exit::kOther, "the editor '" + command + "' failed; nothing was done"};
}

Outcome EditedFile::read(std::string* text) const {
  return read_file(path_, std::numeric_limits<std::size_t>::max(), text);
}

}  // namespace tkv::command
