// The layout of LMDB's data file: data format 1 on 64-bit machines. All integers are in the machine's byte order.
//
// LMDB trusts its file. This is what has to be known to look at the file's pages without trusting them.
#ifndef TKV_PLATFORM_STORE_LMDB_LAYOUT_H
#define TKV_PLATFORM_STORE_LMDB_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace tkv::store {

// Begins every page. On branch and leaf pages, an array of 16-bit node offsets follows it.
struct PageHeader {
  std::uint64_t number;
  std::uint16_t unused;
  std::uint16_t flags;
  std::uint16_t lower;  // end of the offsets
  std::uint16_t upper;  // beginning of the nodes, which fill the page to its end
};
static_assert(sizeof(PageHeader) == 16);

constexpr std::uint16_t kBranchPage = 0x01;
constexpr std::uint16_t kLeafPage = 0x02;
constexpr std::uint16_t kOverflowPage = 0x04;  // `lower` and `upper` form one number, the length of the run of pages
constexpr std::uint16_t kMetaPage = 0x08;

// Begins a node. The node's key follows and, on a leaf page, its data.
struct NodeHeader {
  std::uint16_t low;    // on a leaf page, the low half of the data's size; on a branch page, of the child's number
  std::uint16_t high;   // the high half
  std::uint16_t flags;  // on a branch page, the highest bits of the child's number
  std::uint16_t key_size;
};
static_assert(sizeof(NodeHeader) == 8);

constexpr std::uint16_t kBigData = 0x01;  // a flag: the data is the number of the overflow page that holds the data

// The root of a tree of pages.
struct TreeRoot {
  std::uint32_t page_size;  // in the tree of free pages; unused in others
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t branch_pages;
  std::uint64_t leaf_pages;
  std::uint64_t overflow_pages;
  std::uint64_t entries;
  std::uint64_t page;
};
static_assert(sizeof(TreeRoot) == 48);

// The flags of a tree that tell the kind of its keys and data. LMDB keeps notes of its own in the bits above them.
constexpr std::uint16_t kTreeKind = 0xff;
constexpr std::uint16_t kPlainTree = 0;
constexpr std::uint16_t kIntegerKeyTree = 0x08;  // the tree of free pages, whose keys are transaction numbers

constexpr std::uint64_t kNoPage = ~std::uint64_t{0};  // the root page of an empty tree
constexpr int kMaxTreeDepth = 32;
constexpr std::uint64_t kMetaPages = 2;  // pages 0 and 1
constexpr std::size_t kMinPageSize = 512;
constexpr std::size_t kMaxPageSize = 32768;

// Page 0 describes the state after the latest transaction with an even number, page 1 after that with an odd number.
struct MetaPage {
  PageHeader header;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t map_size;
  TreeRoot free_pages;
  TreeRoot records;
  std::uint64_t last_page;
  std::uint64_t transaction;
};
static_assert(sizeof(MetaPage) == 152 && offsetof(MetaPage, free_pages) == 40 && offsetof(MetaPage, last_page) == 136);

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kFormatVersion = 1;

}  // namespace tkv::store

#endif
