// The registry as a tree of keys: what each operation means, on one state of a store and on behalf of one identity.
//
// A Reader or Writer exists only inside a function that a store runs. Such a function may run more than once, so it
// must set its results anew each time. Both are private to this folder; everybody else uses Client.
//
//   Keys.     See KeyRef in client.h. The name of a KeyRef with an id was found before and is not checked again.
//   Names.    See name.h. Where an operation takes a parent and a name, the name is relative to the parent, and the
//             full name that they make must be within the limits (PRTKV_INVALID_NAME).
//   Failures. The store's own have the key's name before their message. A Writer's operation that fails may leave
//             part of its work in the update: the function must return the failure, so that nothing of the update
//             stays. Out-parameters keep their contents.
//   Memory.   Lookups and reads do not allocate, except for the messages of failures.
#ifndef TKV_PLATFORM_REGISTRY_TREE_H
#define TKV_PLATFORM_REGISTRY_TREE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/function_ref.h"
#include "base/identity.h"
#include "registry/access.h"
#include "registry/change_list.h"
#include "registry/client.h"
#include "registry/directory_cache.h"
#include "registry/name.h"
#include "store/store.h"

namespace tkv::registry {

static_assert(std::is_same_v<KeyId, store::NodeId>);

// The place of a value in a KnownKey.
static_assert(sizeof(KnownKey::place) == sizeof(store::ValuePlace));
inline store::ValuePlace place_of(const KnownKey& known) { return std::bit_cast<store::ValuePlace>(known.place); }
inline void set_place(const store::ValuePlace& place, KnownKey* known) {
  known->place = std::bit_cast<decltype(known->place)>(place);
}

// What a name leads to.
enum class Presence {
  kAbsent,
  kDamaged,  // a key whose record cannot be read, so that nothing is known of it but its name
  kSound
};

// A node and where it hangs. The root hangs under kNoNode.
struct Place {
  store::NodeId parent = store::kNoNode;
  store::Node node;
  Route route = kAnyRoute;  // to the node
};

// What an identity may do today with the keys of a former state.
class TodaysRights {
 public:
  virtual Rights of(std::string_view former_name) = 0;

 protected:
  ~TodaysRights() = default;
};

class Reader {
 public:
  // `cache` may be null. With `today`, the view is a former state, and every right is needed today as well.
  Reader(store::View& view, const Identity& identity, DirectoryCache* cache = nullptr, TodaysRights* today = nullptr)
      : view_(view), identity_(identity), cache_(cache), today_(today) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Finds a key. Needs no right. Returns PRTKV_NO_SUCH_KEY if there is none.
  Status resolve(const KeyRef& key, Place* place);

  // As Client::look_up. What `*known` says is left as it is if it was read from the state that this reader sees.
  Status look_up(const KeyRef& key, KnownKey* known);

  // As Client::read_known, but leaves the value where it is: the bytes of `*value` remain the store's.
  Status known_value(std::string_view name, KnownKey* known, std::size_t capacity, store::Value* value,
                     std::size_t* size);

  // The number of the state that this reader sees, or zero from a store that does not number its states.
  std::uint64_t state() { return view_.state(); }

  // Tells whether there is a key of this name. Needs no right.
  Status exists(std::string_view name, bool* answer);

  // As exists, but does not fail at a key whose own record is damaged.
  Status look_up(std::string_view name, Presence* presence);

  // As the Client's operations.
  Status stat(const KeyRef& key, KeyInfo* info);
  // As stat, but does not find out when and by whom the key was changed.
  Status stat_briefly(const KeyRef& key, KeyInfo* info);
  Status read_key(const KeyRef& key, KeyInfo* info, TypedValue* value);
  Status security(const KeyRef& key, sec_attr* security);
  Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit);

  // As Client::walk. A key below as many levels as a name may have yields PRTKV_STORAGE_FAILED: it hangs below itself.
  // Large trees are walked in Store::read_all.
  Status walk(const KeyRef& key, const WalkOptions& options, FunctionRef<Status(const WalkEntry& entry)> visit);

  // Reads the value: type 0 without bytes if none was ever written. The bytes remain the store's (see store.h). Needs
  // TKV_RIGHT_READ.
  Status value(const KeyRef& key, store::Value* value);

