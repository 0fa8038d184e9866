#include <algorithm>
#include <memory>
#include <span>
#include <vector>

#include "characters.h"
#include "context.h"
#include "input.h"
#include "json.h"
#include "new_key_options.h"
#include "place.h"
#include "records.h"
#include "registry/name.h"
#include "registry/open_client.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Subtree;

// The key that marks a target as incomplete. Its value names the source.
constexpr const char* kMarker = "__tkv_migration";

// In a transaction: single changes and whole subtrees, and the keys and bytes of a subtree that is added.
constexpr std::size_t kMaxSteps = 500;
constexpr std::size_t kMaxKeys = 50000;
constexpr std::size_t kMaxBytes = std::size_t{64} << 20;
constexpr int kMaxPasses = 5;  // over a source that others keep changing

struct Side {
  std::string place;  // as typed
  std::shared_ptr<registry::Client> client;
};

struct MigrationReport {
  std::uint64_t keys = 0;
  std::uint64_t changes = 0;
};

Outcome read_side(Context& context, const Side& side, const char* label, Subtree* subtree) {
  Progress progress(context.terminal(), label);
  registry::WalkOptions options;
  options.values = true;
  subtree->keys.clear();
  const Status walked = side.client->walk("", options, [&](const registry::WalkEntry& entry) {
    subtree->keys.push_back(record_of(entry));
    progress.show(subtree->keys.size(), 0);
    return Status();
  });
  return walked.ok() ? Outcome() : Outcome(walked.about(side.place));
}

// What a target holds before the migration begins or goes on.
struct TargetState {
  bool marked = false;
  std::string from;  // by the marker
  std::size_t other_keys = 0;
};

Status inspect(registry::Client& target, TargetState* state) {
  Status listed = target.list("", false, [&](const registry::Subkey& subkey) {
    state->marked |= subkey.level == kMarker;
    state->other_keys += subkey.level == kMarker ? 0 : 1;
    return Status();
  });
  if (!listed.ok() || !state->marked) return listed;
  registry::TypedValue value;
  if (Status read = target.read_value(kMarker, &value); !read.ok()) return read;
  state->from = exact_text(value).value_or("");
  return {};
}

Outcome ask_for_replacement(Context& context, const Side& target) {
  std::uint64_t keys = 0;
  if (context.deletes_unasked()) return {};
  if (Outcome counted = count_keys(*target.client, context.terminal(), "", &keys); !counted.ok()) return counted;
  return context.allow_deleting(keys - 1, "replacing what " + target.place + " holds");  // the root stays
}

// Tells whether the target may be written to: it is empty, or holds an unfinished migration from the same source, or
// its contents may be replaced.
Outcome demand_target(Context& context, const Side& source, const Side& target, bool overwrite, bool* resumed) {
  TargetState state;
  if (Outcome inspected = inspect(*target.client, &state); !inspected.ok()) return inspected;
  *resumed = state.marked && state.from == source.place;
  if (*resumed || (!state.marked && state.other_keys == 0)) return {};
  if (overwrite) return ask_for_replacement(context, target);
  if (state.marked) {
    return {Exit::kConflict, target.place + " holds an unfinished migration from " + state.from +
                                 "; --overwrite replaces what it holds"};
  }
  return {Exit::kConflict, target.place + " is not empty; --overwrite replaces what it holds"};
}

Outcome put_marker(const Side& source, const Side& target) {
  const registry::NamedValue marker{kMarker, text_value(source.place)};
  registry::PutOptions options;
  options.security = default_security(target.client->identity());
  options.security.initial.group_perm = options.security.initial.other_perm = TKV_RIGHT_READ;
  return target.client->put(std::span(&marker, 1), options);
}

bool is_marker(const std::string& name) { return registry::is_within(name, kMarker); }

using Changes = std::span<const registry::KeyChange>;

// The size of the step that the changes begin with: a subtree that is removed, one that is added and not too large, or
// one key.
std::size_t size_of_step(Changes changes) {
  const registry::KeyChange& top = changes.front();
  if (top.kind == registry::KeyChange::Kind::kChange) return 1;
  std::size_t size = 0;
  std::size_t bytes = 0;
  for (; size < changes.size(); ++size) {
    const registry::KeyChange& each = changes[size];
    if (each.kind != top.kind || !registry::is_within(each.name(), top.name())) break;
    bytes += each.after.value.bytes.size();
  }
  const bool too_large = size > kMaxKeys || bytes > kMaxBytes;
  return top.kind == registry::KeyChange::Kind::kAdd && too_large ? 1 : size;
}

// The size of the next transaction. Its steps together are no larger than one step may be, unless there is only one.
std::size_t size_of_batch(Changes changes, std::size_t most_steps) {
  std::size_t size = 0;
  for (std::size_t steps = 0; steps < most_steps && size < changes.size(); ++steps) {
    const std::size_t step = size_of_step(changes.subspan(size));
    if (steps > 0 && size + step > kMaxKeys) break;
    size += step;
  }
  return size;
}

