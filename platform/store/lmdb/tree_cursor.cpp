#include "store/lmdb/tree_cursor.h"

#include <cstring>

namespace tkv::store {
namespace {

constexpr const char* kOutside = "has a node outside its bounds";
constexpr const char* kUnfit = "has a node that does not fit into it";
constexpr const char* kWrongRange = "has keys outside the range that its parent allows";

// Whether a page is in a record of the list of free pages: their number, and then each of them, the largest first.
bool contains(std::span<const std::byte> list, std::uint64_t page) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  const auto number_at = [&](std::size_t index) {
    std::uint64_t number = 0;
    std::memcpy(&number, list.data() + index * kWord, kWord);
    return number;
  };
  if (list.size() < kWord || number_at(0) > list.size() / kWord - 1) return false;
  std::size_t low = 1;
  std::size_t high = number_at(0) + 1;
  while (low < high) {
    const std::size_t middle = (low + high) / 2;
    const std::uint64_t number = number_at(middle);
    if (number == page) return true;
    (number > page ? low : high) = number > page ? middle + 1 : middle;
  }
  return false;
}

}  // namespace

bool CheckedPages::add(std::uint64_t number) {
  if (has(number)) return false;
  if (many_.empty() && count_ < kFew) {
    few_[count_++] = number;
    return true;
  }
  for (; count_ > 0; --count_) add_to_many(few_[count_ - 1]);
  add_to_many(number);
  return true;
}

void CheckedPages::add_to_many(std::uint64_t number) {
  if (number >= many_.size()) many_.resize(number + number / 2 + 64);
  many_[number] = true;
}

PageDamage TreeCursor::open(std::uint64_t number, int level, Page* page) const {
  if (!state_.is_read_from_map(number)) return open_from_file(number, level, page);
  const std::uint16_t kind = level == leaf_level() ? kLeafPage : kBranchPage;
  return {number, page->open(state_.page(number), state_.map.page_size, number, kind)};
}

PageDamage TreeCursor::open_from_file(std::uint64_t number, int level, Page* page) const {
  const std::byte* const bytes = state_.page(number);
  if (bytes == nullptr) return {number, state_.absence(number)};
  const std::uint16_t kind = level == leaf_level() ? kLeafPage : kBranchPage;
  return {number, page->open(bytes, state_.map.page_size, number, kind)};
}

// Sets the level's index to that of the entry with the key, of the child that leads to it, or of the entry after the
// gap. Sets found_ if there is an entry.
[[gnu::always_inline]] inline PageDamage TreeCursor::search_page(int level, std::span<const std::byte> key) {
  Level& at = levels_[static_cast<std::size_t>(level)];
  const bool is_leaf = level == leaf_level();
  unsigned low = is_leaf ? 0 : 1;
  unsigned high = at.page.count();
  while (low < high) {
    const unsigned middle = (low + high) / 2;
    std::span<const std::byte> other;
    if (!at.page.read_key(middle, &other)) return {at.page.number(), kOutside};
    const int order = compare_keys(other, key);
    if (is_leaf && order == 0) {
      found_ = true;
      at.index = middle;
      return {};
    }
    (order <= 0 ? low : high) = order <= 0 ? middle + 1 : middle;
  }
  at.index = is_leaf ? low : low - 1;
  return {};
}

PageDamage TreeCursor::seek(std::span<const std::byte> key, bool* found) {
  *found = found_ = is_placed_ = false;
  at_end_ = tree_.page == kNoPage;
  if (at_end_) return {};
  std::uint64_t number = tree_.page;
  for (int level = 0;; ++level) {
    Level& at = levels_[static_cast<std::size_t>(level)];
    if (PageDamage damage = open(number, level, &at.page)) return damage;
    if (PageDamage damage = search_page(level, key)) return damage;
    if (level == leaf_level()) break;
    PageNode node;
    if (!at.page.read(at.index, &node)) return {number, kOutside};
    number = node.child();
  }
  is_placed_ = true;
  *found = found_;
  return {};
}

