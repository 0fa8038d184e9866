#include "store/lmdb/pages.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "store/lmdb/error.h"
#include "store/lmdb/page.h"

namespace tkv::store {
namespace {

class PageCheck {
 public:
  PageCheck(int file, const FileState& state, FunctionRef<void(std::uint64_t, std::uint64_t)> progress)
      : file_(file), state_(state), progress_(progress), used_(state.page_count), bytes_(state.map.page_size) {}

  Status check_meta_pages() const;
  Status check_tree(const TreeRoot& tree, Page::Keys keys);

 private:
  // A page to be looked at, with the range of keys that its parents allow.
  struct Pending {
    std::uint64_t number;
    unsigned level;
    std::vector<std::byte> lower;
    std::vector<std::byte> upper;  // empty: none
  };

  Status damaged(std::uint64_t page, const char* defect) const { return damaged_page(state_.map, {page, defect}); }
  Status take(std::uint64_t page);
  Status read(std::uint64_t page, std::span<std::byte> bytes) const;
  Status check_page(const Pending& at, const TreeRoot& tree);
  Status check_children(const Page& page, const Pending& at);
  Status check_records(const Page& page);
  Status check_overflow(std::uint64_t page, std::size_t size, std::vector<std::byte>* data);
  Status check_free_list(std::uint64_t page, std::span<const std::byte> list);
  Status check_counts(const TreeRoot& tree) const;

