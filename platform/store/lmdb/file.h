// The registry's file: its keys, its birth, and whether a file that is there can be trusted with a look.
//
// All of the registry is in LMDB's one unnamed database. The first byte of a key says what its record is:
//
//   'M'                             the meta record
//   'N', parent id, level name      a node; the id with its high byte first, so that children lie together, in order
//   'V', id                         a value
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_H

#include <lmdb.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "store/record.h"
#include "store/store_limits.h"

namespace tkv::store {

// These live on disk. Do not change.
constexpr std::byte kMetaKey{'M'};
constexpr std::byte kNodeKey{'N'};
constexpr std::byte kValueKey{'V'};

// LMDB's handle of the unnamed database, which every environment has.
constexpr MDB_dbi kDatabase = 1;

// A key, made on the stack.
class Key {
 public:
  static Key meta();
  static Key value(NodeId id);
  // Without a name, what the keys of all children begin with. `name` is at most kMaxLevelName bytes long.
  static Key node(NodeId parent, std::string_view name = {});

  // As LMDB takes it. Points into this key.
  MDB_val val() const& { return {size_, const_cast<std::byte*>(bytes_.data())}; }
  MDB_val val() const&& = delete;

 private:
  Key() = default;
  void put_id(NodeId id);

  std::array<std::byte, 1 + 8 + kMaxLevelName> bytes_;
  std::size_t size_ = 0;
};

// What a key of the database says. False when it is none of the three kinds.
struct KeyParts {
  std::byte kind;
  NodeId id = kNoNode;    // of the parent, for a node
  std::string_view name;  // within the key
};
bool read_key(const MDB_val& key, KeyParts* parts);

// Fills an empty file with a registry that has only a root, durably.
Status write_fresh_registry(const std::string& path, const sec_attr& root_security);

// Looks at the head of a file without LMDB, which trusts what it finds there: a file of something else, a file that
// was cut off, and a head with numbers that cannot be, give 7 with a text. Changes nothing.
Status inspect_data_file(const std::string& path);

}  // namespace tkv::store

#endif
