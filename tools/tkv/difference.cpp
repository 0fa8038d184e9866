#include "difference.h"

#include <vector>

#include "json.h"
#include "key_maker.h"
#include "registry/name.h"

namespace tkv::command {
namespace {

using registry::Reader;
using registry::Writer;

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

Outcome plan_for(Context& context, const Snapshot& wanted, Manner manner, Plan* plan) {
  Snapshot current;
  Progress progress(context.terminal(), "compare");
  const Status read = context.registry().read_all([&](Reader& reader) {
    return read_snapshot(reader, wanted.top, &current,
                         [&](std::uint64_t keys) { progress.show(keys, wanted.entries.size()); });
  });
  if (!read.ok()) return read;
  return make_plan(current, wanted, manner, NewKeySecurity::of_session(context.registry().identity()), plan);
}

Outcome bring_in(Context& context, const Snapshot& wanted, Manner manner, bool parents, const Plan& expected,
                 std::uint64_t* changes) {
  registry::Registry& registry = context.registry();
  const NewKeySecurity of_session;
  std::size_t all = 0;
  Progress progress(context.terminal(), "write");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, all); };
  return registry.write([&](Writer& writer) -> Status {
    Snapshot current;
    Plan plan;
    writer.follow(show);
    Status read = writer.before([&](Reader& reader) { return read_snapshot(reader, wanted.top, &current); });
    if (!read.ok()) return read;
    const sec_attr fresh = NewKeySecurity::of_session(registry.identity());
    if (Status planned = make_plan(current, wanted, manner, fresh, &plan); !planned.ok()) return planned;
    if (plan.count(Change::Kind::kRemove) > expected.count(Change::Kind::kRemove) ||
        plan.count(Change::Kind::kChange) > expected.count(Change::Kind::kChange)) {
      return {PRTKV_KEY_EXISTS, "others have changed the registry meanwhile; nothing was done"};
    }
    if (parents) {
      if (Status made = KeyMaker(of_session).make_parents(writer, wanted.top); !made.ok()) return made;
    }
    *changes = all = plan.changes.size();
    return apply_plan(writer, plan);
  });
}

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
