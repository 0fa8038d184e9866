// ReplacedPages: which pages of the tree of records have been replaced, in a sequence of states.
//
// A transaction that changes an entry replaces each page on the way to it, from the root page to the leaf page, by a
// page with another number. A search for a key therefore ends on the same leaf page, with the same contents, as long as
// no state has taken that page out of the tree or given it another range of keys. What was read from a leaf page can be
// relied upon without searching for it again.
//
// follow() compares a state with the one before it. It goes down only where the numbers of the pages differ, so it
// looks at a few pages for each one that was replaced. The pages of both states are as they were: LMDB gives out a page
// that transaction n has freed when every reader has gone beyond the state of n, and follow() is itself such a reader:
// the pages of state n - 1 are freed by transaction n at the earliest. This does not hold for states that are further
// apart. There, an equal number may be that of another page, and everything is forgotten.
//
// It holds numbers only, and nothing of keys or records. One thread at a time.
#ifndef TKV_PLATFORM_STORE_LMDB_REPLACED_PAGES_H
#define TKV_PLATFORM_STORE_LMDB_REPLACED_PAGES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "store/lmdb/file_state.h"

namespace tkv::store {

class ReplacedPages {
 public:
  // The state that was followed to, or zero.
  std::uint64_t state() const { return state_; }

  // Goes on to a later state, in which the calling thread has a transaction open. `structure` is View::structure() of
  // it. Forgets everything if that is not the next state, if too many pages were replaced, if memory runs out, or if a
  // page is damaged.
  void follow(const FileState& state, std::uint64_t structure) noexcept;

  void forget() noexcept;

  // Whether a leaf page of the state `former` has been in the tree ever since, for the same keys.
  bool has_kept_page_since(std::uint64_t former, std::uint64_t page) const;

  // Whether no node has been removed or moved since the state `former`, so that ids found in it are still valid.
  bool has_kept_nodes_since(std::uint64_t former) const { return state_ != 0 && former >= nodes_kept_since_; }

 private:
  using Bytes = std::span<const std::byte>;

  // A page and the range of its keys. The range of the first page of a level has no beginning, that of the last no end.
  struct PageInTree {
    std::uint64_t number = 0;
    Bytes begin;
    Bytes end;
  };

  // The latest state that has replaced each page: a hash table with linear probing, at most half full.
  class Replacements {
   public:
    static constexpr std::size_t kMost = 4096;

    std::uint64_t of(std::uint64_t page) const;  // 0 if there is none
    // Returns false if there are too many.
    bool note(std::uint64_t page, std::uint64_t state);
    void clear();

   private:
    struct Place {
      std::uint64_t page = 0;  // 0: a free place
      std::uint64_t state = 0;
    };

    std::size_t find(std::uint64_t page) const;
    void grow();

    std::vector<Place> places_;
    std::size_t count_ = 0;
  };

  static int compare_begins(const PageInTree& left, const PageInTree& right);
  static bool is_same(const PageInTree& left, const PageInTree& right);
  static bool open_children(const FileState& state, std::vector<PageInTree>* pages, std::vector<PageInTree>* children);

  bool compare(const FileState& state);
  void drop_what_both_have();

  std::uint64_t state_ = 0;
  std::uint64_t structure_ = 0;
  std::uint64_t nodes_kept_since_ = 0;
  std::uint64_t followed_since_ = 0;  // every state from this one on
  std::uint64_t root_ = 0;            // the root page of state_
  unsigned depth_ = 0;                // of its tree
  Replacements replaced_;

  // Empty between calls; they keep their memory.
  std::vector<PageInTree> former_;
  std::vector<PageInTree> present_;
  std::vector<PageInTree> children_;
};

}  // namespace tkv::store

#endif
