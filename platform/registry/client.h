// Client: the registry, opened on behalf of one identity.
//
//   std::shared_ptr<Client> client;
//   if (Status status = open_client({}, &client); !status.ok()) return status;
//   TypedValue value;
//   Status status = client->read_value("a.b", &value);
//
// This is the one way to the registry for everything above it: sessions behind the C functions, the operator's command,
// Java. Operations take and return values. A callback (a visitor, a progress function) only receives values: a visitor
// can end a stream, nothing more, and no callback may call the client. An operation can therefore be served by this
// process (LocalClient) or by another one.
//
//   Names.     A key is named by its full name, levels joined by "."; "" is the root (see name.h). A malformed name
//              yields PRTKV_INVALID_NAME. Where an operation takes a parent and a name, the name is relative to the
//              parent; all of its levels but the last must exist (PRTKV_NO_SUCH_KEY).
//   Ids.       A KeyRef with an id means the key of that name only while it is the key of that id. Another key that has
//              taken the name since yields PRTKV_NO_SUCH_KEY.
//   Rights.    Each operation names the TKV_RIGHT_ bits that it needs; a missing one yields PRTKV_ACCESS_DENIED with a
//              message that names the right and the key. Passing through keys on the way to another needs none, and
//              whether a key exists is not a secret.
//   Security.  Masks outside TKV_RIGHT_ALL yield PRTKV_INVALID_ARGUMENT. Whoever creates a key may name any owner:
//              those who may change the masks can grant themselves everything, so a rule about names would protect
//              nothing.
//   Atomicity. Each operation is one transaction: it sees one state, and what it changes becomes visible and durable at
//              once or not at all. Exceptions are documented at the operation.
//   Failures.  The store's own failures (PRTKV_STORAGE_FAILED, PRTKV_STORAGE_FULL, PRTKV_OUT_OF_MEMORY,
//              PRTKV_UNREACHABLE, PRTKV_UNUSABLE, PRTKV_BUSY, PRTKV_UNDECIDED) have the key's name before their
//              message. After PRTKV_UNDECIDED nobody can tell whether the change was made; any other failure has
//              changed nothing. Out-parameters keep their contents on failure unless the operation says otherwise.
//   Threads.   Any thread may call at any time.
#ifndef TKV_PLATFORM_REGISTRY_CLIENT_H
#define TKV_PLATFORM_REGISTRY_CLIENT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/function_ref.h"
#include "base/identity.h"
#include "base/status.h"
#include "registry/access.h"
#include "registry/configuration.h"
#include "sec_attr.h"

namespace tkv::registry {

using KeyId = std::uint64_t;  // unique for the life of the registry, never reused
constexpr KeyId kAnyKey = 0;  // in a KeyRef: whichever key has the name

struct KeyRef {
  KeyRef(std::string_view full_name, KeyId known_id = kAnyKey)  // NOLINT: a name is a KeyRef
      : name(full_name), id(known_id) {}
  KeyRef(const char* full_name) : name(full_name) {}         // NOLINT
  KeyRef(const std::string& full_name) : name(full_name) {}  // NOLINT

