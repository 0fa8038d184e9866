#include "command_line.h"
#include "context.h"
#include "manual.h"
#include "verbs.h"

namespace tkv::command {

Outcome run_help(Context& context, const Arguments& arguments) {
  if (arguments.manual && arguments.configuration_manual) return {Exit::kUsage, "one manual page at a time"};
  if (arguments.manual) {
    context.output().write(manual_page());
    return {};
  }
  if (arguments.configuration_manual) {
    context.output().write(configuration_manual_page());
    return {};
  }
  const Verb* verb = arguments.key ? find_verb(*arguments.key) : nullptr;
  if (arguments.key && verb == nullptr) return {Exit::kUsage, "there is no verb '" + *arguments.key + "'"};
  context.output().write(help_text(verb));
  return {};
}

}  // namespace tkv::command
