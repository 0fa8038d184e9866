// Keys and values as the registry's operations take and return them.
#ifndef TKV_PLATFORM_REGISTRY_KEY_VALUES_H
#define TKV_PLATFORM_REGISTRY_KEY_VALUES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/change.h"
#include "base/status.h"
#include "base/store_status.h"
#include "registry/access.h"
#include "sec_attr.h"

namespace tkv::registry {

using KeyId = std::uint64_t;  // unique for the life of the registry, never reused
constexpr KeyId kAnyKey = 0;  // in a KeyRef: whichever key has the name

// A digest of the nodes from the root to a key and of how often each of them was moved. It changes when the key is
// moved, by itself or with an ancestor, and does not return to its former value when the key is moved back.
using Route = std::uint64_t;
constexpr Route kAnyRoute = 0;  // in a KeyRef: by whatever moves the key came to its place

struct KeyRef {
  KeyRef(std::string_view full_name, KeyId known_id = kAnyKey, Route known_route = kAnyRoute)  // NOLINT: as a name
      : name(full_name), id(known_id), route(known_route) {}
  KeyRef(const char* full_name) : name(full_name) {}         // NOLINT
  KeyRef(const std::string& full_name) : name(full_name) {}  // NOLINT

  std::string_view name;
  KeyId id = kAnyKey;
  Route route = kAnyRoute;
};

// What a client found out about a key, for reading the key again at less cost. It holds as long as the registry is in
// the state that it was read from, which the client checks on each use: what is out of date is of no use, but never
// wrong. To everybody but the client that filled it in, `place` is opaque.
struct KnownKey {
  KeyId id = kAnyKey;
  Route route = kAnyRoute;
  Rights rights = 0;                     // of the client's identity
  bool is_kept = false;                  // set by whoever keeps it for later reads: then it is prepared for changes
  std::uint64_t state = 0;               // see Client::latest_state; 0: only id and route are known
  std::array<std::uint64_t, 4> place{};  // of the value
};

// A value as the registry stores it. Type 0 without bytes: none was ever written. The type is not interpreted.
struct TypedValue {
  std::int32_t type = 0;
  std::string bytes;

  std::span<const std::byte> span() const { return std::as_bytes(std::span(bytes)); }
  bool operator==(const TypedValue&) const = default;
};

// What is known of a key besides the bytes of its value.
struct KeyInfo {
  KeyId id = kAnyKey;
  sec_attr security{};
  Rights rights = 0;  // of the client's identity
  std::int32_t type = 0;
  std::size_t size = 0;  // of the value, in bytes
  bool has_subkeys = false;
  Revision revision = 0;  // of the last change of the key or its value; 0: before there were revisions
  // When, as in ChangeDescription, and by whom that change was made. Only stat() and read_key() fill them in, and only
  // as long as the change is retained; 0 and "" otherwise.
  std::int64_t changed_at = 0;
  std::string changed_by;
};

// A subkey in a list. Without TKV_RIGHT_READ on it, `info` holds only the id and the rights.
struct Subkey {
  std::string_view level;  // valid during the visit
  KeyInfo info;
};

// A key met on a walk. The views are valid during the visit.
struct WalkEntry {
  std::string_view name;   // full name
  std::string_view level;  // its last level, "" for the root
  std::size_t depth = 0;   // 0 for the key that the walk began at
  KeyId id = kAnyKey;
  Rights rights = 0;      // of the client's identity on this key
  sec_attr security{};    // zero without TKV_RIGHT_READ
  std::int32_t type = 0;  // of the value, if values were asked for and may be read
  std::span<const std::byte> value;
  Revision revision = 0;        // as KeyInfo::revision, if values were asked for and may be read
  bool subkeys_hidden = false;  // it may have subkeys, but the identity may not list them

  // With WalkOptions::Damaged::kVisit: what cannot be read, and why. Of a key with a damaged record, only the name, the
  // level and the depth are known, and its subkeys are not visited. A key whose list of subkeys is damaged is visited
  // twice: before those that can be read, and after them with kSubkeys.
  enum class Part { kNone, kRecord, kValue, kSubkeys };
  Part damaged = Part::kNone;
  const Status* damage = nullptr;  // null unless something is damaged
};

struct WalkOptions {
  // What happens at a key whose subkeys the identity may not list, and, with `values`, at one that it may not read.
  enum class Denied {
    kFail,  // the walk ends with PRTKV_ACCESS_DENIED
    kSkip   // the entry says so, and the walk goes on beside it
  };
  // What happens at a key whose record, value or list of subkeys is damaged.
  enum class Damaged {
    kFail,  // the walk ends with PRTKV_STORAGE_FAILED
    kVisit  // the key is visited as damaged, and the walk goes on beside it
  };
  Denied denied = Denied::kFail;
  Damaged damaged = Damaged::kFail;
  bool values = false;                                          // entries carry values
  std::size_t depth = std::numeric_limits<std::size_t>::max();  // levels below the first key that are visited
};

// One key of a subtree outside any registry. A key that was read from a registry has everything; one that a person
// wrote may leave out parts, which then stay as they are in the registry or, for a new key, take the defaults.
struct KeyRecord {
  std::string name;  // full name
  sec_attr security{};
  TypedValue value;
  bool has_owner = true;
  bool has_group = true;
  bool has_mode = true;
  bool has_value = true;
  bool damaged = false;  // read from a registry where it cannot be read: nothing is known of it but the name
};

// A key and everything below it: parents before their subkeys, siblings in byte order. Empty if the top does not exist.
struct Subtree {
  std::string top;
  std::vector<KeyRecord> keys;
  // Keys that could not be read when the subtree was saved. Each is missing with everything below it, or it is there
  // and some of its subkeys are missing.
  std::vector<std::string> left_out = {};

