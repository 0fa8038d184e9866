// Opening the registry that is configured, and asking about configured locations.
//
// The embedded store is part of this library. A distributed store is a module, loaded the first time that a location
// asks for it and never unloaded.
//
// Any thread may call.
#ifndef TKV_PLATFORM_REGISTRY_OPEN_CLIENT_H
#define TKV_PLATFORM_REGISTRY_OPEN_CLIENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/identity.h"
#include "base/status.h"
#include "registry/client.h"
#include "registry/configuration.h"

namespace tkv::registry {

struct OpenOptions {
  bool create = true;             // create a fresh registry if there is none; its root belongs to the process's user
  bool read_only = false;         // of an embedded registry
  std::uint32_t max_wait_ms = 0;  // no operation takes longer, whatever is configured; 0: as configured
  std::string note = {};          // what the changes are for, for the log; see Client::with_note
  // Called when a write has waited for another process's for a second, with a message for people that names the
  // process: "waiting for process 4711 (tkv), ...". It may be called by any thread that writes, and must not call the
  // client.
  std::function<void(const std::string& message)> on_wait = {};
};

// Opens the registry of a configuration on behalf of the process's user. The directories above a default location are
// created as needed, mode 0700; those above a configured one must exist. Failures are the store's own, and
// PRTKV_UNUSABLE if a store's module cannot be loaded, with every place that was tried and the reason.
Status open_client(Configuration configuration, const OpenOptions& options, std::shared_ptr<Client>* client);

// The same with the configuration that is in force now.
Status open_client(const OpenOptions& options, std::shared_ptr<Client>* client);

// Tells whether the configured location can hold a registry, as far as that can be told without opening it: a cluster
// is not asked. Changes nothing. Missing directories above a default location are no obstacle if they can be created.
Status check_location(const Configuration& configuration);

// The same for one location by itself. Returns PRTKV_DISTRIBUTED for a well-formed location of a registry that nodes
// share, and PRTKV_INVALID_ARGUMENT for a malformed one.
Status check_location(const std::string& location);

// Tells whether the configured location has no registry yet. False for a cluster, which is not asked.
bool is_absent(const Configuration& configuration);

// Tells whether two configurations lead to the same registry, by whatever paths.
bool same_place(const Configuration& one, const Configuration& other);

}  // namespace tkv::registry

#endif
