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

// Reads the pages on the way to a key without the map. Pages that the way to the key before has led through are not
// read again.
class PathInFile {
 public:
  PathInFile(int file, const FileMap& map, const FileState& state)
      : file_(file), map_(map), state_(state), levels_(state.records.depth) {}

  // Each page is checked as a whole: LMDB must come to the same leaf page.
  Status read(const Key& key) {
    std::uint64_t number = state_.records.page;
    for (Level& level : levels_) {
      if (Status status = read_page(number, &level); !status.ok()) return status;
      if (&level == &levels_.back()) return {};
      PageNode node;
      level.child = child_for(level.page, key);
      number = level.page.read(level.child, &node) ? node.child() : kNoPage;
    }
    return {};
  }

  // The record at an index of the leaf page, if the page holds it under this key. Otherwise it has no bytes.
  std::span<const std::byte> record_at(unsigned index, const Key& key) const {
    PageNode node;
    const bool is_it = leaf().read(index, &node) && compare_keys(node.key, key.bytes()) == 0 && node.data_fits();
    return is_it && !node.is_big() ? node.rest.first(node.data_size()) : std::span<const std::byte>();
  }

  bool leaf_holds(const Key& key) const {
    for (unsigned index = 0; index < leaf().count(); ++index)
      if (record_at(index, key).data() != nullptr) return true;
    return false;
  }

  const Page& leaf() const { return levels_.back().page; }

  // The first page that the way does not leave through its first child. Null if there is none.
  const Page* left_first_child_at() const {
    for (const Level& level : levels_)
      if (level.child != 0) return &level.page;
    return nullptr;
  }

  // Whether a page in the map is the leaf page.
  bool leaf_is_at(const std::byte* page) const {
    return std::memcmp(page, levels_.back().bytes.data(), map_.page_size) == 0;
  }

 private:
  struct Level {
    std::uint64_t number = 0;  // of the page that was read; 0: none
    std::vector<std::byte> bytes;
    Page page;
    unsigned child = 0;  // of a branch page, on the way
  };

  Status read_page(std::uint64_t number, Level* level) const {
    if (level->number == number) return {};
    if (!state_.has_page(number)) return damaged_page(map_, {number, "does not exist, and is referred to"});
    level->number = 0;
    level->bytes.resize(map_.page_size);
    if (Status status = read_at(file_, map_, number, level->bytes); !status.ok()) return status;
    const std::uint16_t kind = level == &levels_.back() ? kLeafPage : kBranchPage;
    PageDefect defect = level->page.open(level->bytes.data(), map_.page_size, number, kind);
    if (defect == nullptr) defect = level->page.check_nodes(state_.page_count, Page::Keys::kBytes);
    if (defect != nullptr) return damaged_page(map_, {number, defect});
    level->number = number;
    return {};
  }

  // Which child a search for the key goes to.
  static unsigned child_for(const Page& page, const Key& key) {
    unsigned low = 1;
    unsigned high = page.count();
    while (low < high) {
      const unsigned middle = (low + high) / 2;
      std::span<const std::byte> other;
      const bool is_behind = page.read_key(middle, &other) && compare_keys(other, key.bytes()) > 0;
      (is_behind ? high : low) = is_behind ? middle : middle + 1;
    }
    return low - 1;
  }

  const int file_;
  const FileMap& map_;
  const FileState& state_;
  std::vector<Level> levels_;
};

// Reads the record of the registry itself, whose key is the smallest.
Status read_own_record(const FileMap& map, PathInFile* path, FirstState* first) {
  const Key key = Key::meta();
  const TreeRoot& records = first->state.records;
  if (records.page == kNoPage) return records.entries == 0 ? holds_no_registry(map) : lacks_own_record(map);
  if (Status status = path->read(key); !status.ok()) return status;
  if (const Page* const page = path->left_first_child_at(); page != nullptr) {
    return damaged_page(map, {page->number(), "has its keys out of order"});
  }
  const auto record = path->record_at(0, key);
  if (record.data() == nullptr) {
    PageNode node;
    KeyParts parts;
    const bool is_foreign = path->leaf().read(0, &node) && !read_key(node.key, &parts);
    return is_foreign ? holds_no_registry(map) : lacks_own_record(map);
  }
  first->decoded = decode_meta(record, &first->meta);
  return {};
}

// Chooses a record for LMDB to look up, to which `*path` then leads: that of the root node, since most reads begin on
// the way to it. So no page is brought into the map for this alone.
Status choose_record(PathInFile* path, Key* key) {
  *key = Key::node(kNoNode);
  if (path->read(*key).ok() && path->leaf_holds(*key)) return {};
  *key = Key::meta();  // the registry is damaged, and perhaps about to be repaired
  return path->read(*key);
}

// One attempt. `*found` stays false if another process has committed in between.
Status try_to_locate(MDB_env* env, FileMap* map, FirstState* first, bool* found) {
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
  if (Status status = load_state(*map, meta, transaction, &first->state); !status.ok()) return status;
  PathInFile path(file, *map, first->state);
  if (Status status = read_own_record(*map, &path, first); !status.ok()) return status;
  Key key = Key::meta();
  if (Status status = choose_record(&path, &key); !status.ok()) return status;
  MDB_val key_val = key.val();
  MDB_val data{};
  MDB_dbi database = 0;
  int code = mdb_dbi_open(raw, nullptr, 0, &database);
  if (code == 0) code = mdb_get(raw, database, &key_val, &data);
  if (code != 0) return cannot_read(*map, code);
  // The map is aligned to the system's page size, which is LMDB's as well unless a file was made elsewhere.
  const auto* const record = static_cast<const std::byte*>(data.mv_data);
  const std::size_t within = reinterpret_cast<std::uintptr_t>(record) % map->page_size;
  if (!path.leaf_is_at(record - within)) return {};
  map->address = record - within - path.leaf().number() * map->page_size;
  bool certain = false;
  copy_meta_page(*map, transaction, &meta, &certain);
  first->state.map = *map;
  if (!certain) first->state = FileState{};  // what was read of the meta page may have been torn
  *found = true;
  return {};
}

}  // namespace

Status damaged_page(const FileMap& map, PageDamage damage) {
  return {PRTKV_STORAGE_FAILED, "the registry in '" + std::string(map.directory) + "' is damaged: page " +
                                    std::to_string(damage.page) + " " + damage.defect};
}

Status locate_map(MDB_env* env, const char* directory, FileMap* map, FirstState* first) {
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
    if (Status status = try_to_locate(env, &located, first, &found); !status.ok()) return status;
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