// The pages of a state stay as they are, so a search from the root page would end on the same leaf page.
PageDamage TreeCursor::seek_from_here(std::span<const std::byte> key, bool* found) {
  std::span<const std::byte> begin;
  std::span<const std::byte> end;
  if (!is_placed_ || range(&begin, &end)) return seek(key, found);
  const bool is_here = (begin.data() == nullptr || compare_keys(begin, key) <= 0) &&
                       (end.data() == nullptr || compare_keys(key, end) < 0);
  if (!is_here) return seek(key, found);
  found_ = false;
  const PageDamage damage = search_page(leaf_level(), key);
  *found = found_;
  return damage;
}

// Fills the levels from `level` on with the path to the first or last entry below a page.
PageDamage TreeCursor::descend(std::uint64_t number, int level, Edge edge) {
  is_placed_ = false;
  for (;; ++level) {
    Level& at = levels_[static_cast<std::size_t>(level)];
    if (PageDamage damage = open(number, level, &at.page)) return damage;
    at.index = edge == Edge::kFirst ? 0 : at.page.count() - 1;
    if (level == leaf_level()) return check_leaf();
    if (PageDamage damage = check_page(level)) return damage;
    PageNode node;
    if (!at.page.read(at.index, &node)) return {number, kOutside};
    number = node.child();
  }
}

PageDamage TreeCursor::edge(Edge edge) {
  at_end_ = tree_.page == kNoPage;
  return at_end_ ? PageDamage{} : descend(tree_.page, 0, edge);
}

PageDamage TreeCursor::next_leaf() {
  for (int level = leaf_level() - 1; level >= 0; --level) {
    Level& at = levels_[static_cast<std::size_t>(level)];
    if (at.index + 1 >= at.page.count()) continue;
    is_placed_ = false;
    ++at.index;
    PageNode node;
    if (!at.page.read(at.index, &node)) return {at.page.number(), kOutside};
    return descend(node.child(), level + 1, Edge::kFirst);
  }
  is_placed_ = false;
  at_end_ = true;
  return {};
}

PageDamage TreeCursor::next() {
  if (++leaf().index < leaf().page.count()) return {};
  return next_leaf();
}

PageDamage TreeCursor::enter_gap() {
  if (at_end_ || leaf().index < leaf().page.count()) return {};
  return next_leaf();
}

PageDamage TreeCursor::record_of(const PageNode& node, std::span<const std::byte>* record) const {
  if (!node.data_fits()) return {leaf().page.number(), kUnfit};
  *record = node.rest.first(node.size_in_page());
  if (!node.is_big()) return {};
  const std::uint64_t number = node.overflow_page();
  if (!state_.has_page(number)) return {leaf().page.number(), "refers to a page that does not exist"};
  const std::byte* const page = state_.in_map(number);
  if (page == nullptr) return {number, "cannot be read without a map"};
  *record = {page + sizeof(PageHeader), node.data_size()};
  return {number, check_overflow_header(page, state_.map.page_size, number, node.data_size(), state_.page_count)};
}

PageDamage TreeCursor::read(std::span<const std::byte>* key, std::span<const std::byte>* record) const {
  PageNode node;
  *key = {};
  if (!leaf().page.read(leaf().index, &node)) return {leaf().page.number(), kOutside};
  *key = node.key;
  return record_of(node, record);
}

PageDamage TreeCursor::record(std::span<const std::byte>* record) const {
  std::span<const std::byte> key;
  return read(&key, record);
}

std::uint64_t TreeCursor::overflow_pages() const {
  PageNode node;
  if (!leaf().page.read(leaf().index, &node) || !node.is_big()) return 0;
  return store::overflow_pages(node.data_size(), state_.map.page_size);
}

// The range of keys that the parents of the page at `level` give it.
PageDamage TreeCursor::range_of(int level, std::span<const std::byte>* begin, std::span<const std::byte>* end) const {
  bool has_begin = false;
  bool has_end = false;
  *begin = *end = {};
  while (--level >= 0 && !(has_begin && has_end)) {
    const Level& parent = levels_[static_cast<std::size_t>(level)];
    if (!has_begin && parent.index > 0) {
      has_begin = true;
      if (!parent.page.read_key(parent.index, begin)) return {parent.page.number(), kOutside};
    }
    if (!has_end && parent.index + 1 < parent.page.count()) {
      has_end = true;
      if (!parent.page.read_key(parent.index + 1, end)) return {parent.page.number(), kOutside};
    }
  }
  return {};
}

