#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "backup_text.h"
#include "base/function_ref.h"
#include "characters.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "registry/configuration.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

struct LastBackup {
  std::string path;
  std::uint64_t written = 0;  // seconds since 1970
};

struct StatusReport {
  registry::Configuration configuration;
  registry::RegistryStatus registry;
  std::optional<registry::CheckResult> checked;
  std::optional<LastBackup> last_backup;
  Outcome serving;  // why the registry serves no requests
};

// The newest backup in the configured location. Backups that were written elsewhere are not known.
std::optional<LastBackup> find_last_backup(const std::string& directory) {
  std::optional<LastBackup> newest;
  std::error_code failed;
  if (directory.empty()) return newest;
  std::filesystem::directory_iterator entry(directory, failed);
  for (; !failed && entry != std::filesystem::directory_iterator(); entry.increment(failed)) {
    struct stat found {};
    const std::string path = entry->path();
    if (!path.ends_with(".backup") || ::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) continue;
    const auto written = static_cast<std::uint64_t>(found.st_mtime);
    if (!newest || written > newest->written) newest = LastBackup{path, written};
  }
  return newest;
}

// Counts keys and damage. Whoever may not read the whole registry gets no counts.
Outcome count(Context& context, StatusReport* report) {
  Progress progress(context.terminal(), "status");
  registry::CheckResult result;
  const auto show = [&](const registry::CheckStep& step) { progress.show(step.done, step.total, step.reading); };
  const Status checked = context.client().check(false, show, &result);
  if (checked.is(PRTKV_ACCESS_DENIED)) return {};
  if (!checked.ok()) return checked;
  report->checked = std::move(result);
  return {};
}

Outcome ask(Context& context, bool quick, StatusReport* report) {
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Status asked = context.client().status(&report->registry); !asked.ok()) return asked;
  return quick ? Outcome() : count(context, report);
}

std::string size_text(const registry::RegistryStatus& registry) {
  std::string text = counted(registry.bytes, "byte");
  if (registry.max_bytes != 0) text += " of " + std::to_string(registry.max_bytes);
  if (registry.cluster) text += ", " + std::to_string(registry.cluster->bytes_in_use) + " in use";
  return text;
}

// The configured value of a setting or, if none is configured, the default.
std::string setting_of(const registry::Configuration& configuration, std::string_view name) {
  for (const registry::Setting& setting : configuration.settings) {
    if (setting.name == name) return setting.value;
  }
  return "";
}

bool keeps_history(const StatusReport& report) { return report.registry.log_after < report.registry.revision; }

void print_history(const StatusReport& report, FunctionRef<void(const char* label, const std::string& text)> row) {
  const registry::RegistryStatus& registry = report.registry;
  row("last change", std::to_string(registry.revision));
  row("history", keeps_history(report) ? "states from " + std::to_string(registry.oldest_state) +
                                             " on, changes after " + std::to_string(registry.log_after)
                                       : "none");
  if (registry.cluster) return;
  const auto limit = [&](const char* name) { return setting_of(report.configuration, name); };
  row("history size", counted(registry.history_bytes, "byte") + "; the limits are " + limit("history.size") + ", " +
                          limit("history.changes") + " changes, " + limit("history.age"));
}

std::string history_json(const StatusReport& report) {
  const registry::RegistryStatus& registry = report.registry;
  JsonObject object;
  object.number("last_change", registry.revision)
      .number("oldest_state", registry.oldest_state)
      .number("log_after", registry.log_after);
  if (registry.cluster) return object.str();
  const auto limit = [&](const char* name) { return setting_of(report.configuration, name); };
  return object.number("bytes", registry.history_bytes)
      .utf8("max_size", limit("history.size"))
      .utf8("max_changes", limit("history.changes"))
      .utf8("max_age", limit("history.age"))
      .str();
}

std::string reader_text(const LongReader& reader) {
  std::string text = "process " + std::to_string(reader.process);
  if (!reader.command.empty()) text += " (" + utf8_for_people(reader.command) + ")";
  return text + " has read one state for " + counted(reader.seconds / 60, "minute") + " and keeps " +
         counted(reader.held_bytes, "byte") + " from being used again";
}

