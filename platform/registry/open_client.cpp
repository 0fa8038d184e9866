#include "registry/open_client.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "registry/local_client.h"
#include "registry/open_store.h"
#include "store/lmdb/directory.h"

namespace tkv::registry {

Status open_client(Configuration configuration, const OpenOptions& options, std::shared_ptr<Client>* client) {
  Identity identity;
  std::shared_ptr<store::Store> store;
  if (Status status = identity_of_process(&identity); !status.ok()) return status;
  if (Status status = open_store(configuration, identity, options, &store); !status.ok()) return status;
  *client = std::make_shared<LocalClient>(std::move(configuration), std::move(identity), std::move(store));
  return {};
}

Status open_client(const OpenOptions& options, std::shared_ptr<Client>* client) {
  Configuration configuration;
  if (Status status = Configuration::read(&configuration); !status.ok()) return status;
  return open_client(std::move(configuration), options, client);
}

Status check_location(const Configuration& configuration) {
  return configuration.is_distributed() ? Status() : store::check_lmdb_directory(configuration.locations.front());
}

bool is_absent(const Configuration& configuration) {
  if (configuration.is_distributed()) return false;
  const std::string file = store::data_file(configuration.locations.front());
  return ::access(file.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool same_place(const Configuration& one, const Configuration& other) {
  if (one.is_distributed() != other.is_distributed()) return false;
  if (one.is_distributed()) return one.locations == other.locations && one.etcd_prefix == other.etcd_prefix;
  std::error_code unknown;
  return std::filesystem::equivalent(one.locations.front(), other.locations.front(), unknown);
}

}  // namespace tkv::registry