  std::string_view name;
  KeyId id = kAnyKey;
};

// What a client found out about a key, for reading the key again at less cost. It holds as long as the registry is in
// the state that it was read from, which the client checks on each use: what is out of date is of no use, but never
// wrong. To everybody but the client that filled it in, `place` is opaque.
struct KnownKey {
  KeyId id = kAnyKey;
  Rights rights = 0;                     // of the client's identity
  std::uint64_t state = 0;               // see Client::latest_state; 0: nothing is known but the id
  std::array<std::uint64_t, 2> place{};  // of the value
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
};

// How a subtree is brought into a registry.
enum class MergeMode {
  kAdd,     // a key that exists must be the same; another one yields PRTKV_KEY_EXISTS
  kMerge,   // a key that exists is changed; keys that the subtree lacks stay
  kReplace  // keys that the subtree lacks are deleted
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
  enum class Kind { kDamagedKey, kDamagedValue, kOrphan, kOrphanValue, kDuplicateId };
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
  std::vector<Damage> damages;  // that are left
};

struct CheckStep {
  const char* reading;  // "pages", "records", ...
  std::uint64_t done;
  std::uint64_t total;  // approximate
};

// A session that reads one state for so long that the space of what has been replaced since cannot be used again.
struct LongReader {
  std::int32_t process = 0;
  std::string command;           // "tkv"; empty if it is not known
  std::uint64_t seconds = 0;     // for which it has read the same state, at least
  std::uint64_t held_bytes = 0;  // that have been freed since, and cannot be used again before it ends
};

// A member of the cluster that a registry is kept on.
struct ClusterMember {
  std::string name;     // empty: it has none, or the user may not see it
  std::string address;  // of its endpoint or, if it has none, as the cluster tells clients
  bool leads = false;
  std::string problem;  // why nothing is known about it; empty: it has answered
  std::string version;
  std::uint64_t bytes = 0;  // of its database on disk
};

struct ClusterAlarm {
  std::string member;  // its name or, without one, its address or number
  std::string alarm;   // "no space"
};

// What a registry that is kept on a cluster can tell.
struct ClusterStatus {
  std::vector<ClusterMember> members;
  std::vector<ClusterAlarm> alarms;
  std::uint64_t revision = 0;
  std::uint64_t bytes_in_use = 0;  // of the largest database; the rest can be freed
  std::uint64_t claims = 0;        // large changes under way
  std::uint64_t garbage = 0;       // deleted subtrees that are still to be removed
  std::uint64_t builds = 0;        // unfinished changes
  std::uint64_t dead_builds = 0;   // of those, whose sessions have ended
  std::uint64_t retries = 0;       // requests repeated since the session was opened
};

// What a registry can tell about itself without reading all keys. 0: not known or, for limits, none.
struct RegistryStatus {
  std::string store;            // "lmdb", "etcd"
  std::uint64_t bytes = 0;      // that the registry takes on disk
  std::uint64_t max_bytes = 0;  // that it may take
  std::uint32_t readers = 0;    // sessions that are open for reading, of all processes
  std::uint32_t max_readers = 0;
  std::vector<LongReader> long_readers;  // that have read one state for a minute or longer
  std::optional<ClusterStatus> cluster;  // only of a registry on a cluster
};

// Called with the number of keys that an operation has worked on so far. An operation that has to begin again begins at
// 0 again.
using KeyProgress = FunctionRef<void(std::uint64_t keys)>;

class Client {
 public:
  virtual ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  virtual const Identity& identity() const = 0;
  virtual const Configuration& configuration() const = 0;

  // --- One key ---

  // The number of the registry's latest state, without a request, or zero if it is not known. Later states have larger
  // numbers, and every change that has been acknowledged to anybody is part of the state of this number or of one
  // before it. The number may be one ahead of what a read shows: label what was read with KnownKey::state, never with
  // this.
  virtual std::uint64_t latest_state() = 0;

  // Looks up a key. Needs no right. Returns PRTKV_NO_SUCH_KEY if there is none.
  Status find(const KeyRef& key, KeyId* id);

  // As find, but tells more. On entry, `*known` holds what an earlier call found out about the key of this name, or
  // nothing; it is left as it is if it still holds.
  virtual Status look_up(const KeyRef& key, KnownKey* known) = 0;

  // Needs TKV_RIGHT_READ.
  virtual Status stat(const KeyRef& key, KeyInfo* info) = 0;

  // Needs TKV_RIGHT_READ. Keeps the capacity of `value->bytes`, so that reading into the same one does not allocate.
  // After a failure `*value` is unspecified.
  virtual Status read_value(const KeyRef& key, TypedValue* value) = 0;

  // Reads the value of the key that has the name and `known->id`, and brings `*known` up to date. Needs
  // TKV_RIGHT_READ. `*size` receives the number of its bytes. If they do not fit into `buffer`, nothing is copied and
  // `*type` is left as it is; this is not a failure. A failure leaves the buffer as it is.
  virtual Status read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, std::int32_t* type,
                            std::size_t* size) = 0;

  // Needs TKV_RIGHT_READ.
  virtual Status read_security(const KeyRef& key, sec_attr* security) = 0;