  const int file_;
  const FileState& state_;
  FunctionRef<void(std::uint64_t, std::uint64_t)> progress_;
  std::uint64_t taken_ = 0;
  std::vector<bool> used_;
  std::vector<std::byte> bytes_;
  std::vector<Pending> pending_;
  Page::Keys keys_ = Page::Keys::kBytes;
  TreeRoot counted_{};  // what was found in the current tree
};

bool is_within(const Page& page, std::span<const std::byte> lower, std::span<const std::byte> upper) {
  PageNode smallest;
  PageNode largest;
  if (!page.read(page.is_leaf() ? 0 : 1, &smallest) || !page.read(page.count() - 1, &largest)) return false;
  return compare_keys(smallest.key, lower) >= 0 && (upper.empty() || compare_keys(largest.key, upper) < 0);
}

Status PageCheck::take(std::uint64_t page) {
  if (!state_.has_page(page)) return damaged(page, "does not exist, and is referred to");
  if (used_[page]) return damaged(page, "is used in two places");
  used_[page] = true;
  ++taken_;
  return {};
}

Status PageCheck::read(std::uint64_t page, std::span<std::byte> bytes) const {
  const ssize_t count = pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(page * state_.map.page_size));
  const int error = count < 0 ? errno : 0;
  if (error != 0) {
    return lmdb_status(
        error, "cannot read page " + std::to_string(page) + " of the registry in '" + state_.map.directory + "'");
  }
  return static_cast<std::size_t>(count) == bytes.size() ? Status() : damaged(page, "is missing");
}

// The pages as they are in the file now. The one that does not describe this state may hold what a commit that failed
// has left there, under a number that nobody asks for.
Status PageCheck::check_meta_pages() const {
  for (std::uint64_t number = 0; number < kMetaPages; ++number) {
    MetaPage meta{};
    if (Status status = read(number, std::as_writable_bytes(std::span(&meta, 1))); !status.ok()) return status;
    const bool is_meta_page = meta.magic == kMagic && meta.version == kFormatVersion &&
                              (meta.header.flags & kMetaPage) != 0 && meta.free_pages.page_size == state_.map.page_size;
    if (!is_meta_page) return damaged(number, "is not a meta page of LMDB");
    if (meta.transaction % kMetaPages != number) return damaged(number, "carries the wrong transaction number");
    if (meta.transaction != state_.transaction) continue;
    if (std::memcmp(&meta.records, &state_.records, sizeof(TreeRoot)) != 0 ||
        std::memcmp(&meta.free_pages, &state_.free_pages, sizeof(TreeRoot)) != 0) {
      return damaged(number, "has changed since it was read");
    }
  }
  return {};
}

Status PageCheck::check_tree(const TreeRoot& tree, Page::Keys keys) {
  keys_ = keys;
  counted_ = TreeRoot{};
  if (tree.page != kNoPage) {
    if (Status status = take(tree.page); !status.ok()) return status;
    pending_.push_back({tree.page, 1, {}, {}});
  }
  while (!pending_.empty()) {
    const Pending at = std::move(pending_.back());
    pending_.pop_back();
    if (Status status = check_page(at, tree); !status.ok()) return status;
    progress_(taken_, state_.page_count - kMetaPages);
  }
  return check_counts(tree);
}

Status PageCheck::check_page(const Pending& at, const TreeRoot& tree) {
  if (Status status = read(at.number, bytes_); !status.ok()) return status;
  const bool is_leaf = at.level == tree.depth;
  Page page;
  PageDefect defect = page.open(bytes_.data(), bytes_.size(), at.number, is_leaf ? kLeafPage : kBranchPage);
  if (defect == nullptr) defect = page.check_nodes(state_.page_count, keys_);
  if (defect == nullptr && keys_ == Page::Keys::kBytes && !is_within(page, at.lower, at.upper)) {
    defect = "has keys outside the range that its parent allows";
  }
  if (defect != nullptr) return damaged(at.number, defect);
  ++(is_leaf ? counted_.leaf_pages : counted_.branch_pages);
  return is_leaf ? check_records(page) : check_children(page, at);
}

Status PageCheck::check_children(const Page& page, const Pending& at) {
  const auto key_at = [&](unsigned index) {
    PageNode node;
    (void)page.read(index, &node);
    return std::vector<std::byte>(node.key.begin(), node.key.end());
  };
  for (unsigned index = 0; index < page.count(); ++index) {
    PageNode node;
    (void)page.read(index, &node);
    if (Status status = take(node.child()); !status.ok()) return status;
    pending_.push_back({node.child(), at.level + 1, index == 0 ? at.lower : key_at(index),
                        index + 1 == page.count() ? at.upper : key_at(index + 1)});
  }
  return {};
}

Status PageCheck::check_records(const Page& page) {
  const bool is_free_list = keys_ == Page::Keys::kIntegers;
  for (unsigned index = 0; index < page.count(); ++index) {
    PageNode node;
    (void)page.read(index, &node);
    ++counted_.entries;
    std::uint64_t number = page.number();
    std::vector<std::byte> data;
    std::span<const std::byte> record = node.rest.first(node.size_in_page());
    if (node.is_big()) {
      number = node.overflow_page();
      Status status = check_overflow(number, node.data_size(), is_free_list ? &data : nullptr);
      if (!status.ok()) return status;
      record = data;
    }
    if (!is_free_list) continue;
    if (Status status = check_free_list(number, record); !status.ok()) return status;
  }
  return {};
}

// A run of overflow pages that holds `size` bytes; `data`, unless null, receives them.
Status PageCheck::check_overflow(std::uint64_t page, std::size_t size, std::vector<std::byte>* data) {
  if (Status status = take(page); !status.ok()) return status;
  std::array<std::byte, sizeof(PageHeader)> bytes;
  if (Status status = read(page, bytes); !status.ok()) return status;
  const PageDefect defect = check_overflow_header(bytes.data(), state_.map.page_size, page, size, state_.page_count);
  if (defect != nullptr) return damaged(page, defect);
  PageHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const std::uint64_t pages = header.lower | std::uint64_t{header.upper} << 16;
  counted_.overflow_pages += pages;
  for (std::uint64_t i = 1; i < pages; ++i)
    if (Status status = take(page + i); !status.ok()) return status;
  if (data == nullptr) {
    std::byte last{};  // the pages must be there, whatever they hold
    const auto end = static_cast<off_t>(page * state_.map.page_size + sizeof(PageHeader) + size);
    return size == 0 || pread(file_, &last, 1, end - 1) == 1 ? Status() : damaged(page, "is cut off");
  }
  data->resize(sizeof(PageHeader) + size);
  if (Status status = read(page, *data); !status.ok()) return status;
  data->erase(data->begin(), data->begin() + sizeof(PageHeader));
  return {};
}

// The number of free pages, and the number of each.
Status PageCheck::check_free_list(std::uint64_t page, std::span<const std::byte> list) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  const auto number_at = [&](std::size_t index) {
    std::uint64_t number = 0;
    std::memcpy(&number, list.data() + index * kWord, kWord);
    return number;
  };
  if (list.size() < kWord || number_at(0) > list.size() / kWord - 1) {
    return damaged(page, "has a list of free pages that is cut off");
  }
  for (std::size_t i = 1; i <= number_at(0); ++i)
    if (Status status = take(number_at(i)); !status.ok()) return status;
  return {};
}

Status PageCheck::check_counts(const TreeRoot& tree) const {
  const auto agrees = [&](std::uint64_t TreeRoot::*count) { return tree.*count == counted_.*count; };
  if (!agrees(&TreeRoot::entries)) {
    return {PRTKV_STORAGE_FAILED, "the registry in '" + std::string(state_.map.directory) + "' is damaged: it has " +
                                      std::to_string(counted_.entries) + " records, and meta page " +
                                      std::to_string(state_.transaction % kMetaPages) + " counts " +
                                      std::to_string(tree.entries)};
  }
  const bool all =
      agrees(&TreeRoot::branch_pages) && agrees(&TreeRoot::leaf_pages) && agrees(&TreeRoot::overflow_pages);
  return all ? Status() : damaged(state_.transaction % kMetaPages, "counts other pages than there are");
}

}  // namespace

Status check_pages(int file, const FileState& state, FunctionRef<void(std::uint64_t, std::uint64_t)> progress) {
  PageCheck check(file, state, progress);
  if (Status status = check.check_meta_pages(); !status.ok()) return status;
  if (Status status = check.check_tree(state.free_pages, Page::Keys::kIntegers); !status.ok()) return status;
  return check.check_tree(state.records, Page::Keys::kBytes);
}

}  // namespace tkv::store
