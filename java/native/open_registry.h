// OpenRegistry: a Client that Java has opened, with the snapshots of it, and the use of one by a call.
#ifndef TKV_JAVA_NATIVE_OPEN_REGISTRY_H
#define TKV_JAVA_NATIVE_OPEN_REGISTRY_H

#include <jni.h>

#include <memory>
#include <stop_token>
#include <utility>

#include "base/state_memory.h"
#include "base/status.h"
#include "handle_table.h"
#include "registry/client.h"

namespace tkv::java {

// In place of the handle of a snapshot: the registry as it is at each call.
constexpr jlong kPresent = 0;

// What belongs to a registry ends with it. Any thread may call.
class OpenRegistry {
 public:
  OpenRegistry(std::shared_ptr<registry::Client> client, bool read_only)
      : client_(std::move(client)), state_memory_(client_->state_memory()), read_only_(read_only) {}

  registry::Client& client() const { return *client_; }
  HandleTable<registry::Snapshot>& snapshots() { return snapshots_; }

  // Null if the registry does not number its states. See Client::state_memory.
  const std::shared_ptr<const StateMemory>& state_memory() const { return state_memory_; }

  registry::LatestReader& latest() { return *latest_; }

  // What ends the waiting of a watch, and of all of them: see watch.h.
  HandleTable<std::stop_source>& watches() { return watches_; }
  std::stop_token closing() const { return closing_.get_token(); }
  void end_waiting() { closing_.request_stop(); }

  // Returns PRTKV_ACCESS_DENIED if the registry was opened for reading only.
  Status check_writable() const;

 private:
  const std::shared_ptr<registry::Client> client_;
  const std::shared_ptr<const StateMemory> state_memory_;
  const bool read_only_;
  const std::unique_ptr<registry::LatestReader> latest_ = registry::make_latest_reader(*client_);
  HandleTable<registry::Snapshot> snapshots_;
  HandleTable<std::stop_source> watches_;
  std::stop_source closing_;
};

// Opens a handle on a registry. Any thread may call.
jlong add_registry(std::shared_ptr<registry::Client> client, bool read_only);

class RegistryPlace;

// The use of a registry by a call. The registry stays open for as long as the use lives. Any thread may use any number
// of registries; it does not wait for others.
class RegistryUse {
 public:
  // Uses nothing if the handle is not open.
  explicit RegistryUse(jlong handle);
  ~RegistryUse();
  RegistryUse(const RegistryUse&) = delete;
  RegistryUse& operator=(const RegistryUse&) = delete;

  explicit operator bool() const { return registry_ != nullptr; }
  OpenRegistry& operator*() const { return *registry_; }
  OpenRegistry* operator->() const { return registry_; }

 private:
  RegistryPlace* const place_;
  OpenRegistry* const registry_;
};

// What a call on a registry that is not open returns.
Status closed_registry();

// Closes a handle, ends what waits for changes, and then waits until the calls that are using the registry have ended
// and its client is gone. Calls that look it up afterwards no longer find it. Returns PRTKV_INVALID_HANDLE if the
// handle is not open. Any thread may call.
Status close_registry(jlong handle);

}  // namespace tkv::java

#endif
