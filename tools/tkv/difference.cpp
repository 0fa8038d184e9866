#include "difference.h"

#include <string>
#include <vector>

#include "description.h"
#include "json.h"
#include "new_key_options.h"
#include "registry/name.h"

namespace tkv::command {
namespace {

using registry::Difference;
using registry::KeyChange;
using registry::KeyRecord;
using registry::MergeMode;
using registry::Subtree;

std::string difference_json(const Difference& difference) {
  std::vector<std::string> added;
  std::vector<std::string> changed;
  std::vector<std::string> removed;
  for (const KeyChange& change : difference.changes) {
    if (change.kind == KeyChange::Kind::kAdd) {
      added.push_back(record_line(change.after));
    } else if (change.kind == KeyChange::Kind::kRemove) {
      removed.push_back(record_line(change.before));
    } else {
      changed.push_back(
          JsonObject().raw("before", record_line(change.before)).raw("after", record_line(change.after)).str());
    }
  }
  return JsonObject()
      .raw("added", json_lines(added))
      .raw("changed", json_lines(changed))
      .raw("removed", json_lines(removed))
      .str();
}

void print_line(Context& context, char sign, const KeyRecord& record) {
  const Ink ink = sign == '-' ? Ink::kRemoved : Ink::kAdded;
  const std::string line = sign + for_output(context.terminal(), record_line(record));
  context.output().line(painted(context.terminal(), ink, line));
}

}  // namespace

Outcome find_difference(Context& context, const Subtree& wanted, MergeMode mode, Difference* difference) {
  Progress progress(context.terminal(), "compare");
  registry::Client& client = context.client();
  const auto show = [&](std::uint64_t keys) { progress.show(keys, wanted.keys.size()); };
  return client.compare(wanted, mode, default_security(client.identity()), show, difference);
}

Outcome apply_difference(Context& context, const Subtree& wanted, const ApplyRequest& request, std::uint64_t* changes) {
  Progress progress(context.terminal(), "write");
  registry::Client& client = context.client();
  registry::ApplyOptions options;
  options.mode = request.mode;
  options.create_parents = request.create_parents;
  options.security = default_security(client.identity());
  options.max_removed = request.expected.count(KeyChange::Kind::kRemove);
  options.max_changed = request.expected.count(KeyChange::Kind::kChange);
  Difference applied;
  const auto show = [&](std::uint64_t keys) { progress.show(keys, request.expected.changes.size()); };
  const Status status = client.apply(wanted, options, show, &applied);
  if (status.ok()) *changes = applied.changes.size();
  return status;
}

void print_difference(Context& context, const Difference& difference) {
  if (context.json()) {
    context.output().line(difference_json(difference));
    return;
  }
  for (const KeyChange& change : difference.changes) {
    if (change.kind != KeyChange::Kind::kAdd) print_line(context, '-', change.before);
    if (change.kind != KeyChange::Kind::kRemove) print_line(context, '+', change.after);
  }
}

Outcome outcome_of_dry_run(const Difference& difference) {
  return difference.changes.empty() ? Outcome() : Outcome(Exit::kOther, "");
}

void name_left_out(const Context& context, const char* meaning, const Subtree& saved) {
  for (const std::string& name : saved.left_out) {
    note(context.terminal(), std::string("tkv: ") + meaning + ": " + registry::describe(name) +
                                 ", or subkeys of it, which could not be read when the file was written");
  }
}

void report_changes(Context& context, const char* verb, const Subtree& wanted, std::uint64_t changes) {
  if (context.json()) {
    context.output().line(done(verb, wanted.top).number("keys", wanted.keys.size()).number("changes", changes).str());
    return;
  }
  note(context.terminal(), std::string("tkv: ") + verb + " of " + counted(wanted.keys.size(), "key") + " to " +
                               registry::describe(wanted.top) + ": " + counted(changes, "change"));
}

Outcome report_nothing(Context& context, const char* verb, const Subtree& wanted, bool dry_run) {
  if (dry_run) {
    print_difference(context, {});
  } else {
    report_changes(context, verb, wanted, 0);
  }
  return {};
}

}  // namespace tkv::command
