#include <algorithm>
#include <memory>
#include <vector>

#include "characters.h"
#include "context.h"
#include "input.h"
#include "json.h"
#include "place.h"
#include "records.h"
#include "registry/name.h"
#include "registry/open_client.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Difference;
using registry::KeyChange;
using registry::MergeMode;
using registry::Subtree;

constexpr MergeMode kMode = MergeMode::kReplace;

// Earlier versions copied in many changes, and a target held this key until it was complete.
constexpr const char* kMarker = "__tkv_migration";

struct Side {
  std::string place;  // as typed
  std::shared_ptr<registry::Client> client;
};

struct MigrationReport {
  std::uint64_t keys = 0;
  std::uint64_t changes = 0;
};

// Reads the whole source in one state.
Outcome read_source(Context& context, const Side& source, Subtree* wanted) {
  Progress progress(context.terminal(), "read source");
  registry::WalkOptions options;
  options.values = true;
  const Status walked = source.client->walk("", options, [&](const registry::WalkEntry& entry) {
    wanted->keys.push_back(record_of(entry));
    progress.show(wanted->keys.size(), 0);
    return Status();
  });
  if (!walked.ok()) return walked.about(source.place);
  const auto marks = [](const registry::KeyRecord& key) { return key.name == kMarker; };
  if (std::none_of(wanted->keys.begin(), wanted->keys.end(), marks)) return {};
  return {Exit::kConflict, source.place + " is itself the target of an unfinished migration"};
}

// Finds what brings the target to the state that was read from the source.
Outcome compare_target(Context& context, const Side& target, const Subtree& wanted, Difference* difference) {
  Progress progress(context.terminal(), "read target");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, wanted.keys.size()); };
  const Status compared = target.client->compare(wanted, kMode, {}, show, difference);
  return compared.ok() ? Outcome() : Outcome(compared.about(target.place));
}

// Counts the keys besides the root.
Status count_keys_below_root(registry::Client& client, std::uint64_t* keys) {
  *keys = 0;
  return client.list("", false, [&](const registry::Subkey&) {
    ++*keys;
    return Status();
  });
}

// Tells whether the target may be written to: it is empty, or its contents may be replaced.
Outcome demand_target(Context& context, const Side& target, bool overwrite, const Difference& difference) {
  std::uint64_t keys = 0;
  if (Status counted = count_keys_below_root(*target.client, &keys); !counted.ok()) return counted;
  if (keys == 0) return {};
  if (!overwrite) return {Exit::kConflict, target.place + " is not empty; --overwrite replaces what it holds"};
  return context.allow_deleting(difference.count(KeyChange::Kind::kRemove),
                                "replacing what " + target.place + " holds");
}

// Makes the target what was read from the source, in one change. Refuses if others have changed it since it was
// compared.
Outcome replace_target(Context& context, const Side& target, const Subtree& wanted, const Difference& difference) {
  Progress progress(context.terminal(), "migrate");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, difference.changes.size()); };
  registry::ApplyOptions options;
  options.mode = kMode;
  options.max_removed = difference.count(KeyChange::Kind::kRemove);
  options.max_changed = difference.count(KeyChange::Kind::kChange);
  Difference applied;
  const Status status = target.client->apply(wanted, options, show, &applied);
  return status.ok() ? Outcome() : Outcome(status.about(target.place));
}

Outcome copy(Context& context, const Side& source, const Side& target, bool overwrite, MigrationReport* report) {
  Subtree wanted;
  Difference difference;
  if (Outcome read = read_source(context, source, &wanted); !read.ok()) return read;
  if (Outcome compared = compare_target(context, target, wanted, &difference); !compared.ok()) return compared;
  if (Outcome fit = demand_target(context, target, overwrite, difference); !fit.ok()) return fit;
  *report = {wanted.keys.size(), difference.changes.size()};
  if (difference.changes.empty()) return {};
  if (Outcome replaced = replace_target(context, target, wanted, difference); !replaced.ok()) return replaced;
  if (Outcome compared = compare_target(context, target, wanted, &difference); !compared.ok()) return compared;
  if (difference.changes.empty()) return {};
  return {Exit::kPartly, target.place + " was changed by others after the keys were copied to it"};
}

// Copies one state of the source, and says so if the source has a later one by now.
Outcome copy_state(Context& context, const Side& source, const Side& target, bool overwrite, MigrationReport* report) {
  Revision before = 0;
  Revision after = 0;
  if (Status read = source.client->revision(&before); !read.ok()) return read.about(source.place);
  if (Outcome copied = copy(context, source, target, overwrite, report); !copied.ok()) return copied;
  if (Status read = source.client->revision(&after); !read.ok()) return read.about(source.place);
  if (after != before) {
    note(context.terminal(), "tkv: note: " + source.place +
                                 " was changed meanwhile; to copy the changes as well, run "
                                 "this again with --overwrite");
  }
  return {};
}

Outcome open_sides(Context& context, Side* source, Side* target) {
  Outcome same(Exit::kUsage, "source and target are the same");
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
  MigrationReport report;
  if (Outcome allowed = demand_own_rights("migrate"); !allowed.ok()) return allowed;
  if (Outcome opened = open_sides(context, &source, &target); !opened.ok()) return opened;
  if (Outcome copied = copy_state(context, source, target, arguments.overwrite, &report); !copied.ok()) return copied;
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
that belongs to it. All keys of one state of FROM are copied to TO in one change,
and both are then compared key by key. If the command is interrupted while it
copies, TO stays as it was.

A TO that holds keys is refused (exit code 5) unless --overwrite is given. Stop
all programs that write to FROM before the last run: what they write after it
was read is not copied.
)",
    .examples = R"(  tkv migrate /var/lib/tkv etcd://node1:2379,etcd://node2:2379,etcd://node3:2379
  tkv migrate /etc/tkv/tkv.conf /etc/tkv/new.conf
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_migrate};

}  // namespace tkv::command
