#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "context.h"
#include "description.h"
#include "difference.h"
#include "edited_file.h"
#include "input.h"
#include "json.h"
#include "new_key_options.h"
#include "records.h"
#include "registry/access.h"
#include "registry/difference.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Batch;
using registry::Condition;
using registry::Difference;
using registry::KeyChange;
using registry::KeyRecord;
using registry::Operation;
using registry::Subtree;

// Which key was read, and in which version.
struct Version {
  registry::KeyId id = registry::kAnyKey;
  Revision revision = 0;

  bool operator==(const Version&) const = default;
};

struct ReadSubtree {
  Subtree subtree;
  std::vector<Version> versions;  // of the keys of the subtree

  const Version* find(const std::string& name) const {
    const auto before = [](const KeyRecord& key, std::string_view wanted) {
      return registry::name_before(key.name, wanted);
    };
    const auto found = std::lower_bound(subtree.keys.begin(), subtree.keys.end(), name, before);
    if (found == subtree.keys.end() || found->name != name) return nullptr;
    return &versions[static_cast<std::size_t>(found - subtree.keys.begin())];
  }
};

Status read_subtree(Context& context, const std::string& top, ReadSubtree* read) {
  Progress progress(context.terminal(), "read");
  registry::WalkOptions options;
  options.values = true;
  *read = {};
  read->subtree.top = top;
  return context.client().walk(top, options, [&](const registry::WalkEntry& entry) {
    read->subtree.keys.push_back(record_of(entry));
    read->versions.push_back({entry.id, entry.revision});
    progress.show(read->versions.size(), 0);
    return Status();
  });
}

std::string export_of(const Subtree& subtree) {
  std::string text = export_head(subtree.top);
  for (const KeyRecord& key : subtree.keys) {
    if (&key != &subtree.keys.front()) text += ",\n";
    text += record_line(key);
  }
  return text + export_tail();
}

Outcome parse_edited(const std::string& text, const std::string& top, Subtree* wanted) {
  const auto show_nothing = [](std::uint64_t) {};
  if (Outcome parsed = parse_export(text, show_nothing, wanted); !parsed.ok()) return parsed;
  if (wanted->top != top) return {Exit::kUsage, "the top of the text must stay " + registry::describe(top)};
  if (wanted->keys.empty()) return {Exit::kUsage, "the text must hold at least the top, " + registry::describe(top)};
  return {};
}

// Lets the person edit the text until it is an export or the person gives up. `*changed` tells whether the text is
// another one than before.
Outcome let_edit(Context& context, const std::string& before, const std::string& top, EditedFile* file, Subtree* wanted,
                 bool* changed) {
  for (;;) {
    std::string text;
    Outcome edited = file->edit();
    if (Outcome read = file->read(&text); !read.ok()) return edited.ok() ? read : edited;
    *changed = text != before;
    if (!edited.ok() || !*changed) return edited;
    Outcome parsed = parse_edited(text, top, wanted);
    if (parsed.ok() || !context.terminal().input || !context.terminal().messages) return parsed;
    context.complain(parsed);
    if (!confirm(context.terminal(), "Edit the text again?")) return {parsed.exit(), "nothing was done"};
  }
}

// Conditions: each key that is touched is still as it was read, and those that are added are still missing, below
// parents that are still there.
void add_conditions(const KeyChange& change, const ReadSubtree& before, Batch* batch) {
  if (change.kind != KeyChange::Kind::kAdd) {
    const Version& version = *before.find(change.before.name);
    batch->conditions.push_back({.kind = Condition::Kind::kRevision,
                                 .name = change.before.name,
                                 .revision = version.revision,
                                 .id = version.id});
    return;
  }
  const std::string parent(registry::parent_of(change.after.name));
  batch->conditions.push_back({.kind = Condition::Kind::kAbsent, .name = change.after.name});
  if (const Version* version = before.find(parent); version != nullptr) {
    batch->conditions.push_back({.kind = Condition::Kind::kExists, .name = parent, .id = version->id});
  }
}

