// ReaderPool: the readers of the map in this process.
//
// A reader claims a slot while it reads. The slot keeps the read transaction of its previous reader for reuse. A thread
// that needs the map exclusively (to remap it) closes the gate and waits until no slot is claimed.
//
// Readers never wait for each other, and never wait at all while the gate is open: claiming is one compare-and-swap on
// a slot that usually no other thread uses, and releasing it is a plain store. Memory is allocated only when the number
// of concurrent readers exceeds its previous maximum.
//
// Every function may be called from any number of threads, except `with_no_readers`, whose callers must be serialised.
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
#include "store/lmdb/file_state.h"
#include "store/lmdb/unchanged_pages.h"

namespace tkv::store {

// Slots in LMDB's reader table, shared by all processes that have the registry open.
constexpr unsigned kMaxReaders = 1022;

// A slot occupies its own cache line. All members but `busy` belong to the reader that has claimed it.
struct alignas(64) ReaderSlot {
  std::atomic<std::uint32_t> busy{0};
  MDB_txn* txn = nullptr;             // reset, ready to be renewed; null: none yet
  std::uint64_t structure_state = 0;  // the LMDB transaction whose state `structure` was read from, 0: none
  std::uint64_t structure = 0;
  FileState state;  // what `txn` sees, loaded when it is renewed
  UnchangedPages pages;
};

class ReaderPool {
 public:
  ReaderPool() = default;
  ~ReaderPool();
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

  // Waits while the gate is closed. `nested` means that this thread has already claimed a slot: it passes the closed
  // gate, because the thread that closed it is waiting for that slot.
  ReaderSlot& claim(bool nested);

  // As claim, but returns null instead of waiting.
  ReaderSlot* try_claim();

  void release(ReaderSlot& slot) { slot.busy.store(0, std::memory_order_release); }

  // Announces a reader that may take long. Called before claim() and after release().
  void begin_long();
  void end_long();

  // Runs `function` while no slot is claimed. Short readers are held up only after the last long reader has finished.
  // The calling thread must not have claimed a slot.
  void with_no_readers(FunctionRef<void()> function);

  // Calls `function` with each free slot in turn, which no reader can claim meanwhile.
  void for_each_free(FunctionRef<void(ReaderSlot&)> function);

  // Calls `function` with each slot. Only within with_no_readers, or when there are no readers left.
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
  bool closing_ = false;          // guarded by long_mutex_: no new long readers
};

}  // namespace tkv::store

#endif
