// MemoryContext: the blocks of one program-manager context.
#ifndef TKV_PLATFORM_LPM_MEMORY_CONTEXT_H
#define TKV_PLATFORM_LPM_MEMORY_CONTEXT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <unordered_map>

namespace tkv::lpm {

// Blocks are allocated in size classes, four for each doubling of the size, and stay with the context. A freed block is
// reused for a later request of its class, the one freed first before the others. A context therefore never holds more
// blocks of a class than were in use at once, with two exceptions:
//   - a freed block of up to kRestingSize bytes rests until kRestingBlocks others of its class have been freed, so that
//     a late read of it yields zeros; a class of small blocks may hold that many more;
//   - the pages of a freed block of kPagedSize bytes or more are released to the system; its addresses stay readable
//     and read as zeros.
// Not thread-safe.
class MemoryContext {
 public:
  static constexpr std::size_t kRestingSize = 4096;
  static constexpr std::size_t kRestingBlocks = 8;
  static constexpr std::size_t kPagedSize = std::size_t{2} << 20;  // beyond the largest value

  MemoryContext() = default;
  ~MemoryContext();
  MemoryContext(const MemoryContext&) = delete;
  MemoryContext& operator=(const MemoryContext&) = delete;

  // Returns a zero-filled block of at least `size` bytes, aligned for any type. Throws std::bad_alloc.
  void* take(std::size_t size);

  // Zero-fills a block and keeps it for reuse. Has no effect on an address that is not that of a block in use.
  void give_back(void* address);

  // Returns the number of bytes allocated from the system, including freed blocks.
  std::size_t held_bytes() const { return held_bytes_; }

  // Returns the size of the blocks that serve requests of `size` bytes.
  static std::size_t class_size(std::size_t size);

 private:
  struct Block {
    std::size_t size;
    bool is_free;
  };

  void* reuse(std::size_t size);
  void* fetch(std::size_t size);

  std::unordered_map<void*, Block> blocks_;
  std::map<std::size_t, std::deque<void*>> free_;  // by size class, in the order in which they were freed
  std::size_t held_bytes_ = 0;
};

}  // namespace tkv::lpm

#endif
