#include "event_command.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "base/descriptor.h"

// The header of glibc 2.36 does not say that its functions are in C.
extern "C" {
#include <sys/pidfd.h>
}

namespace tkv::command {
namespace {

constexpr std::chrono::milliseconds kGrace{5000};  // between SIGTERM and SIGKILL
constexpr std::chrono::milliseconds kPause{20};    // between two looks at a group
constexpr std::chrono::milliseconds kForever{-1};

Outcome cannot_run(int error) { return {Exit::kOther, std::string("cannot run the command: ") + std::strerror(error)}; }

// A file without a name that has these contents and is read from its beginning.
Outcome open_input(std::string_view bytes, Descriptor* file) {
  Descriptor made(::memfd_create("tkv-value", MFD_CLOEXEC));
  if (!made.is_open()) return cannot_run(errno);
  while (!bytes.empty()) {
    const ssize_t written = ::write(made.number(), bytes.data(), bytes.size());
    const int error = errno;
    if (written < 0 && error != EINTR) return cannot_run(error);
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::lseek(made.number(), 0, SEEK_SET) != 0) return cannot_run(errno);
  *file = std::move(made);
  return {};
}

bool is_named_by(std::string_view variable, const std::vector<std::string>& variables) {
  const std::string_view name = variable.substr(0, variable.find('=') + 1);
  for (const std::string& other : variables) {
    if (other.starts_with(name)) return true;
  }
  return false;
}

// The environment of this process with other or further variables.
std::vector<char*> environment_with(const std::vector<std::string>& variables) {
  std::vector<char*> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!is_named_by(*variable, variables)) environment.push_back(*variable);
  }
  for (const std::string& variable : variables) environment.push_back(const_cast<char*>(variable.c_str()));
  environment.push_back(nullptr);
  return environment;
}

class SpawnSettings {
 public:
  SpawnSettings(int input, const sigset_t& mask) {
    sigset_t ordinary;
    sigemptyset(&ordinary);
    for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) sigaddset(&ordinary, signal);
    posix_spawn_file_actions_init(&files_);
    posix_spawn_file_actions_adddup2(&files_, input, STDIN_FILENO);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setsigmask(&attributes_, &mask);
    posix_spawnattr_setsigdefault(&attributes_, &ordinary);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&files_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawn_file_actions_t* files() const { return &files_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t files_{};
  posix_spawnattr_t attributes_{};
};

enum class Ended { kByItself, kStopped, kTooLate };

Ended wait_until_over(int process, int stop, std::chrono::milliseconds time) {
  std::array<pollfd, 2> files{pollfd{process, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
  int ready = 0;
  do {
    ready = ::poll(files.data(), files.size(), static_cast<int>(time.count()));
  } while (ready < 0 && errno == EINTR);
  if (files[0].revents != 0) return Ended::kByItself;
  return ready == 0 ? Ended::kTooLate : Ended::kStopped;
}

int reap(pid_t process) {
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// Ends a group that has SIGTERM already, and whose leader is reaped. Its number is not given to another process as long
// as the group has a member.
void end_group(pid_t group, std::chrono::steady_clock::time_point deadline) {
  while (::kill(-group, 0) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(-group, SIGKILL);
      return;
    }
    std::this_thread::sleep_for(kPause);
  }
}

// Ends the process and everything in its group. Returns the status of the process.
int end(pid_t process, int handle) {
  const auto deadline = std::chrono::steady_clock::now() + kGrace;
  ::kill(-process, SIGTERM);
  if (wait_until_over(handle, -1, kGrace) != Ended::kByItself) ::kill(-process, SIGKILL);
  const int status = reap(process);
  end_group(process, deadline);
  return status;
}

std::string describe(int status) {
  if (WIFSIGNALED(status)) return std::string("was ended by signal ") + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "exited with " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

Outcome EventCommand::run(const std::vector<std::string>& variables, std::string_view input,
                          std::string* failure) const {
  Descriptor file(-1);
  pid_t process = -1;
  if (Outcome opened = open_input(input, &file); !opened.ok()) return opened;
  if (Outcome started = start(variables, file.number(), &process); !started.ok()) return started;
  return wait_for(process, failure);
}

Outcome EventCommand::start(const std::vector<std::string>& variables, int input, pid_t* process) const {
  const SpawnSettings settings(input, stop_.former_mask());
  std::vector<char*> environment = environment_with(variables);
  std::array<std::string, 3> words{"sh", "-c", command_};
  std::array<char*, 4> arguments{words[0].data(), words[1].data(), words[2].data(), nullptr};
  const int error =
      ::posix_spawn(process, "/bin/sh", settings.files(), settings.attributes(), arguments.data(), environment.data());
  return error == 0 ? Outcome() : cannot_run(error);
}

Outcome EventCommand::wait_for(pid_t process, std::string* failure) const {
  const Descriptor handle(::pidfd_open(process, 0));
  const int error = errno;
  if (!handle.is_open()) {
    ::kill(-process, SIGKILL);
    reap(process);
    return cannot_run(error);
  }
  const auto limit = limit_ ? std::chrono::milliseconds(*limit_) : kForever;
  const Ended ended = wait_until_over(handle.number(), stop_.descriptor(), limit);
  const int status = ended == Ended::kByItself ? reap(process) : end(process, handle.number());
  *failure = ended == Ended::kTooLate ? "was ended after " + std::to_string(limit_->count()) + " s" : describe(status);
  return {};
}

}  // namespace tkv::command