// Whether the keys of the page at `level` are in the range that its parents' keys give it.
PageDamage TreeCursor::check_range(int level) const {
  const Page& page = levels_[static_cast<std::size_t>(level)].page;
  std::span<const std::byte> smallest;
  std::span<const std::byte> largest;
  if (!page.read_key(page.is_leaf() ? 0 : 1, &smallest) || !page.read_key(page.count() - 1, &largest)) {
    return {page.number(), kOutside};
  }
  std::span<const std::byte> begin;
  std::span<const std::byte> end;
  if (PageDamage damage = range_of(level, &begin, &end)) return damage;
  const bool is_below = begin.data() != nullptr && compare_keys(smallest, begin) < 0;
  const bool is_above = end.data() != nullptr && compare_keys(largest, end) >= 0;
  return is_below || is_above ? PageDamage{page.number(), kWrongRange} : PageDamage{};
}

PageDamage TreeCursor::check_page(int level) const {
  const Page& page = levels_[static_cast<std::size_t>(level)].page;
  if (!is_checked(page)) {
    PageDefect defect = page.check_nodes(state_.page_count, keys_);
    if (defect != nullptr) return {page.number(), defect};
    if (checked_ != nullptr) checked_->add(page.number());
  }
  return keys_ == Page::Keys::kBytes ? check_range(level) : PageDamage{};
}

// Key ranges are checked on every visit, so only one path leads to a leaf page. The first visit to the leaf therefore
// checks the whole path, and later ones need not.
PageDamage TreeCursor::check_leaf() const {
  const bool is_known = is_checked(leaf().page);
  if (PageDamage damage = check_page(leaf_level())) return damage;
  return keys_ == Page::Keys::kBytes && !is_known ? check_in_use() : PageDamage{};
}

// A branch page that has lost a child leads past it.
PageDamage TreeCursor::check_pages() const {
  for (int level = 0; level < leaf_level(); ++level)
    if (PageDamage damage = check_page(level)) return damage;
  return check_leaf();
}

// A damaged page number may lead to a page of a former state, which looks sound. Such pages are in the list of free
// pages, of which the first records are searched. Damage to the list itself is for writers to find.
PageDamage TreeCursor::check_in_use() const {
  constexpr int kRecordsToSearch = 64;
  if (at_end_) return {};
  TreeCursor lists(state_, state_.free_pages, Page::Keys::kIntegers);
  PageDamage damage = lists.first();
  for (int i = 0; i < kRecordsToSearch && !damage && !lists.at_end(); ++i, damage = lists.next()) {
    std::span<const std::byte> list;
    if (lists.record(&list)) return {};
    for (int level = 0; level <= leaf_level(); ++level) {
      const std::uint64_t number = levels_[static_cast<std::size_t>(level)].page.number();
      if (contains(list, number)) return {number, "is free, and is referred to"};
    }
  }
  return {};
}

bool TreeCursor::any_page(FunctionRef<bool(std::uint64_t number)> holds) const {
  if (at_end_) return false;
  for (int level = 0; level <= leaf_level(); ++level)
    if (holds(levels_[static_cast<std::size_t>(level)].page.number())) return true;
  return false;
}

// The last key of the leaf page before this one, or the first key of the one after it. Null if there is no such page.
PageDamage TreeCursor::neighbour_key(Edge towards, std::span<const std::byte>* key) const {
  const bool is_before = towards == Edge::kFirst;
  for (int level = leaf_level() - 1; level >= 0; --level) {
    const Level& at = levels_[static_cast<std::size_t>(level)];
    if (is_before ? at.index == 0 : at.index + 1 >= at.page.count()) continue;
    Page page = at.page;
    unsigned index = is_before ? at.index - 1 : at.index + 1;
    for (;;) {
      PageNode node;
      if (!page.read(index, &node)) return {page.number(), kOutside};
      if (level == leaf_level()) {
        *key = node.key;
        return {};
      }
      if (PageDamage damage = open(node.child(), ++level, &page)) return damage;
      index = is_before ? page.count() - 1 : 0;
    }
  }
  *key = {};
  return {};
}

