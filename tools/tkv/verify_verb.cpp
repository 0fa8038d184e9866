#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "backup_file.h"
#include "backup_text.h"
#include "characters.h"
#include "context.h"
#include "entry.h"
#include "input.h"
#include "json.h"
#include "registry/access.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Reader;

Outcome verify_file(Context& context, const std::string& path) {
  BackupContents contents;
  Progress progress(context.terminal(), "verify");
  std::uint64_t keys = 0;
  Outcome read = read_backup(path, &contents, [&](Entry&&) {
    progress.show(++keys, 0);
    return Outcome();
  });
  if (!read.ok()) return read;
  if (context.json()) {
    JsonObject object = totals_json(shown_path(path), contents.totals, contents.hash);
    object.text("top", contents.head.top).number("taken", contents.head.taken).flag("sound", true);
    context.output().line(object.str());
    return {};
  }
  context.print("file         " + shown_path(path));
  context.print("taken        " + utc(contents.head.taken, "%Y-%m-%d %H:%M:%S UTC"));
  context.print("top          " + shown_name(contents.head.top));
  context.print("keys         " + std::to_string(contents.totals.keys));
  context.print("values       " + std::to_string(contents.totals.values));
  context.print("value bytes  " + std::to_string(contents.totals.value_bytes));
  context.print("xxh3-128     " + contents.hash);
  return {};
}

bool is_about_value(const store::Finding& finding) {
  return finding.kind == store::Finding::Kind::kDamagedValue || finding.kind == store::Finding::Kind::kOrphanValue;
}

// The full names of the nodes that findings speak of, as far as the tree can still be walked.
class NameFinder {
 public:
  explicit NameFinder(const std::vector<store::Finding>& findings) {
    for (const store::Finding& finding : findings) {
      wanted_.insert(is_about_value(finding) ? finding.id : finding.parent);
      if (finding.kind == store::Finding::Kind::kDuplicateId) shared_.insert(finding.id);
    }
  }

  Status walk(store::View& view) {
    names_ = {{store::kRootNode, ""}};
    entered_.clear();
    walk_below(view, store::kRootNode, "");
    return {};
  }

  const std::string* find(store::NodeId id) const {
    const auto found = names_.find(id);
    return found == names_.end() ? nullptr : &found->second;
  }

 private:
  // A part that cannot be read is passed over: the findings say so. What hangs below an id that several nodes have is
  // walked once, since one of them may hang there.
  void walk_below(store::View& view, store::NodeId parent, const std::string& name) {
    if (shared_.contains(parent) && !entered_.insert(parent).second) return;
    std::vector<std::pair<std::string, store::NodeId>> subkeys;
    (void)view
        .children(parent,
                  [&](std::string_view level, const store::Node& node) {
                    subkeys.emplace_back(child_name(name, level), node.id);
                    return Status();
                  })
        .ok();
    for (const auto& [subkey, id] : subkeys) {
      if (wanted_.contains(id)) names_.emplace(id, subkey);
      walk_below(view, id, subkey);
    }
  }

  std::set<store::NodeId> wanted_;
  std::set<store::NodeId> shared_;   // ids of several nodes
  std::set<store::NodeId> entered_;  // of these
  std::map<store::NodeId, std::string> names_;
};

const char* kind_of(store::Finding::Kind kind) {
  switch (kind) {
    case store::Finding::Kind::kDamagedNode:
      return "damaged-key";
    case store::Finding::Kind::kDamagedValue:
      return "damaged-value";
    case store::Finding::Kind::kOrphan:
      return "orphan";
    case store::Finding::Kind::kOrphanValue:
      return "orphan-value";
    case store::Finding::Kind::kDuplicateId:
      return "duplicate-id";
  }
  return "damage";
}

// The full name of what a finding is about, where the tree still gives one.
std::optional<std::string> name_of(const store::Finding& finding, const NameFinder& names) {
  const std::string* known = names.find(is_about_value(finding) ? finding.id : finding.parent);
  if (known == nullptr) return std::nullopt;
  return is_about_value(finding) ? *known : child_name(*known, finding.name);
}

std::string finding_json(const store::Finding& finding, const NameFinder& names) {
  JsonObject object;
  object.raw("kind", json_string(kind_of(finding.kind)));
  if (const auto name = name_of(finding, names)) object.text("name", *name);
  return object.text("level", finding.name)
      .number("parent_id", finding.parent)
      .number("id", finding.id)
      .utf8("detail", utf8_for_people(finding.detail))
      .str();
}

std::string subject_of(const store::Finding& finding, const NameFinder& names) {
  if (const auto name = name_of(finding, names)) return registry::describe(*name);
  std::string id = "id " + std::to_string(finding.id);
  if (is_about_value(finding)) return id;
  if (finding.parent == store::kNoNode && finding.name.empty()) return "the registry";
  return "level '" + finding.name + "', " + id + " below id " + std::to_string(finding.parent);
}

