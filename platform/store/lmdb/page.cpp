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

// A third of the instructions of a write are spent here: each kind of page has a loop of its own.
PageDefect Page::check_nodes(std::uint64_t page_count, Keys keys) const {
  if (keys == Keys::kIntegers) {
    return is_leaf_ ? check_each_node<true, Keys::kIntegers>(page_count)
                    : check_each_node<false, Keys::kIntegers>(page_count);
  }
  return is_leaf_ ? check_each_node<true, Keys::kBytes>(page_count) : check_each_node<false, Keys::kBytes>(page_count);
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
