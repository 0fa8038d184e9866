// Registry: the registry that is configured, open on behalf of one identity.
//
//   std::shared_ptr<Registry> registry;
//   if (Status status = open_registry(&registry); !status.ok()) ...
//   Status status = registry->read([&](Reader& tree) { return tree.exists("a.b", &answer); });
//
// The operations are those of Reader and Writer in tree.h. Any thread may call, at any time.
#ifndef TKV_PLATFORM_REGISTRY_REGISTRY_H
#define TKV_PLATFORM_REGISTRY_REGISTRY_H

#include <memory>
#include <utility>

#include "base/identity.h"
#include "registry/configuration.h"
#include "registry/tree.h"
#include "store/store.h"

namespace tkv::registry {

class Registry {
 public:
  Registry(Configuration configuration, Identity identity, std::shared_ptr<store::Store> store)
      : configuration_(std::move(configuration)), identity_(std::move(identity)), store_(std::move(store)) {}

  // Runs `function` on one state of the tree and gives back what it returned. It may run more than once. `cache` may
  // be null; the calls that share one must not run at the same time.
  Status read(FunctionRef<Status(Reader&)> function, DirectoryCache* cache = nullptr) {
    return store_->read([&](store::View& view) {
      Reader reader(view, identity_, cache);
      return function(reader);
    });
  }

  // As read, for functions that visit many keys: runs once, on one state, however long it takes.
  Status read_all(FunctionRef<Status(Reader&)> function) {
    return store_->read_all([&](store::View& view) {
      Reader reader(view, identity_);
      return function(reader);
    });
  }

  // Runs `function` and, when it returns success, makes everything that it did durable, all or nothing. It may run
  // more than once.
  Status write(FunctionRef<Status(Writer&)> function) {
    return store_->write([&](store::Update& update) {
      Writer writer(update, identity_);
      return function(writer);
    });
  }

  const Configuration& configuration() const { return configuration_; }
  const Identity& identity() const { return identity_; }
  store::Store& store() { return *store_; }

 private:
  const Configuration configuration_;
  const Identity identity_;
  const std::shared_ptr<store::Store> store_;
};

}  // namespace tkv::registry

#endif
