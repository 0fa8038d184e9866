#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "changes.h"
#include "characters.h"
#include "context.h"
#include "entry.h"
#include "json.h"
#include "new_key_security.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Configuration;
using registry::Reader;
using registry::Registry;
using registry::Writer;

// A key of the target while it is not complete: its value says what the migration is from.
constexpr const char* kMarker = "__tkv_migration";

constexpr std::size_t kBatch = 500;  // changes a transaction, where the store takes as many
constexpr int kPasses = 5;           // over a source that others change meanwhile

struct Side {
  std::string place;  // as typed
  std::shared_ptr<Registry> registry;
};

bool is_file(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
}

std::vector<std::string> split_addresses(const std::string& text) {
  std::vector<std::string> addresses;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(',', start);
    addresses.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return addresses;
    start = end + 1;
  }
}

// What a place means: a configuration file, a directory, or addresses of an etcd cluster. The two latter take the rest
// from the configuration in force.
Outcome configure(const std::string& place, Configuration* configuration) {
  if (is_file(place)) {
    registry::Surroundings surroundings = registry::Surroundings::of_process();
    surroundings.variable = [&place, other = surroundings.variable](const char* name) {
      return std::string_view(name) == "TKV_CONF" ? place.c_str() : other(name);
    };
    return Configuration::read(configuration, surroundings);
  }
  if (Status read = Configuration::read(configuration); !read.ok()) return read;
  configuration->location_configured = true;
  if (place.starts_with('/')) {
    configuration->locations = {place};
    return {};
  }
  if (!registry::is_etcd_address(place)) {
    return {Exit::kUsage,
            "'" + place + "' is neither a configuration file, nor an absolute directory, nor etcd://host:port"};
  }
  configuration->locations = split_addresses(place);
  return {};
}

Outcome open_side(const registry::OpenOptions& options, Side* side) {
  Configuration configuration;
  if (Outcome configured = configure(side->place, &configuration); !configured.ok()) return configured;
  Outcome opened = open_registry(std::move(configuration), options, &side->registry);
  return opened.ok() ? opened : Outcome(opened.exit(), side->place + ": " + opened.text());
}

// Whatever path leads there.
bool is_same_place(const Configuration& one, const Configuration& other) {
  std::error_code unknown;
  if (one.is_distributed() != other.is_distributed()) return false;
  if (one.is_distributed()) return one.locations == other.locations && one.etcd_prefix == other.etcd_prefix;
  return std::filesystem::equivalent(one.locations.front(), other.locations.front(), unknown);
}

Outcome read_side(Context& context, const Side& side, const char* doing, Snapshot* snapshot) {
  Progress progress(context.terminal(), doing);
  const Status read = side.registry->read_all([&](Reader& reader) {
    return read_snapshot(reader, "", snapshot, [&](std::uint64_t keys) { progress.show(keys, 0); });
  });
  return read.ok() ? Outcome() : Outcome(read.about(side.place));
}

// The state of a target before the migration goes on.
struct Beginning {
  bool marked = false;
  std::string from;  // by the marker
  std::size_t others = 0;
};

Outcome look(const Side& target, Beginning* found) {
  return target.registry->read([&](Reader& reader) -> Status {
    *found = {};
    Status listed = reader.list("", [&](std::string_view level, const store::Node&) {
      found->marked |= level == kMarker;
      found->others += level == kMarker ? 0 : 1;
      return Status();
    });
    if (!listed.ok() || !found->marked) return listed;
    store::Value value;
    if (Status read = reader.value(kMarker, &value); !read.ok()) return read;
    found->from = exact_text(copied(value)).value_or("");
    return {};
  });
}

Outcome ask_for_replacement(Context& context, const Side& target) {
  std::uint64_t keys = 0;
  if (context.deletes_unasked()) return {};
  if (Outcome counted = count_keys(*target.registry, context.terminal(), "", &keys); !counted.ok()) return counted;
  return context.allow_deleting(keys - 1, "replacing what " + target.place + " holds");  // the root stays
}

// Whether the target may be written to: it is empty, or an unfinished migration from the same place, or it was told.
Outcome demand_target(Context& context, const Side& source, const Side& target, bool overwrite, bool* marked) {
  Beginning found;
  if (Outcome looked = look(target, &found); !looked.ok()) return looked;
  *marked = found.marked && found.from == source.place;
  if (*marked || (!found.marked && found.others == 0)) return {};
  if (overwrite) return ask_for_replacement(context, target);
  if (found.marked) {
    return {Exit::kConflict, target.place + " holds an unfinished migration from " + found.from +
                                 "; --overwrite replaces what is there"};
  }
  return {Exit::kConflict, target.place + " is not empty; --overwrite replaces what is there"};
}

Outcome put_marker(const Side& source, const Side& target) {
  const StoredValue value = text_value(source.place);
  return target.registry->write([&](Writer& writer) -> Status {
    bool exists = false;
    store::NodeId id = store::kNoNode;
    if (Status asked = writer.exists(kMarker, &exists); !asked.ok()) return asked;
    if (exists) return writer.set_value(kMarker, value.type, value.span());
    sec_attr security = NewKeySecurity::of_session(writer.identity());
    security.group_perm = security.other_perm = TKV_RIGHT_READ;
    return writer.create_and_set("", kMarker, security, value.type, value.span(), &id);
  });
}

