#include "stop_request.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace tkv::command {
namespace {

sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

int opened(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
  return descriptor;
}

void raise_event(int descriptor) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

// Only a pipe or a socket has a reader who can go away.
bool has_reader(int descriptor) {
  struct stat found {};
  return ::fstat(descriptor, &found) == 0 && (S_ISFIFO(found.st_mode) || S_ISSOCK(found.st_mode));
}

}  // namespace

StopRequest::StopRequest(OutputReader reader) {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, &former_mask_);
  signals_ = opened(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  stopped_ = opened(::eventfd(0, EFD_CLOEXEC));
  ended_ = opened(::eventfd(0, EFD_CLOEXEC));
  const bool output = reader == OutputReader::kWatched && has_reader(STDOUT_FILENO);
  thread_ = std::thread([this, output] { watch(output); });
}

StopRequest::~StopRequest() {
  raise_event(ended_);
  thread_.join();
  for (const int descriptor : {signals_, stopped_, ended_}) ::close(descriptor);
  pthread_sigmask(SIG_SETMASK, &former_mask_, nullptr);
}

void StopRequest::wait_for(std::chrono::milliseconds time) const {
  pollfd stop{stopped_, POLLIN, 0};
  ::poll(&stop, 1, static_cast<int>(time.count()));
}

void StopRequest::watch(bool output) {
  std::array<pollfd, 3> files{pollfd{ended_, POLLIN, 0}, pollfd{signals_, POLLIN, 0},
                              pollfd{output ? STDOUT_FILENO : -1, 0, 0}};
  while (true) {
    if (::poll(files.data(), files.size(), -1) < 0) continue;
    if (files[0].revents != 0) return;
    if (files[1].revents != 0) take_signal();
    if (files[2].revents == 0) continue;
    files[2].fd = -1;
    request();
  }
}

void StopRequest::take_signal() {
  signalfd_siginfo signal{};
  if (::read(signals_, &signal, sizeof signal) != sizeof signal) return;
  if (!made()) return request();
  const int number = static_cast<int>(signal.ssi_signo);
  const sigset_t signals = stop_signals();
  static_cast<void>(std::signal(number, SIG_DFL));
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  static_cast<void>(std::raise(number));
}

void StopRequest::request() {
  raise_event(stopped_);
  source_.request_stop();
}

}  // namespace tkv::command
