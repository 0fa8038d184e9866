// Reading former states within this process.
#ifndef TKV_PLATFORM_REGISTRY_SNAPSHOT_H
#define TKV_PLATFORM_REGISTRY_SNAPSHOT_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/client.h"
#include "registry/tree.h"
#include "store/store.h"

namespace tkv::registry {

// What an identity may do in the present, by the names that keys had in a former state. A key that nothing has the name
// of today grants what it granted then.
class RightsInPresent final : public TodaysRights {
 public:
  RightsInPresent(store::View& present, const Identity& identity, const std::vector<Change>& moves)
      : present_(present, identity), moves_(moves) {}

  Rights of(std::string_view former_name) override;

  // The first failure to read the present, after which no right is granted.
  const Status& failure() const { return failure_; }

 private:
  Reader present_;
  const std::vector<Change>& moves_;  // since the former state, in their order
  Status failure_;
};

// Runs `function` on a former state, with the rights of then and of today.
Status read_past(store::Store& store, const Identity& identity, Revision revision,
                 FunctionRef<Status(Reader& past)> function);

class LocalSnapshot final : public Snapshot {
 public:
  LocalSnapshot(std::shared_ptr<store::Store> store, Identity identity, Revision revision)
      : store_(std::move(store)), identity_(std::move(identity)), revision_(revision) {}

  Revision revision() const override { return revision_; }
  Status find(const KeyRef& key, KeyId* id) override;
  Status stat(const KeyRef& key, KeyInfo* info) override;
  Status read_value(const KeyRef& key, TypedValue* value) override;
  Status read_security(const KeyRef& key, sec_attr* security) override;
  Status read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) override;
  Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) override;
  Status walk(const KeyRef& key, const WalkOptions& options,
              FunctionRef<Status(const WalkEntry& entry)> visit) override;

 private:
  Status read(FunctionRef<Status(Reader& tree)> function) { return read_past(*store_, identity_, revision_, function); }

  const std::shared_ptr<store::Store> store_;
  const Identity identity_;
  const Revision revision_;
};

}  // namespace tkv::registry

#endif
