// UnchangedPages: which pages of the tree of records have stayed as they were from one state to a later one.
//
// A transaction that changes an entry replaces each page on the way to it, from the root page to the leaf page, by a
// page with another number. A search for a key therefore ends on the same leaf page, with the same contents, as long as
// no state has taken that page out of the tree or given it another range of keys. What was read from a leaf page can be
// relied upon without searching for it again.
//
// follow() compares a state with the one before it. It goes down only where the numbers of the pages differ, so it
// looks at a few pages for each one that was replaced. The pages of both states are as they were: LMDB gives out a page
// that transaction n has freed when every reader has gone beyond the state of n, and follow() is itself such a reader:
// the pages of state n - 1 are freed by transaction n at the earliest.
//
// This does not hold for states that are further apart. There, an equal number may be that of another page. A page is
// then recognized by its fingerprint, which takes about as long as a search.
//
// It holds numbers only, and nothing of keys or records. One thread at a time.
#ifndef TKV_PLATFORM_STORE_LMDB_UNCHANGED_PAGES_H
#define TKV_PLATFORM_STORE_LMDB_UNCHANGED_PAGES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "store/lmdb/file_state.h"
#include "store/lmdb/page.h"
#include "store/store.h"

namespace tkv::store {

class UnchangedPages {
 public:
  // The state that was followed to, or zero.
  std::uint64_t state() const { return state_; }

  // Goes on to a later state, in which the calling thread has a transaction open. `structure` is View::structure() of
  // it. What pages were replaced is not known if that is not the next state, if too many were, if memory runs out, or
  // if a page is damaged.
  void follow(const FileState& state, std::uint64_t structure) noexcept;

  // Whether what a view of the state `former` found on the two pages of a place is still there, as far as that is known
  // without looking at pages. False also if the place lacks a fingerprint, unless `former` is the state that was
  // followed to.
  bool has_kept(std::uint64_t former, const ValuePlace& place) const;

  // Whether the node is still there, on the same page, as far as that is known without looking at pages. Its value may
  // have changed.
  bool has_kept_node(std::uint64_t former, const ValuePlace& place) const {
    return has_kept_nodes_since(former) && has_kept_page_since(former, place.node_page);
  }

  // As has_kept, but looks at the pages if need be, and adds their fingerprint to the place. `state` is the state that
  // was followed to, in which the calling thread has a transaction open. If that is also the former one, all that
  // happens is that the fingerprint is added.
  bool recognizes(const FileState& state, std::uint64_t former, ValuePlace* place) noexcept;

  // Whether a place is worth a fingerprint before it is known to outlast a change. It is not while nothing changes. Nor
  // is it if there is no room to remember those of its pages without forgetting others: then places are so many that
  // making all of the fingerprints takes longer than looking some places up again.
  bool fingerprints_pay() const { return has_seen_changes_ && looks_.count() + 2 <= kMostLookedAt; }

 private:
  using Bytes = std::span<const std::byte>;

  // A page and the range of its keys. The range of the first page of a level has no beginning, that of the last no end.
  struct PageInTree {
    std::uint64_t number = 0;
    Bytes begin;
    Bytes end;
  };

  // The fingerprint that a page had in a state.
  struct Look {
    std::uint64_t fingerprint = 0;
    std::uint64_t state = 0;
  };

  // What is known of pages, by their numbers: a hash table with linear probing, at most half full. What it does not
  // know of a page is zero.
  template <typename Known>
  class ByPage {
   public:
    Known of(std::uint64_t page) const { return places_.empty() ? Known{} : places_[find(page)].known; }
    // Returns false, and changes nothing, if it would hold more than `most` pages.
    bool set(std::uint64_t page, const Known& known, std::size_t most);
    void clear();
    std::size_t count() const { return count_; }

   private:
    struct Place {
      std::uint64_t page = 0;  // 0: a free place
      Known known{};
    };

    std::size_t find(std::uint64_t page) const;
    void grow();

    std::vector<Place> places_;
    std::size_t count_ = 0;
  };

  // Each read of a known key looks into the first table, which is small enough for the processor's caches.
  static constexpr std::size_t kMostReplaced = std::size_t{1} << 12;
  // If there are more, the second table is begun anew: pages that are gone would otherwise stay in it for good.
  static constexpr std::size_t kMostLookedAt = std::size_t{1} << 15;

  static int compare_begins(const PageInTree& left, const PageInTree& right);
  static bool has_same_range(const PageInTree& left, const PageInTree& right);
  static bool open_branch(const FileState& state, const PageInTree& parent, Page* page);
  static bool add_child(const PageInTree& parent, const Page& page, unsigned index, std::vector<PageInTree>* children);
  static bool open_all(const FileState& state, std::span<const PageInTree> parents, std::vector<PageInTree>* children);

  bool compare(const FileState& state);
  void drop_what_both_have();
  bool open_children(const FileState& state);
  bool open_different_children(const FileState& state, const PageInTree& former, const PageInTree& present);
  bool has_kept_nodes_since(std::uint64_t former) const { return state_ != 0 && former >= nodes_kept_since_; }
  bool has_kept_page_since(std::uint64_t former, std::uint64_t page) const;
  bool has_kept_pages_since(std::uint64_t former, const ValuePlace& place) const;
  std::uint64_t known_fingerprint(std::uint64_t page) const;
  std::uint64_t fingerprint(const FileState& state, std::uint64_t page) noexcept;

  std::uint64_t state_ = 0;
  bool has_seen_changes_ = false;
  std::uint64_t structure_ = 0;
  std::uint64_t nodes_kept_since_ = 0;
  std::uint64_t followed_since_ = 0;  // every state from this one on
  std::uint64_t root_ = 0;            // the root page of state_
  unsigned depth_ = 0;                // of its tree
  ByPage<std::uint64_t> replaced_;    // the latest state that has replaced each page, since followed_since_
  ByPage<Look> looks_;

  // Empty between calls; they keep their memory.
  std::vector<PageInTree> former_;
  std::vector<PageInTree> present_;
  std::vector<PageInTree> former_children_;
  std::vector<PageInTree> present_children_;
};

}  // namespace tkv::store

#endif
