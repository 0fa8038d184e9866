// The table of store kinds: what has to be known about a store before one is open. Each kind has one row, which lives
// in the folder of its store.
//
// A location belongs to the kind whose scheme it begins with. A configuration's settings reach a store as text, by
// name; the row says which names there are and which values they take.
//
// Any thread may call.
#ifndef TKV_PLATFORM_STORE_STORE_KINDS_H
#define TKV_PLATFORM_STORE_STORE_KINDS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/status.h"
#include "sec_attr.h"
#include "store/store.h"

namespace tkv::store {

// Configured values by the names of settings, "etcd.prefix". A setting that is not configured is absent.
using Settings = std::map<std::string, std::string, std::less<>>;

struct StoreSetting {
  const char* name;                                       // "etcd.prefix": section and name
  Status (*check)(const std::string& value);              // fails with the reason why the value is refused
  const char* default_value = "";                         // in force if it is not configured; "" for none
  std::array<const char*, 2> needs = {nullptr, nullptr};  // settings without which this one makes no sense
  const char* text;                                       // for people: meaning, bounds, default
};

// Where a registry is. Locations and settings have passed their checks.
struct StorePlace {
  const std::vector<std::string>& locations;
  const Settings& settings;
};

struct StoreOpening {
  bool create = true;             // create a fresh registry if there is none
  bool create_parents = false;    // and the directories above it
  bool read_only = false;         // of an embedded store
  std::uint32_t max_wait_ms = 0;  // no operation takes longer, whatever is configured; 0: as configured
  // Called when a write to an embedded store has waited for another writer for a second, with a message that names it.
  std::function<void(const std::string& message)> on_wait;
  sec_attr root_security{};  // of the root of a fresh registry
};

// Settings of another kind of store that cannot do here what they say. Others of its settings are merely not used.
struct RefusedSection {
  std::string_view section;  // "history"
  const char* why;           // for people
};

struct StoreKind {
  const char* name;       // "etcd"
  const char* scheme;     // "etcd://"; "" for the one kind whose locations have none
  const char* locations;  // for people: "up to five etcd addresses"
  std::size_t max_locations;
  bool is_distributed;  // nodes share its registries
  std::span<const StoreSetting> settings;
  std::span<const RefusedSection> refused = {};

  // Tells whether a location of this kind is well-formed. Returns PRTKV_INVALID_ARGUMENT with the reason if not.
  Status (*check_location)(const std::string& location);

  // Tells whether a registry can be here, as far as that can be told without opening it: a cluster is not asked.
  // Changes nothing.
  Status (*check)(const StorePlace& place);

  // Tells whether there is no registry here yet. False for a cluster, which is not asked.
  bool (*is_absent)(const StorePlace& place);

  // Tells whether two places of this kind are the same, whatever path leads there.
  bool (*is_same)(const StorePlace& one, const StorePlace& other);

  // Opens a registry. Failures are the store's own.
  Status (*open)(const StorePlace& place, const StoreOpening& opening, std::shared_ptr<Store>* store);
};

// All kinds. The first is that of locations without a scheme.
std::span<const StoreKind* const> store_kinds();

const StoreKind& kind_of_location(std::string_view location);

}  // namespace tkv::store

#endif