// Keys are removed from below, and one by one: a subkey that somebody has created meanwhile is not removed with them.
// Security is changed last, since the new rights may take away the right to do the rest.
Batch batch_of(const Difference& difference, const ReadSubtree& before) {
  Batch batch;
  std::vector<Operation> security;
  for (const KeyChange& change : difference.changes) add_conditions(change, before, &batch);
  for (auto change = difference.changes.rbegin(); change != difference.changes.rend(); ++change) {
    if (change->kind != KeyChange::Kind::kRemove) continue;
    batch.operations.push_back({.kind = Operation::Kind::kRemove, .name = change->before.name});
  }
  for (const auto& [kind, former, after] : difference.changes) {
    if (kind == KeyChange::Kind::kRemove) continue;
    const bool is_new = kind == KeyChange::Kind::kAdd;
    if (is_new) {
      batch.operations.push_back(
          {.kind = Operation::Kind::kCreate, .name = after.name, .value = after.value, .security = after.security});
    } else if (former.value != after.value) {
      batch.operations.push_back({.kind = Operation::Kind::kPut, .name = after.name, .value = after.value});
    }
    if (is_new || registry::same_security(former.security, after.security)) continue;
    security.push_back({.kind = Operation::Kind::kSecurity, .name = after.name, .security = after.security});
  }
  batch.operations.insert(batch.operations.end(), security.begin(), security.end());
  return batch;
}

// Refuses if anything in the subtree is no longer as it was read. What is changed after this look is found by the
// conditions of the batch, as far as the batch touches it.
Outcome demand_unchanged(Context& context, const ReadSubtree& before) {
  ReadSubtree now;
  const std::string& top = before.subtree.top;
  Outcome changed(Exit::kConflict, registry::describe(top) + " or a key below it was changed meanwhile");
  const Status read = read_subtree(context, top, &now);
  if (read.is(PRTKV_NO_SUCH_KEY)) return changed;
  if (!read.ok()) return read;
  if (now.versions != before.versions) return changed;
  for (std::size_t at = 0; at < now.versions.size(); ++at) {
    if (now.subtree.keys[at].name != before.subtree.keys[at].name) return changed;
  }
  return {};
}

Outcome apply_edit(Context& context, const ReadSubtree& before, const Subtree& wanted, std::uint64_t* changes) {
  Difference difference;
  registry::CommitResult result;
  const registry::NewKeySecurity rules = default_security(context.client().identity());
  const Status compared = registry::find_difference(before.subtree, wanted, registry::MergeMode::kReplace, rules,
                                                    rules.initial, &difference);
  if (!compared.ok()) return compared;
  *changes = difference.changes.size();
  if (difference.changes.empty()) return {};
  const std::uint64_t removed = difference.count(KeyChange::Kind::kRemove);
  if (Outcome allowed = context.allow_deleting(removed, "the edit"); !allowed.ok()) return allowed;
  if (Outcome same = demand_unchanged(context, before); !same.ok()) return same;
  return context.client().commit(batch_of(difference, before), &result);
}

void report(Context& context, const std::string& top, std::uint64_t changes) {
  if (context.json()) {
    context.output().line(done("edit", top).number("changes", changes).str());
  } else {
    const std::string what = changes == 0 ? "nothing was changed" : counted(changes, "change");
    note(context.terminal(), "tkv: edit of " + registry::describe(top) + ": " + what);
  }
}

Outcome run_edit(Context& context, const Arguments& arguments) {
  std::string top;
  ReadSubtree before;
  Subtree wanted;
  EditedFile file;
  bool changed = false;
  std::uint64_t changes = 0;
  if (Outcome named = key_name(*arguments.key, &top); !named.ok()) return named;
  if (Outcome allowed = demand_own_rights("edit"); !allowed.ok()) return allowed;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (Status read = read_subtree(context, top, &before); !read.ok()) return read;
  const std::string text = export_of(before.subtree);
  if (Outcome created = file.create(text); !created.ok()) return created;
  Outcome edited = let_edit(context, text, top, &file, &wanted, &changed);
  if (edited.ok() && changed) edited = apply_edit(context, before, wanted, &changes);
  if (edited.ok()) {
    report(context, top, changes);
    return edited;
  }
  if (!changed) return edited;
  file.keep();
  return {edited.exit(), edited.text() + "; the edited text is in " + file.path()};
}

constexpr std::array kOperands{one("KEY", "Full name", true, &Arguments::key)};
constexpr std::array kOptions{kNote};

}  // namespace

constinit const Verb kEditVerb{
    .name = "edit",
    .summary = "Edit a key and everything below it in an editor",
    .details = R"(Opens the text of an export in $VISUAL, $EDITOR or vi. When the editor has ended,
what differs is made in the registry: lines can be changed, added and deleted.
What an entry leaves out stays as it is, as for import. All of it is one change,
and it is made only if nobody has changed the key or a key below it meanwhile;
otherwise the exit code is 5.

If the text is unchanged, nothing is done. If it is no export, a person at a
terminal may edit it again. A text that could not be applied is kept, and the
message names its file, which only its owner can read.
)",
    .examples = R"(  tkv edit app
  EDITOR=nano tkv edit app.nodes
  EDITOR='sed -i s/beta/gamma/' tkv edit app
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_edit};

}  // namespace tkv::command