  // The identity's rights on the node of the key `name`.
  Rights rights(std::string_view name, const store::Node& node) const;

  const Identity& identity() const { return identity_; }

 protected:
  // Returns PRTKV_ACCESS_DENIED with a message if the identity lacks `right` on the node of the key `name`; `doing`
  // says what the right is needed for.
  Status demand(Rights right, std::string_view name, const store::Node& node, const char* doing) const;

 private:
  Status find_parent(std::string_view name, Directory* parent);
  void learn(const Place& found, store::ValuePlace place, KnownKey* known);
  Status read_info(std::string_view name, const store::Node& node, KeyInfo* info);
  Status read_last_change(KeyInfo* info);

  store::View& view_;
  const Identity& identity_;
  DirectoryCache* cache_;
  TodaysRights* today_;
};

class Writer final : public Reader {
 public:
  Writer(store::Update& update, const Identity& identity) : Reader(update, identity), update_(update) {}

  // Runs `function` on the tree as it was when the update began.
  Status before(FunctionRef<Status(Reader&)> function) {
    Reader reader(update_.before(), identity());
    return function(reader);
  }

  // From now on calls `progress` with the number of keys that were created, changed or checked for deletion, after each
  // of them. `progress` must outlive the writer.
  void report_to(KeyProgress progress) { progress_ = progress; }

  // What was done so far, by name. Of staged keys, only the caller knows the names: see note_created().
  std::vector<Change> take_changes() { return changes_.take(); }
  void note_created(std::string_view name, KeyId id) { changes_.add(Change::Kind::kCreated, name, id); }

  // As the Client's operations. `route` may be null.
  Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                std::span<const std::byte> bytes, KeyId* id, Route* route = nullptr);
  Status write_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes);
  Status write_security(const KeyRef& key, const sec_attr& security);
  Status remove(const KeyRef& key, bool recursive);
  // Removes a key whose record is damaged, as Client::remove does. Returns `damage` if it is the damage of something
  // else: the record is sound.
  Status remove_damaged(std::string_view name, const Status& damage);
  Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, KeyId* id,
              Route* route = nullptr);
  Status copy(const KeyRef& source, std::string_view target, const CopyOptions& options);

  // As Client::change_security; `change` makes the new record of the old one.
  Status change_security(const KeyRef& key, bool recursive, FunctionRef<Status(sec_attr* security)> change);

  // Staging, for subtrees that come from elsewhere: `stage` creates a key that nobody sees, `stage_below` one below it,
  // and `attach` puts the topmost in its place, which makes all of them visible at once. Needs TKV_RIGHT_CREATE on the
  // new parent; an existing target is treated as by move. The caller keeps to the limits of depth and length below the
  // topmost.
  Status stage(std::int32_t type, std::span<const std::byte> bytes, KeyId* id);
  Status stage_below(KeyId parent, std::string_view level, const sec_attr& security, std::int32_t type,
                     std::span<const std::byte> bytes, KeyId* id);
  Status attach(KeyId id, const sec_attr& security, const KeyRef& parent, std::string_view name, bool replace);

 private:
  struct Target;
  struct Copying;

  store::View& stable_view();
  void count_key();
  Status find_target(const KeyRef& parent, std::string_view name, Target* target);
  Status demand_target(const Target& target, bool replace);
  Status demand_delete(std::string_view name, const store::Node& node);
  Status demand_fit(const store::Node& node, std::string_view from, std::string_view to);
  Status put_node(const Target& target, const store::Node& node);
  void note_replaced(const Target& target);
  Status copy_key(Copying& copying, const store::Node& from, store::Node* to);
  Status copy_subkeys(Copying& copying, store::NodeId from, store::NodeId to);
  Status security_of_copy(const Copying& copying, const store::Node& from, sec_attr* security) const;

  store::Update& update_;
  bool changed_ = false;  // by this writer, so the state before the update is no longer what the update shows
  std::uint64_t keys_ = 0;
  std::optional<KeyProgress> progress_;
  ChangeList changes_;
};

}  // namespace tkv::registry

#endif
