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
//   History.   Every operation that changes something is one change in the log, under the identity's user name.
//   Threads.   Any thread may call at any time.
#ifndef TKV_PLATFORM_REGISTRY_CLIENT_H
#define TKV_PLATFORM_REGISTRY_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>

#include "base/change.h"
#include "base/function_ref.h"
#include "base/identity.h"
#include "base/state_memory.h"
#include "base/status.h"
#include "registry/batch.h"
#include "registry/configuration.h"
#include "registry/key_values.h"
#include "registry/subkey_names.h"
#include "sec_attr.h"

namespace tkv::registry {

// Called with the number of keys that an operation has worked on so far. An operation that has to begin again begins at
// 0 again.
using KeyProgress = FunctionRef<void(std::uint64_t keys)>;

// Reading: what a client, which reads the present, and a snapshot, which reads one state, have in common.
class KeyReader {
 public:
  virtual ~KeyReader() = default;
  KeyReader(const KeyReader&) = delete;
  KeyReader& operator=(const KeyReader&) = delete;

  // Looks up a key. Needs no right. Returns PRTKV_NO_SUCH_KEY if there is none.
  virtual Status find(const KeyRef& key, KeyId* id) = 0;

  // Needs TKV_RIGHT_READ.
  virtual Status stat(const KeyRef& key, KeyInfo* info) = 0;

  // Needs TKV_RIGHT_READ. Keeps the capacity of `value->bytes`, so that reading into the same one does not allocate.
  // After a failure `*value` is unspecified.
  virtual Status read_value(const KeyRef& key, TypedValue* value) = 0;

  // Needs TKV_RIGHT_READ.
  virtual Status read_security(const KeyRef& key, sec_attr* security) = 0;

  // Reads what stat and read_value read, on one state: `info->revision` is that of this value.
  virtual Status read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) = 0;

  // Calls `visit` for each subkey in byte order, until it returns a failure, which is returned. Needs TKV_RIGHT_LIST.
  // `infos`: subkeys come with what is known of them, otherwise with their ids only.
  virtual Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) = 0;

  // Visits a key and everything below it on one state, each key before its subkeys, those in byte order, until `visit`
  // returns a failure, which is returned. Needs TKV_RIGHT_LIST on every key whose subkeys are visited and, for values,
  // TKV_RIGHT_READ on every key; see WalkOptions::denied.
  virtual Status walk(const KeyRef& key, const WalkOptions& options,
                      FunctionRef<Status(const WalkEntry& entry)> visit) = 0;

 protected:
  KeyReader() = default;
};

// One state of the registry, past or present. It holds nothing but the number of a revision: it blocks nobody, and when
// that revision is no longer retained, its operations yield PRTKV_INVALID_ARGUMENT. It may outlive the client.
//
// Rights. Reading a key needs the right that the operation names twice: in that state, and today on the key that has
// its name now, if there is one (of a key that was moved since, the name that it was moved to).
class Snapshot : public KeyReader {
 public:
  virtual Revision revision() const = 0;
};

// What `Client::changes_since` is asked for.
struct ChangeQuery {
  LogRange range = {};
  std::string name =
      {};  // changes of this key, of keys below it, and of keys above it that concern it; "": of all keys
  std::size_t depth = std::numeric_limits<std::size_t>::max();  // levels below `name`
};

struct UndoOptions {
  bool force = false;    // also undo what was changed again since
  bool dry_run = false;  // change nothing, but give the batch
};

class Client : public KeyReader {
 public:
  virtual const Identity& identity() const = 0;
  virtual const Configuration& configuration() const = 0;

  // --- One key ---

  // The number of the registry's latest state, without a request, or zero if it is not known. Later states have larger
  // numbers, and every change that has been acknowledged to anybody is part of the state of this number or of one
  // before it. The number may be one ahead of what a read shows: label what was read with KnownKey::state, never with
  // this.
  //
  // If `copied_next` is given, the value of that key may meanwhile be fetched into the processor's caches, for a copy
  // that follows soon.
  virtual std::uint64_t latest_state(const KnownKey* copied_next) = 0;
  std::uint64_t latest_state() { return latest_state(nullptr); }

  // Memory that shows the number of the latest state without a call of the client, or null if there is none. It notices
  // whatever latest_state() notices when that, or another call of this process, looks at the registry next. It may
  // outlive the client, and shows zero once the last client of the registry in this process has ended.
  virtual std::shared_ptr<const StateMemory> state_memory() = 0;

