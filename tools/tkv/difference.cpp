#include "difference.h"

#include <vector>

#include "json.h"
#include "name.h"

namespace tkv::command {
namespace {

std::string difference_json(const Plan& plan) {
  std::vector<std::string> added;
  std::vector<std::string> changed;
  std::vector<std::string> removed;
  for (const Change& change : plan.changes) {
    if (change.kind == Change::Kind::kAdd) {
      added.push_back(entry_line(change.after));
    } else if (change.kind == Change::Kind::kRemove) {
      removed.push_back(entry_line(change.before));
    } else {
      changed.push_back(
          JsonObject().raw("before", entry_line(change.before)).raw("after", entry_line(change.after)).str());
    }
  }
  return JsonObject()
      .raw("added", json_lines(added))
      .raw("changed", json_lines(changed))
      .raw("removed", json_lines(removed))
      .str();
}

void print_line(Context& context, char sign, const Entry& entry) {
  const Ink ink = sign == '-' ? Ink::kRemoved : Ink::kAdded;
  const std::string line = sign + for_output(context.terminal(), entry_line(entry));
  context.output().line(painted(context.terminal(), ink, line));
}

}  // namespace

void print_difference(Context& context, const Plan& plan) {
  if (context.json()) {
    context.output().line(difference_json(plan));
    return;
  }
  for (const Change& change : plan.changes) {
    if (change.kind != Change::Kind::kAdd) print_line(context, '-', change.before);
    if (change.kind != Change::Kind::kRemove) print_line(context, '+', change.after);
  }
}

void report_changes(Context& context, const char* did, const Snapshot& wanted, std::uint64_t changes) {
  if (context.json()) {
    context.output().line(JsonObject()
                              .raw("done", json_string(did))
                              .text("name", wanted.top)
                              .number("keys", wanted.entries.size())
                              .number("changes", changes)
                              .str());
    return;
  }
  note(context.terminal(), std::string("tkv: ") + did + " of " + counted(wanted.entries.size(), "key") + " to " +
                               registry::describe(wanted.top) + ": " + counted(changes, "change"));
}

}  // namespace tkv::command
