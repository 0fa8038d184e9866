// MetaPageMap: the numbers of the data file's latest transactions, read without a transaction.
//
// LMDB writes a transaction's number into a meta page before the commit returns and before any reader sees the new
// state. The larger of the two meta pages' numbers is therefore never behind what a process has been told of, and at
// most one ahead of what a read transaction shows: while the commit is being made durable, or after a writer died
// there.
//
// The pages are mapped apart from LMDB's own map, which is replaced when the registry grows. The map is made through
// LMDB's descriptor and needs none of its own; the data file carries no locks.
//
// Others can read the numbers as well (see memory()), and may keep the memory for longer than this object lives. It is
// then no longer backed by the file: it keeps no disk space in use, and shows zeroes instead of outdated numbers.
#ifndef TKV_PLATFORM_STORE_LMDB_META_PAGE_MAP_H
#define TKV_PLATFORM_STORE_LMDB_META_PAGE_MAP_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/state_memory.h"
#include "store/lmdb/layout.h"

namespace tkv::store {

class MetaPageMap {
 public:
  MetaPageMap() = default;
  ~MetaPageMap();
  MetaPageMap(const MetaPageMap&) = delete;
  MetaPageMap& operator=(const MetaPageMap&) = delete;

  // Maps the pages of an open data file. Without success, latest() is 0. Call once. Throws std::bad_alloc.
  void open(int file, std::size_t page_size);

  // From now on, latest() and memory() show 0. Any thread may call this. In a forked child it does not affect the
  // parent.
  void withdraw() noexcept;

  // The numbers, or null if the pages are not mapped.
  std::shared_ptr<const StateMemory> memory() const { return memory_; }

  // Any thread may call this. The file must hold both pages: a truncated one raises SIGBUS.
  std::uint64_t latest() const {
    if (numbers_[0] == nullptr) return 0;
    const std::uint64_t even = __atomic_load_n(numbers_[0], __ATOMIC_ACQUIRE);
    const std::uint64_t odd = __atomic_load_n(numbers_[1], __ATOMIC_ACQUIRE);
    return even > odd ? even : odd;
  }

 private:
  class Pages;

  std::shared_ptr<const StateMemory> memory_;
  const std::uint64_t* numbers_[kMetaPages] = {};  // within memory_
};

}  // namespace tkv::store

#endif