std::string reader_json(const LongReader& reader) {
  return JsonObject()
      .number("process", static_cast<std::uint64_t>(reader.process))
      .utf8("command", utf8_for_people(reader.command))
      .number("seconds", reader.seconds)
      .number("held_bytes", reader.held_bytes)
      .str();
}

// "alpha leads, 10.0.0.1:2379, release 3.4.23, 20480 bytes".
std::string member_text(const ClusterMember& member) {
  std::string text = member.name.empty() ? "" : member.name + " ";
  text += member.leads ? "leads, " : "";
  text += member.address;
  if (!member.problem.empty()) return text + ", " + member.problem;
  return text + ", release " + member.version + ", " + counted(member.bytes, "byte");
}

std::string member_json(const ClusterMember& member) {
  JsonObject object;
  if (!member.name.empty()) object.utf8("name", member.name);
  object.utf8("address", member.address).flag("leads", member.leads).flag("answers", member.problem.empty());
  if (!member.problem.empty()) return object.utf8("problem", member.problem).str();
  return object.utf8("version", member.version).number("bytes", member.bytes).str();
}

std::string builds_text(const ClusterStatus& cluster) {
  std::string text = std::to_string(cluster.builds);
  if (cluster.dead_builds != 0) text += ", " + std::to_string(cluster.dead_builds) + " of ended sessions";
  return text;
}

void print_cluster(const ClusterStatus& cluster, FunctionRef<void(const char* label, const std::string& text)> row) {
  for (const ClusterMember& member : cluster.members) row("member", utf8_for_people(member_text(member)));
  if (cluster.alarms.empty()) row("alarm", "none");
  for (const ClusterAlarm& raised : cluster.alarms) {
    row("alarm", utf8_for_people(raised.member + ": " + raised.alarm));
  }
  row("revision", std::to_string(cluster.revision));
  row("claims", std::to_string(cluster.claims));
  row("builds", builds_text(cluster));
  row("garbage", std::to_string(cluster.garbage));
  row("retries", std::to_string(cluster.retries));
}

std::string cluster_json(const ClusterStatus& cluster) {
  std::vector<std::string> members;
  std::vector<std::string> alarms;
  for (const ClusterMember& member : cluster.members) members.push_back(member_json(member));
  for (const ClusterAlarm& raised : cluster.alarms) {
    alarms.push_back(JsonObject().utf8("member", raised.member).utf8("alarm", raised.alarm).str());
  }
  return JsonObject()
      .raw("members", json_array(members))
      .raw("alarms", json_array(alarms))
      .number("revision", cluster.revision)
      .number("bytes_in_use", cluster.bytes_in_use)
      .number("claims", cluster.claims)
      .number("builds", cluster.builds)
      .number("dead_builds", cluster.dead_builds)
      .number("garbage", cluster.garbage)
      .number("retries", cluster.retries)
      .str();
}

void print_report(Context& context, const StatusReport& report) {
  const auto row = [&](const char* label, const std::string& text) { context.print(padded(label, 13) + text); };
  for (const std::string& location : report.configuration.locations) row("location", location);
  row("store", report.configuration.store());
  row("serving", report.serving.ok() ? "yes" : "no");
  if (report.registry.bytes != 0) row("size", size_text(report.registry));
  if (report.registry.cluster) print_cluster(*report.registry.cluster, row);
  if (report.registry.max_readers != 0) {
    row("readers", std::to_string(report.registry.readers) + " of " + std::to_string(report.registry.max_readers));
  }
  for (const LongReader& reader : report.registry.long_readers) row("long reader", reader_text(reader));
  if (!report.registry.store.empty()) print_history(report, row);
  if (report.checked) {
    row("keys", std::to_string(report.checked->keys));
    row("values", std::to_string(report.checked->values));
    row("value bytes", std::to_string(report.checked->value_bytes));
    row("damage", report.checked->damages.empty() ? "none" : std::to_string(report.checked->damages.size()));
  }
  if (report.last_backup) {
    row("last backup", utc(report.last_backup->written, "%Y-%m-%d %H:%M:%S UTC") + "  " + report.last_backup->path);
  } else {
    row("last backup", report.configuration.backup_location.empty()
                           ? "unknown: no backup location is configured; set `backup_location`"
                           : "none");
  }
}

