#include "registry/open_store.h"

#include <string>
#include <utility>

#include "registry/etcd_loader.h"
#include "store/lmdb/lmdb_store.h"

namespace tkv::registry {
namespace {

Status open_embedded(const Configuration& configuration, const sec_attr& root_security, const OpenOptions& options,
                     std::shared_ptr<store::Store>* store) {
  store::LmdbOptions wanted;
  wanted.directory = configuration.locations.front();
  wanted.map_size = configuration.map_size;
  wanted.group = configuration.group;
  wanted.create = options.create && !options.read_only;
  wanted.create_parents = !configuration.location_configured;
  wanted.read_only = options.read_only;
  wanted.root_security = root_security;
  return store::open_lmdb_store(wanted, store);
}

Status open_distributed(const Configuration& configuration, const sec_attr& root_security, const OpenOptions& options,
                        std::shared_ptr<store::Store>* store) {
  store::EtcdOptions wanted;
  for (const std::string& address : configuration.locations) {
    std::string endpoint;
    if (Status status = parse_etcd_address(address, &endpoint); !status.ok()) return status;
    wanted.endpoints.push_back(std::move(endpoint));
  }
  wanted.ca = configuration.etcd_ca;
  wanted.cert = configuration.etcd_cert;
  wanted.key = configuration.etcd_key;
  wanted.user = configuration.etcd_user;
  wanted.password_file = configuration.etcd_password_file;
  wanted.prefix = configuration.etcd_prefix;
  wanted.timeout_ms = configuration.etcd_timeout_ms;
  wanted.create = options.create && !options.read_only;
  wanted.root_security = root_security;
  store::OpenEtcdStore open = nullptr;
  if (Status status = load_etcd_module(&open); !status.ok()) return status;
  return open(store::kEtcdModuleAbi, wanted, store);
}

}  // namespace

Status open_store(const Configuration& configuration, const Identity& identity, const OpenOptions& options,
                  std::shared_ptr<store::Store>* store) {
  const sec_attr root_security = default_security(identity);
  return configuration.is_distributed() ? open_distributed(configuration, root_security, options, store)
                                        : open_embedded(configuration, root_security, options, store);
}

Status open_registry(std::shared_ptr<Registry>* registry, const OpenOptions& options) {
  Configuration configuration;
  Identity identity;
  std::shared_ptr<store::Store> store;
  if (Status status = Configuration::read(&configuration); !status.ok()) return status;
  if (Status status = identity_of_process(&identity); !status.ok()) return status;
  if (Status status = open_store(configuration, identity, options, &store); !status.ok()) return status;
  *registry = std::make_shared<Registry>(std::move(configuration), std::move(identity), std::move(store));
  return {};
}

}  // namespace tkv::registry
