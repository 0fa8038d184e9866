#include "store/lmdb/file_state.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/lmdb/page.h"

namespace tkv::store {
namespace {

using TransactionHandle = std::unique_ptr<MDB_txn, decltype(&mdb_txn_abort)>;

Status cannot_read(const FileMap& map, int code) {
  return lmdb_status(code, "cannot read the registry in '" + std::string(map.directory) + "'");
}

Status read_at(int file, const FileMap& map, std::uint64_t page, std::span<std::byte> bytes) {
  const ssize_t count = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(page * map.page_size));
  const int error = count < 0 ? errno : 0;
  if (error != 0) return cannot_read(map, error);
  return static_cast<std::size_t>(count) == bytes.size() ? Status() : damaged_page(map, {page, "is missing"});
}

Status lacks_own_record(const FileMap& map) {
  return {PRTKV_STORAGE_FAILED, "the file in '" + std::string(map.directory) + "' lacks a registry's record of itself"};
}

// For a sound file of LMDB whose first key is none of a registry.
Status holds_no_registry(const FileMap& map) {
  return {PRTKV_UNUSABLE,
          "the file in '" + std::string(map.directory) +
              "' is a file of LMDB without a registry; move it aside, or set `location` to another directory"};
}

// The leaf page that holds the record of the registry itself, whose key is the smallest: reads the leftmost page of
// each level, without the map.
class FirstLeaf {
 public:
  FirstLeaf(int file, const FileMap& map) : file_(file), map_(map), bytes_(map.page_size) {}

  Status read(const FileState& state) {
    number_ = state.records.page;
    for (unsigned level = 1;; ++level) {
      const bool is_leaf = level == state.records.depth;
      if (!state.has_page(number_)) return damaged_page(map_, {number_, "does not exist, and is referred to"});
      if (Status status = read_at(file_, map_, number_, bytes_); !status.ok()) return status;
      Page page;
      PageDefect defect = page.open(bytes_.data(), bytes_.size(), number_, is_leaf ? kLeafPage : kBranchPage);
      if (defect == nullptr) defect = page.check_nodes(state.page_count, Page::Keys::kBytes);
      if (defect == nullptr && !is_leaf && !follow(page)) defect = "has its keys out of order";
      if (defect != nullptr) return damaged_page(map_, {number_, defect});
      if (is_leaf) return check_first_record(page);
    }
  }

  // Whether a page in the map is this one.
  bool is_at(const std::byte* page) const { return std::memcmp(page, bytes_.data(), bytes_.size()) == 0; }
  std::uint64_t number() const { return number_; }

 private:
  // LMDB searches the whole page for the smallest key: it must come out where this does.
  bool follow(const Page& page) {
    PageNode first;
    PageNode second;
    const Key key = Key::meta();
    if (!page.read(0, &first) || !page.read(1, &second) || compare_keys(second.key, key.bytes()) <= 0) return false;
    number_ = first.child();
    return true;
  }

  Status check_first_record(const Page& page) const {
    PageNode node;
    const Key key = Key::meta();
    KeyParts parts;
    const bool is_read = page.read(0, &node);
    if (is_read && compare_keys(node.key, key.bytes()) == 0 && !node.is_big()) return {};
    return is_read && !read_key(node.key, &parts) ? holds_no_registry(map_) : lacks_own_record(map_);
  }