std::string report_json(const StatusReport& report) {
  std::vector<std::string> locations;
  for (const std::string& location : report.configuration.locations) locations.push_back(json_utf8(location));
  JsonObject object;
  object.raw("store", json_string(report.configuration.store()))
      .raw("locations", json_array(locations))
      .flag("serving", report.serving.ok());
  if (!report.serving.ok()) object.utf8("reason", report.serving.text());
  if (report.registry.bytes != 0) object.number("bytes", report.registry.bytes);
  if (report.registry.max_bytes != 0) object.number("max_bytes", report.registry.max_bytes);
  if (report.registry.max_readers != 0) {
    object.number("readers", report.registry.readers).number("max_readers", report.registry.max_readers);
  }
  if (!report.registry.long_readers.empty()) {
    std::vector<std::string> readers;
    for (const LongReader& reader : report.registry.long_readers) readers.push_back(reader_json(reader));
    object.raw("long_readers", json_array(readers));
  }
  if (report.registry.cluster) object.raw("cluster", cluster_json(*report.registry.cluster));
  if (!report.registry.store.empty()) object.raw("history", history_json(report));
  if (report.checked) {
    object.number("keys", report.checked->keys)
        .number("values", report.checked->values)
        .number("value_bytes", report.checked->value_bytes)
        .number("damages", report.checked->damages.size());
  }
  if (report.last_backup) {
    object.raw(
        "last_backup",
        JsonObject().utf8("file", report.last_backup->path).number("written", report.last_backup->written).str());
  }
  return object.str();
}

Outcome run_status(Context& context, const Arguments& arguments) {
  StatusReport report;
  if (Status read = registry::Configuration::read(&report.configuration); !read.ok()) return read;
  report.serving = ask(context, arguments.quick, &report);
  report.last_backup = find_last_backup(report.configuration.backup_location);
  if (context.json()) {
    context.output().line(report_json(report));
  } else {
    print_report(context, report);
  }
  if (!report.serving.ok() || !report.checked || report.checked->damages.empty()) return report.serving;
  return {Exit::kDamaged, "the registry is damaged; tkv verify names the damage"};
}

constexpr std::array kOptions{flag("--quick", "Do not read all keys to count them", &Arguments::quick)};

}  // namespace

constinit const Verb kStatusVerb{
    .name = "status",
    .summary = "Show whether the registry works, and its size",
    .details = R"(Opens the registry, reads from it, and shows what it found: store, size, open
readers, numbers of keys and values, damage, and the newest backup in the
configured backup location. A process that has read one state of an embedded
registry for minutes is named: until it ends, the file grows with each write.
The exit code is 0 only if the registry serves requests and no damage was found.

Of a registry on etcd it also shows the cluster: each member, or why it does not
answer; the alarms; the size of the largest database, and the quota if etcd
tells it (from release 3.6 on); and what sessions have under way or have left:
large changes (claims), unfinished changes (builds), and deleted keys that are
still to be removed (garbage). A member that does not answer and an alarm do not
change the exit code as long as the registry serves requests.

The history is what can be read of the past: the former states from the oldest
one on, and the log of the changes after the one that is shown. That of an
embedded registry takes as much of the registry's size as is shown, and is kept
within the configured limits; that of a registry on etcd reaches back to etcd's
last compaction.

Counting reads every record, like verify, and needs the rights r and l on the
root; without them the counts are left out. --quick does not count.
)",
    .examples = R"(  tkv status
  tkv status --quick -q > /dev/null || echo "the registry is out of order"
)",
    .operands = {},
    .options = kOptions,
    .run = run_status};

}  // namespace tkv::command
