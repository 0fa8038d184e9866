#include <optional>

#include "backup_file.h"
#include "characters.h"
#include "context.h"
#include "difference.h"
#include "input.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

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

constexpr std::array kOperands{one("FILE", "A backup; - is standard input", true, &Arguments::file, Candidates::kFiles),
                               one("KEY", "Restore only this subtree", false, &Arguments::key)};
constexpr std::array kOptions{flag("--overwrite", "Replace keys that exist", &Arguments::overwrite), kDryRun};

}  // namespace

constinit const Verb kRestoreVerb{
    .name = "restore",
    .summary = "Restore a backup, or one subtree of it",
    .details = R"(The whole backup is checked before anything is changed, and the change is one
transaction. Keys that exist are refused (exit code 5) unless --overwrite is
given, which leaves exactly what the backup holds.
)",
    .examples = R"(  tkv restore /mnt/safe/tkv-20240229T120000Z.backup
  tkv restore --overwrite nightly.backup app.nodes
  tkv restore --overwrite --dry-run nightly.backup
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_restore};

}  // namespace tkv::command