// Applies the changes in batches, each of them a transaction, so that an interruption loses no more than the last.
Outcome apply_in_batches(Context& context, registry::Client& target, std::span<const registry::KeyChange> changes) {
  Progress progress(context.terminal(), "migrate");
  const std::size_t most_steps = std::clamp<std::size_t>(target.preferred_batch_size() / 2, 1, kMaxSteps);
  for (std::size_t done = 0; done < changes.size();) {
    const std::size_t size = size_of_batch(changes.subspan(done), most_steps);
    if (Status applied = target.apply_changes(changes.subspan(done, size)); !applied.ok()) return applied;
    done += size;
    progress.show(done, changes.size());
  }
  return {};
}

// Finds what brings the target to the present state of the source.
Outcome compare_sides(Context& context, const Side& source, const Side& target, Subtree* wanted,
                      registry::Difference* difference) {
  if (Outcome read = read_side(context, source, "read source", wanted); !read.ok()) return read;
  const auto marks = [](const registry::KeyRecord& key) { return is_marker(key.name); };
  if (std::any_of(wanted->keys.begin(), wanted->keys.end(), marks)) {
    return {Exit::kConflict, source.place + " is itself the target of an unfinished migration"};
  }
  Progress progress(context.terminal(), "read target");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, wanted->keys.size()); };
  const Status compared = target.client->compare(*wanted, registry::MergeMode::kReplace, {}, show, difference);
  if (!compared.ok()) return compared.about(target.place);
  std::erase_if(difference->changes, [](const registry::KeyChange& change) { return is_marker(change.name()); });
  return {};
}

// Compares both sides and copies what differs, until nothing does.
Outcome copy_until_same(Context& context, const Side& source, const Side& target, MigrationReport* report) {
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    Subtree wanted;
    registry::Difference difference;
    if (Outcome compared = compare_sides(context, source, target, &wanted, &difference); !compared.ok()) {
      return compared;
    }
    report->keys = wanted.keys.size();
    report->changes += difference.changes.size();
    if (difference.changes.empty()) return target.client->remove(kMarker, true, [](std::uint64_t) {});
    if (Outcome applied = apply_in_batches(context, *target.client, difference.changes); !applied.ok()) return applied;
  }
  return {Exit::kPartly, source.place + " keeps changing, so the copy is not complete; run this again"};
}

Outcome open_sides(Context& context, Side* source, Side* target) {
  const Outcome same(Exit::kUsage, "source and target are the same");
  if (source->place == target->place) return same;
  if (Outcome opened = open_place(source->place, {false, true}, &source->client); !opened.ok()) return opened;
  registry::OpenOptions options;
  context.suggest_note("migration from " + source->place);
  if (Outcome found = context.find_note(&options.note); !found.ok()) return found;
  if (Outcome opened = open_place(target->place, options, &target->client); !opened.ok()) return opened;
  return registry::same_place(source->client->configuration(), target->client->configuration()) ? same : Outcome();
}

Outcome run_migrate(Context& context, const Arguments& arguments) {
  Side source{*arguments.from, {}};
  Side target{*arguments.to, {}};
  bool resumed = false;
  MigrationReport report;
  if (Outcome allowed = demand_own_rights("migrate"); !allowed.ok()) return allowed;
  if (Outcome opened = open_sides(context, &source, &target); !opened.ok()) return opened;
  if (Outcome fit = demand_target(context, source, target, arguments.overwrite, &resumed); !fit.ok()) return fit;
  if (resumed) {
    note(context.terminal(), "tkv: resuming the interrupted migration");
  } else if (Outcome marked = put_marker(source, target); !marked.ok()) {
    return marked;
  }
  if (Outcome copied = copy_until_same(context, source, target, &report); !copied.ok()) return copied;
  if (context.json()) {
    context.output().line(
        JsonObject().raw("done", "\"migrate\"").number("keys", report.keys).number("changes", report.changes).str());
  } else {
    note(context.terminal(),
         "tkv: migrated " + counted(report.keys, "key") + " to " + target.place + " and compared them one by one");
  }
  return {};
}

constexpr std::array kOperands{one("FROM", "Where the keys are", true, &Arguments::from, Candidates::kFiles),
                               one("TO", "Where to copy them", true, &Arguments::to, Candidates::kFiles)};
constexpr std::array kOptions{flag("--overwrite", "Replace what TO holds, after asking", &Arguments::overwrite), kNote};

}  // namespace

constinit const Verb kMigrateVerb{
    .name = "migrate",
    .summary = "Copy a registry from one store to another",
    .details = R"(FROM and TO are each a directory, an etcd cluster (etcd://host:port, several
separated by commas), or a configuration file that names the location and all
that belongs to it. The keys are copied, then both sides are compared key by
key; if FROM was changed meanwhile, this is repeated.

While the copy is incomplete, TO holds the key __tkv_migration. After an
interruption, run the same command again. A TO that holds other keys is refused
(exit code 5) unless --overwrite is given. Stop all programs that write to FROM
before the last run: what they write after it is not copied.
)",
    .examples = R"(  tkv migrate /var/lib/tkv etcd://node1:2379,etcd://node2:2379,etcd://node3:2379
  tkv migrate /etc/tkv/tkv.conf /etc/tkv/new.conf
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_migrate};

}  // namespace tkv::command
