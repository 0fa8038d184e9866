#include <vector>

#include "context.h"
#include "description.h"
#include "json.h"
#include "key_by_key.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// Asks once about all keys that would be deleted. Keys that do not exist are reported by the deletion itself.
Outcome ask_for_removal(Context& context, const std::vector<std::string>& names, bool recursive) {
  if (context.deletes_unasked()) return {};
  if (!recursive) return context.allow_deleting(names.size(), "this");
  std::uint64_t keys = 0;
  for (const std::string& name : names) {
    std::uint64_t below = 0;
    Outcome counted = count_keys(context.client(), context.terminal(), name, &below);
    if (!counted.ok() && counted.exit() != Exit::kNotFound) return counted;
    keys += below;
  }
  return context.allow_deleting(keys, "this");
}

Outcome run_rm(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (Outcome allowed = ask_for_removal(context, names, arguments.recursive); !allowed.ok()) return allowed;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    Progress progress(context.terminal(), "rm");
    const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
    const Status status = context.client().remove(name, arguments.recursive, show);
    const bool missing = arguments.force && status.is(PRTKV_NO_SUCH_KEY);
    *json = missing ? done("rm", name).flag("existed", false).str() : done("rm", name).str();
    if (status.is(PRTKV_HAS_SUBKEYS)) return {Exit::kConflict, status.text() + "; -r deletes them too"};
    return missing ? Outcome() : Outcome(status);
  });
}

constexpr std::array kOptions{flag("-r,--recursive", "Delete subkeys too", &Arguments::recursive),
                              flag("-f,--force", "Ignore keys that do not exist", &Arguments::force), kNote};

}  // namespace

constinit const Verb kRmVerb{.name = "rm",
                             .summary = "Delete keys",
                             .details = R"(A key with subkeys needs -r. Each KEY is deleted with its subtree in one
transaction, all or nothing. Before deleting more than one key, rm asks on the
terminal; without a terminal it needs --yes.
)",
                             .examples = R"(  tkv rm app.greeting
  tkv rm -r --yes app
)",
                             .operands = kKeys,
                             .options = kOptions,
                             .run = run_rm};

}  // namespace tkv::command
