// How LMDB lays out its file, in its data format 1 on 64-bit machines: what has to be known to look at a file before
// LMDB does, which trusts what it finds there. All integers in the machine's byte order.
#ifndef TKV_PLATFORM_STORE_LMDB_LAYOUT_H
#define TKV_PLATFORM_STORE_LMDB_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace tkv::store {

// The head of every page; on a page of nodes, offsets of the nodes follow it, 16 bits each.
struct PageHead {
  std::uint64_t number;
  std::uint16_t unused;
  std::uint16_t flags;
  std::uint16_t lower;  // where the offsets end
  std::uint16_t upper;  // where the nodes begin, which fill the page to its end
};
static_assert(sizeof(PageHead) == 16);

constexpr std::uint16_t kBranchPage = 0x01;
constexpr std::uint16_t kLeafPage = 0x02;
constexpr std::uint16_t kOverflowPage = 0x04;  // for these, `lower` and `upper` are one number: how many pages it is
constexpr std::uint16_t kMetaPage = 0x08;

// The head of a node; its key follows, and on a leaf its data.
struct NodeHead {
  std::uint16_t low;  // of the data's size on a leaf, of the child's page number on a branch
  std::uint16_t high;
  std::uint16_t flags;  // on a branch the highest bits of the page number
  std::uint16_t key_size;
};
static_assert(sizeof(NodeHead) == 8);

constexpr std::uint16_t kBigData = 0x01;  // the data is the number of an overflow page, which has it

// A tree of pages.
struct TreeHead {
  std::uint32_t page_size;  // of the file, with the tree of free pages
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t counts[4];
  std::uint64_t root;
};
static_assert(sizeof(TreeHead) == 48);

// Of a tree's flags, those that say what its keys and data are; above them are LMDB's notes on how it was opened.
constexpr std::uint16_t kTreeKind = 0xff;
constexpr std::uint16_t kPlainTree = 0;
constexpr std::uint16_t kNumbersTree = 0x08;  // its keys are numbers: that of free pages

constexpr std::uint64_t kNoPage = ~std::uint64_t{0};  // the root of an empty tree
constexpr int kDeepestTree = 32;

// The state of the whole file after a transaction; the first page has that of even ones, the second of odd ones.
struct Head {
  PageHead page;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t map_size;
  TreeHead free_pages;
  TreeHead main;
  std::uint64_t last_page;
  std::uint64_t transaction;
};
static_assert(sizeof(Head) == 152 && offsetof(Head, free_pages) == 40 && offsetof(Head, last_page) == 136);

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;

}  // namespace tkv::store

#endif
