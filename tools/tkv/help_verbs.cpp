#include "command_line.h"
#include "context.h"
#include "json.h"
#include "manual.h"
#include "verbs.h"

namespace tkv::command {
namespace {

void print(Context& context, const std::string& text) {
  context.output().write(context.json() ? JsonObject().utf8("text", text).str() + "\n" : text);
}

}  // namespace

Outcome run_help(Context& context, const Arguments& arguments) {
  if (arguments.manual && arguments.configuration_manual) return {Exit::kUsage, "one manual page at a time"};
  if (arguments.manual) {
    print(context, manual_page());
    return {};
  }
  if (arguments.configuration_manual) {
    print(context, configuration_manual_page());
    return {};
  }
  const Verb* verb = arguments.key ? find_verb(*arguments.key) : nullptr;
  if (arguments.key && verb == nullptr) return {Exit::kUsage, "there is no verb '" + *arguments.key + "'"};
  print(context, help_text(verb));
  return {};
}

}  // namespace tkv::command