  const int file_;
  const FileMap& map_;
  std::vector<std::byte> bytes_;
  std::uint64_t number_ = 0;
};

// One attempt. `*found` stays false if another process has committed in between.
Status try_to_locate(MDB_env* env, FileMap* map, bool* found) {
  MDB_txn* raw = nullptr;
  if (const int code = mdb_txn_begin(env, nullptr, MDB_RDONLY, &raw); code != 0) return cannot_read(*map, code);
  const TransactionHandle txn(raw, &mdb_txn_abort);
  int file = -1;
  mdb_env_get_fd(env, &file);
  const std::uint64_t transaction = mdb_txn_id(raw);
  MetaPage meta{};
  if (Status status = read_at(file, *map, transaction % kMetaPages, std::as_writable_bytes(std::span(&meta, 1)));
      !status.ok()) {
    return status;
  }
  if (meta.transaction > transaction) return {};  // overwritten since
  FileState state;
  if (Status status = load_state(*map, meta, transaction, &state); !status.ok()) return status;
  FirstLeaf leaf(file, *map);
  if (state.records.page == kNoPage) {
    return state.records.entries == 0 ? holds_no_registry(*map) : lacks_own_record(*map);
  }
  if (Status status = leaf.read(state); !status.ok()) return status;
  const Key key = Key::meta();
  MDB_val key_val = key.val();
  MDB_val data{};
  MDB_dbi database = 0;
  int code = mdb_dbi_open(raw, nullptr, 0, &database);
  if (code == 0) code = mdb_get(raw, database, &key_val, &data);
  if (code != 0) return cannot_read(*map, code);
  // The map is aligned to the system's page size, which is LMDB's as well unless a file was made elsewhere.
  const auto* const record = static_cast<const std::byte*>(data.mv_data);
  const std::size_t within = reinterpret_cast<std::uintptr_t>(record) % map->page_size;
  if (!leaf.is_at(record - within)) return {};
  map->address = record - within - leaf.number() * map->page_size;
  *found = true;
  return {};
}

}  // namespace

Status damaged_page(const FileMap& map, PageDamage damage) {
  return {PRTKV_STORAGE_FAILED, "the registry in '" + std::string(map.directory) + "' is damaged: page " +
                                    std::to_string(damage.page) + " " + damage.defect};
}

Status locate_map(MDB_env* env, const char* directory, FileMap* map) {
  MDB_stat pages{};
  MDB_envinfo info{};
  mdb_env_stat(env, &pages);
  mdb_env_info(env, &info);
  FileMap located;
  located.size = info.me_mapsize;
  located.page_size = pages.ms_psize;
  located.directory = directory;
  constexpr int kAttempts = 100;
  bool found = false;
  for (int attempt = 0; attempt < kAttempts && !found; ++attempt)
    if (Status status = try_to_locate(env, &located, &found); !status.ok()) return status;
  if (!found) return damaged_page(located, {0, "and the pages that it leads to do not belong together"});
  *map = located;
  return {};
}

void copy_meta_page(const FileMap& map, std::uint64_t transaction, MetaPage* meta, bool* certain) {
  std::memcpy(meta, map.address + (transaction % kMetaPages) * map.page_size, sizeof *meta);
  std::atomic_thread_fence(std::memory_order_acquire);
  std::uint64_t other = 0;
  const std::byte* const other_page = map.address + ((transaction + 1) % kMetaPages) * map.page_size;
  std::memcpy(&other, other_page + offsetof(MetaPage, transaction), sizeof other);
  *certain = other <= transaction;  // the meta page is overwritten only after the other one carries the next number
}

Status load_state(const FileMap& map, const MetaPage& meta, std::uint64_t transaction, FileState* state) {
  const auto damaged = [&](const char* defect) { return damaged_page(map, {transaction % kMetaPages, defect}); };
  if (meta.magic != kMagic || meta.version != kFormatVersion || (meta.header.flags & kMetaPage) == 0 ||
      meta.free_pages.page_size != map.page_size) {
    return damaged("is not a meta page of LMDB");
  }
  if (meta.transaction != transaction) return damaged("carries the wrong transaction number");
  if (meta.last_page < kMetaPages - 1 || meta.last_page >= map.size / map.page_size) {
    return damaged("gives an impossible last page");
  }
  for (const TreeRoot* tree : {&meta.records, &meta.free_pages}) {
    const bool is_empty = tree->page == kNoPage;
    const bool has_depth = tree->depth > 0 && tree->depth <= kMaxTreeDepth;
    if (!is_empty && (!has_depth || tree->page < kMetaPages || tree->page > meta.last_page)) {
      return damaged("gives an impossible root page");
    }
  }
  *state = FileState{map, transaction, meta.last_page + 1, meta.records, meta.free_pages};
  return {};
}

}  // namespace tkv::store
