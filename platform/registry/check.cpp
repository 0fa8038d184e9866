#include "registry/check.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "registry/name.h"
#include "registry/tree.h"

namespace tkv::registry {
namespace {

using store::Finding;
using Findings = std::vector<Finding>;

bool is_about_value(const Finding& finding) {
  return finding.kind == Finding::Kind::kDamagedValue || finding.kind == Finding::Kind::kOrphanValue;
}

bool is_about_root(const Finding& finding) {
  const bool is_node = finding.kind == Finding::Kind::kDamagedNode ||
                       (finding.kind == Finding::Kind::kUnfinishedChange && finding.id == store::kRootNode);
  return is_node && finding.parent == store::kNoNode && finding.name.empty();
}

// The node whose name tells where a finding is.
store::NodeId place_of(const Finding& finding) { return is_about_value(finding) ? finding.id : finding.parent; }

std::string name_below(const std::string& parent, std::string_view level) {
  return parent.empty() ? std::string(level) : parent + "." + std::string(level);
}

// Finds the full names of the nodes that findings are about, as far as the tree can still be walked.
class NameFinder {
 public:
  explicit NameFinder(const Findings& findings) {
    for (const Finding& finding : findings) {
      wanted_.insert(place_of(finding));
      if (finding.kind == Finding::Kind::kDuplicateId) shared_.insert(finding.id);
    }
  }

  void walk(store::View& view) {
    names_ = {{store::kRootNode, ""}};
    entered_.clear();
    walk_below(view, store::kRootNode, "");
  }

  std::optional<std::string> name_of(const Finding& finding) const {
    if (is_about_root(finding)) return "";
    const auto found = names_.find(place_of(finding));
    if (found == names_.end()) return std::nullopt;
    return is_about_value(finding) ? found->second : name_below(found->second, finding.name);
  }

 private:
  // Passes over what cannot be read: there is a finding for it. An id that several nodes share is entered once, since
  // one of them may hang below it.
  void walk_below(store::View& view, store::NodeId parent, const std::string& name) {
    if (shared_.contains(parent) && !entered_.insert(parent).second) return;
    std::vector<std::pair<std::string, store::NodeId>> subkeys;
    const auto collect = [&](std::string_view level, const store::Node& node) {
      subkeys.emplace_back(name_below(name, level), node.id);
      return Status();
    };
    (void)view.children_with_damage(parent, collect, [](std::string_view, const Status&) { return Status(); }).ok();
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

Damage::Kind kind_of(Finding::Kind kind) {
  switch (kind) {
    case Finding::Kind::kDamagedNode:
      return Damage::Kind::kDamagedKey;
    case Finding::Kind::kDamagedValue:
      return Damage::Kind::kDamagedValue;
    case Finding::Kind::kOrphan:
      return Damage::Kind::kOrphan;
    case Finding::Kind::kOrphanValue:
      return Damage::Kind::kOrphanValue;
    case Finding::Kind::kDuplicateId:
      return Damage::Kind::kDuplicateId;
    case Finding::Kind::kDamagedChange:
      return Damage::Kind::kDamagedChange;
    case Finding::Kind::kUnfinishedChange:
      return Damage::Kind::kUnfinishedChange;
  }
  return Damage::Kind::kDamagedKey;
}

Status demand_rights(store::Store& store, const Identity& identity, bool repair) {
  Place root;
  Status found = store.read([&](store::View& view) { return Reader(view, identity).resolve("", &root); });
  // The check tells more about the damage, to those whom rights do not bind.
  if (found.is(PRTKV_STORAGE_FAILED) && (identity.superuser || store.is_own())) return {};
  if (!found.ok()) return found;
  const Rights needed = repair ? TKV_RIGHT_ALL : TKV_RIGHT_READ | TKV_RIGHT_LIST;
  if ((rights_of(identity, root.node.security) & needed) == needed) return {};
  return {PRTKV_ACCESS_DENIED, describe("") + ": access denied, " +
                                   (repair ? "repairing the registry needs all rights"
                                           : "checking the registry needs the rights to read and list") +
                                   " on it"};
}

Status run_check(store::Store& store, const ChangeDescription* repair,
                 FunctionRef<void(const CheckStep& step)> progress, Findings* findings, store::Totals* totals) {
  findings->clear();
  return store.check(
      repair, [&](const Finding& finding) { findings->push_back(finding); },
      [&](const store::CheckProgress& now) {
        progress({now.reading, now.done, now.total});
      },
      totals);
}

std::vector<Damage> named(store::Store& store, Findings findings) {
  if (findings.empty()) return {};
  NameFinder names(findings);
  const auto walk = [&](store::View& view) {
    names.walk(view);
    return Status();
  };
  (void)store.read_all(walk).ok();  // without it, damages stay without names
  std::vector<Damage> damages;
  for (Finding& finding : findings) {
    std::optional<std::string> name = names.name_of(finding);
    damages.push_back({kind_of(finding.kind), std::move(name), std::move(finding.name), finding.parent, finding.id,
                       std::move(finding.detail)});
  }
  return damages;
}

}  // namespace

Status check_registry(store::Store& store, const Identity& identity, const ChangeDescription* repair,
                      FunctionRef<void(const CheckStep& step)> progress, CheckResult* result) {
  Findings findings;
  store::Totals totals;
  std::size_t repaired = 0;
  if (Status status = demand_rights(store, identity, repair != nullptr); !status.ok()) return status;
  if (Status status = run_check(store, nullptr, progress, &findings, &totals); !status.ok()) return status;
  if (repair != nullptr && !findings.empty()) {
    const std::size_t before = findings.size();
    if (Status status = run_check(store, repair, progress, &findings, &totals); !status.ok()) return status;
    std::erase_if(findings, [](const Finding& each) { return each.kind != Finding::Kind::kUnfinishedChange; });
    const Findings half_made = std::move(findings);
    if (Status status = run_check(store, nullptr, progress, &findings, &totals); !status.ok()) return status;
    repaired = before - std::min(before, findings.size());
    findings.insert(findings.end(), half_made.begin(), half_made.end());
  }
  *result = {totals.nodes, totals.values, totals.value_bytes, repaired, named(store, std::move(findings))};
  return {};
}

}  // namespace tkv::registry
