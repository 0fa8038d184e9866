#include <sys/stat.h>

#include <ctime>

#include "backup_file.h"
#include "backup_text.h"
#include "context.h"
#include "input.h"
#include "records.h"
#include "sound_walk.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

bool is_directory(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

// The first name for this second that is not taken in a directory.
std::string fresh_name(const std::string& directory, std::uint64_t taken) {
  const std::string base = directory + (directory.ends_with('/') ? "" : "/") + "tkv-" + utc(taken, "%Y%m%dT%H%M%SZ");
  struct stat found {};
  for (int number = 1;; ++number) {
    std::string path = base + (number == 1 ? "" : "-" + std::to_string(number)) + ".backup";
    if (::lstat(path.c_str(), &found) != 0) return path;
  }
}

Outcome missing_directory(const std::string& path, bool is_named) {
  struct stat found {};
  const std::string entry = path.substr(0, path.find_last_not_of('/') + 1);
  if (::lstat(entry.c_str(), &found) != 0) {
    return {Exit::kNotFound, "the backup location " + path + " does not exist; type: mkdir -p '" + path + "'"};
  }
  return {Exit::kNotFound, "the backup location " + path + " is not a directory; " +
                               (is_named ? "name one" : "set `backup_location` to one")};
}

// Finds the path of a backup: the file that was named, or a fresh one in a directory or in the configured location.
Outcome target_path(const Arguments& arguments, const registry::Configuration& configuration, std::uint64_t taken,
                    std::string* path) {
  *path = arguments.file.value_or(configuration.backup_location);
  if (path->empty()) {
    return {Exit::kUsage, "no backup location is configured; name a file or a directory, or set `backup_location`"};
  }
  if (*path == "-") {
    return {Exit::kUsage, "a backup is read back to check it, so it needs a file; name a file or a directory"};
  }
  if (is_directory(*path)) {
    *path = fresh_name(*path, taken);
  } else if (!arguments.file || path->ends_with('/')) {
    return missing_directory(*path, arguments.file.has_value());
  }
  return {};
}

Outcome write_all(Context& context, const std::string& top, bool skip_damaged, SkippedParts* skipped,
                  BackupWriter* writer) {
  Outcome added;
  Progress progress(context.terminal(), "backup");
  const Status walked = walk_sound_keys(context, top, skip_damaged, skipped, [&](const registry::WalkEntry& entry) {
    added = writer->add(record_of(entry));
    progress.show(writer->totals().keys, 0);
    return added.ok() ? Status() : Status(PRTKV_UNKNOWN, added.text());
  });
  if (!added.ok()) return added;
  return walked.ok() ? writer->leave_out(skipped->keys) : Outcome(walked);
}

Outcome finish(Context& context, BackupWriter* writer) {
  Progress progress(context.terminal(), "check backup");
  const std::uint64_t all = writer->totals().keys;
  return writer->finish([&](std::uint64_t keys) { progress.show(keys, all); });
}

// What was written.
struct Backup {
  BackupTotals totals;
  std::string hash;
  SkippedParts skipped;
};

Outcome write_backup(Context& context, const std::string& path, const BackupHead& head, Backup* backup) {
  BackupWriter writer;
  if (Outcome opened = writer.open(path, head); !opened.ok()) return opened;
  Outcome written = write_all(context, head.top, head.may_lack_parts, &backup->skipped, &writer);
  if (!written.ok()) return written;
  if (Outcome finished = finish(context, &writer); !finished.ok()) return finished;
  backup->totals = writer.totals();
  backup->hash = writer.hash();
  return {};
}

Outcome run_backup(Context& context, const Arguments& arguments) {
  BackupHead head;
  Backup backup;
  std::string path;
  head.taken = static_cast<std::uint64_t>(std::time(nullptr));
  if (Outcome named = key_name(arguments.at.value_or("."), &head.top); !named.ok()) return named;
  if (arguments.file) {
    if (Outcome allowed = demand_own_rights("the file " + *arguments.file); !allowed.ok()) return allowed;
  }
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Outcome found = target_path(arguments, context.client().configuration(), head.taken, &path); !found.ok()) {
    return found;
  }
  Outcome written = write_backup(context, path, head, &backup);
  // Former releases cannot read a backup that lacks parts, so a registry without damage is backed up without allowing
  // for them.
  if (arguments.skip_damaged && written.exit() == Exit::kDamaged) {
    head.may_lack_parts = true;
    written = write_backup(context, path, head, &backup);
  }
  if (!written.ok()) return written;
  if (context.json()) {
    context.output().line(totals_json(path, backup.totals, backup.hash).str());
    return backup.skipped.outcome("backup");
  }
  context.print(path);
  note(context.terminal(), "tkv: backup of " + counted(backup.totals.keys, "key") + ", " +
                               counted(backup.totals.values, "value") + ", checked");
  return backup.skipped.outcome("backup");
}

constexpr std::array kOperands{one("TO", "A new file, or a directory; default: the configured backup location", false,
                                   &Arguments::file, Candidates::kFiles)};
constexpr std::array kOptions{valued("--key", "KEY", "Back up only this subtree", &Arguments::at, Candidates::kKeys),
                              kSkipDamaged};

}  // namespace

constinit const Verb kBackupVerb{
    .name = "backup",
    .summary = "Write the registry to a backup file",
    .details = R"(The backup shows one state of the registry, whatever is written meanwhile. The
file appears whole or not at all: it is made durable, opened again, checked and
counted before success is reported and its name printed. A file that exists is
not touched (exit code 5). Needs the rights r and l on every key.

A damaged key is an error (exit code 8). --skip-damaged leaves damage out, names
it, and exits with 9: a key that cannot be read is missing with its subkeys, one
whose value cannot be read has no value. The backup names what it lacks, which a
restore leaves as it is. If the top itself cannot be read, the backup holds no
key, and restoring it changes nothing.
)",
    .examples = R"(  tkv backup
  tkv backup /mnt/safe/
  tkv backup --key app app.backup
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_backup};

}  // namespace tkv::command
