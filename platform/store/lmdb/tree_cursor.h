// TreeCursor: finds and walks through the entries of one tree of pages, and checks what it reads.
//
// A search reads the headers of the pages on its path and the nodes that a binary search touches, each checked before
// use: that makes it safe. What makes an answer right differs. An entry that is found has a checksum, for its user to
// verify. That there is no entry is taken for true only when confirm_absence() has looked at all of the pages on the
// way, at the keys that their parents allow in them, and at the entries on both sides of the gap. A walk checks every
// page as a whole when it gets there.
//
// A cursor belongs to one thread, allocates nothing, and is valid as long as the transaction of its state.
#ifndef TKV_PLATFORM_STORE_LMDB_TREE_CURSOR_H
#define TKV_PLATFORM_STORE_LMDB_TREE_CURSOR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/function_ref.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/page.h"

namespace tkv::store {

// Pages of one state that have been checked as a whole. As long as these are few, as in most writes, it allocates
// nothing.
class CheckedPages {
 public:
  // Adds a page. Returns false if it was in the set before.
  bool add(std::uint64_t number);
  bool has(std::uint64_t number) const {
    for (std::size_t each = 0; each < count_; ++each)
      if (few_[each] == number) return true;
    return number < many_.size() && many_[number];
  }
  void clear() {
    count_ = 0;
    many_.clear();
  }

 private:
  static constexpr std::size_t kFew = 12;

  void add_to_many(std::uint64_t number);

  std::array<std::uint64_t, kFew> few_;  // the first count_; none once there are many
  std::size_t count_ = 0;
  std::vector<bool> many_;
};

class TreeCursor {
 public:
  TreeCursor(const FileState& state, const TreeRoot& tree, Page::Keys keys) : state_(state), tree_(tree), keys_(keys) {}
  // Pages in `checked` are not checked as a whole again; those that this cursor checks are added. `checked` may be
  // null. Otherwise it belongs to this state and outlives the cursor.
  explicit TreeCursor(const FileState& state, CheckedPages* checked = nullptr)
      : TreeCursor(state, state.records, Page::Keys::kBytes) {
    checked_ = checked;
  }

  // Pages that this cursor checks as a whole belong to this set from now on. It may be null, as in the constructor.
  void use(CheckedPages* checked) { checked_ = checked; }

  // Goes to the entry with `key` and sets `*found`, or to the gap where it would be. After a gap, only
  // confirm_absence(), enter_gap() and another search may follow. For trees whose keys are bytes.
  PageDamage seek(std::span<const std::byte> key, bool* found);

  // The same, but if the key belongs on the leaf page that the cursor is on since its latest search, only that page is
  // searched.
  PageDamage seek_from_here(std::span<const std::byte> key, bool* found);

  // In the gap where seek() found no `key`: makes sure that there is none. `is_it` tells of an entry next to the gap
  // whether it may be the one sought, with a damaged key.
  PageDamage confirm_absence(
      std::span<const std::byte> key,
      FunctionRef<bool(std::span<const std::byte> key, std::span<const std::byte> record)> is_it);

  // From a gap to the entry after it.
  PageDamage enter_gap();

  // To the first and last entry, and to the next one.
  PageDamage first() { return edge(Edge::kFirst); }
  PageDamage last() { return edge(Edge::kLast); }
  PageDamage next();
  bool at_end() const { return at_end_; }

  // Checks the pages from the root to the entry as a whole, for a walk that begins with seek().
  PageDamage check_pages() const;

  // The entry's key and record, in the state's pages. On damage, `*key` may be empty.
  PageDamage read(std::span<const std::byte>* key, std::span<const std::byte>* record) const;
  PageDamage record(std::span<const std::byte>* record) const;

  // The leaf page of the entry or gap, and the range of its keys: from `*begin` to before `*end`. The range of the
  // first page has no beginning, that of the last one no end.
  std::uint64_t page_number() const { return leaf().page.number(); }
  PageDamage range(std::span<const std::byte>* begin, std::span<const std::byte>* end) const {
    return range_of(leaf_level(), begin, end);
  }

  // How many pages the record has outside the tree.
  std::uint64_t overflow_pages() const;

  // For writers. Each checks pages as a whole, unless they are in `checked`, and adds them to it.
  //   check_path      the pages from the root to the entry or gap, and an entry's overflow page
  //   check_next      those on the way to the leaf page after it
  //   check_siblings  those that LMDB may read or change to fill up a page from which the entry is removed
  // Only confirm_absence() also searches the list of free pages for them, and not if the leaf page was checked before.
  // check_in_use() does this alone.
  PageDamage check_path(CheckedPages* checked) const;
  PageDamage check_next(CheckedPages* checked) const;
  PageDamage check_siblings(CheckedPages* checked) const;
  PageDamage check_in_use() const;

  // Whether `holds` returns true for one of the pages from the root to the entry or gap.
  bool any_page(FunctionRef<bool(std::uint64_t number)> holds) const;

  // Checks that the entry or gap is on the tree's first leaf page, where the smallest key belongs.
  PageDamage check_first() const;

 private:
  enum class Edge { kFirst, kLast };
  struct Level {
    Page page;
    unsigned index;
  };

  int leaf_level() const { return static_cast<int>(tree_.depth) - 1; }
  const Level& leaf() const { return levels_[static_cast<std::size_t>(leaf_level())]; }
  Level& leaf() { return levels_[static_cast<std::size_t>(leaf_level())]; }
  PageDamage open(std::uint64_t number, int level, Page* page) const;
  // Apart, so that open() has nothing to save before it.
  [[gnu::cold, gnu::noinline]] PageDamage open_from_file(std::uint64_t number, int level, Page* page) const;
  inline PageDamage search_page(int level, std::span<const std::byte> key);
  PageDamage edge(Edge edge);
  PageDamage descend(std::uint64_t number, int level, Edge edge);
  PageDamage next_leaf();
  PageDamage neighbour_key(Edge towards, std::span<const std::byte>* key) const;
  PageDamage record_of(const PageNode& node, std::span<const std::byte>* record) const;
  bool is_checked(const Page& page) const { return checked_ != nullptr && checked_->has(page.number()); }
  PageDamage check_page(int level) const;
  PageDamage check_leaf() const;
  PageDamage range_of(int level, std::span<const std::byte>* begin, std::span<const std::byte>* end) const;
  PageDamage check_range(int level) const;
  PageDamage check_leftmost(std::uint64_t number, int level, CheckedPages* checked) const;

  const FileState& state_;
  const TreeRoot& tree_;
  const Page::Keys keys_;
  CheckedPages* checked_ = nullptr;
  bool at_end_ = false;
  bool found_ = false;                       // by the latest search
  bool is_placed_ = false;                   // the latest search has ended on a leaf page, and nothing has moved since
  std::array<Level, kMaxTreeDepth> levels_;  // the first tree_.depth, once a search has filled them
};

}  // namespace tkv::store

#endif
