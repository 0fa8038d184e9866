// EventCommand: runs a shell command for each event of a watch.
#ifndef TKV_TOOLS_TKV_EVENT_COMMAND_H
#define TKV_TOOLS_TKV_EVENT_COMMAND_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"
#include "stop_request.h"

namespace tkv::command {

// /bin/sh runs the command in a process group of its own. Once it has run for `limit`, or a stop is requested, the
// group gets SIGTERM and, if anything of it is left five seconds later, SIGKILL. What a command that ends by itself
// leaves running is left alone.
class EventCommand {
 public:
  EventCommand(std::string command, std::optional<std::chrono::seconds> limit, const StopRequest& stop)
      : command_(std::move(command)), limit_(limit), stop_(stop) {}

  // Runs the command and waits for its end. `variables` ("NAME=value") are added to the environment; `input` is its
  // standard input, a file. `*failure` receives how the command failed, or "". Fails if it cannot be run at all.
  Outcome run(const std::vector<std::string>& variables, std::string_view input, std::string* failure) const;

 private:
  Outcome start(const std::vector<std::string>& variables, int input, pid_t* process) const;
  Outcome wait_for(pid_t process, std::string* failure) const;

  const std::string command_;
  const std::optional<std::chrono::seconds> limit_;
  const StopRequest& stop_;
};

}  // namespace tkv::command

#endif
