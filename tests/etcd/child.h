// Child: a process that a test starts, stops and kills.
#ifndef TKV_TESTS_ETCD_CHILD_H
#define TKV_TESTS_ETCD_CHILD_H

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace tkv::store::etcd {

// A child process, which is killed if it has not ended by itself.
class Child {
 public:
  explicit Child(std::vector<std::string> command) {
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    if (posix_spawnp(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) pid_ = -1;
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(SIGKILL);
    (void)wait();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

  void kill(int signal) const { ::kill(pid_, signal); }

  bool has_stopped() const {
    int status = 0;
    return waitpid(pid_, &status, WUNTRACED | WNOHANG) == pid_ && WIFSTOPPED(status);
  }

  // The exit code, or -1 if a signal ended it.
  int wait() {
    int status = 0;
    const pid_t ended = waitpid(pid_, &status, 0);
    pid_ = -1;
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace tkv::store::etcd

#endif