std::string finding_line(const store::Finding& finding, const NameFinder& names) {
  return std::string(kind_of(finding.kind)) + ": " + subject_of(finding, names) + ": " + finding.detail;
}

struct Check {
  std::vector<store::Finding> findings;
  store::Totals totals;
};

Outcome check_store(Context& context, bool repair, Check* check) {
  check->findings.clear();
  Progress progress(context.terminal(), repair ? "repair" : "verify");
  return context.registry().store().check(
      repair, [&](const store::Finding& finding) { check->findings.push_back(finding); },
      [&](const store::CheckProgress& now) { progress.show(now.done, now.total, now.reading); }, &check->totals);
}

// Reading everything is for those who may read and list the top, repairing for those who may do all with it.
Outcome demand_rights(Context& context, bool repair) {
  registry::Place root;
  const Status found = context.registry().read([&](Reader& reader) { return reader.resolve("", &root); });
  const bool superuser = context.registry().identity().superuser;
  if (superuser && found.is(PRTKV_STORAGE_FAILED)) return {};  // the check tells more of the damage
  if (!found.ok()) return found;
  const std::int32_t needed = repair ? TKV_RIGHT_ALL : TKV_RIGHT_READ | TKV_RIGHT_LIST;
  const std::int32_t granted = registry::rights_of(context.registry().identity(), root.node.security);
  if ((granted & needed) == needed) return {};
  return {Exit::kDenied, std::string("access denied: ") +
                             (repair ? "--repair needs all rights" : "this needs the rights r and l") +
                             " on the root key"};
}

void print_check(Context& context, const Check& check, std::uint64_t repaired) {
  NameFinder names(check.findings);
  if (!check.findings.empty()) {
    (void)context.registry().store().read_all([&](store::View& view) { return names.walk(view); }).ok();
  }
  if (context.json()) {
    std::vector<std::string> findings;
    for (const store::Finding& finding : check.findings) findings.push_back(finding_json(finding, names));
    context.output().line(JsonObject()
                              .number("keys", check.totals.nodes)
                              .number("values", check.totals.values)
                              .number("value_bytes", check.totals.value_bytes)
                              .number("repaired", repaired)
                              .flag("sound", check.findings.empty())
                              .raw("findings", json_lines(findings))
                              .str());
    return;
  }
  for (const store::Finding& finding : check.findings) context.print(finding_line(finding, names));
  context.print("keys         " + std::to_string(check.totals.nodes));
  context.print("values       " + std::to_string(check.totals.values));
  context.print("value bytes  " + std::to_string(check.totals.value_bytes));
  if (repaired != 0) context.print("repaired     " + std::to_string(repaired));
  context.print("damage       " + (check.findings.empty() ? "none" : std::to_string(check.findings.size())));
}

Outcome verify_registry(Context& context, bool repair) {
  Check check;
  std::uint64_t repaired = 0;
  if (Outcome allowed = demand_rights(context, repair); !allowed.ok()) return allowed;
  if (Outcome checked = check_store(context, false, &check); !checked.ok()) return checked;
  if (repair && !check.findings.empty()) {
    const std::size_t before = check.findings.size();
    if (Outcome checked = check_store(context, true, &check); !checked.ok()) return checked;
    if (Outcome checked = check_store(context, false, &check); !checked.ok()) return checked;
    repaired = before - std::min(before, check.findings.size());
  }
  print_check(context, check, repaired);
  if (check.findings.empty()) return {};
  if (repaired != 0) return {Exit::kPartly, "some of the damage cannot be repaired without guessing"};
  return {Exit::kDamaged, "the registry is damaged"};
}

Outcome run_verify(Context& context, const Arguments& arguments) {
  if (arguments.file) {
    if (arguments.repair) return {Exit::kUsage, "a backup cannot be repaired"};
    return verify_file(context, *arguments.file);
  }
  if (Outcome opened = arguments.repair ? context.open_to_change() : context.open_to_read(); !opened.ok())
    return opened;
  return verify_registry(context, arguments.repair);
}

constexpr std::array kOperands{one("FILE", "Verify this backup instead of the registry; - is standard input", false,
                                   &Arguments::file, Candidates::kFiles)};
constexpr std::array kOptions{flag("--repair", "Remove records that belong to no key", &Arguments::repair)};

}  // namespace

constinit const Verb kVerifyVerb{
    .name = "verify",
    .summary = "Read and check every record",
    .details = R"(Checks the checksum and the place of each record, and counts keys and values.
Damage is named, and the exit code is 8. --repair removes records that belong
to no key; damaged keys stay as they are: restore or delete them. Needs the
rights r and l on the root, --repair all rights. With FILE, a backup is checked
instead.
)",
    .examples = R"(  tkv verify
  tkv verify nightly.backup
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_verify};

}  // namespace tkv::command
