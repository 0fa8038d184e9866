#include "store/lmdb/file.h"

#include <unistd.h>

#include <bit>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/descriptor.h"
#include "store/lmdb/error.h"
#include "store/lmdb/layout.h"

namespace tkv::store {
namespace {

constexpr std::uint64_t kLargestFile = std::uint64_t{1} << 46;

Status not_a_registry(const std::string& path, const std::string& why) {
  return {PRTKV_UNUSABLE, "'" + path + "' is not the data file of a registry: " + why +
                              "; move it aside, or set `location` to another directory"};
}

Status damaged(const std::string& path, const std::string& why) {
  return {PRTKV_STORAGE_FAILED, "the data file '" + path + "' is damaged: " + why};
}

std::string meta_page_text(unsigned number) { return "meta page " + std::to_string(number); }

// Reads what there is of a meta page; the rest is zeroes.
Status read_meta_page(const Descriptor& file, const std::string& path, std::size_t at, MetaPage* meta) {
  *meta = MetaPage{};
  const ssize_t count = pread(file.number(), meta, sizeof *meta, static_cast<off_t>(at));
  const int error = count < 0 ? errno : 0;
  return error == 0 ? Status() : lmdb_status(error, "cannot read '" + path + "'");
}

bool is_of_lmdb(const MetaPage& meta) { return (meta.header.flags & kMetaPage) != 0 && meta.magic == kMagic; }

bool is_empty(const MetaPage& meta) {
  const MetaPage none{};
  return std::memcmp(&meta, &none, sizeof meta) == 0;
}

bool is_page_size(std::size_t size) {
  return std::has_single_bit(size) && size >= kMinPageSize && size <= kMaxPageSize;
}

// Finds the second meta page of a file whose first one may be damaged: its place depends on the size of pages.
Status find_second_meta_page(const Descriptor& file, const std::string& path, std::size_t first_size, MetaPage* meta) {
  if (is_page_size(first_size)) return read_meta_page(file, path, first_size, meta);
  for (std::size_t size = kMinPageSize; size <= kMaxPageSize; size *= 2) {
    if (Status status = read_meta_page(file, path, size, meta); !status.ok() || is_of_lmdb(*meta)) return status;
  }
  return {};
}

bool is_another_database(const MetaPage& meta) { return meta.records.flags != kPlainTree; }

// Refuses a file that is no registry's. Of two meta pages, one that says what it is counts: the other is damaged.
Status check_kind(const std::string& path, const MetaPage& first, const MetaPage& second) {
  if (!is_of_lmdb(first) && !is_of_lmdb(second)) {
    return is_empty(first) ? damaged(path, "it is empty where it should begin with a meta page")
                           : not_a_registry(path, "it has no meta page of LMDB");
  }
  if (!is_of_lmdb(first) || !is_of_lmdb(second)) {
    return damaged(path, meta_page_text(is_of_lmdb(first) ? 1 : 0) + " is not a meta page of LMDB");
  }
  if (first.version != kFormatVersion && first.version == second.version) {
    return not_a_registry(path, "its LMDB data format has version " + std::to_string(first.version));
  }
  // The first transaction of a file leaves one meta page as it was before there was a database.
  const auto agrees = [](const MetaPage& meta) { return meta.transaction == 0 || is_another_database(meta); };
  if (is_another_database(first) ? agrees(second) : is_another_database(second) && agrees(first)) {
    return not_a_registry(path, "it holds another kind of database");
  }
  return {};
}

Status check_meta_page(const std::string& path, unsigned number, const MetaPage& meta) {
  const std::string name = meta_page_text(number);
  if (meta.version != kFormatVersion) {
    return damaged(path, name + " gives " + std::to_string(meta.version) + " as the version of LMDB's data format");
  }
  if (!is_page_size(meta.free_pages.page_size)) {
    return damaged(path, name + " gives a page size of " + std::to_string(meta.free_pages.page_size));
  }
  if (meta.transaction % kMetaPages != number) return damaged(path, name + " carries the wrong transaction number");
  if (meta.last_page < 1 || meta.last_page >= kLargestFile / meta.free_pages.page_size) {
    return damaged(path, name + " gives " + std::to_string(meta.last_page) + " as the last page");
  }
  if (meta.map_size > kLargestFile) {
    return damaged(path, name + " gives a map size of " + std::to_string(meta.map_size) + " bytes");
  }
  const bool is_usual = (meta.free_pages.flags & kTreeKind) == kIntegerKeyTree && !is_another_database(meta);
  return is_usual ? Status() : damaged(path, name + " describes another kind of database");
}

// LMDB chooses one of them by its transaction number, which may be damaged: both must be sound.
Status check_meta_pages(const Descriptor& file, const std::string& path) {
  MetaPage first{};
  MetaPage second{};
  if (Status status = read_meta_page(file, path, 0, &first); !status.ok()) return status;
  const std::size_t first_size = is_of_lmdb(first) ? first.free_pages.page_size : 0;
  if (Status status = find_second_meta_page(file, path, first_size, &second); !status.ok()) return status;
  if (Status status = check_kind(path, first, second); !status.ok()) return status;
  if (Status status = check_meta_page(path, 0, first); !status.ok()) return status;
  if (Status status = check_meta_page(path, 1, second); !status.ok()) return status;
  const bool is_same_size = first.free_pages.page_size == second.free_pages.page_size;
  return is_same_size ? Status() : damaged(path, "its two meta pages give different page sizes");
}

using EnvironmentHandle = std::unique_ptr<MDB_env, decltype(&mdb_env_close)>;

int put(MDB_txn* txn, const Key& key, std::span<const std::byte> record) {
  MDB_val key_val = key.val();
  MDB_val data{record.size(), const_cast<std::byte*>(record.data())};
  return mdb_put(txn, kDatabase, &key_val, &data, 0);
}

std::uint64_t reversed(std::uint64_t number) { return __builtin_bswap64(number); }
std::uint32_t reversed(std::uint32_t number) { return __builtin_bswap32(number); }

std::uint64_t number_of(std::span<const std::byte> bytes) {
  std::uint64_t number = 0;
  for (const std::byte byte : bytes) number = number << 8 | std::to_integer<std::uint64_t>(byte);
  return number;
}

int put_first_records(MDB_txn* txn, const sec_attr& root_security) {
  MDB_dbi database = 0;
  if (const int code = mdb_dbi_open(txn, nullptr, 0, &database); code != 0) return code;
  assert(database == kDatabase);
  if (const int code = put(txn, Key::meta(), encode_meta(Meta{})); code != 0) return code;
  return put(txn, Key::node(kNoNode), encode_node(kNoNode, "", Node{kRootNode, root_security}));
}

int write_first_state(MDB_env* env, const sec_attr& root_security) {
  MDB_txn* txn = nullptr;
  if (const int code = mdb_txn_begin(env, nullptr, 0, &txn); code != 0) return code;
  if (const int code = put_first_records(txn, root_security); code != 0) {
    mdb_txn_abort(txn);
    return code;
  }
  return mdb_txn_commit(txn);
}

}  // namespace

// The high byte first.
template <typename Integer>
void Key::put_number(Integer number) {
  if constexpr (std::endian::native == std::endian::little) number = reversed(number);
  std::memcpy(bytes_.data() + size_, &number, sizeof number);
  size_ += sizeof number;
}

Key Key::meta() {
  Key key;
  key.bytes_[0] = kMetaKey;
  key.size_ = 1;
  return key;
}

Key Key::value(NodeId id) {
  Key key;
  key.bytes_[0] = kValueKey;
  key.size_ = 1;
  key.put_number(id);
  return key;
}

Key Key::change(Revision revision, std::uint32_t part) {
  Key key;
  key.bytes_[0] = kMetaKey;
  key.size_ = 1;
  key.put_number(~revision);
  key.put_number(part);
  return key;
}

Key Key::node(NodeId parent, std::string_view name) {
  assert(name.size() <= kMaxLevelSize);
  Key key;
  key.bytes_[0] = kNodeKey;
  key.size_ = 1;
  key.put_number(parent);
  if (!name.empty()) std::memcpy(key.bytes_.data() + key.size_, name.data(), name.size());
  key.size_ += name.size();
  return key;
}

bool read_key(std::span<const std::byte> key, KeyParts* parts) {
  constexpr std::size_t kNameAt = 1 + 8;
  *parts = KeyParts{};
  if (key.size() < kNameAt) return key.size() == 1 && key[0] == kMetaKey;
  parts->id = number_of(key.subspan(1, 8));
  const auto rest = key.subspan(kNameAt);
  if (key[0] == kMetaKey) {
    parts->kind = KeyParts::Kind::kChange;
    parts->id = ~parts->id;
    parts->part = static_cast<std::uint32_t>(number_of(rest));
    return rest.size() == sizeof parts->part;
  }
  if (key[0] == kValueKey) {
    parts->kind = KeyParts::Kind::kValue;
    return rest.empty();
  }
  parts->kind = KeyParts::Kind::kNode;
  parts->name = {reinterpret_cast<const char*>(rest.data()), rest.size()};
  return key[0] == kNodeKey && rest.size() <= kMaxLevelSize;
}

Status write_fresh_registry(const std::string& path, const sec_attr& root_security) {
  const std::string doing = "cannot write a fresh registry";
  MDB_env* raw = nullptr;
  if (const int code = mdb_env_create(&raw); code != 0) return lmdb_status(code, doing);
  const EnvironmentHandle env(raw, &mdb_env_close);
  // No other process knows the file yet, so it needs no lock file.
  return lmdb_status(lmdb_outcome([&] {
                       const int code = mdb_env_open(env.get(), path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0600);
                       return code == 0 ? write_first_state(env.get(), root_security) : code;
                     }),
                     doing);
}

Status inspect_data_file(const Descriptor& file, const std::string& path) { return check_meta_pages(file, path); }

}  // namespace tkv::store
