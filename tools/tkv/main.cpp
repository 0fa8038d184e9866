#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

#include "base/standard_files.h"
#include "command_line.h"
#include "context.h"
#include "input.h"
#include "verbs.h"

namespace tkv::command {
namespace {

// With --dry-run, and of diff, Exit::kOther without a text means that there are differences, as for diff(1). Failures
// of that kind get the code that diff(1) has for trouble.
Outcome as_diff(const Outcome& outcome) {
  if (outcome.exit() != Exit::kOther || outcome.text().empty()) return outcome;
  return {Exit::kUsage, outcome.text()};
}

// Output that could not be written is a failure as well: a result that nobody received is no success.
Outcome run(const Arguments& arguments, const Verb& verb, Context& context, Output& output) {
  Outcome outcome;
  try {
    outcome = verb.run(context, arguments);
  } catch (const std::bad_alloc&) {
    outcome = {Exit::kOther, "out of memory"};
  } catch (const std::exception& failure) {
    outcome = {Exit::kOther, failure.what()};
  }
  const Outcome printed = output.finish();
  if (!printed.ok() && outcome.text().empty()) outcome = printed;
  if (arguments.dry_run || verb.exits_as_diff) outcome = as_diff(outcome);
  context.complain(outcome);
  return outcome;
}

int start(int count, char** words) {
  occupy_standard_files();
  // Work on the registry is finished even if nobody listens any more.
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  Arguments arguments;
  const Verb* verb = nullptr;
  Output output(STDOUT_FILENO);
  if (Outcome parsed = parse_command_line(count, words, &arguments, &verb, output); verb == nullptr) {
    const Outcome printed = output.finish();
    const Outcome& outcome = parsed.ok() ? printed : parsed;
    complain(outcome, arguments.json);
    return static_cast<int>(outcome.exit());
  }
  if (arguments.configuration) {
    if (Outcome allowed = demand_own_rights("--conf"); !allowed.ok()) {
      complain(allowed, arguments.json);
      return static_cast<int>(allowed.exit());
    }
    setenv("TKV_CONF", arguments.configuration->c_str(), 1);
  }
  Exit exit = Exit::kOther;
  {
    Context context(arguments, Terminal::detect(arguments.quiet, arguments.no_colour), output);
    exit = run(arguments, *verb, context, output).exit();
  }
  if (output.closed_early()) {  // end as other commands do whose reader has gone
    static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
    static_cast<void>(std::raise(SIGPIPE));
  }
  return static_cast<int>(exit);
}

}  // namespace
}  // namespace tkv::command

int main(int count, char** words) {
  try {
    return tkv::command::start(count, words);
  } catch (const std::bad_alloc&) {
    constexpr char kMessage[] = "tkv: out of memory\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
    return static_cast<int>(tkv::command::Exit::kOther);
  }
}
