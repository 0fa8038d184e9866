#include <cstdint>
#include <string>

#include "context.h"
#include "description.h"
#include "json.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

Outcome run_history(Context& context, const Arguments& arguments) {
  std::string name;
  std::uint64_t removed = 0;
  if (*arguments.action != "purge") return {Exit::kUsage, "history " + *arguments.action + ": there is only purge"};
  if (Outcome named = key_name(*arguments.key, &name); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (Status possible = context.client().can_purge_history(); !possible.ok()) return possible;
  Outcome allowed = context.allow("this removes the former values of " + registry::describe(name) + " for good");
  if (!allowed.ok()) return allowed;
  if (Status purged = context.client().purge_history(name, &removed); !purged.ok()) return purged;
  if (context.json()) {
    context.output().line(done("purge", name).number("removed", removed).str());
  } else {
    note(context.terminal(),
         "tkv: " + counted(removed, "former value") + " of " + registry::describe(name) + " removed");
  }
  return {};
}

constexpr std::array kOperands{one("ACTION", "purge", true, &Arguments::action, Candidates::kHistoryActions),
                               one("KEY", "Full name; it need not exist any more", true, &Arguments::key)};
constexpr std::array kOptions{kNote};

}  // namespace

constinit const Verb kHistoryVerb{
    .name = "history",
    .summary = "Remove the former values of a key from the history",
    .details = R"(tkv history purge KEY removes all former values of the key, and of keys that had
its name before, from the history: for a secret that was written by mistake. The
value of today stays: write another one first, or delete the key. The log keeps
who changed the key and when. Backups and exports are not touched.

purge asks on the terminal; without a terminal it needs --yes. It needs the right
w on the key or, if the key does not exist, all rights on the root. The history
of a registry on etcd is that of etcd: purge refuses, and names the command that
compacts it.
)",
    .examples = R"(  tkv rm app.secret && tkv history purge app.secret
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_history};

}  // namespace tkv::command
