#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backup_file.h"
#include "characters.h"
#include "context.h"
#include "difference.h"
#include "input.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Difference;
using registry::KeyChange;
using registry::MergeMode;
using registry::Subtree;

// Reads the wanted part of a backup, in the order of names. A backup of a damaged top holds no key.
Outcome read_part(const Terminal& terminal, const std::string& path, const std::optional<std::string>& key,
                  Subtree* part) {
  BackupContents contents;
  std::optional<std::string> top;
  if (path != "-") {
    if (Outcome allowed = demand_own_rights("the file " + path); !allowed.ok()) return allowed;
  }
  if (key) {
    top.emplace();
    if (Outcome named = key_name(*key, &*top); !named.ok()) return named;
  }
  Progress progress(terminal, "read backup");
  std::uint64_t keys = 0;
  Outcome read = read_backup(path, &contents, [&](registry::KeyRecord&& record) {
    progress.show(++keys, 0);
    if (!top || registry::is_within(record.name, *top)) part->keys.push_back(std::move(record));
    return Outcome();
  });
  if (!read.ok()) return read;
  part->top = top.value_or(contents.head.top);
  part->left_out = std::move(contents.left_out);
  const bool may_have_had_top = part->may_have_had(part->top);
  std::erase_if(part->left_out, [&](const std::string& name) { return !registry::is_within(name, part->top); });
  if (contents.totals.keys == 0 && part->top == contents.head.top) return {};
  if (!part->keys.empty() && part->keys.front().name == part->top) return {};
  const char* reason = may_have_had_top ? ", which could not be read when it was written; use an older backup" : "";
  return {Exit::kNotFound, shown_path(path) + " does not contain " + registry::describe(part->top) + reason};
}

// Tells whether the registry holds nothing of what is to be restored, except perhaps a bare root.
bool is_untouched(const Difference& difference, const Subtree& wanted) {
  for (const KeyChange& change : difference.changes) {
    if (change.kind == KeyChange::Kind::kRemove) return false;
    if (change.kind == KeyChange::Kind::kChange && !change.before.name.empty()) return false;
  }
  // Nothing is removed or changed, so each key is either new or the same as in the backup.
  const std::size_t changes = difference.changes.size();
  return wanted.top.empty() ? changes + 1 >= difference.keys : changes == difference.keys;
}

Outcome run_restore(Context& context, const Arguments& arguments) {
  constexpr MergeMode kMode = MergeMode::kReplace;
  Subtree wanted;
  Difference difference;
  if (Outcome read = read_part(context.terminal(), *arguments.file, arguments.key, &wanted); !read.ok()) return read;
  context.suggest_note("restore of " + shown_path(*arguments.file));
  if (Outcome opened = arguments.dry_run ? context.open_to_read() : context.open_or_create(); !opened.ok()) {
    return opened;
  }
  name_left_out(context, "left as it is", wanted);
  if (wanted.keys.empty()) return report_nothing(context, "restore", wanted, arguments.dry_run);
  if (Outcome compared = find_difference(context, wanted, kMode, &difference); !compared.ok()) return compared;
  if (arguments.dry_run) {
    print_difference(context, difference);
    return outcome_of_dry_run(difference);
  }
  if (!arguments.overwrite && !is_untouched(difference, wanted)) {
    return {Exit::kConflict, registry::describe(wanted.top) + " exists; --overwrite replaces it"};
  }
  const std::uint64_t removed = difference.count(KeyChange::Kind::kRemove);
  if (Outcome allowed = context.allow_deleting(removed, "the restore"); !allowed.ok()) return allowed;
  std::uint64_t changes = 0;
  Outcome applied = apply_difference(context, wanted, {kMode, false, difference}, &changes);
  if (applied.ok()) report_changes(context, "restore", wanted, changes);
  return applied;
}

constexpr std::array kOperands{one("FILE", "A backup; - is standard input", true, &Arguments::file, Candidates::kFiles),
                               one("KEY", "Restore only this subtree", false, &Arguments::key)};
constexpr std::array kOptions{flag("--overwrite", "Replace keys that exist", &Arguments::overwrite), kDryRun, kNote};

}  // namespace

constinit const Verb kRestoreVerb{
    .name = "restore",
    .summary = "Restore a backup, or one subtree of it",
    .details = R"(The whole backup is checked before anything is changed, and the change is one
transaction. Keys that exist are refused (exit code 5) unless --overwrite is
given, which leaves exactly what the backup holds. What a backup lacks since it
was damaged (backup --skip-damaged) stays as it is.
)",
    .examples = R"(  tkv restore /mnt/safe/tkv-20240229T120000Z.backup
  tkv restore --overwrite nightly.backup app.nodes
  tkv restore --overwrite --dry-run nightly.backup
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_restore};

}  // namespace tkv::command
