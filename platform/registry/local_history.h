// LocalHistory: what an identity may see and do of the history of a registry that this process reads itself.
#ifndef TKV_PLATFORM_REGISTRY_LOCAL_HISTORY_H
#define TKV_PLATFORM_REGISTRY_LOCAL_HISTORY_H

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "registry/client.h"
#include "registry/key_values.h"
#include "store/store.h"

namespace tkv::registry {

// What the log is to tell of a change that this process makes now.
ChangeDescription describe_change(const Identity& identity, std::string note, std::vector<Change> changes);

// Threads. Any number may call at once.
class LocalHistory {
 public:
  // Both are used as long as this lives.
  LocalHistory(store::Store& store, const Identity& identity) : store_(store), identity_(identity) {}

  // As Client's functions.
  Status revision_at(std::int64_t time, Revision* revision);
  Status changes_since(const ChangeQuery& query, FunctionRef<Status(const ChangeRecord& record)> visit,
                       LogPosition* position);
  Status purge(std::string_view name, std::string note, std::uint64_t* removed);

  // Makes the batch that leads back from a change to the state before it.
  Status plan_undo_of(Revision revision, Batch* inverse);

 private:
  Status find_change(Revision revision, ChangeRecord* record);
  Status find_bearers(store::View& present, std::string_view name, std::set<KeyId>* ids);
  Status demand_purge(store::View& present, std::string_view name, const std::set<KeyId>& bearers) const;

  store::Store& store_;
  const Identity& identity_;
};

}  // namespace tkv::registry

#endif
