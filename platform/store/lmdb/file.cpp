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
  return {PRTKV_STORAGE_FAILED, "'" + path + "' is not the data file of a registry, or it is damaged: " + why};
}

std::string meta_page_text(unsigned number) { return "meta page " + std::to_string(number); }

Status read_meta_page(const Descriptor& file, const std::string& path, unsigned number, std::size_t page_size,
                      MetaPage* meta) {
  const ssize_t count = pread(file.number(), meta, sizeof *meta, static_cast<off_t>(number * page_size));
  const int error = count < 0 ? errno : 0;
  if (error != 0) return lmdb_status(error, "cannot read '" + path + "'");
  if (count != sizeof *meta) return not_a_registry(path, "it is too short");
  if ((meta->header.flags & kMetaPage) == 0 || meta->magic != kMagic) {
    return not_a_registry(path, meta_page_text(number) + " is not a meta page of LMDB");
  }
  if (meta->version != kFormatVersion) {
    return not_a_registry(path, "its LMDB data format has version " + std::to_string(meta->version));
  }
  const std::size_t size = meta->free_pages.page_size;
  if (!std::has_single_bit(size) || size < 512 || size > kMaxPageSize) {
    return not_a_registry(path, "its page size is " + std::to_string(size));
  }
  return {};
}

Status check_meta_page(const std::string& path, unsigned number, const MetaPage& meta) {
  const std::string name = meta_page_text(number);
  if (meta.transaction % kMetaPages != number) {
    return not_a_registry(path, name + " carries the wrong transaction number");
  }
  if (meta.last_page < 1 || meta.last_page >= kLargestFile / meta.free_pages.page_size) {
    return not_a_registry(path, name + " gives " + std::to_string(meta.last_page) + " as the last page");
  }
  if (meta.map_size > kLargestFile) {
    return not_a_registry(path, name + " gives a map size of " + std::to_string(meta.map_size) + " bytes");
  }
  const bool is_usual = (meta.free_pages.flags & kTreeKind) == kIntegerKeyTree && meta.records.flags == kPlainTree;
  return is_usual ? Status() : not_a_registry(path, name + " describes another kind of database");
}

Status check_meta_pages(const Descriptor& file, const std::string& path) {
  MetaPage first{};
  MetaPage second{};
  if (Status status = read_meta_page(file, path, 0, 0, &first); !status.ok()) return status;
  const std::size_t page_size = first.free_pages.page_size;
  if (Status status = read_meta_page(file, path, 1, page_size, &second); !status.ok()) return status;
  if (second.free_pages.page_size != page_size) {
    return not_a_registry(path, "its two meta pages give different page sizes");
  }
  // LMDB chooses one of them by its transaction number, which may be damaged: both must be sound.
  if (Status status = check_meta_page(path, 0, first); !status.ok()) return status;
  return check_meta_page(path, 1, second);
}

using EnvironmentHandle = std::unique_ptr<MDB_env, decltype(&mdb_env_close)>;

int put(MDB_txn* txn, const Key& key, std::span<const std::byte> record) {
  MDB_val key_val = key.val();
  MDB_val data{record.size(), const_cast<std::byte*>(record.data())};
  return mdb_put(txn, kDatabase, &key_val, &data, 0);
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

Key Key::meta() {
  Key key;
  key.bytes_[0] = kMetaKey;
  key.size_ = 1;
  return key;
}

Key Key::value(NodeId id) {
  Key key;
  key.bytes_[0] = kValueKey;
  key.put_id(id);
  return key;
}

Key Key::node(NodeId parent, std::string_view name) {
  assert(name.size() <= kMaxLevelSize);
  Key key;
  key.bytes_[0] = kNodeKey;
  key.put_id(parent);
  if (!name.empty()) std::memcpy(key.bytes_.data() + key.size_, name.data(), name.size());
  key.size_ += name.size();
  return key;
}

void Key::put_id(NodeId id) {
  for (std::size_t i = 0; i < 8; ++i) bytes_[1 + i] = static_cast<std::byte>(id >> (8 * (7 - i)));
  size_ = 1 + 8;
}

bool read_key(std::span<const std::byte> key, KeyParts* parts) {
  constexpr std::size_t kNameAt = 1 + 8;
  if (key.empty()) return false;
  *parts = KeyParts{key[0], kNoNode, {}};
  if (parts->kind == kMetaKey) return key.size() == 1;
  if (parts->kind != kNodeKey && parts->kind != kValueKey) return false;
  if (key.size() < kNameAt || key.size() > kNameAt + kMaxLevelSize) return false;
  for (std::size_t i = 1; i < kNameAt; ++i) parts->id = parts->id << 8 | std::to_integer<NodeId>(key[i]);
  parts->name = {reinterpret_cast<const char*>(key.data() + kNameAt), key.size() - kNameAt};
  return parts->kind == kNodeKey || parts->name.empty();
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
