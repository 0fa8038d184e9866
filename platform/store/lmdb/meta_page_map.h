// MetaPageMap: the numbers of the data file's latest transactions, read without a transaction.
//
// LMDB writes a transaction's number into a meta page before the commit returns and before any reader sees the new
// state. The larger of the two meta pages' numbers is therefore never behind what a process has been told of, and at
// most one ahead of what a read transaction shows: while the commit is being made durable, or after a writer died
// there.
//
// The pages are mapped apart from LMDB's own map, which is replaced when the registry grows.
//
// Others can read the numbers as well (see memory()), and may keep the memory for longer than this object lives. It is
// then no longer backed by the file: it keeps no disk space in use, and shows zeroes instead of outdated numbers.
#ifndef TKV_PLATFORM_STORE_LMDB_META_PAGE_MAP_H
#define TKV_PLATFORM_STORE_LMDB_META_PAGE_MAP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "base/state_memory.h"
#include "store/lmdb/layout.h"

namespace tkv::store {

class MetaPageMap {
 public:
  MetaPageMap();
  ~MetaPageMap();
  MetaPageMap(const MetaPageMap&) = delete;
  MetaPageMap& operator=(const MetaPageMap&) = delete;

  // Says whose pages are to be mapped: those of an open data file. Call once, before anything else.
  void prepare(int file, std::size_t page_size);

  // Maps the pages, unless they are mapped. Without success, latest() stays 0. Any thread may call this.
  void open() noexcept;

  // Calls open() when it has been called often. For a program that opens the registry, reads a few keys and closes it,
  // mapping the pages costs more than to look for the numbers in LMDB's map. Any thread may call this.
  void open_if_often() noexcept;

  // From now on, latest() and memory() show 0, and open() maps nothing. Any thread may call this. Async-signal-safe: in
  // a forked child, it does not affect the parent.
  void withdraw() noexcept;

  // The numbers, or null if the pages are not mapped. Any thread may call this.
  std::shared_ptr<const StateMemory> memory() const;

  // 0 if the pages are not mapped. Any thread may call this. The file must hold both pages: a truncated one raises
  // SIGBUS.
  std::uint64_t latest() const {
    const std::uint64_t* const first = numbers_[0].load(std::memory_order_acquire);
    return first == nullptr ? 0 : later_of(first, numbers_[1].load(std::memory_order_relaxed));
  }

  // The same. As long as the pages are not mapped, the numbers come from another map of the data file, at this address,
  // which may be null. Any thread may call this.
  std::uint64_t latest_or_in(const std::byte* map) const;

  // Whether that is still this number, after all that the thread has read before.
  bool is_still(std::uint64_t number, const std::byte* map) const {
    std::atomic_thread_fence(std::memory_order_acquire);
    return latest_or_in(map) == number;
  }

 private:
  class Pages;

  static std::uint64_t later_of(const std::uint64_t* first, const std::uint64_t* second) {
    const std::uint64_t even = __atomic_load_n(first, __ATOMIC_ACQUIRE);
    const std::uint64_t odd = __atomic_load_n(second, __ATOMIC_ACQUIRE);
    return even > odd ? even : odd;
  }

  bool is_open() const { return numbers_[0] != nullptr; }

  int file_ = -1;
  std::size_t page_size_ = 0;
  std::atomic<unsigned> calls_{0};  // of open_if_often()
  std::mutex mutex_;                // of open()
  const std::shared_ptr<Pages> pages_;
  std::atomic<const std::uint64_t*> numbers_[kMetaPages] = {};  // within the pages; the first one is set last
  std::atomic<bool> withdrawn_{false};
};

}  // namespace tkv::store

#endif
