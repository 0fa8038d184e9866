// WriteCheck: checks pages before LMDB follows them in a write transaction.
//
// LMDB changes copies of pages, in memory of its own, and reads all other pages from the map as the former state left
// them. So what LMDB may read for a key is found by the same search in the former state: the pages on the way to the
// key and, before something is removed, those beside them. Each page is checked as a whole, once in a transaction.
//
// A write mostly comes back to the leaf page that it was on last: to write a record that it has looked up, or the
// record of the registry beside that of the change. It is then not searched for again.
//
// Used by the thread that writes. All functions return PRTKV_STORAGE_FAILED with a message that names the page.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITE_CHECK_H
#define TKV_PLATFORM_STORE_LMDB_WRITE_CHECK_H

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/status.h"
#include "store/lmdb/file.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/tree_cursor.h"

namespace tkv::store {

// A set of page numbers that may also seem to have a number that was not added.
class PageFilter {
 public:
  void add(std::uint64_t number) { bits_.set(number % bits_.size()); }
  bool may_have(std::uint64_t number) const { return bits_.test(number % bits_.size()); }

 private:
  std::bitset<4096> bits_;
};

class WriteCheck {
 public:
  // `former` is the state that the transaction began with, and outlives this object.
  explicit WriteCheck(const FileState& former) : former_(former), cursor_(former) {}
  WriteCheck(const WriteCheck&) = delete;
  WriteCheck& operator=(const WriteCheck&) = delete;

  // Checks the list of free pages, which LMDB takes pages from and adds pages to. Of a long list, which only readers
  // that stay for long bring about, the beginning and the end are checked, so that the cost has a limit.
  Status check_free_list();

  // Looks up a record of the former state without LMDB, as in a read transaction, which need not look at whole pages.
  Status find_former(const Key& key, bool* found, std::span<const std::byte>* record);

  // Before a record is looked up or written. If the former state lacks the key, its absence is confirmed.
  Status before_access(const Key& key);

  // Before LMDB goes from `key` to the key after it.
  Status before_step(const Key& key);

  // Before a record is removed.
  Status before_removal(const Key& key);

 private:
  PageDamage check_path(const Key& key);
  PageDamage check_in_use() const;
  Status result(PageDamage damage) const { return damage ? damaged_page(former_.map, damage) : Status(); }

  const FileState& former_;
  TreeCursor cursor_;
  CheckedPages read_;     // by find_former()
  CheckedPages checked_;  // for LMDB
  PageFilter free_;
  bool knows_free_ = false;  // all free pages are in free_
};

}  // namespace tkv::store

#endif