PageDamage TreeCursor::confirm_absence(
    std::span<const std::byte> key,
    FunctionRef<bool(std::span<const std::byte> key, std::span<const std::byte> record)> is_it) {
  if (at_end_) return {};
  if (PageDamage damage = check_pages()) return damage;
  const Level& at = leaf();
  const auto has_damaged_key = [&](unsigned index) {
    PageNode node;
    std::span<const std::byte> record;
    return at.page.read(index, &node) && !record_of(node, &record) && is_it(node.key, record);
  };
  constexpr const char* kDamagedKey = "has a damaged record where the key sought belongs";
  constexpr const char* kOverlap = "and a neighbouring page have overlapping keys";
  std::span<const std::byte> neighbour;
  if (at.index > 0) {
    if (has_damaged_key(at.index - 1)) return {at.page.number(), kDamagedKey};
  } else {
    if (PageDamage damage = neighbour_key(Edge::kFirst, &neighbour)) return damage;
    if (neighbour.data() != nullptr && compare_keys(neighbour, key) >= 0) return {at.page.number(), kOverlap};
  }
  if (at.index < at.page.count()) {
    if (has_damaged_key(at.index)) return {at.page.number(), kDamagedKey};
  } else {
    if (PageDamage damage = neighbour_key(Edge::kLast, &neighbour)) return damage;
    if (neighbour.data() != nullptr && compare_keys(neighbour, key) <= 0) return {at.page.number(), kOverlap};
  }
  return {};
}

PageDamage TreeCursor::check_path(CheckedPages* checked) const {
  if (at_end_) return {};
  for (int level = 0; level <= leaf_level(); ++level) {
    const Page& page = levels_[static_cast<std::size_t>(level)].page;
    if (checked->has(page.number())) continue;
    if (PageDefect defect = page.check_nodes(state_.page_count, keys_); defect != nullptr) {
      return {page.number(), defect};
    }
    if (keys_ == Page::Keys::kBytes) {
      if (PageDamage damage = check_range(level)) return damage;
    }
    checked->add(page.number());
  }
  std::span<const std::byte> overflow;
  return found_ ? record(&overflow) : PageDamage{};
}

PageDamage TreeCursor::check_first() const {
  if (at_end_) return {};
  for (int level = 0; level < leaf_level(); ++level) {
    const Level& at = levels_[static_cast<std::size_t>(level)];
    if (at.index != 0) return {at.page.number(), "has its keys out of order"};
  }
  return {};
}

// The page at `level` and the first page of each level below it.
PageDamage TreeCursor::check_leftmost(std::uint64_t number, int level, CheckedPages* checked) const {
  for (;; ++level) {
    Page page;
    if (PageDamage damage = open(number, level, &page)) return damage;
    if (!checked->has(number)) {
      if (PageDefect defect = page.check_nodes(state_.page_count, keys_); defect != nullptr) return {number, defect};
      checked->add(number);
    }
    PageNode node;
    if (level == leaf_level()) return {};
    if (!page.read(0, &node)) return {number, kOutside};
    number = node.child();
  }
}

PageDamage TreeCursor::check_next(CheckedPages* checked) const {
  if (at_end_) return {};
  for (int level = leaf_level() - 1; level >= 0; --level) {
    const Level& at = levels_[static_cast<std::size_t>(level)];
    if (at.index + 1 >= at.page.count()) continue;
    PageNode node;
    if (!at.page.read(at.index + 1, &node)) return {at.page.number(), kOutside};
    return check_leftmost(node.child(), level + 1, checked);
  }
  return {};
}

// LMDB fills up a page from a page beside it that has the same parent. To move a node between branch pages, it also
// looks up the first key below each of them. A page that was merged earlier in the transaction makes the page after the
// next one a neighbour: so two leaf pages on each side are checked.
PageDamage TreeCursor::check_siblings(CheckedPages* checked) const {
  if (at_end_) return {};
  for (int level = 1; level <= leaf_level(); ++level) {
    const Level& parent = levels_[static_cast<std::size_t>(level - 1)];
    const unsigned reach = level == leaf_level() ? 2 : 1;
    const unsigned from = parent.index < reach ? 0 : parent.index - reach;
    for (unsigned index = from; index < parent.page.count() && index <= parent.index + reach; ++index) {
      PageNode node;
      if (!parent.page.read(index, &node)) return {parent.page.number(), kOutside};
      if (PageDamage damage = check_leftmost(node.child(), level, checked)) return damage;
    }
  }
  return {};
}

}  // namespace tkv::store
