#include "store/lmdb/page.h"

namespace tkv::store {
namespace {

bool exists(std::uint64_t first, std::uint64_t count, std::uint64_t page_count) {
  return first >= kMetaPages && first < page_count && count <= page_count - first;
}

std::uint64_t integer_of(std::span<const std::byte> key) {
  std::uint64_t number = 0;
  std::memcpy(&number, key.data(), sizeof number);
  return number;
}

template <Page::Keys keys>
bool in_order(std::span<const std::byte> left, std::span<const std::byte> right) {
  if constexpr (keys == Page::Keys::kIntegers) return integer_of(left) < integer_of(right);
  return compare_keys(left, right) < 0;
}

}  // namespace

template <bool is_leaf>
PageDefect Page::check_references(const PageNode& node, std::uint64_t page_count) const {
  constexpr PageDefect kNoSuchPage = "refers to a page that does not exist";
  if constexpr (!is_leaf) return exists(node.child(), 1, page_count) ? nullptr : kNoSuchPage;
  if (!node.data_fits()) return "has a node that does not fit into it";
  if (!node.is_big()) return nullptr;
  const std::uint64_t pages = overflow_pages(node.data_size(), size_);
  return exists(node.overflow_page(), pages, page_count) ? nullptr : kNoSuchPage;
}

// Up to a third of the instructions of a write are spent here: each kind of page has a loop of its own, with all that
// it calls in it.
template <bool is_leaf, Page::Keys keys>
PageDefect Page::check_each_node(std::uint64_t page_count) const {
  std::size_t total = 0;
  std::span<const std::byte> former;
  for (unsigned index = 0; index < count_; ++index) {
    PageNode node;
    if (!read(index, &node)) return "has a node outside its bounds";
    if (PageDefect defect = check_references<is_leaf>(node, page_count); defect != nullptr) return defect;
    if (is_leaf || index > 0) {
      if (keys == Keys::kIntegers && node.key.size() != sizeof(std::uint64_t)) return "has an impossible key";
      if (former.data() != nullptr && !in_order<keys>(former, node.key)) return "has its keys out of order";
      former = node.key;
    }
    const std::size_t data = is_leaf ? node.size_in_page() : 0;
    total += (sizeof(NodeHeader) + node.key.size() + data + 1) / 2 * 2;
  }
  return total == size_ - upper_ ? nullptr : "has nodes that overlap or leave gaps";
}

PageDefect Page::check_nodes(std::uint64_t page_count, Keys keys) const {
  if (keys == Keys::kIntegers) {
    return is_leaf_ ? check_each_node<true, Keys::kIntegers>(page_count)
                    : check_each_node<false, Keys::kIntegers>(page_count);
  }
  return is_leaf_ ? check_each_node<true, Keys::kBytes>(page_count) : check_each_node<false, Keys::kBytes>(page_count);
}

// Most nodes are the same, so only their headers are looked at one by one. If all else is the same as well, so are the
// keys, unless nodes overlap: then a number may be part of a key.
bool Page::differ_in_few_children(const Page& left, const Page& right, FewChildren* children) {
  constexpr std::size_t kNumberSize = offsetof(NodeHeader, key_size);
  const std::byte* const offsets = left.bytes_ + sizeof(PageHeader);
  std::array<std::size_t, FewChildren::kMost> numbers_at;  // in ascending order
  std::size_t count = 0;
  std::size_t total = 0;
  children->clear();
  if (left.size_ != right.size_ || left.count_ != right.count_ || left.upper_ != right.upper_) return false;
  if (std::memcmp(offsets, right.bytes_ + sizeof(PageHeader), left.count_ * sizeof(std::uint16_t)) != 0) return false;
  for (unsigned index = 0; index < left.count_; ++index) {
    std::uint16_t offset = 0;
    NodeHeader header;
    std::memcpy(&offset, offsets + std::size_t{index} * sizeof offset, sizeof offset);
    if (offset < left.upper_ || offset + sizeof header > left.size_) return false;
    std::memcpy(&header, left.bytes_ + offset, sizeof header);
    total += (sizeof header + header.key_size + 1u) / 2 * 2;
    if (std::memcmp(left.bytes_ + offset, right.bytes_ + offset, sizeof header) == 0) continue;
    if (!children->add(index)) return false;
    std::size_t place = count++;
    for (; place > 0 && numbers_at[place - 1] > offset; --place) numbers_at[place] = numbers_at[place - 1];
    numbers_at[place] = offset;
  }
  if (total != left.size_ - left.upper_) return false;
  std::size_t same_from = left.upper_;
  const auto is_same_up_to = [&](std::size_t end) {
    return same_from <= end && std::memcmp(left.bytes_ + same_from, right.bytes_ + same_from, end - same_from) == 0;
  };
  for (std::size_t each = 0; each < count; ++each) {
    if (!is_same_up_to(numbers_at[each])) return false;
    same_from = numbers_at[each] + kNumberSize;
  }
  return is_same_up_to(left.size_);
}

PageDefect check_overflow_header(const std::byte* bytes, std::size_t page_size, std::uint64_t number, std::size_t size,
                                 std::uint64_t page_count) {
  PageHeader header;
  std::memcpy(&header, bytes, sizeof header);
  // A record that was replaced by a shorter one in the same transaction keeps the longer one's pages.
  const std::uint64_t pages = header.lower | std::uint64_t{header.upper} << 16;
  if (header.number != number || header.flags != kOverflowPage || pages < overflow_pages(size, page_size) ||
      !exists(number, pages, page_count)) {
    return "is not the beginning of the record that it should hold";
  }
  return nullptr;
}

}  // namespace tkv::store
