#include "lpm/memory_context.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tkv::lpm {
namespace {

bool is_paged(std::size_t size) { return size >= MemoryContext::kPagedSize; }

void clear(void* address, std::size_t size) {
  // Released pages read as zeros, and the system clears them before reusing them. It refuses to release locked pages.
  if (is_paged(size) && madvise(address, size, MADV_DONTNEED) == 0) return;
  // The block is not read before it is reused, so the compiler could omit a plain memset.
  explicit_bzero(address, size);
}

void* fetch_from_system(std::size_t size) {
  if (!is_paged(size)) return std::calloc(1, size);
  void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return address == MAP_FAILED ? nullptr : address;
}

void return_to_system(void* address, std::size_t size) {
  if (is_paged(size)) {
    munmap(address, size);
  } else {
    std::free(address);
  }
}

}  // namespace

std::size_t MemoryContext::class_size(std::size_t size) {
  constexpr std::size_t kSmallest = 16;
  const std::size_t step = std::max(kSmallest, std::bit_floor(size) / 4);
  return std::max(kSmallest, (size + step - 1) / step * step);
}

MemoryContext::~MemoryContext() {
  for (const auto& [address, block] : blocks_) {
    if (!block.is_free) clear(address, block.size);
    return_to_system(address, block.size);
  }
}

void* MemoryContext::take(std::size_t size) {
  const std::size_t block_size = class_size(size);
  void* address = reuse(block_size);
  return address != nullptr ? address : fetch(block_size);
}

void* MemoryContext::reuse(std::size_t size) {
  const auto found = free_.find(size);
  const std::size_t resting = size <= kRestingSize ? kRestingBlocks : 0;
  if (found == free_.end() || found->second.size() <= resting) return nullptr;
  void* address = found->second.front();
  found->second.pop_front();
  blocks_.find(address)->second.is_free = false;
  return address;
}

void* MemoryContext::fetch(std::size_t size) {
  void* address = fetch_from_system(size);
  if (address == nullptr) throw std::bad_alloc();
  try {
    blocks_.emplace(address, Block{size, false});
  } catch (...) {
    return_to_system(address, size);
    throw;
  }
  held_bytes_ += size;
  return address;
}

void MemoryContext::give_back(void* address) {
  const auto found = blocks_.find(address);
  if (found == blocks_.end() || found->second.is_free) return;
  clear(address, found->second.size);
  // If there is no memory to queue the block, it is cleared but not reused.
  found->second.is_free = true;
  free_[found->second.size].push_back(address);
}

}  // namespace tkv::lpm
