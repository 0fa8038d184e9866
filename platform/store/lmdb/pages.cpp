#include "store/lmdb/pages.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "store/lmdb/layout.h"
#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

template <typename Layout>
Layout read_layout(std::span<const std::byte> bytes, std::size_t offset) {
  Layout layout;
  std::memcpy(&layout, bytes.data() + offset, sizeof layout);
  return layout;
}

// A node of a page, with nothing yet said of its data.
struct PageNode {
  NodeHeader head;
  std::span<const std::byte> key;
  std::span<const std::byte> rest;  // of the page, behind the key
};

Status damaged(MDB_txn* txn, std::uint64_t page, const std::string& why) {
  const char* path = "";
  mdb_env_get_path(mdb_txn_env(txn), &path);
  return {PRTKV_STORAGE_FAILED,
          "the registry in '" + std::string(path) + "' is damaged: page " + std::to_string(page) + " " + why};
}

class PageCheck {
 public:
  PageCheck(int file, const MetaPage& head, MDB_txn* txn, FunctionRef<void(std::uint64_t, std::uint64_t)> progress)
      : file_(file), page_size_(head.free_pages.page_size), last_page_(head.last_page), txn_(txn), progress_(progress) {
    used_.resize(last_page_ + 1);
    page_.resize(page_size_);
  }

  Status check_tree(const TreeRoot& tree, bool is_main);

 private:
  struct Pending {
    std::uint64_t number;
    int level;
  };

  Status damaged(std::uint64_t page, const std::string& why) const { return store::damaged(txn_, page, why); }
  Status take(std::uint64_t page);
  Status read(std::uint64_t page, std::span<std::byte> bytes) const;
  Status check_page(const Pending& at, int depth, bool is_main);
  Status check_nodes(const Pending& at, const PageHeader& head, bool is_main);
  bool read_node(std::size_t offset, PageNode* node) const;
  Status check_leaf_node(std::uint64_t page, const PageNode& node, std::size_t* size, bool is_main);
  Status check_overflow(std::uint64_t page, std::size_t size, std::vector<std::byte>* data);
  Status check_free_list(std::uint64_t page, std::span<const std::byte> list);

  const int file_;
  const std::size_t page_size_;
  const std::uint64_t last_page_;
  MDB_txn* const txn_;
  FunctionRef<void(std::uint64_t, std::uint64_t)> progress_;
  std::uint64_t taken_ = 0;
  std::vector<bool> used_;
  std::vector<std::byte> page_;
  std::vector<Pending> pending_;
};

Status PageCheck::take(std::uint64_t page) {
  if (page < 2 || page > last_page_) return damaged(page, "does not exist, and is referred to");
  if (used_[page]) return damaged(page, "is in two places");
  used_[page] = true;
  ++taken_;
  return {};
}

Status PageCheck::read(std::uint64_t page, std::span<std::byte> bytes) const {
  const ssize_t count = pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(page * page_size_));
  const int error = count < 0 ? errno : 0;
  if (error != 0) return failure(txn_, error, ("cannot read page " + std::to_string(page)).c_str());
  return static_cast<std::size_t>(count) == bytes.size() ? Status() : damaged(page, "is missing");
}

Status PageCheck::check_tree(const TreeRoot& tree, bool is_main) {
  if (tree.page == kNoPage) return {};
  if (tree.depth == 0 || tree.depth > kMaxTreeDepth) return damaged(tree.page, "heads a tree of impossible depth");
  if (Status status = take(tree.page); !status.ok()) return status;
  pending_ = {{tree.page, 1}};
  while (!pending_.empty()) {
    const Pending at = pending_.back();
    pending_.pop_back();
    if (Status status = check_page(at, tree.depth, is_main); !status.ok()) return status;
    progress_(taken_, last_page_ - 1);  // two pages are heads
  }
  return {};
}

Status PageCheck::check_page(const Pending& at, int depth, bool is_main) {
  if (Status status = read(at.number, page_); !status.ok()) return status;
  const auto head = read_layout<PageHeader>(page_, 0);
  if (head.number != at.number) return damaged(at.number, "says that it is another one");
  if (head.flags != (at.level == depth ? kLeafPage : kBranchPage)) return damaged(at.number, "is of the wrong kind");
  if (head.lower < sizeof head || head.lower % 2 != 0 || head.lower > head.upper || head.upper > page_size_)
    return damaged(at.number, "has impossible bounds");
  const std::size_t nodes = (head.lower - sizeof head) / 2;
  if (nodes < (head.flags == kBranchPage ? 2u : 1u)) return damaged(at.number, "has too few entries");
  return check_nodes(at, head, is_main);
}

bool PageCheck::read_node(std::size_t offset, PageNode* node) const {
  if (offset + sizeof node->head > page_size_) return false;
  node->head = read_layout<NodeHeader>(page_, offset);
  const std::span<const std::byte> behind = std::span<const std::byte>(page_).subspan(offset + sizeof node->head);
  if (node->head.key_size > behind.size()) return false;
  node->key = behind.first(node->head.key_size);
  node->rest = behind.subspan(node->head.key_size);
  return true;
}

