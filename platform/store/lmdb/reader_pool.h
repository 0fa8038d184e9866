// ReaderPool: who reads the map right now.
//
// Each reader claims a slot for as long as it reads, and finds in it the read transaction that the slot's last reader
// left there. Whoever must have the map to himself, to unmap it, closes the gate and waits until no slot is claimed.
//
// Readers do not wait for each other, nor for anybody while the gate is open: claiming is one compare-and-swap on a
// slot that usually only this thread uses. Nothing is allocated unless more readers are at work than ever before.
//
// All functions may be called by many threads at once, `with_no_readers` by one.
#ifndef TKV_PLATFORM_STORE_LMDB_READER_POOL_H
#define TKV_PLATFORM_STORE_LMDB_READER_POOL_H

#include <lmdb.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "base/function_ref.h"

namespace tkv::store {

// A reader's place, on a cache line of its own. All but `busy` belongs to whoever claimed it.
struct alignas(64) ReaderSlot {
  std::atomic<std::uint32_t> busy{0};
  MDB_txn* txn = nullptr;             // reset, ready to be renewed; null: none yet
  std::uint64_t structure_state = 0;  // the state of the registry that `structure` was read from, 0: none
  std::uint64_t structure = 0;
};

class ReaderPool {
 public:
  ReaderPool() = default;
  ~ReaderPool();
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

  // Waits while the gate is closed. `nested`: this thread has a slot already, and is let through a closed gate, which
  // whoever closed it is waiting to see released.
  ReaderSlot& claim(bool nested);
  void release(ReaderSlot& slot);

  // Announces a reader that may take long. Taken before claiming, given back after releasing.
  void begin_long();
  void end_long();

  // Runs `function` while no slot is claimed. Short readers go on until the last long one has ended, and only then
  // wait themselves. The calling thread must have no slot.
  void with_no_readers(FunctionRef<void()> function);

  // Calls `function` with each slot that is free, and keeps readers out of that slot meanwhile.
  void for_each_free(FunctionRef<void(ReaderSlot&)> function);

  // Calls `function` with each slot. For use within with_no_readers and when there are no users left.
  void for_each(FunctionRef<void(ReaderSlot&)> function);

 private:
  static constexpr std::size_t kChunkSize = 16;
  struct Chunk {
    std::array<ReaderSlot, kChunkSize> slots;
    std::atomic<Chunk*> next{nullptr};
  };

  ReaderSlot& claim_free();
  Chunk& next_of(Chunk& chunk);
  void close_gate();
  void open_gate();

  Chunk first_;
  alignas(64) std::atomic<std::uint32_t> closed_{0};
  std::mutex long_mutex_;
  std::condition_variable long_changed_;
  std::size_t long_readers_ = 0;  // guarded by long_mutex_
  bool closing_ = false;          // guarded by long_mutex_: no further long reader
};

}  // namespace tkv::store

#endif
