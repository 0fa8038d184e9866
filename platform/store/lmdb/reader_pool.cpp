#include "store/lmdb/reader_pool.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "base/thread_variable.h"

namespace tkv::store {
namespace {

// Threads start their search at different slots, so that each usually gets the slot it used last.
std::size_t first_choice() {
  static std::atomic<std::size_t> threads{0};
  TKV_THREAD_LOCAL std::size_t number = 0;  // of the thread, from 1 on
  if (number == 0) number = threads.fetch_add(1, std::memory_order_relaxed) + 1;
  return number;
}

bool take_if_free(ReaderSlot& slot) {
  std::uint32_t free = 0;
  return slot.busy.load(std::memory_order_relaxed) == 0 && slot.busy.compare_exchange_strong(free, 1);
}

// Looks again and again, so that a reader that releases its slot need not look for somebody who waits.
void wait_until_free(const ReaderSlot& slot) {
  constexpr std::chrono::microseconds kLongestPause{200};
  for (std::chrono::microseconds pause{1}; slot.busy.load() != 0; pause = std::min(2 * pause, kLongestPause)) {
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace

ReaderPool::~ReaderPool() {
  for (Chunk* chunk = first_.next.load(); chunk != nullptr;) {
    Chunk* const next = chunk->next.load();
    delete chunk;
    chunk = next;
  }
}

// The reader publishes its claim and then checks the gate; the closing thread closes the gate and then checks the
// claims. With sequential consistency, either the reader sees the closed gate or the closing thread sees the claim.
ReaderSlot& ReaderPool::claim(bool nested) {
  for (;;) {
    ReaderSlot& slot = claim_free();
    if (nested || closed_.load() == 0) return slot;
    release(slot);
    closed_.wait(1);
  }
}

ReaderSlot* ReaderPool::try_claim() {
  ReaderSlot& slot = claim_free();
  if (closed_.load() == 0) return &slot;
  release(slot);
  return nullptr;
}

ReaderSlot& ReaderPool::claim_free() {
  const std::size_t choice = first_choice();
  for (Chunk* chunk = &first_;; chunk = &next_of(*chunk)) {
    for (std::size_t i = 0; i < kChunkSize; ++i) {
      ReaderSlot& slot = chunk->slots[(choice + i) % kChunkSize];
      if (take_if_free(slot)) return slot;
    }
  }
}

ReaderPool::Chunk& ReaderPool::next_of(Chunk& chunk) {
  if (Chunk* next = chunk.next.load(); next != nullptr) return *next;
  auto* const fresh = new Chunk;
  Chunk* next = nullptr;
  if (chunk.next.compare_exchange_strong(next, fresh)) return *fresh;
  delete fresh;
  return *next;
}

void ReaderPool::begin_long() {
  std::unique_lock lock(long_mutex_);
  long_changed_.wait(lock, [this] { return !closing_; });
  ++long_readers_;
}

void ReaderPool::end_long() {
  const std::lock_guard lock(long_mutex_);
  --long_readers_;
  long_changed_.notify_all();
}

void ReaderPool::close_gate() {
  {
    std::unique_lock lock(long_mutex_);
    closing_ = true;
    long_changed_.wait(lock, [this] { return long_readers_ == 0; });
  }
  closed_.store(1);
  // A reader that arrives now claims a slot only until it sees the closed gate, and does not touch its contents.
  for_each([](ReaderSlot& slot) { wait_until_free(slot); });
}

void ReaderPool::open_gate() {
  closed_.store(0);
  closed_.notify_all();
  const std::lock_guard lock(long_mutex_);
  closing_ = false;
  long_changed_.notify_all();
}

void ReaderPool::with_no_readers(FunctionRef<void()> function) {
  struct Gate {
    explicit Gate(ReaderPool& closed) : pool(closed) { pool.close_gate(); }
    ~Gate() { pool.open_gate(); }
    ReaderPool& pool;
  };
  const Gate gate(*this);
  function();
}

void ReaderPool::for_each(FunctionRef<void(ReaderSlot&)> function) {
  for (Chunk* chunk = &first_; chunk != nullptr; chunk = chunk->next.load())
    for (ReaderSlot& slot : chunk->slots) function(slot);
}

void ReaderPool::for_each_free(FunctionRef<void(ReaderSlot&)> function) {
  for_each([&](ReaderSlot& slot) {
    if (!take_if_free(slot)) return;
    function(slot);
    release(slot);
  });
}

}  // namespace tkv::store