  // Whether a key that the subtree lacks may only be missing because it could not be read.
  bool may_have_had(std::string_view name) const;
};

// How a subtree is brought into a registry.
enum class MergeMode {
  kAdd,     // a key that exists must be the same; another one yields PRTKV_KEY_EXISTS
  kMerge,   // a key that exists is changed; keys that the subtree lacks stay
  kReplace  // keys that the subtree lacks are deleted, unless it may have had them
};

struct KeyChange {
  enum class Kind { kAdd, kChange, kRemove };
  Kind kind = Kind::kAdd;
  KeyRecord before;  // for kChange and kRemove
  KeyRecord after;   // for kAdd and kChange, complete

  const std::string& name() const { return kind == Kind::kRemove ? before.name : after.name; }
};

struct Difference {
  std::vector<KeyChange> changes;  // in the order of names
  std::uint64_t keys = 0;          // of the whole subtree as it will be

  std::uint64_t count(KeyChange::Kind kind) const;
};

// A change of one mask: first bits are cleared, then bits are set.
struct MaskChange {
  std::int32_t clear = 0;
  std::int32_t set = 0;
};

// A change of security records. Names longer than TKV_NAME_SIZE bytes yield PRTKV_INVALID_ARGUMENT.
struct SecurityChange {
  std::optional<std::string> owner;
  std::optional<std::string> group;
  MaskChange owner_mask;
  MaskChange group_mask;
  MaskChange other_mask;

  Status apply(sec_attr* security) const;
};

// The security of a key that an operation creates: `initial`, or with `inherit` the parent's masks and group with
// `initial`'s owner (others never inherit all rights: they get read and list instead); changed by `change` in either
// case.
struct NewKeySecurity {
  sec_attr initial{};
  bool inherit = false;
  SecurityChange change;
};

struct PutOptions {
  enum class Key { kAny, kMustBeNew, kMustExist };
  Key key = Key::kAny;
  bool create_parents = false;  // creates missing ancestors, without values, with the same security
  NewKeySecurity security;      // of keys that are created
};

struct NamedValue {
  std::string name;
  TypedValue value;
};

struct CopyOptions {
  bool recursive = false;
  bool replace = false;  // an existing target is deleted with its subtree
  bool own = false;      // the copies belong to the client's user and group instead of the originals'
};

struct ApplyOptions {
  MergeMode mode = MergeMode::kAdd;
  bool create_parents = false;
  NewKeySecurity security;  // of what new keys leave out, and of parents that are created
  // More removals or changes than this yield PRTKV_KEY_EXISTS: the registry has changed since they were counted.
  std::uint64_t max_removed = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t max_changed = std::numeric_limits<std::uint64_t>::max();
};

// What a check found to be wrong.
struct Damage {
  enum class Kind {
    kDamagedKey,
    kDamagedValue,
    kOrphan,
    kOrphanValue,
    kDuplicateId,
    kDamagedChange,
    kUnfinishedChange  // a large change that was being made; after a repair: that was made in part
  };
  Kind kind = Kind::kDamagedKey;
  std::optional<std::string> name;  // full name, if the tree still leads there
  std::string level;                // last level, as far as it can be read; "" for values
  KeyId parent = kAnyKey;
  KeyId id = kAnyKey;
  std::string detail;  // for people
};

struct CheckResult {
  std::uint64_t keys = 0;
  std::uint64_t values = 0;
  std::uint64_t value_bytes = 0;
  std::uint64_t repaired = 0;   // findings that a repair removed
  std::vector<Damage> damages;  // that are left, and what a repair could not save
};

struct CheckStep {
  const char* reading;  // "pages", "records", ...
  std::uint64_t done;
  std::uint64_t total;  // approximate
};

// What a registry can tell about itself without reading all keys.
struct RegistryStatus : StoreStatus {
  std::string store;  // "lmdb", "etcd"
};

}  // namespace tkv::registry

#endif
