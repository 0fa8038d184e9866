#include "atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tkv::command {
namespace {

constexpr std::size_t kGathered = std::size_t{256} << 10;
constexpr mode_t kPermissions = 0777;

std::string folder_of(const std::string& path) {
  const std::size_t end = path.rfind('/');
  if (end == std::string::npos) return ".";
  return end == 0 ? "/" : path.substr(0, end);
}

// The file that has to go when a signal ends the process: the name of the one that is being written.
std::atomic<const char*> unfinished{nullptr};

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

// Lets none of them come in between.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : kEndingSignals) sigaddset(&held, signal);
    pthread_sigmask(SIG_BLOCK, &held, &former_);
  }
  ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t former_{};
};

extern "C" void end_without_unfinished_file(int signal) {
  if (const char* name = unfinished.load(); name != nullptr) ::unlink(name);
  static_cast<void>(::raise(signal));  // the action is the system's again
}

// A signal that is ignored stays so.
void watch_signals() {
  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = end_without_unfinished_file;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : kEndingSignals) {
    if (sigaction(signal, nullptr, &former) == 0 && former.sa_handler == SIG_DFL) sigaction(signal, &action, nullptr);
  }
}

// The file that a path leads to in the end.
std::string resolved(const std::string& path) {
  char* const real = ::realpath(path.c_str(), nullptr);
  std::string result = real != nullptr ? real : path;
  std::free(real);
  return result;
}

}  // namespace

AtomicFile::~AtomicFile() {
  if (descriptor_ >= 0) ::close(descriptor_);
  if (temporary_.empty()) return;
  ::unlink(temporary_.c_str());
  unfinished = nullptr;
}

Outcome AtomicFile::failed(const char* doing, int error) const {
  return {exit_of_error(error), std::string("cannot ") + doing + " " + path_ + ": " + std::strerror(error)};
}

Outcome AtomicFile::open(const std::string& path, Existing existing) {
  struct stat found {};
  path_ = path;
  existing_ = existing;
  const bool there = ::stat(path.c_str(), &found) == 0;
  if (there && existing == Existing::kRefuse) return failed("write", EEXIST);
  if (there && !S_ISREG(found.st_mode)) return {Exit::kUsage, path + " is not a file; write there with > instead"};
  if (there) path_ = resolved(path);  // a link stays one
  const SignalsHeld until_it_is_known;
  std::string pattern = path_ + ".XXXXXX";
  descriptor_ = ::mkostemp(pattern.data(), O_CLOEXEC);
  int error = errno;
  if (descriptor_ < 0) return failed("write", error);
  temporary_ = pattern;
  unfinished = temporary_.c_str();
  watch_signals();
  if (!there || ::fchmod(descriptor_, found.st_mode & kPermissions) == 0) return {};
  error = errno;
  return failed("write", error);
}

Outcome AtomicFile::write(std::string_view bytes) {
  gathered_ += bytes;
  return gathered_.size() < kGathered ? Outcome() : flush();
}

Outcome AtomicFile::flush() {
  std::string_view rest = gathered_;
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor_, rest.data(), rest.size());
    const int error = errno;
    if (written < 0 && error != EINTR) return failed("write", error);
    if (written > 0) rest.remove_prefix(static_cast<std::size_t>(written));
  }
  gathered_.clear();
  return {};
}

Outcome AtomicFile::sync() {
  if (Outcome flushed = flush(); !flushed.ok()) return flushed;
  if (::fsync(descriptor_) == 0) return {};
  const int error = errno;
  return failed("write", error);
}

Outcome AtomicFile::rename() {
  int result = -1;
  int error = EINVAL;
  if (existing_ == Existing::kRefuse) {
    result = ::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
    error = errno;
  }
  if (result != 0 && error == EINVAL) {  // replacing is meant, or not every file system can refuse by itself
    result = ::rename(temporary_.c_str(), path_.c_str());
    error = errno;
  }
  if (result != 0) return failed("write", error);
  unfinished = nullptr;
  temporary_.clear();
  return {};
}

Outcome AtomicFile::commit() {
  if (Outcome synced = sync(); !synced.ok()) return synced;
  if (Outcome named = rename(); !named.ok()) return named;
  const int folder = ::open(folder_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int open_error = errno;
  if (folder < 0) return failed("make durable", open_error);
  const int synced = ::fsync(folder);
  const int error = errno;
  ::close(folder);
  return synced == 0 ? Outcome() : failed("make durable", error);
}

}  // namespace tkv::command
