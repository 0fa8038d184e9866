#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <optional>

#include "backup_file.h"
#include "backup_text.h"
#include "characters.h"
#include "context.h"
#include "difference.h"
#include "input.h"
#include "json.h"
#include "registry/name.h"
#include "verbs.h"

namespace tkv::command {
namespace {

using registry::Reader;

bool is_directory(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

// The first name for this second in a directory that is not taken.
std::string fresh_name(const std::string& directory, std::uint64_t taken) {
  const std::string base = directory + (directory.ends_with('/') ? "" : "/") + "tkv-" + utc(taken, "%Y%m%dT%H%M%SZ");
  struct stat found {};
  for (int number = 1;; ++number) {
    std::string path = base + (number == 1 ? "" : "-" + std::to_string(number)) + ".backup";
    if (::lstat(path.c_str(), &found) != 0) return path;
  }
}

// Where a backup goes: a new file, a directory, or the configured location.
Outcome target_path(const Arguments& arguments, const registry::Configuration& configuration, std::uint64_t taken,
                    std::string* path) {
  *path = arguments.file.value_or(configuration.backup_location);
  if (path->empty()) {
    return {Exit::kUsage, "no backup location is configured: name a file or a directory"};
  }
  if (*path == "-")
    return {Exit::kUsage, "a backup is read again before it counts as made: name a file or a directory"};
  if (is_directory(*path)) {
    *path = fresh_name(*path, taken);
  } else if (!arguments.file || path->ends_with('/')) {
    return {Exit::kNotFound, "the backup location " + *path + " is not a directory"};
  }
  return {};
}

Outcome write_all(Context& context, const std::string& top, BackupWriter* writer) {
  Outcome added;
  Progress progress(context.terminal(), "backup");
  const Status read = context.registry().read_all([&](Reader& reader) {
    return reader.walk(top, registry::Hidden::kFail, [&](const registry::Entry& key) -> Status {
      store::Value value;
      if (Status found = reader.value(key, &value); !found.ok()) return found;
      added = writer->add(copied(key, value));
      progress.show(writer->totals().keys, 0);
      return added.ok() ? Status() : Status(PRTKV_UNKNOWN, added.text());
    });
  });
  return added.ok() ? Outcome(read) : added;
}

Outcome finish(Context& context, BackupWriter* writer) {
  Progress progress(context.terminal(), "check backup");
  const std::uint64_t all = writer->totals().keys;
  return writer->finish([&](std::uint64_t keys) { progress.show(keys, all); });
}

// Reads the wanted part of a backup, in the order of names.
Outcome read_part(const Terminal& terminal, const std::string& path, const std::optional<std::string>& key,
                  Snapshot* part) {
  BackupContents contents;
  std::optional<std::string> top;
  if (key) {
    top.emplace();
    if (Outcome named = key_name(*key, &*top); !named.ok()) return named;
  }
  Progress progress(terminal, "read backup");
  std::uint64_t keys = 0;
  Outcome read = read_backup(path, &contents, [&](Entry&& entry) {
    progress.show(++keys, 0);
    if (!top || registry::is_within(entry.name, *top)) part->entries.push_back(std::move(entry));
    return Outcome();
  });
  if (!read.ok()) return read;
  part->top = top.value_or(contents.head.top);
  if (!part->entries.empty() && part->entries.front().name == part->top) return {};
  return {Exit::kNotFound, shown_path(path) + " holds no " + registry::describe(part->top)};
}

// A registry that holds nothing of what is to come: restoring changes no key but the root's own record.
bool is_untouched(const Plan& plan, const Snapshot& wanted) {
  for (const Change& change : plan.changes) {
    if (change.kind == Change::Kind::kRemove) return false;
    if (change.kind == Change::Kind::kChange && !change.before.name.empty()) return false;
  }
  // Without a removal or a change, what is there is the same as in the backup, or is the bare root.
  return wanted.top.empty() ? plan.changes.size() + 1 >= plan.keys : plan.changes.size() == plan.keys;
}

}  // namespace

Outcome run_backup(Context& context, const Arguments& arguments) {
  BackupHead head;
  BackupWriter writer;
  std::string path;
  head.taken = static_cast<std::uint64_t>(std::time(nullptr));
  if (Outcome named = key_name(arguments.at.value_or("."), &head.top); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Outcome found = target_path(arguments, context.registry().configuration(), head.taken, &path); !found.ok()) {
    return found;
  }
  if (Outcome opened = writer.open(path, head); !opened.ok()) return opened;
  if (Outcome written = write_all(context, head.top, &writer); !written.ok()) return written;
  if (Outcome finished = finish(context, &writer); !finished.ok()) return finished;
  if (context.json()) {
    context.output().line(totals_json(path, writer.totals(), writer.hash()).str());
    return {};
  }
  context.print(path);
  note(context.terminal(), "tkv: backup of " + counted(writer.totals().keys, "key") + ", " +
                               counted(writer.totals().values, "value") + ", checked");
  return {};
}

Outcome run_restore(Context& context, const Arguments& arguments) {
  Snapshot wanted;
  Plan plan;
  if (Outcome read = read_part(context.terminal(), *arguments.file, arguments.key, &wanted); !read.ok()) return read;
  if (Outcome opened = arguments.dry_run ? context.open_to_read() : context.open_or_make(); !opened.ok()) return opened;
  if (Outcome planned = plan_for(context, wanted, Manner::kReplace, &plan); !planned.ok()) return planned;
  if (arguments.dry_run) {
    print_difference(context, plan);
    return {};
  }
  if (!arguments.overwrite && !is_untouched(plan, wanted)) {
    return {Exit::kConflict, registry::describe(wanted.top) + " is there already; --overwrite replaces it"};
  }
  if (Outcome allowed = context.allow_deleting(plan.count(Change::Kind::kRemove), "the restore"); !allowed.ok())
    return allowed;
  std::uint64_t changes = 0;
  Outcome done = bring_in(context, wanted, Manner::kReplace, false, plan, &changes);
  if (done.ok()) report_changes(context, "restore", wanted, changes);
  return done;
}

}  // namespace tkv::command
