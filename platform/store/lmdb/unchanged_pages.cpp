#include "store/lmdb/unchanged_pages.h"

#include <bit>
#include <new>

#include "store/lmdb/page.h"
#include "store/lmdb/page_fingerprint.h"

namespace tkv::store {

template <typename Known>
std::size_t UnchangedPages::ByPage<Known>::find(std::uint64_t page) const {
  const std::size_t mask = places_.size() - 1;
  std::size_t at = (page * 0x9e3779b97f4a7c15 >> 32) & mask;
  while (places_[at].page != 0 && places_[at].page != page) at = (at + 1) & mask;
  return at;
}

template <typename Known>
bool UnchangedPages::ByPage<Known>::set(std::uint64_t page, const Known& known, std::size_t most) {
  if (2 * (count_ + 1) > places_.size()) grow();
  Place& place = places_[find(page)];
  if (place.page == 0 && count_ >= most) return false;
  if (place.page == 0) ++count_;
  place = {page, known};
  return true;
}

template <typename Known>
void UnchangedPages::ByPage<Known>::grow() {
  constexpr std::size_t kFirstSize = 256;
  std::vector<Place> former(places_.empty() ? kFirstSize : 2 * places_.size());
  former.swap(places_);
  for (const Place& place : former)
    if (place.page != 0) places_[find(place.page)] = place;
}

template <typename Known>
void UnchangedPages::ByPage<Known>::clear() {
  places_.assign(places_.size(), {});
  count_ = 0;
}

bool UnchangedPages::has_kept_page_since(std::uint64_t former, std::uint64_t page) const {
  return state_ != 0 && page != 0 && former >= followed_since_ && former >= replaced_.of(page);
}

bool UnchangedPages::has_kept_pages_since(std::uint64_t former, const ValuePlace& place) const {
  return has_kept_page_since(former, place.node_page) && has_kept_page_since(former, place.value_page);
}

// A page that was looked at, and has not been replaced since, is in the tree and as it was.
std::uint64_t UnchangedPages::known_fingerprint(std::uint64_t page) const {
  const Look look = looks_.of(page);
  return look.state != 0 && has_kept_page_since(look.state, page) ? look.fingerprint : 0;
}

std::uint64_t UnchangedPages::fingerprint(const FileState& state, std::uint64_t page) noexcept {
  if (page == 0) return 0;
  if (const std::uint64_t known = known_fingerprint(page); known != 0) return known;
  const std::uint64_t fingerprint = fingerprint_of_leaf(state, page);
  try {
    if (fingerprint != 0 && !looks_.set(page, {fingerprint, state.transaction}, kMostLookedAt)) looks_.clear();
  } catch (const std::bad_alloc&) {
    return fingerprint;
  }
  return fingerprint;
}

namespace {

// The fingerprint of both pages of a place, or 0 if that of one of them is not known.
std::uint64_t combined(std::uint64_t node_page, std::uint64_t value_page) {
  return node_page == 0 || value_page == 0 ? 0 : std::rotl(node_page, 1) ^ value_page;
}

}  // namespace

bool UnchangedPages::has_kept(std::uint64_t former, const ValuePlace& place) const {
  if (state_ == former) return true;
  if (!has_kept_nodes_since(former) || place.fingerprint == 0) return false;
  return has_kept_pages_since(former, place) ||
         combined(known_fingerprint(place.node_page), known_fingerprint(place.value_page)) == place.fingerprint;
}

bool UnchangedPages::recognizes(const FileState& state, std::uint64_t former, ValuePlace* place) noexcept {
  if (place->fingerprint != 0 && has_kept(former, *place)) return true;
  const bool is_kept = former == state_ || has_kept_pages_since(former, *place);
  const bool is_replaced = !is_kept && (former >= followed_since_ || place->fingerprint == 0);
  if (is_replaced || !has_kept_nodes_since(former)) return false;
  const std::uint64_t present = combined(fingerprint(state, place->node_page), fingerprint(state, place->value_page));
  if (is_kept) place->fingerprint = present;
  return is_kept || (present != 0 && present == place->fingerprint);
}

void UnchangedPages::follow(const FileState& state, std::uint64_t structure) noexcept {
  has_seen_changes_ = state_ != 0;
  const bool has_kept_nodes = state_ != 0 && structure != 0 && structure == structure_;
  bool is_followed = false;
  try {
    is_followed = state_ != 0 && state.transaction == state_ + 1 && compare(state);
  } catch (const std::bad_alloc&) {
    is_followed = false;
  }
  for (std::vector<PageInTree>* pages : {&former_, &present_, &former_children_, &present_children_}) pages->clear();
  if (!is_followed) {
    replaced_.clear();
    followed_since_ = state.transaction;
  }
  if (!has_kept_nodes) nodes_kept_since_ = state.transaction;
  state_ = state.transaction;
  structure_ = structure;
  root_ = state.records.page;
  depth_ = state.records.depth;
}

// Notes the pages of the former state that this one no longer has. Returns false if that is not possible.
bool UnchangedPages::compare(const FileState& state) {
  if (root_ == kNoPage || state.records.page == kNoPage || depth_ != state.records.depth) return false;
  former_.push_back({root_, {}, {}});
  present_.push_back({state.records.page, {}, {}});
  for (unsigned level = 1;; ++level) {
    drop_what_both_have();
    for (const PageInTree& page : former_)
      if (!replaced_.set(page.number, state.transaction, kMostReplaced)) return false;
    if (level == depth_) return true;
    if (!open_children(state)) return false;
  }
}

bool UnchangedPages::open_branch(const FileState& state, const PageInTree& parent, Page* page) {
  const std::byte* const bytes = state.page(parent.number);
  return bytes != nullptr && page->open(bytes, state.map.page_size, parent.number, kBranchPage) == nullptr;
}

bool UnchangedPages::add_child(const PageInTree& parent, const Page& page, unsigned index,
                               std::vector<PageInTree>* children) {
  PageNode node;
  Bytes end = parent.end;
  if (!page.read(index, &node) || node.child() == 0) return false;
  if (index + 1 < page.count() && !page.read_key(index + 1, &end)) return false;
  children->push_back({node.child(), index == 0 ? parent.begin : node.key, end});
  return true;
}

// Replaces the branch pages of both states by their children. Children that both have may be left out.
bool UnchangedPages::open_children(const FileState& state) {
  std::size_t both = 0;
  for (; both < former_.size() && both < present_.size(); ++both) {
    const PageInTree& former = former_[both];
    const PageInTree& present = present_[both];
    if (!has_same_range(former, present)) break;
    if (open_different_children(state, former, present)) continue;
    if (!open_all(state, {&former, 1}, &former_children_)) return false;
    if (!open_all(state, {&present, 1}, &present_children_)) return false;
  }
  if (!open_all(state, std::span(former_).subspan(both), &former_children_)) return false;
  if (!open_all(state, std::span(present_).subspan(both), &present_children_)) return false;
  former_.swap(former_children_);
  present_.swap(present_children_);
  former_children_.clear();
  present_children_.clear();
  return true;
}

bool UnchangedPages::open_all(const FileState& state, std::span<const PageInTree> parents,
                              std::vector<PageInTree>* children) {
  constexpr std::size_t kMostChildren = std::size_t{1} << 16;
  for (const PageInTree& parent : parents) {
    Page page;
    if (!open_branch(state, parent, &page)) return false;
    for (unsigned index = 0; index < page.count(); ++index)
      if (!add_child(parent, page, index, children)) return false;
    if (children->size() > kMostChildren) return false;
  }
  return true;
}

// Of two pages of the same range. Returns false, and opens none, if the pages differ in more than a few children.
bool UnchangedPages::open_different_children(const FileState& state, const PageInTree& former,
                                             const PageInTree& present) {
  Page left;
  Page right;
  FewChildren different;
  if (!open_branch(state, former, &left) || !open_branch(state, present, &right)) return false;
  if (!Page::differ_in_few_children(left, right, &different)) return false;
  const std::size_t former_count = former_children_.size();
  const std::size_t present_count = present_children_.size();
  for (const unsigned index : different.indices()) {
    if (add_child(former, left, index, &former_children_) && add_child(present, right, index, &present_children_)) {
      continue;
    }
    former_children_.resize(former_count);
    present_children_.resize(present_count);
    return false;
  }
  return true;
}

int UnchangedPages::compare_begins(const PageInTree& left, const PageInTree& right) {
  if (left.begin.data() != nullptr && right.begin.data() != nullptr) return compare_keys(left.begin, right.begin);
  return static_cast<int>(left.begin.data() != nullptr) - static_cast<int>(right.begin.data() != nullptr);
}

bool UnchangedPages::has_same_range(const PageInTree& left, const PageInTree& right) {
  const bool same_end = left.end.data() == nullptr || right.end.data() == nullptr
                            ? left.end.data() == right.end.data()
                            : compare_keys(left.end, right.end) == 0;
  return same_end && compare_begins(left, right) == 0;
}

// Both levels are in the order of their keys.
void UnchangedPages::drop_what_both_have() {
  std::size_t former = 0;
  std::size_t present = 0;
  std::size_t former_kept = 0;
  std::size_t present_kept = 0;
  while (former < former_.size() && present < present_.size()) {
    const bool is_same_page = former_[former].number == present_[present].number;
    if (is_same_page && has_same_range(former_[former], present_[present])) {
      ++former;
      ++present;
      continue;
    }
    const int order = compare_begins(former_[former], present_[present]);
    if (order <= 0) former_[former_kept++] = former_[former++];
    if (order >= 0) present_[present_kept++] = present_[present++];
  }
  while (former < former_.size()) former_[former_kept++] = former_[former++];
  while (present < present_.size()) present_[present_kept++] = present_[present++];
  former_.resize(former_kept);
  present_.resize(present_kept);
}

}  // namespace tkv::store
