#include "store/lmdb/file.h"

#include <fcntl.h>
#include <sys/stat.h>
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

Status foreign(const std::string& path, const std::string& why) {
  return {PRTKV_STORAGE_FAILED, "'" + path + "' is not a file of a registry, or it is damaged: " + why};
}

Status read_head(const Descriptor& file, const std::string& path, off_t at, Head* head) {
  const ssize_t count = pread(file.number(), head, sizeof *head, at);
  const int error = count < 0 ? errno : 0;
  if (error != 0) return lmdb_status(error, "cannot read '" + path + "'");
  if (count != sizeof *head) return foreign(path, "it is too short");
  if ((head->page.flags & kMetaPage) == 0 || head->magic != kMagic) return foreign(path, "its head is another's");
  if (head->version != kVersion) return foreign(path, "its LMDB format has version " + std::to_string(head->version));
  if (!std::has_single_bit(head->free_pages.page_size) || head->free_pages.page_size < 512 ||
      head->free_pages.page_size > 65536)
    return foreign(path, "its page size is " + std::to_string(head->free_pages.page_size));
  return {};
}

// `parity` is that of the transactions whose head this is.
Status check_numbers(const std::string& path, const Head& head, unsigned parity) {
  if (head.transaction % 2 != parity) return foreign(path, "a head of its is in the other's place");
  if (head.last_page < 1 || head.last_page >= kLargestFile / head.free_pages.page_size)
    return foreign(path, "its last page is " + std::to_string(head.last_page));
  if (head.map_size > kLargestFile) return foreign(path, "its map is " + std::to_string(head.map_size) + " bytes");
  const bool is_usual = (head.free_pages.flags & kTreeKind) == kNumbersTree && head.main.flags == kPlainTree;
  return is_usual ? Status() : foreign(path, "its database is of another kind");
}

Status check_heads(const Descriptor& file, const std::string& path) {
  Head first{};
  Head second{};
  if (Status status = read_head(file, path, 0, &first); !status.ok()) return status;
  if (Status status = read_head(file, path, first.free_pages.page_size, &second); !status.ok()) return status;
  if (first.free_pages.page_size != second.free_pages.page_size)
    return foreign(path, "its two heads differ in the page size");
  // Which of them LMDB goes by depends on numbers that may be damaged, too.
  if (Status status = check_numbers(path, first, 0); !status.ok()) return status;
  return check_numbers(path, second, 1);
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
  assert(name.size() <= kMaxLevelName);
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

bool read_key(const MDB_val& key, KeyParts* parts) {
  const auto* const bytes = static_cast<const std::byte*>(key.mv_data);
  if (key.mv_size == 0) return false;
  *parts = KeyParts{bytes[0], kNoNode, {}};
  if (parts->kind == kMetaKey) return key.mv_size == 1;
  if (parts->kind != kNodeKey && parts->kind != kValueKey) return false;
  if (key.mv_size < 9 || key.mv_size > 9 + kMaxLevelName) return false;
  for (std::size_t i = 1; i <= 8; ++i) parts->id = parts->id << 8 | std::to_integer<NodeId>(bytes[i]);
  parts->name = {reinterpret_cast<const char*>(bytes + 9), key.mv_size - 9};
  return parts->kind == kNodeKey || parts->name.empty();
}

Status write_fresh_registry(const std::string& path, const sec_attr& root_security) {
  const std::string doing = "cannot write a fresh registry to '" + path + "'";
  MDB_env* raw = nullptr;
  if (const int code = mdb_env_create(&raw); code != 0) return lmdb_status(code, doing);
  const EnvironmentHandle env(raw, &mdb_env_close);
  // Nobody else knows the file yet: no lock file.
  return lmdb_status(lmdb_outcome([&] {
                       const int code = mdb_env_open(env.get(), path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0600);
                       return code == 0 ? write_first_state(env.get(), root_security) : code;
                     }),
                     doing);
}

Status inspect_data_file(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.is_open()) {
    const int error = errno;
    return lmdb_status(error, "cannot open '" + path + "'");
  }
  struct stat status {};
  if (fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode)) return foreign(path, "it is not a plain file");
  return check_heads(file, path);
}

}  // namespace tkv::store
