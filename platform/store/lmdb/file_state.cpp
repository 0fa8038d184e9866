#include "store/lmdb/file_state.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>

#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/lmdb/page.h"
#include "store/lmdb/tree_cursor.h"

namespace tkv::store {
namespace {

using TransactionHandle = std::unique_ptr<MDB_txn, decltype(&mdb_txn_abort)>;
using CursorHandle = std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)>;

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

// A file that cannot be read need not be damaged.
Status failed(const FileState& state, PageDamage damage) {
  const int error = state.in_file->error();
  return error == 0 || error == ENODATA ? damaged_page(state.map, damage) : cannot_read(state.map, error);
}

// Goes to a record by the way that LMDB would take, on which each page is checked as a whole.
PageDamage go_to(const Key& key, TreeCursor* cursor, CheckedPages* checked, bool* found) {
  if (PageDamage damage = cursor->seek(key.bytes(), found)) return damage;
  return cursor->check_path(checked);
}

// For a registry's file, or another one, whose tree has no such record.
Status explain_lack_of_own_record(const FileState& state) {
  CheckedPages checked;
  TreeCursor cursor(state, &checked);
  std::span<const std::byte> key;
  std::span<const std::byte> record;
  KeyParts parts;
  bool found = false;
  PageDamage damage = go_to(Key::meta(), &cursor, &checked, &found);
  if (!damage) damage = cursor.check_first();
  if (damage) return failed(state, damage);
  if (!cursor.first()) (void)cursor.read(&key, &record);  // the record does not matter
  return key.data() != nullptr && !read_key(key, &parts) ? holds_no_registry(state.map) : lacks_own_record(state.map);
}

// Reads the record of the registry itself, whose key is the smallest. It has a checksum, so the pages on the way to it
// are looked at only if it is missing.
Status read_own_record(const FileState& state, FirstState* first) {
  if (state.records.page == kNoPage) {
    return state.records.entries == 0 ? holds_no_registry(state.map) : lacks_own_record(state.map);
  }
  const Key key = Key::meta();
  TreeCursor cursor(state);
  std::span<const std::byte> record;
  bool found = false;
  PageDamage damage = cursor.seek(key.bytes(), &found);
  if (!damage && found) damage = cursor.record(&record);
  if (damage) return failed(state, damage);
  if (!found) return explain_lack_of_own_record(state);
  first->decoded = decode_meta(record, &first->meta);
  return {};
}

// A page, and its address in LMDB's map.
struct PageInMap {
  std::uint64_t number = 0;
  const std::byte* address = nullptr;  // null: LMDB was not asked
};

// The list of free pages rarely has more than one page, so asking for its first entry touches the least of the map.
Status find_in_free_list(MDB_txn* txn, const FileState& state, PageInMap* page) {
  constexpr MDB_dbi kFreePages = 0;
  TreeCursor cursor(state, state.free_pages, Page::Keys::kIntegers);
  std::span<const std::byte> key;
  std::span<const std::byte> numbers;
  if (cursor.first() || cursor.at_end()) return {};  // writers report damage to the list
  (void)cursor.read(&key, &numbers);                 // which may be on other pages
  if (key.data() == nullptr) return {};
  MDB_cursor* raw = nullptr;
  if (const int code = mdb_cursor_open(txn, kFreePages, &raw); code != 0) return cannot_read(state.map, code);
  const CursorHandle handle(raw, &mdb_cursor_close);
  MDB_val in_map{};
  if (const int code = mdb_cursor_get(raw, &in_map, nullptr, MDB_FIRST); code != 0) return cannot_read(state.map, code);
  const std::uint64_t number = cursor.page_number();
  *page = {number, static_cast<const std::byte*>(in_map.mv_data) - (key.data() - state.page(number))};
  return {};
}

// If there are no free pages, or their list is damaged: by the record of the root, or that of the registry if the
// root's is damaged and about to be repaired.
Status find_in_records(MDB_txn* txn, const FileState& state, PageInMap* page) {
  CheckedPages checked;
  TreeCursor cursor(state, &checked);
  Key key = Key::node(kNoNode);
  std::span<const std::byte> record;
  bool found = false;
  if (go_to(key, &cursor, &checked, &found) || !found) {
    key = Key::meta();
    if (PageDamage damage = go_to(key, &cursor, &checked, &found)) return failed(state, damage);
    if (!found) return lacks_own_record(state.map);
  }
  if (PageDamage damage = cursor.record(&record)) return failed(state, damage);
  MDB_val key_val = key.val();
  MDB_val in_map{};
  if (const int code = mdb_get(txn, kDatabase, &key_val, &in_map); code != 0) return cannot_read(state.map, code);
  const std::uint64_t number = cursor.page_number();
  *page = {number, static_cast<const std::byte*>(in_map.mv_data) - (record.data() - state.page(number))};
  return {};
}

bool is_in_map(const PageInMap& page, const FileState& state) {
  const std::byte* const bytes = state.page(page.number);
  return bytes != nullptr && std::memcmp(page.address, bytes, state.map.page_size) == 0;
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
  FileState& state = first->state;
  if (Status status = load_state(*map, meta, transaction, &state); !status.ok()) return status;
  first->pages = std::make_unique<PagesInFile>(file, map->page_size);
  state.use_file(first->pages.get());
  if (Status status = read_own_record(state, first); !status.ok()) return status;
  MDB_dbi database = kDatabase;  // opened for all transactions of the environment
  if (const int code = mdb_dbi_open(raw, nullptr, 0, &database); code != 0) return cannot_read(*map, code);
  PageInMap page;
  if (Status status = find_in_free_list(raw, state, &page); !status.ok()) return status;
  if (page.address == nullptr) {
    if (Status status = find_in_records(raw, state, &page); !status.ok()) return status;
  }
  if (!is_in_map(page, state)) return {};
  map->address = page.address - page.number * map->page_size;
  bool certain = false;
  copy_meta_page(*map, transaction, &meta, &certain);
  state.map = *map;
  if (!certain) {  // what was read of the meta page may have been torn
    state = FileState{};
    first->pages.reset();
  }
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
  *state = FileState{map, transaction, meta.last_page + 1, 0, nullptr, meta.records, meta.free_pages};
  state->use_map();
  return {};
}

const std::byte* FileState::page_in_file(std::uint64_t number) const {
  const std::byte* page = nullptr;
  if (in_file == nullptr || !has_page(number) || !in_file->read(number, &page)) return nullptr;
  return page == nullptr ? in_map(number) : page;
}

std::uint64_t FileState::offset_in_file(const std::byte* address) const {
  std::uint64_t offset = 0;
  return in_file->find(address, &offset) ? offset : static_cast<std::uint64_t>(address - map.address);
}

}  // namespace tkv::store