// The nodes of a page lie one behind the other, in any order, from `upper` to the page's end.
Status PageCheck::check_nodes(const Pending& at, const PageHeader& head, bool is_main) {
  std::size_t total = 0;
  std::span<const std::byte> former;
  for (std::size_t offset_at = sizeof head; offset_at < head.lower; offset_at += 2) {
    const auto offset = read_layout<std::uint16_t>(page_, offset_at);
    PageNode node;
    if (offset < head.upper || !read_node(offset, &node)) return damaged(at.number, "has an entry outside of it");
    const bool first = offset_at == sizeof head;
    std::size_t data_size = 0;
    if (head.flags == kLeafPage) {
      if (Status status = check_leaf_node(at.number, node, &data_size, is_main); !status.ok()) return status;
    } else {
      const std::uint64_t child =
          node.head.low | std::uint64_t{node.head.high} << 16 | std::uint64_t{node.head.flags} << 32;
      if (Status status = take(child); !status.ok()) return status;
      pending_.push_back({child, at.level + 1});
    }
    const bool has_key = head.flags == kLeafPage || !first;  // a branch's first key is left out
    if (is_main && has_key && !first &&
        !std::lexicographical_compare(former.begin(), former.end(), node.key.begin(), node.key.end()))
      return damaged(at.number, "has its entries out of order");
    if (!is_main && has_key && node.key.size() != sizeof(std::uint64_t))
      return damaged(at.number, "has an impossible key");
    if (has_key) former = node.key;
    total += (sizeof node.head + node.key.size() + data_size + 1) / 2 * 2;
  }
  return total == page_size_ - head.upper ? Status() : damaged(at.number, "has entries that overlap");
}

// `*size` receives how many bytes of the page the data takes.
Status PageCheck::check_leaf_node(std::uint64_t page, const PageNode& node, std::size_t* size, bool is_main) {
  const std::size_t data_size = node.head.low | std::size_t{node.head.high} << 16;
  *size = node.head.flags == kBigData ? sizeof(std::uint64_t) : data_size;
  if ((node.head.flags & ~kBigData) != 0 || *size > node.rest.size())
    return damaged(page, "has an entry that does not fit");
  if (node.head.flags != kBigData) return is_main ? Status() : check_free_list(page, node.rest.first(data_size));
  const auto overflow = read_layout<std::uint64_t>(node.rest, 0);
  std::vector<std::byte> data;
  if (Status status = check_overflow(overflow, data_size, is_main ? nullptr : &data); !status.ok()) return status;
  return is_main ? Status() : check_free_list(overflow, data);
}

// A run of pages with one head that holds `size` bytes; `data`, unless null, receives them.
Status PageCheck::check_overflow(std::uint64_t page, std::size_t size, std::vector<std::byte>* data) {
  const std::size_t needed = (sizeof(PageHeader) + size - 1) / page_size_ + 1;
  if (Status status = take(page); !status.ok()) return status;
  std::array<std::byte, sizeof(PageHeader)> bytes;
  if (Status status = read(page, bytes); !status.ok()) return status;
  const auto head = read_layout<PageHeader>(bytes, 0);
  // A value that was replaced by a shorter one in the same transaction keeps the longer one's pages.
  const std::size_t pages = head.lower | std::size_t{head.upper} << 16;
  if (head.number != page || head.flags != kOverflowPage || pages < needed)
    return damaged(page, "is not the beginning of the value that it should have");
  for (std::size_t i = 1; i < pages; ++i)
    if (Status status = take(page + i); !status.ok()) return status;
  if (data == nullptr) {
    std::byte last{};  // the pages must be there, whatever they hold
    const ssize_t count = pread(file_, &last, 1, static_cast<off_t>(page * page_size_ + sizeof(PageHeader) + size - 1));
    return size == 0 || count == 1 ? Status() : damaged(page, "is cut off");
  }
  data->resize(sizeof(PageHeader) + size);
  if (Status status = read(page, *data); !status.ok()) return status;
  data->erase(data->begin(), data->begin() + sizeof(PageHeader));
  return {};
}

// How many pages are free, and which.
Status PageCheck::check_free_list(std::uint64_t page, std::span<const std::byte> list) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  if (list.size() < kWord) return damaged(page, "has a list of free pages that is cut off");
  const auto count = read_layout<std::uint64_t>(list, 0);
  if (count > list.size() / kWord - 1) return damaged(page, "has a list of free pages that is cut off");
  for (std::size_t i = 1; i <= count; ++i)
    if (Status status = take(read_layout<std::uint64_t>(list, i * kWord)); !status.ok()) return status;
  return {};
}

}  // namespace

Status check_pages(MDB_txn* txn, FunctionRef<void(std::uint64_t, std::uint64_t)> progress, bool* outdated) {
  MDB_env* const env = mdb_txn_env(txn);
  MDB_stat pages{};
  int file = -1;
  mdb_env_get_fd(env, &file);
  mdb_env_stat(env, &pages);
  MDB_envinfo info{};
  mdb_env_info(env, &info);
  // A writing transaction sees the state before it, and has the number after it.
  const std::uint64_t state = std::min<std::uint64_t>(mdb_txn_id(txn), info.me_last_txnid);
  MetaPage head{};
  const ssize_t count = pread(file, &head, sizeof head, static_cast<off_t>((state & 1) * pages.ms_psize));
  const int error = count < 0 ? errno : 0;
  if (error != 0) return failure(txn, error, "cannot read the registry's file");
  *outdated = count == sizeof head && head.transaction != state;
  if (*outdated) return {};
  const bool is_sound = count == sizeof head && head.magic == kMagic && head.free_pages.page_size == pages.ms_psize &&
                        head.last_page <= info.me_last_pgno;
  if (!is_sound) return damaged(txn, state & 1, "is not the head of a registry's file");
  PageCheck check(file, head, txn, progress);
  if (Status status = check.check_tree(head.free_pages, false); !status.ok()) return status;
  return check.check_tree(head.records, true);
}

}  // namespace tkv::store
