// A forked process that runs a function.
#ifndef TKV_TESTS_PLATFORM_CHILD_PROCESS_H
#define TKV_TESTS_PLATFORM_CHILD_PROCESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace tkv {

class ChildProcess {
 public:
  // Runs `body`, whose result is the exit code.
  explicit ChildProcess(const std::function<int()>& body) : id_(fork()) {
    if (id_ == 0) _exit(body());
  }
  ~ChildProcess() { end(SIGKILL); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return id_; }

  void wait_until_stopped() const {
    int status = 0;
    ASSERT_EQ(waitpid(id_, &status, WUNTRACED), id_);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
  }

  void proceed() const { kill(id_, SIGCONT); }

  // Waits for the end of the process and returns its status, as waitpid does.
  int wait() {
    int status = 0;
    EXPECT_EQ(waitpid(id_, &status, 0), id_);
    id_ = 0;
    return status;
  }

  // Sends a signal and waits for the end of the process. Does nothing if it has ended.
  void end(int signal) {
    if (id_ <= 0) return;
    kill(id_, signal);
    wait();
  }

 private:
  pid_t id_;
};

}  // namespace tkv

#endif
