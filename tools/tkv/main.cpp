#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

#include "base/standard_files.h"
#include "command_line.h"
#include "context.h"
#include "verbs.h"

namespace tkv::command {
namespace {

// What could still be printed decides too: a result that nobody received is no success.
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
  if (outcome.ok()) outcome = printed;
  context.complain(outcome);
  return outcome;
}

int start(int count, char** words) {
  store::occupy_standard_files();
  // Work on the registry is finished even when nobody listens any more.
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
    setenv("TKV_CONF", arguments.configuration->c_str(), 1);
    if (::secure_getenv("TKV_CONF") == nullptr) {
      const Outcome refused(Exit::kUsage, "--conf cannot be given to a command that has more rights than its caller");
      complain(refused, arguments.json);
      return static_cast<int>(refused.exit());
    }
  }
  Exit exit = Exit::kOther;
  {
    Context context(arguments, Terminal::detect(arguments.quiet, arguments.no_colour), output);
    exit = run(arguments, *verb, context, output).exit();
  }
  if (output.closed_early()) {  // as for other commands whose reader has gone
    static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
    static_cast<void>(std::raise(SIGPIPE));
  }
  return static_cast<int>(exit);
}

}  // namespace
}  // namespace tkv::command

int main(int count, char** words) { return tkv::command::start(count, words); }
