// The registry as a tree of keys: what each operation means, on one state of a store and on behalf of one identity.
//
// A Reader or Writer lives inside a function that a store runs (see Registry::read and Registry::write in registry.h),
// and is used there only. Such a function may run more than once: it must set its results anew each time.
//
//   Keys.     A KeyRef names a key. With an id, the key of that name must also be the node of that id; another key that
//             has taken its name since is not the key meant, and gives 4. The name is then one that was found before,
//             and not checked again.
//   Names.    See name.h. A malformed name gives 5. Where an operation takes a parent and a name, the name is relative
//             to the parent, of one or more levels, all of which but the last must exist (4), and the whole must be a
//             full name within its limits (5).
//   Rights.   Each operation says which it needs; a missing one gives 2, with a text that says which right is missing
//             on which key. Passing through keys on the way to another needs none. Whether a key exists is no secret.
//   Security. Masks outside 0x3f give 8. Right 0x08 covers the whole record, owner and group included, and who creates
//             a key may name any owner: whoever may change the masks can grant himself everything, so a rule on names
//             would protect nothing, and no key acts with its owner's rights.
//   Failures. The store's own (7, 11, 12, 15) come with the key's name put before its text. A Writer's operation that
//             fails may leave a part of its work in the update: the function must return the failure, so that nothing
//             of the update stays. Out parameters are left as they were.
//   Memory.   Lookups and reads do not allocate but for the texts of failures.
#ifndef TKV_PLATFORM_REGISTRY_TREE_H
#define TKV_PLATFORM_REGISTRY_TREE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/function_ref.h"
#include "base/identity.h"
#include "registry/access.h"
#include "registry/client.h"
#include "registry/directory_cache.h"
#include "registry/name.h"
#include "store/store.h"

namespace tkv::registry {

constexpr std::size_t kMaxValueBytes = std::size_t{1} << 20;

static_assert(std::is_same_v<KeyId, store::NodeId>);

// Where a key hangs. The root hangs under kNoNode.
struct Place {
  store::NodeId parent = store::kNoNode;
  store::Node node;
};

// What is known of a key besides the bytes of its value.
struct Stat {
  store::NodeId id = store::kNoNode;
  sec_attr security{};
  std::int32_t type = 0;  // of the value, 0 when none was ever written
  std::size_t size = 0;   // of the value
  bool has_subkeys = false;
};

// A key met on a walk. The views are valid during the visit.
struct Entry {
  std::string_view name;   // full name
  std::string_view level;  // its last level, "" for the root
  std::size_t depth;       // 0 for the key that the walk began at
  const store::Node& node;
  Rights rights;        // of the identity on this key
  bool subkeys_hidden;  // the walk passes over the subkeys, if any, for want of the list right
  bool& descend;        // a visit that sets it to false makes the walk pass over the subkeys
};

// What a walk does at a key whose subkeys the identity may not list.
enum class Hidden {
  kFail,  // ends with 2
  kSkip   // visits the key itself, marked
};

class Reader {
 public:
  // `cache` may be null.
  Reader(store::View& view, const Identity& identity, DirectoryCache* cache = nullptr)
      : view_(view), identity_(identity), cache_(cache) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Finds a key. Needs no right. 4 when there is none.
  Status resolve(const KeyRef& key, Place* place);

  // Tells whether there is a key of this name. Needs no right.
  Status exists(std::string_view name, bool* answer);

  // Needs 0x01.
  Status stat(const KeyRef& key, Stat* stat);

  // As Client::stat.
  Status stat(const KeyRef& key, KeyInfo* info);

  // Reads the security record. Needs 0x01.
  Status security(const KeyRef& key, sec_attr* security);

  // Reads the value: type 0 without bytes when none was ever written. The bytes stay the store's (see store.h). Needs
  // 0x01.
  Status value(const KeyRef& key, store::Value* value);

  // The same for a key met on a walk.
  Status value(const Entry& entry, store::Value* value);

  // Calls `visit` for each subkey's level name, in byte order, until it returns a failure, which is passed on. Needs
  // 0x02.
  Status list(const KeyRef& key, FunctionRef<Status(std::string_view level, const store::Node& node)> visit);

  // As Client::list and Client::walk. Large trees are walked in Store::read_all.
  Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit);
  Status walk(const KeyRef& key, const WalkOptions& options, FunctionRef<Status(const WalkEntry& entry)> visit);

  // Visits the key and everything below it, each key before its subkeys, those in byte order, until `visit` returns a
  // failure, which is passed on. Needs 0x02 on every key that has subkeys; visiting reads no value and needs nothing
  // else. 7 when the keys hang in a loop. Large trees are walked in Registry::read_all.
  Status walk(const KeyRef& key, Hidden hidden, FunctionRef<Status(const Entry& entry)> visit);

