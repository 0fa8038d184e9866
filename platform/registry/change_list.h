// ChangeList: what a write does, by the names of keys, for the log.
#ifndef TKV_PLATFORM_REGISTRY_CHANGE_LIST_H
#define TKV_PLATFORM_REGISTRY_CHANGE_LIST_H

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/change.h"
#include "registry/key_values.h"

namespace tkv::registry {

// Used by one thread.
class ChangeList {
 public:
  void add(Change::Kind kind, std::string_view name, KeyId id, std::string_view from = {});

  // The changes in their order; if they are more than kMaxListedChanges, the keys at or below which they are: one that
  // all have in common or, if that is the root, the topmost ones below it.
  std::vector<Change> take();

 private:
  void cover(std::string_view name);

  std::vector<Change> changes_;
  bool too_many_ = false;
  std::string common_;             // once there are too many: what all names lie at or below
  std::set<std::string> topmost_;  // and their first levels, as long as these are not too many, too
};

// The name that a key has once a key above it, or the key itself, was moved. Other names stay as they are.
std::string moved_name(std::string_view name, std::string_view from, std::string_view to);

}  // namespace tkv::registry

#endif