  // Creates a key under `parent`. Returns PRTKV_KEY_EXISTS if there is one. Needs TKV_RIGHT_CREATE on the key that it
  // is created under. Type 0 without bytes creates a key without a value.
  virtual Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                        std::span<const std::byte> bytes, KeyId* id) = 0;

  // Needs TKV_RIGHT_WRITE. Returns PRTKV_VALUE_TOO_LARGE beyond 1 MiB.
  virtual Status write_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes) = 0;

  // Needs TKV_RIGHT_SECURITY.
  virtual Status write_security(const KeyRef& key, const sec_attr& security) = 0;

  // Writes values to keys, creating those that do not exist; all or nothing. A value of type 0 without bytes creates a
  // missing key and leaves an existing one as it is. Needs TKV_RIGHT_WRITE on keys that exist, TKV_RIGHT_CREATE on the
  // parents of others, and TKV_RIGHT_READ on those to inherit from. With Key::kAny, a key whose record is damaged is
  // removed, as by `remove`, and created anew.
  virtual Status put(std::span<const NamedValue> values, const PutOptions& options) = 0;

  // --- Subtrees ---

  // Calls `visit` for each subkey in byte order, until it returns a failure, which is returned. Needs TKV_RIGHT_LIST.
  // `infos`: subkeys come with what is known of them, otherwise with their ids only.
  virtual Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) = 0;

  // Visits a key and everything below it on one state, each key before its subkeys, those in byte order, until `visit`
  // returns a failure, which is returned. Needs TKV_RIGHT_LIST on every key whose subkeys are visited and, for values,
  // TKV_RIGHT_READ on every key; see WalkOptions::denied.
  virtual Status walk(const KeyRef& key, const WalkOptions& options,
                      FunctionRef<Status(const WalkEntry& entry)> visit) = 0;

  // Tells what `apply` would change now. With MergeMode::kAdd and keys that differ, returns PRTKV_KEY_EXISTS, and
  // `*difference` holds them all the same. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on every key of the subtree.
  virtual Status compare(const Subtree& wanted, MergeMode mode, const NewKeySecurity& security, KeyProgress progress,
                         Difference* difference) = 0;

  // Makes the subtree at `wanted.top` what `wanted` says. Needs the rights of compare, and those of each change. With
  // MergeMode::kReplace, keys whose record or value is damaged are replaced, except for the record of the root, which
  // only a repair replaces; `compare` shows the removal of what cannot be read.
  virtual Status apply(const Subtree& wanted, const ApplyOptions& options, KeyProgress progress,
                       Difference* difference) = 0;

  // Makes changes that were found by comparing, in their order, all or nothing. A key that is added and the keys below
  // it that follow are put in place as one subtree, however large. A key to be removed that does not exist (any longer)
  // is passed over. Needs the rights of each change.
  virtual Status apply_changes(std::span<const KeyChange> changes) = 0;

  // The number of changes that should go into one call, where a caller is free to split them; a subtree that is added
  // or removed counts as one. More are possible, at the cost of being staged first.
  virtual std::size_t preferred_batch_size() const = 0;

  // Changes the security record of a key and, recursively, of every key below it. Needs TKV_RIGHT_SECURITY on each.
  virtual Status change_security(const KeyRef& key, const SecurityChange& change, bool recursive,
                                 KeyProgress progress) = 0;

  // Deletes a key. Needs TKV_RIGHT_DELETE on it and, recursively, on every key below it. Not recursively, a key with
  // subkeys yields PRTKV_HAS_SUBKEYS. The root yields PRTKV_INVALID_ARGUMENT. The rights on a key whose record is
  // damaged cannot be read: deleting it needs TKV_RIGHT_DELETE on the key above it. What is below it stays, where
  // nothing reaches it, until a repair removes it.
  virtual Status remove(const KeyRef& key, bool recursive, KeyProgress progress) = 0;

  // Moves a key with its subtree to `name` under `parent`. Needs TKV_RIGHT_DELETE on the key and TKV_RIGHT_CREATE on
  // the new parent. An existing target yields PRTKV_KEY_EXISTS or, with `replace`, is deleted with its subtree, which
  // needs TKV_RIGHT_DELETE on every key of it. A target that is the key itself or lies below it yields
  // PRTKV_MOVE_INTO_ITSELF, and so does replacing a key above it. Returns PRTKV_INVALID_NAME if a key below would get a
  // name beyond the limits. `*id` is the key's, which a move does not change.
  virtual Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, KeyId* id) = 0;

  // Copies a key to the full name `target`. The copies are new keys. Needs TKV_RIGHT_READ and, recursively,
  // TKV_RIGHT_LIST on every key copied, and TKV_RIGHT_CREATE on the new parent. The target is treated as by move.
  virtual Status copy(const KeyRef& source, std::string_view target, const CopyOptions& options,
                      KeyProgress progress) = 0;

  // --- The registry as a whole ---

  // Reads everything and finds what is damaged or out of place. With `repair`, removes what can be removed without
  // guessing: values of no key, and subtrees that hang from nothing. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on the
  // root or, to repair, all rights. Not one transaction: each pass sees a state of its own.
  virtual Status check(bool repair, FunctionRef<void(const CheckStep& step)> progress, CheckResult* result) = 0;

  // Reads the root key, and asks the store about itself. Needs no right. Succeeds only if the registry serves requests.
  virtual Status status(RegistryStatus* status) = 0;

 protected:
  Client() = default;
};

}  // namespace tkv::registry

#endif
