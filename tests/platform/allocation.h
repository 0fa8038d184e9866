// Replaces the allocation functions of a test program: they count, and fail on demand. Only one source of a program may
// include this header, since it defines functions for the whole program.
#ifndef TKV_TESTS_PLATFORM_ALLOCATION_H
#define TKV_TESTS_PLATFORM_ALLOCATION_H

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace tkv::test {

std::atomic<long> allocations{0};    // of all threads, so far
std::atomic<long> deallocations{0};  // likewise

constexpr long kEndless = std::numeric_limits<long>::max();
thread_local long allocations_left = kEndless;  // in this thread; then std::bad_alloc

}  // namespace tkv::test

// Not inlined: the compiler would warn about a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
  tkv::test::allocations.fetch_add(1, std::memory_order_relaxed);
  if (tkv::test::allocations_left == 0) throw std::bad_alloc();
  if (tkv::test::allocations_left != tkv::test::kEndless) --tkv::test::allocations_left;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept {
  if (block != nullptr) tkv::test::deallocations.fetch_add(1, std::memory_order_relaxed);
  std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

#endif
