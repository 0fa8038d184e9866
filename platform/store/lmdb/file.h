// The registry's data file: its keys, its creation, and a first inspection of an existing one.
//
// All records are in LMDB's unnamed database. The first byte of a key tells the kind of its record:
//
//   'M'                             the registry's record of itself, which is the first of all
//   'M', revision, number           a part of a change in the log; the revision is inverted, so that the newest change
//                                   comes first: most often it is on one page with the record of the registry, which
//                                   every change rewrites
//   'N', parent id, level name      a node; ids have the high byte first, so that siblings are adjacent and in order
//   'V', id                         a value
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_H

#include <lmdb.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "store/record.h"
#include "store/store_limits.h"

namespace tkv::store {

// Stored on disk. Do not change.
constexpr std::byte kMetaKey{'M'};
constexpr std::byte kNodeKey{'N'};
constexpr std::byte kValueKey{'V'};

// LMDB's handle of the unnamed database, which every environment has.
constexpr MDB_dbi kDatabase = 1;

// A key. Never allocates.
class Key {
 public:
  static Key meta();
  static Key value(NodeId id);
  static Key change(Revision revision, std::uint32_t part);
  // Without a name: the prefix of the keys of all children. `name` is at most kMaxLevelSize bytes long.
  static Key node(NodeId parent, std::string_view name = {});

  // The key as an LMDB argument. Points into this object.
  MDB_val val() const& { return {size_, const_cast<std::byte*>(bytes_.data())}; }
  MDB_val val() const&& = delete;
  std::span<const std::byte> bytes() const& { return std::span(bytes_).first(size_); }
  std::span<const std::byte> bytes() const&& = delete;

 private:
  Key() = default;
  template <typename Integer>
  void put_number(Integer number);

  std::array<std::byte, 1 + 8 + kMaxLevelSize> bytes_;
  std::size_t size_ = 0;
};

// The parts of a key.
struct KeyParts {
  enum class Kind { kMeta, kChange, kNode, kValue };
  Kind kind = Kind::kMeta;
  std::uint64_t id = kNoNode;  // for a node, the parent's; for a change, its revision
  std::string_view name;       // of a node, within the key
  std::uint32_t part = 0;      // of a change
};

// Takes a key apart. Returns false if it is of none of these kinds.
bool read_key(std::span<const std::byte> key, KeyParts* parts);

// Fills an empty file with a registry that has only a root. Durable on return.
Status write_fresh_registry(const std::string& path, const sec_attr& root_security);

// Checks the meta pages of a file without LMDB, which trusts them. Returns PRTKV_UNUSABLE for a file that is something
// else, PRTKV_STORAGE_FAILED for one that is empty, truncated or has impossible numbers, each with a reason. Changes
// nothing. `path` is for the message only.
Status inspect_data_file(const Descriptor& file, const std::string& path);

}  // namespace tkv::store

#endif
