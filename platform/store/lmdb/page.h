// Page: a branch or leaf page of LMDB's data file, read without trusting it.
//
// LMDB keeps no checksums and follows whatever offsets and page numbers it finds. A Page checks each number before it
// uses it, so that damage can neither lead outside the page nor outside the file. Reading a node costs a few
// comparisons; check_nodes() looks at the page as a whole.
//
// Pure functions on memory that the caller provides: callable from any thread, no allocation.
#ifndef TKV_PLATFORM_STORE_LMDB_PAGE_H
#define TKV_PLATFORM_STORE_LMDB_PAGE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "store/lmdb/layout.h"

namespace tkv::store {

// What is wrong with a page, as a phrase that completes "page 12 ...". Null if nothing is.
using PageDefect = const char*;

// Compares keys as LMDB does: as bytes, a prefix before the longer key. Less than, equal to or greater than 0.
inline int compare_keys(std::span<const std::byte> left, std::span<const std::byte> right) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  const std::size_t size = left.size() < right.size() ? left.size() : right.size();
  const auto compare_words = [&](std::size_t at) {
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    std::memcpy(&a, left.data() + at, kWord);
    std::memcpy(&b, right.data() + at, kWord);
    if (a == b) return 0;
    if constexpr (std::endian::native == std::endian::little) {
      a = __builtin_bswap64(a);
      b = __builtin_bswap64(b);
    }
    return a < b ? -1 : 1;
  };
  std::size_t at = 0;
  for (; at + kWord <= size; at += kWord)
    if (const int order = compare_words(at); order != 0) return order;
  if (at < size) {
    // The last word overlaps bytes that are known to be equal. Keys shorter than a word are rare.
    const int order = size >= kWord ? compare_words(size - kWord) : std::memcmp(left.data(), right.data(), size);
    if (order != 0) return order;
  }
  return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

// A node of a page. Its key is within the page; nothing else is known to be right.
struct PageNode {
  std::span<const std::byte> key;
  std::span<const std::byte> rest;  // of the page, after the key
  NodeHeader header;

  std::uint64_t child() const {
    return header.low | std::uint64_t{header.high} << 16 | std::uint64_t{header.flags} << 32;
  }
  bool is_big() const { return header.flags == kBigData; }
  // Of the data, wherever it is.
  std::size_t data_size() const { return header.low | std::size_t{header.high} << 16; }
  // Of what the page holds of the data: itself, or the number of its overflow page.
  std::size_t size_in_page() const { return is_big() ? sizeof(std::uint64_t) : data_size(); }
  bool data_fits() const { return (header.flags & ~kBigData) == 0 && size_in_page() <= rest.size(); }
  // For big data that fits.
  std::uint64_t overflow_page() const {
    std::uint64_t number = 0;
    std::memcpy(&number, rest.data(), sizeof number);
    return number;
  }
};

// Indices of a few nodes of a branch page, in ascending order.
class FewChildren {
 public:
  static constexpr std::size_t kMost = 8;

  [[nodiscard]] bool add(unsigned index) {
    if (count_ == kMost) return false;
    indices_[count_++] = index;
    return true;
  }
  void clear() { count_ = 0; }
  std::span<const unsigned> indices() const { return std::span(indices_).first(count_); }

 private:
  std::array<unsigned, kMost> indices_;
  std::size_t count_ = 0;
};

class Page {
 public:
  enum class Keys { kBytes, kIntegers };

  // Checks the header of the page with this number, whose `size` bytes are at `bytes` as long as this object is used.
  // `kind` is kBranchPage or kLeafPage. Until open() has returned null, nothing else may be called.
  PageDefect open(const std::byte* bytes, std::size_t size, std::uint64_t number, std::uint16_t kind) {
    PageHeader header;
    std::memcpy(&header, bytes, sizeof header);
    if (header.number != number) return "carries the number of another page";
    if (header.flags != kind) return "is of the wrong kind";
    if (header.lower < sizeof header || header.lower % 2 != 0 || header.lower > header.upper || header.upper > size) {
      return "has impossible bounds";
    }
    bytes_ = bytes;
    size_ = size;
    number_ = number;
    upper_ = header.upper;
    count_ = static_cast<unsigned>(header.lower - sizeof header) / 2;
    is_leaf_ = kind == kLeafPage;
    return count_ < (is_leaf_ ? 1u : 2u) ? "has too few nodes" : nullptr;
  }

  std::uint64_t number() const { return number_; }
  bool is_leaf() const { return is_leaf_; }
  unsigned count() const { return count_; }

  // Reads the node at `index`, which is less than count(). Returns false if it does not lie within the page.
  [[nodiscard]] bool read(unsigned index, PageNode* node) const {
    std::uint16_t offset = 0;
    std::memcpy(&offset, bytes_ + sizeof(PageHeader) + std::size_t{index} * sizeof offset, sizeof offset);
    if (offset < upper_ || offset + sizeof(NodeHeader) > size_) return false;
    std::memcpy(&node->header, bytes_ + offset, sizeof(NodeHeader));
    const std::size_t room = size_ - offset - sizeof(NodeHeader);
    if (node->header.key_size > room) return false;
    const std::byte* const key = bytes_ + offset + sizeof(NodeHeader);
    node->key = {key, node->header.key_size};
    node->rest = {key + node->header.key_size, room - node->header.key_size};
    return true;
  }

  // As read, but only the key.
  [[nodiscard]] bool read_key(unsigned index, std::span<const std::byte>* key) const {
    std::uint16_t offset = 0;
    std::uint16_t key_size = 0;
    std::memcpy(&offset, bytes_ + sizeof(PageHeader) + std::size_t{index} * sizeof offset, sizeof offset);
    if (offset < upper_ || offset + sizeof(NodeHeader) > size_) return false;
    std::memcpy(&key_size, bytes_ + offset + offsetof(NodeHeader, key_size), sizeof key_size);
    if (offset + sizeof(NodeHeader) + key_size > size_) return false;
    *key = {bytes_ + offset + sizeof(NodeHeader), key_size};
    return true;
  }

  // Checks all nodes: that they fill the page without gaps or overlaps, that their keys are in order, and that they
  // refer to pages between the meta pages and `page_count` only. A branch page's first key is not looked at: LMDB does
  // not use it.
  PageDefect check_nodes(std::uint64_t page_count, Keys keys) const;

  // Whether two branch pages of the same size are the same in all but the numbers of a few children, which they then
  // have in `*children`. As a rule, LMDB replaces a branch page by such a page.
  static bool differ_in_few_children(const Page& left, const Page& right, FewChildren* children);

 private:
  template <bool is_leaf>
  PageDefect check_references(const PageNode& node, std::uint64_t page_count) const;
  template <bool is_leaf, Keys keys>
  [[gnu::flatten]] PageDefect check_each_node(std::uint64_t page_count) const;

  // Not initialized: a descent has room for the deepest of trees, and uses three of these.
  const std::byte* bytes_;
  std::size_t size_;
  std::uint64_t number_;
  unsigned upper_;
  unsigned count_;
  bool is_leaf_;
};

// The pages that hold a record of `size` bytes outside the tree.
constexpr std::uint64_t overflow_pages(std::size_t size, std::size_t page_size) {
  return (sizeof(PageHeader) + size + page_size - 1) / page_size;
}

// Checks the header of a run of overflow pages that begins at page `number`. Its bytes are at `bytes`; the run holds
// `size` bytes of data.
PageDefect check_overflow_header(const std::byte* bytes, std::size_t page_size, std::uint64_t number, std::size_t size,
                                 std::uint64_t page_count);

}  // namespace tkv::store

#endif
