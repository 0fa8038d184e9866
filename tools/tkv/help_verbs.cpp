#include "command_line.h"
#include "context.h"
#include "json.h"
#include "manual.h"
#include "suggestion.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

void print(Context& context, const std::string& text) {
  context.output().write(context.json() ? JsonObject().utf8("text", text).str() + "\n" : text);
}

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
  if (arguments.key && verb == nullptr) {
    return {Exit::kUsage, "there is no verb '" + *arguments.key + "'" + verb_suggestion(*arguments.key)};
  }
  print(context, help_text(verb));
  return {};
}

constexpr std::array kOperands{one("VERB", "Verb to describe", false, &Arguments::key, Candidates::kVerbs)};
constexpr std::array kOptions{
    flag("--man", "Print the manual page tkv(1), for man", &Arguments::manual),
    flag("--man-conf", "Print the manual page tkv.conf(5), for man", &Arguments::configuration_manual)};

}  // namespace

constinit const Verb kHelpVerb{.name = "help",
                               .summary = "Show help, or the manual pages",
                               .details = "Without VERB, prints an overview.\n",
                               .examples = R"(  tkv help set
  tkv help --man | man -l -
)",
                               .operands = kOperands,
                               .options = kOptions,
                               .run = run_help};

}  // namespace tkv::command