  Status find(const KeyRef& key, KeyId* id) override;

  // As find, but tells more. On entry, `*known` holds what an earlier call found out about the key of this name, or
  // nothing but KnownKey::is_kept; it is left as it is if it still holds.
  virtual Status look_up(const KeyRef& key, KnownKey* known) = 0;

  // Reads the value of the key that has the name and `known->id`, and brings `*known` up to date. Needs
  // TKV_RIGHT_READ. `*size` receives the number of its bytes. If they do not fit into `buffer`, nothing is copied and
  // `*type` is left as it is; this is not a failure. A failure leaves the buffer as it is.
  virtual Status read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, std::int32_t* type,
                            std::size_t* size) = 0;

  // As read_known, if what is known of the key still holds and is enough. Otherwise returns false and changes nothing.
  virtual bool copy_known(const KnownKey& known, std::span<std::byte> buffer, std::int32_t* type,
                          std::size_t* size) = 0;

  // Lists the level names of a key's subkeys, in byte order. Needs TKV_RIGHT_LIST. `*state` receives the number of the
  // state that they were read from, or zero if it is not known. More subkeys than an std::int32_t counts yield
  // PRTKV_OUT_OF_MEMORY. After a failure, `*names` and `*state` are unspecified.
  virtual Status list_names(const KeyRef& key, SubkeyNames* names, std::uint64_t* state) = 0;

  // Creates a key under `parent`. Returns PRTKV_KEY_EXISTS if there is one. Needs TKV_RIGHT_CREATE on the key that it
  // is created under. Type 0 without bytes creates a key without a value. `*created` receives the key's id and route.
  virtual Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                        std::span<const std::byte> bytes, KnownKey* created) = 0;
  Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                std::span<const std::byte> bytes, KeyId* id);

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

  // Tells what `apply` would change now. With MergeMode::kAdd and keys that differ, returns PRTKV_KEY_EXISTS, and
  // `*difference` holds them all the same. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on every key of the subtree.
  virtual Status compare(const Subtree& wanted, MergeMode mode, const NewKeySecurity& security, KeyProgress progress,
                         Difference* difference) = 0;

  // Makes the subtree at `wanted.top` what `wanted` says. Needs the rights of compare, and those of each change. With
  // MergeMode::kReplace, keys whose record or value is damaged are replaced, except for the record of the root, which
  // only a repair replaces; `compare` shows the removal of what cannot be read.
  virtual Status apply(const Subtree& wanted, const ApplyOptions& options, KeyProgress progress,
                       Difference* difference) = 0;

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
  // name beyond the limits. `*moved` receives the key's id, which a move does not change, and its new route.
  virtual Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace,
                      KnownKey* moved) = 0;
  Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, KeyId* id);

  // Copies a key to the full name `target`. The copies are new keys. Needs TKV_RIGHT_READ and, recursively,
  // TKV_RIGHT_LIST on every key copied, and TKV_RIGHT_CREATE on the new parent. The target is treated as by move.
  virtual Status copy(const KeyRef& source, std::string_view target, const CopyOptions& options,
                      KeyProgress progress) = 0;

  // --- Batches ---

  // Makes the changes of a batch, all or nothing, if its conditions hold. A condition that does not hold yields
  // PRTKV_CONFLICT with a message that names the key. `*result` is filled in on success and on failure. Needs the
  // rights of each condition and each change.
  virtual Status commit(const Batch& batch, CommitResult* result) = 0;

  // --- History ---

  // A client of the same registry and identity whose changes are logged with this note. A note of more than
  // kMaxNoteSize bytes is cut off. Costs little: it may be made for a single change.
  virtual std::shared_ptr<Client> with_note(std::string_view note) = 0;

  // The revision of the latest state. Needs no right.
  virtual Status revision(Revision* revision) = 0;

  // The state right after the change `revision`. Returns PRTKV_INVALID_ARGUMENT if it is not retained or does not exist
  // yet, with a message that says which states are.
  virtual Status at(Revision revision, std::unique_ptr<Snapshot>* snapshot) = 0;

  // The latest state.
  virtual Status snapshot(std::unique_ptr<Snapshot>* snapshot) = 0;

  // The latest state at a point in time: microseconds since 1970, UTC, compared with the clocks of those who made the
  // changes. Returns PRTKV_INVALID_ARGUMENT if it is not retained.
  virtual Status revision_at(std::int64_t time, Revision* revision) = 0;

  // Visits the changes of a range, as Store::changes, each with what concerns `query.name` and what the identity may
  // know: that a key was created, moved or deleted needs TKV_RIGHT_LIST on its parent; that its value or its security
  // was changed needs TKV_RIGHT_READ on it; each right as of that change and, if the key still exists, today. A change
  // of which nothing is left is not visited.
  //
  // To watch a key: read it in a snapshot, then call this with the snapshot's revision, and from then on with the
  // former call's `position->revision`, after wait(). With `only_complete` and `position->complete` false, changes were
  // lost: nothing was visited, and the watcher begins again with a snapshot.
  virtual Status changes_since(const ChangeQuery& query, FunctionRef<Status(const ChangeRecord& record)> visit,
                               LogPosition* position) = 0;

  // Waits until there is a change after `after`, whatever it concerns, until `timeout` has passed, or until `stop` is
  // requested. Needs no right. `*revision` is that of the latest state. Other calls of the client go on meanwhile.
  virtual Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
                      Revision* revision) = 0;

  // Undoes one change: makes what it touched what it was before, as one batch, which `*inverse` receives. Keys that are
  // created again are new keys. If a later change touched the same keys, returns PRTKV_CONFLICT with a message that
  // names one, unless `force` is set.
  //
  // With `dry_run`, the batch can be shown to somebody and then be committed: its conditions say that what it replaces,
  // moves or deletes is what the dry run has found, even with `force`. PRTKV_CONFLICT or PRTKV_HAS_SUBKEYS then means
  // that others came first.
  //
  // A change that is not retained, or whose past is not, yields
  // PRTKV_INVALID_ARGUMENT. Needs the rights to read the past of all keys that the change touched, and those of each
  // change back.
  virtual Status undo(Revision revision, const UndoOptions& options, Batch* inverse, CommitResult* result) = 0;

  // Removes all former values of the key of this name, and of keys that had it before, from the history: for a secret
  // that was written by mistake. The value of today stays. `*removed` is the number of values. Is a change itself.
  // Needs TKV_RIGHT_WRITE on the key if it exists and, if other keys are concerned, all rights on the root. In a
  // cluster, returns PRTKV_INVALID_ARGUMENT with a message that says how to compact its history.
  virtual Status purge_history(std::string_view name, std::uint64_t* removed) = 0;

  // Returns the failure of purge_history() if no history of this registry can be purged, whatever the key.
  virtual Status can_purge_history() = 0;

  // --- The registry as a whole ---

  // Reads everything and finds what is damaged or out of place. With `repair`, removes what can be removed without
  // guessing: values of no key, and subtrees that hang from nothing. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on the
  // root or, to repair, all rights. If the root's record is damaged, nobody can tell these: only the superuser and the
  // owner of the storage may then check and repair. Not one transaction: each pass sees a state of its own.
  virtual Status check(bool repair, FunctionRef<void(const CheckStep& step)> progress, CheckResult* result) = 0;

  // Reads the root key, and asks the store about itself. Needs no right. Succeeds only if the registry serves requests.
  virtual Status status(RegistryStatus* status) = 0;

 protected:
  Client() = default;
};

// What reading the present has found: a value, or that there is no such key.
struct LatestValue {
  bool exists = false;
  std::int32_t type = 0;
  std::size_t size = 0;     // of its bytes, also if there was no room for them
  std::uint64_t state = 0;  // that was read; zero if it is not known
};

// Reads the present, and tells the number of the state that was read. What is found out about a key that is read
// repeatedly is kept: a change of the registry then costs such a read little, unless it is a change of that key.
// Nothing of a value is kept.
//
// Any thread may call. Threads do not wait for each other: while one looks up what is known, another reads its key as
// if nothing were known.
class LatestReader {
 public:
  virtual ~LatestReader() = default;

  // Reads a value. That the key does not exist is not a failure. If the bytes do not fit into `buffer`, none are
  // copied, and the type is not set. Needs TKV_RIGHT_READ.
  virtual Status read_value(std::string_view name, std::span<std::byte> buffer, LatestValue* found) = 0;
};

// The client must live longer. Throws std::bad_alloc.
std::unique_ptr<LatestReader> make_latest_reader(Client& client);

}  // namespace tkv::registry

#endif
