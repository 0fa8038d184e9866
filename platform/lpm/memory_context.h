// MemoryContext: the blocks of one program-manager context.
#ifndef TKV_PLATFORM_LPM_MEMORY_CONTEXT_H
#define TKV_PLATFORM_LPM_MEMORY_CONTEXT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <unordered_map>

namespace tkv::lpm {

// Blocks are taken from the system in classes, four to each doubling of the size, and stay with the context: a freed
// block is handed out again for a later request of its class, the one that was freed first before the others. So a
// context never holds more of a class than was in use at once, but for two things:
//   - a freed block of up to kRestingSize bytes rests until kRestingBlocks others of its class have been freed, so that
//     a late read of it sees zeros: a class of small blocks may hold that many more;
//   - the pages of a freed block of kPagedSize bytes or more go back to the system; its addresses stay readable, and
//     read as zeros.
// Not synchronised.
class MemoryContext {
 public:
  static constexpr std::size_t kRestingSize = 4096;
  static constexpr std::size_t kRestingBlocks = 8;
  static constexpr std::size_t kPagedSize = std::size_t{128} * 1024;

  MemoryContext() = default;
  ~MemoryContext();
  MemoryContext(const MemoryContext&) = delete;
  MemoryContext& operator=(const MemoryContext&) = delete;

  // A zero-filled block of at least `size` bytes, aligned for any type. Throws std::bad_alloc.
  void* take(std::size_t size);

  // Zero-fills a block and keeps it for reuse. What is not a block in use is ignored.
  void give_back(void* address);

  // Bytes that the context has from the system, freed blocks included.
  std::size_t held_bytes() const { return held_bytes_; }

  // The size of the blocks that serve requests of `size` bytes.
  static std::size_t class_size(std::size_t size);

 private:
  struct Block {
    std::size_t size;
    bool is_free;
  };

  void* reuse(std::size_t size);
  void* fetch(std::size_t size);

  std::unordered_map<void*, Block> blocks_;
  std::map<std::size_t, std::deque<void*>> free_;  // by class, in the order in which they were freed
  std::size_t held_bytes_ = 0;
};

}  // namespace tkv::lpm

#endif
