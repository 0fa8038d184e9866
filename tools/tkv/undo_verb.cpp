#include <string>
#include <vector>

#include "change_details.h"
#include "context.h"
#include "json.h"
#include "state_argument.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// What undoing a change would do now. The batch is made only if nothing that it concerns has changed since.
struct UndoPlan {
  Revision revision = 0;
  bool force = false;
  registry::Batch inverse;
  std::vector<ChangeDetails> details;
};

Outcome explained(const Status& status) {
  if (status.is(PRTKV_CONFLICT)) {
    return {Exit::kConflict, "later changes are in the way: " + status.text() + "; --force undoes the change anyhow"};
  }
  if (status.is(PRTKV_INVALID_ARGUMENT)) return {Exit::kNotFound, status.text()};
  return status;
}

// What is read here has not changed since the dry run, if the commit succeeds.
Outcome make_plan(registry::Client& client, UndoPlan* plan) {
  registry::CommitResult result;
  const registry::UndoOptions rehearsal{.force = plan->force, .dry_run = true};
  if (Status planned = client.undo(plan->revision, rehearsal, &plan->inverse, &result); !planned.ok()) {
    return explained(planned);
  }
  return read_details(client, plan->inverse, &plan->details);
}

std::string plan_json(const UndoPlan& plan) {
  return JsonObject().number("undoes", plan.revision).raw("changes", json_lines(details_json(plan.details))).str();
}

Outcome carry_out(Context& context, const UndoPlan& plan) {
  registry::CommitResult result;
  if (Status undone = context.client().commit(plan.inverse, &result); !undone.ok()) {
    const bool overtaken = undone.is(PRTKV_CONFLICT) || undone.is(PRTKV_HAS_SUBKEYS);
    if (!overtaken) return undone;
    return {Exit::kConflict, "what was shown has changed meanwhile, and nothing was done: " + undone.text()};
  }
  if (context.json()) {
    context.output().line(JsonObject()
                              .raw("done", "\"undo\"")
                              .number("undone", plan.revision)
                              .number("revision", result.revision)
                              .raw("changes", json_lines(details_json(plan.details)))
                              .str());
  } else {
    note(context.terminal(),
         "tkv: change " + std::to_string(plan.revision) + " is undone by change " + std::to_string(result.revision));
  }
  return {};
}

Outcome run_undo(Context& context, const Arguments& arguments) {
  UndoPlan plan;
  plan.force = arguments.force;
  if (Outcome parsed = parse_revision("undo", *arguments.revision, &plan.revision); !parsed.ok()) return parsed;
  const std::string change = "change " + std::to_string(plan.revision);
  context.suggest_note("undo of " + change);
  if (Outcome opened = arguments.dry_run ? context.open_to_read() : context.open_to_change(); !opened.ok()) {
    return opened;
  }
  if (Outcome made = make_plan(context.client(), &plan); !made.ok()) return made;
  if (!context.json()) print_details(context, plan.details);
  if (arguments.dry_run) {
    if (context.json()) context.output().line(plan_json(plan));
    return plan.details.empty() ? Outcome() : Outcome(Exit::kOther, "");
  }
  if (plan.details.empty()) {
    note(context.terminal(), "tkv: there is nothing left to undo of " + change);
    if (context.json()) context.output().line(plan_json(plan));
    return {};
  }
  context.output().flush();  // people answer the question with this before their eyes
  if (Outcome allowed = context.allow("this undoes " + change); !allowed.ok()) return allowed;
  return carry_out(context, plan);
}

constexpr std::array kOperands{
    one("REVISION", "The change, as tkv log shows it", true, &Arguments::revision, Candidates::kNone)};
constexpr std::array kOptions{flag("-f,--force", "Undo also what later changes touched", &Arguments::force), kDryRun,
                              kNote};

}  // namespace

constinit const Verb kUndoVerb{
    .name = "undo",
    .summary = "Undo one change",
    .details = R"(Makes the keys that a change touched what they were before it, in one change.
What would be removed (-) and added (+) is printed first; then undo asks on the
terminal. Without a terminal it needs --yes. --dry-run only prints, and exits as
diff does: 1 if there is something to undo.

If later changes touched the same keys, undo refuses (exit code 5). --force
undoes all the same, and what the later changes did to these keys is lost: a key
that the change created is deleted with everything that is below it now. Keys
that were deleted come back as new keys, with their former values and rights.

Needs the rights to read the keys as they were, and those of each change back. A
change whose past is no longer retained cannot be undone (exit code 3). An undo
is a change as well, and can be undone.
)",
    .examples = R"(  tkv undo 40
  tkv undo --dry-run 40
  tkv undo --yes --note 'raised too early' 40
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_undo};

}  // namespace tkv::command
