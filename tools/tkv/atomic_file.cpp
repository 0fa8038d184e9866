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

// The temporary file to remove if a signal ends the process.
std::atomic<const char*> unfinished{nullptr};

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

// Blocks the signals that end the process.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : kEndingSignals) sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &former_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t former_{};
};

extern "C" void end_without_unfinished_file(int signal) {
  if (const char* name = unfinished.load(); name != nullptr) ::unlink(name);
  static_cast<void>(::raise(signal));  // the default action is in force again
}

// A signal that is ignored stays ignored.
void watch_signals() {
  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = end_without_unfinished_file;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : kEndingSignals) {
    if (sigaction(signal, nullptr, &former) == 0 && former.sa_handler == SIG_DFL) sigaction(signal, &action, nullptr);
  }
}

// The file that a path leads to, with all links resolved.
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
  if (there && !S_ISREG(found.st_mode)) {
    return {Exit::kUsage, path + " is not a regular file; redirect standard output with > instead"};
  }
  if (there) path_ = resolved(path);  // a link stays a link
  const SignalsBlocked until_the_handler_knows_the_file;
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
  if (result != 0 && error == EINVAL) {  // replacing is allowed, or the file system does not know the flag
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