void drop_marker(Snapshot* snapshot) {
  std::erase_if(snapshot->entries, [](const Entry& entry) { return registry::is_within(entry.name, kMarker); });
}

Status make_change(Writer& writer, const Change& change) {
  const StoredValue& value = change.after.value;
  if (change.kind == Change::Kind::kAdd) {
    store::NodeId id = store::kNoNode;
    return writer.create_and_set("", change.after.name, change.after.security, value.type, value.span(), &id);
  }
  if (change.kind == Change::Kind::kRemove) {
    Status removed = writer.remove(change.before.name, true);
    return removed.is(PRTKV_NO_SUCH_KEY) ? Status() : removed;  // with a key above it
  }
  return change_key(writer, change);
}

// Makes the changes batch by batch: each is a transaction, so that an interruption loses no more than the last.
Outcome make_changes(Context& context, Registry& target, const std::vector<Change>& changes) {
  Progress progress(context.terminal(), "migrate");
  const std::size_t batch = std::clamp<std::size_t>(target.store().handy_changes() / 2, 1, kBatch);
  for (std::size_t done = 0; done < changes.size();) {
    const std::size_t end = std::min(changes.size(), done + batch);
    const Status status = target.write([&](Writer& writer) -> Status {
      for (std::size_t at = done; at < end; ++at) {
        if (Status made = make_change(writer, changes[at]); !made.ok()) return made;
      }
      return {};
    });
    if (!status.ok()) return status;
    done = end;
    progress.show(done, changes.size());
  }
  return {};
}

// One pass: compares both sides entry by entry and brings the target to what the source is now. `*changed` is 0 when
// nothing differed.
Outcome pass(Context& context, const Side& source, const Side& target, std::uint64_t* keys, std::uint64_t* changed) {
  Snapshot wanted;
  Snapshot current;
  Plan plan;
  if (Outcome read = read_side(context, source, "read source", &wanted); !read.ok()) return read;
  if (Outcome read = read_side(context, target, "read target", &current); !read.ok()) return read;
  const std::size_t all = wanted.entries.size();
  drop_marker(&wanted);
  if (wanted.entries.size() != all) {
    return {Exit::kConflict, source.place + " is itself the target of an unfinished migration"};
  }
  drop_marker(&current);
  if (Status planned = make_plan(current, wanted, Manner::kReplace, {}, &plan); !planned.ok()) return planned;
  *keys = all;
  *changed = plan.changes.size();
  return make_changes(context, *target.registry, plan.changes);
}

Outcome run_passes(Context& context, const Side& source, const Side& target, std::uint64_t* keys,
                   std::uint64_t* changes) {
  for (int each = 0; each < kPasses; ++each) {
    std::uint64_t changed = 0;
    if (Outcome passed = pass(context, source, target, keys, &changed); !passed.ok()) return passed;
    *changes += changed;
    if (changed == 0) {
      return target.registry->write([](Writer& writer) { return writer.remove(kMarker, true); });
    }
  }
  return {Exit::kPartly, source.place + " is being changed all the time: the copy is not complete; run this again"};
}

Outcome run_migrate(Context& context, const Arguments& arguments) {
  Side source{*arguments.from, {}};
  Side target{*arguments.to, {}};
  bool marked = false;
  std::uint64_t keys = 0;
  std::uint64_t changes = 0;
  if (source.place == target.place) return {Exit::kUsage, "source and target are the same"};
  if (Outcome opened = open_side({false, true}, &source); !opened.ok()) return opened;
  if (Outcome opened = open_side({true, false}, &target); !opened.ok()) return opened;
  if (is_same_place(source.registry->configuration(), target.registry->configuration())) {
    return {Exit::kUsage, "source and target are the same"};
  }
  if (Outcome fit = demand_target(context, source, target, arguments.overwrite, &marked); !fit.ok()) return fit;
  if (marked) {
    note(context.terminal(), "tkv: going on with the migration that was interrupted");
  } else if (Outcome put = put_marker(source, target); !put.ok()) {
    return put;
  }
  if (Outcome copied = run_passes(context, source, target, &keys, &changes); !copied.ok()) return copied;
  if (context.json()) {
    context.output().line(
        JsonObject().raw("done", "\"migrate\"").number("keys", keys).number("changes", changes).str());
  } else {
    note(context.terminal(), "tkv: migrated " + counted(keys, "key") + " to " + target.place + ", compared one by one");
  }
  return {};
}

constexpr std::array kOperands{one("FROM", "Where the keys are", true, &Arguments::from, Candidates::kFiles),
                               one("TO", "Where to copy them", true, &Arguments::to, Candidates::kFiles)};
constexpr std::array kOptions{flag("--overwrite", "Replace what TO holds, after asking", &Arguments::overwrite)};

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
