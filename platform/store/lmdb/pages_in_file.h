// PagesInFile: a few pages of one state of the data file, read from the file instead of through LMDB's map.
//
// Touching a page of the map for the first time costs several times as much as reading one: the kernel maps 16 pages at
// once, and unmaps them when the map is closed. A program that opens the registry for a few reads needs about ten pages
// from different places of the file, so the first transactions after opening take them from here.
//
// Pages stay in memory, and may hold secrets. They are wiped when the last of a few uses has ended, or when the state
// is no longer the latest one.
//
// Any thread may call any function.
#ifndef TKV_PLATFORM_STORE_LMDB_PAGES_IN_FILE_H
#define TKV_PLATFORM_STORE_LMDB_PAGES_IN_FILE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

namespace tkv::store {

class PagesInFile {
 public:
  static constexpr std::size_t kMostPages = 16;
  static constexpr unsigned kMostUses = 2;

  // `file` stays open as long as pages are asked for.
  PagesInFile(int file, std::size_t page_size);
  ~PagesInFile();
  PagesInFile(const PagesInFile&) = delete;
  PagesInFile& operator=(const PagesInFile&) = delete;

  // A transaction that uses pages of this state. Returns false if there have been kMostUses, including tries to copy.
  bool begin_use();
  void end_use();

  // No use begins any more.
  void give_up() {
    if (!is_over_.load(std::memory_order_relaxed)) leave_out_further_uses();
  }

  // A page, which stays where it is until the use has ended, or null if there is no room, or once the pages are wiped.
  // Returns false if it cannot be read.
  bool read(std::uint64_t number, const std::byte** page);

  // Copies bytes of the file that are within one of the pages. Returns false if they are not, or not any more.
  bool copy(std::uint64_t offset, std::span<std::byte> bytes) {
    return !is_over_.load(std::memory_order_relaxed) && use_and_copy(offset, bytes);
  }

  // Whether an address is within one of the pages. `*offset` then is that of the same byte in the file.
  bool find(const std::byte* address, std::uint64_t* offset) const;

  // Why a page could not be read, the last time: what `errno` was, or ENODATA if the file ended within or before it.
  // 0: none failed.
  int error() const;

 private:
  std::size_t index_of(std::uint64_t number) const;
  void leave_out_further_uses();
  void wipe_if_over();
  bool use_and_copy(std::uint64_t offset, std::span<std::byte> bytes);
  void wipe();

  const int file_;
  const std::size_t page_size_;
  mutable std::mutex mutex_;
  unsigned begun_ = 0;
  unsigned ended_ = 0;
  int error_ = 0;
  std::atomic<bool> is_over_{false};  // all uses have ended, and the pages are wiped
  std::size_t count_ = 0;
  std::array<std::uint64_t, kMostPages> numbers_;  // of the first `count_` pages in `bytes_`
  std::unique_ptr<std::byte[]> bytes_;             // null once they are wiped
};

}  // namespace tkv::store

#endif
