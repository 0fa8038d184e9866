// What of the log concerns a key, and what an identity may know of it.
#ifndef TKV_PLATFORM_REGISTRY_CHANGE_FILTER_H
#define TKV_PLATFORM_REGISTRY_CHANGE_FILTER_H

#include "registry/client.h"
#include "store/store.h"

namespace tkv::registry {

class ChangeFilter {
 public:
  ChangeFilter(store::Store& store, const Identity& identity, const ChangeQuery& query)
      : store_(store), identity_(identity), query_(query) {}

  // Takes everything else out of a record. See Client::changes_since.
  Status apply(ChangeRecord* record);

 private:
  bool concerns(std::string_view name, bool with_subtree) const;
  bool is_wanted(const Change& change) const;
  Status is_allowed(const ChangeRecord& record, const Change& change, bool* answer);
  Status grants(Revision revision, std::string_view name, Rights right, bool* answer);

  store::Store& store_;
  const Identity& identity_;
  const ChangeQuery& query_;
};

}  // namespace tkv::registry

#endif