  const Identity& identity() const { return identity_; }

 protected:
  // 2 with a text when the identity lacks `right` on the node of the key `name`; `doing` says what was wanted.
  Status demand(Rights right, std::string_view name, const store::Node& node, const char* doing) const;

 private:
  Status find_parent(std::string_view name, store::NodeId* id);
  Status read_info(std::string_view name, const store::Node& node, KeyInfo* info);

  store::View& view_;
  const Identity& identity_;
  DirectoryCache* cache_;
};

class Writer final : public Reader {
 public:
  Writer(store::Update& update, const Identity& identity) : Reader(update, identity), update_(update) {}

  // Runs `function` on the tree as it stood when the update began, for reading more keys than one write may depend on.
  Status before(FunctionRef<Status(Reader&)> function) {
    Reader reader(update_.before(), identity());
    return function(reader);
  }

  // From now on calls `progress`, which must live as long as the writer, with how many keys it has made, changed or
  // found to be deletable, after each of them.
  void follow(FunctionRef<void(std::uint64_t keys)> progress) { progress_ = progress; }

  // Creates a key without a value. 55 when it exists. Needs 0x10 on the parent that the name's last level goes under.
  Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, store::NodeId* id);

  // As create, with a value. 10 when it is larger than 1 MiB.
  Status create_and_set(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                        std::span<const std::byte> bytes, store::NodeId* id);

  // Needs 0x04. 10 when the value is larger than 1 MiB.
  Status set_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes);

  // Needs 0x08.
  Status set_security(const KeyRef& key, const sec_attr& security);

  // Replaces the security records of a key and of every key below it by what `change` makes of them. Needs 0x08 on
  // each of them.
  Status set_security_below(const KeyRef& key, FunctionRef<sec_attr(const Entry& entry)> change);

  // Changes the security record of a key and, `recursive`, of every key below it by what `change` makes of them. Needs
  // 0x08 on each of them.
  Status change_security(const KeyRef& key, bool recursive, FunctionRef<Status(sec_attr* security)> change);

  // Deletes a key. Needs 0x20 on it and, recursive, on every key below it. Not recursive, a key with subkeys gives 6.
  // The root gives 8.
  Status remove(const KeyRef& key, bool recursive);

  // Moves a key with its subtree to `name` under `parent`. Needs 0x20 on the key and 0x10 on the new parent. An
  // existing target gives 55, or with `replace` goes away with its subtree, which needs 0x20 on every key of that. A
  // target that is the key itself or lies below it gives 17. 5 when a key below would get a name beyond the limits.
  // The root gives 8. `moved` receives the key's id, which is what it was.
  Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, store::NodeId* moved);

  // Copies a key with its value and security, and with `recursive` everything below it, to `name` under `parent`. The
  // copies are keys of their own. Needs 0x01 and, recursive, 0x02 on every key copied, and 0x10 on the new parent;
  // the target is treated as by move. With `own` the copies belong to the identity's user and group.
  Status copy(const KeyRef& source, const KeyRef& parent, std::string_view name, bool recursive, bool replace,
              store::NodeId* id, bool own = false);

  // Building aside, for trees that come from elsewhere: `sprout` makes a key that nobody sees, `sprout_below` one
  // below it, and `plant` hangs the topmost in its place under `name`, when all of them become visible at once. Needs
  // 0x10 on the new parent; an existing target is treated as by move. The caller keeps to the limits of depth and
  // length below the topmost.
  Status sprout(std::int32_t type, std::span<const std::byte> bytes, store::NodeId* id);
  Status sprout_below(store::NodeId parent, std::string_view level, const sec_attr& security, std::int32_t type,
                      std::span<const std::byte> bytes, store::NodeId* id);
  Status plant(store::NodeId id, const sec_attr& security, const KeyRef& parent, std::string_view name, bool replace);

 private:
  struct Target;
  struct Copying;

  store::View& steady();
  void count_key();
  Status find_target(const KeyRef& parent, std::string_view name, Target* target);
  Status demand_target(const Target& target, bool replace, store::NodeId spared);
  Status demand_delete(std::string_view name, const store::Node& node, store::NodeId spared);
  Status check_fit(const store::Node& node, std::string_view from, std::string_view to);
  Status put(const Target& target, const store::Node& node);
  Status copy_key(Copying& copying, const store::Node& from, store::NodeId* to);
  Status copy_subkeys(Copying& copying, store::NodeId from, store::NodeId to);
  Status security_of_copy(const Copying& copying, const store::Node& from, sec_attr* security) const;

  store::Update& update_;
  bool changed_ = false;  // this update has changed something, so its beginning is no longer what it shows
  std::uint64_t keys_ = 0;
  std::optional<FunctionRef<void(std::uint64_t keys)>> progress_;
};

}  // namespace tkv::registry

#endif
