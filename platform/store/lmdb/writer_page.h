// WriterPage: the beginning of the file writer.lock, as memory that the processes that write share. What is in it
// decides nothing, the locks on the file do: see WriterLock.
//
//   page  = holder *OCTET words
//   holder = 96 bytes                   ; the name of the last holder, padded with zeroes
//   words = bell bell turns             ; at kWordsOffset, 4 bytes each
//
// A process that finds a byte of the lock taken sleeps on the bell of that byte (a futex), because the kernel has no
// wait with a deadline for the lock itself. The process that frees the byte rings. The lowest bit of a bell is set
// while a process may be asleep; the other bits count how often it has rung. A sleeper also wakes up by itself after a
// while: a process that dies does not ring, nor does one that is about to write again, cannot map the page or has a
// release without bells.
//
// Turns: how many writes may still be made ahead of the process that is next. See WriterLock.
//
// Used by one thread at a time. A file that was truncated cannot be mapped: refresh() looks, and the memory must not be
// used for long after that. Without the map, nothing rings and there are no turns.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITER_PAGE_H
#define TKV_PLATFORM_STORE_LMDB_WRITER_PAGE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tkv::store {

class WriterPage {
 public:
  // These are shared with other processes. Do not change.
  static constexpr std::size_t kHolderSize = 96;
  static constexpr std::size_t kWordsOffset = 112;

  WriterPage() = default;
  ~WriterPage();
  WriterPage(const WriterPage&) = delete;
  WriterPage& operator=(const WriterPage&) = delete;

  // Maps writer.lock if it has not been mapped yet, or finds that it can no longer be used. A file that nobody has
  // written to is not mapped: its first block has to be allocated.
  void refresh(int file);

  // Whether the file names this holder, who has kHolderSize bytes.
  bool names(std::string_view holder) const;

  // Announces that this process may sleep. Call before the last attempt to lock the byte, and pass the result to
  // sleep().
  std::uint32_t announce(off_t byte) const;

  // Sleeps until the bell rings, unless it has since announce(), for at most `longest`.
  void sleep(off_t byte, std::uint32_t announced, std::chrono::microseconds longest) const;

  // Wakes a process that sleeps. Call after unlocking the byte.
  void ring(off_t byte) const;

  // Up to 1000. take_turn() returns false if none is left.
  void offer_turns(std::uint32_t turns) const;
  bool take_turn() const;
  bool has_turns() const;

  // For a child after a fork, which lacks the map. Async-signal-safe.
  void forget_in_child() {
    map_ = nullptr;
    is_usable_ = false;
  }

 private:
  std::uint32_t* word(std::size_t index) const;

  std::byte* map_ = nullptr;
  bool is_usable_ = false;
};

}  // namespace tkv::store

#endif
