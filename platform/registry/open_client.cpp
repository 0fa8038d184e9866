#include "registry/open_client.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "registry/local_client.h"
#include "store/store_kinds.h"

namespace tkv::registry {
namespace {

store::StorePlace place_of(const Configuration& configuration) {
  return {configuration.locations, configuration.store_settings};
}

const store::StoreKind& kind_of(const Configuration& configuration) {
  return store::kind_of_location(configuration.locations.front());
}

}  // namespace

Status open_client(Configuration configuration, const OpenOptions& options, std::shared_ptr<Client>* client) {
  Identity identity;
  std::shared_ptr<store::Store> store;
  store::StoreOpening opening;
  if (Status status = identity_of_process(&identity); !status.ok()) return status;
  opening.create = options.create && !options.read_only;
  opening.create_parents = !configuration.location_configured;
  opening.read_only = options.read_only;
  opening.max_wait_ms = options.max_wait_ms;
  opening.on_wait = options.on_wait;
  opening.root_security = default_security(identity);
  if (Status status = kind_of(configuration).open(place_of(configuration), opening, &store); !status.ok()) {
    return status;
  }
  *client =
      std::make_shared<LocalClient>(std::move(configuration), std::move(identity), std::move(store), options.note);
  return {};
}

Status open_client(const OpenOptions& options, std::shared_ptr<Client>* client) {
  Configuration configuration;
  if (Status status = Configuration::read(&configuration); !status.ok()) return status;
  return open_client(std::move(configuration), options, client);
}

Status check_location(const Configuration& configuration) {
  const store::StoreKind& kind = kind_of(configuration);
  if (configuration.location_configured) return kind.check(place_of(configuration));
  // Opening creates what is missing above a default location, so the nearest existing directory decides.
  std::filesystem::path directory = configuration.locations.front();
  std::error_code unknown;
  while (directory.has_relative_path() && !std::filesystem::exists(directory.parent_path(), unknown)) {
    directory = directory.parent_path();
  }
  return kind.check({std::vector{directory.string()}, {}});
}

Status check_location(const std::string& location) {
  const store::StoreKind& kind = store::kind_of_location(location);
  if (!kind.is_distributed) return kind.check({std::vector{location}, {}});
  if (Status status = kind.check_location(location); !status.ok()) return status;
  return {PRTKV_DISTRIBUTED, "'" + location + "' names a distributed registry"};
}

bool is_absent(const Configuration& configuration) { return kind_of(configuration).is_absent(place_of(configuration)); }

bool same_place(const Configuration& one, const Configuration& other) {
  const store::StoreKind& kind = kind_of(one);
  return &kind == &kind_of(other) && kind.is_same(place_of(one), place_of(other));
}

}  // namespace tkv::registry
