// A program's own allocation, which counts and can run out. Included by one source of a program, since what it defines
// stands for all of the program.
#ifndef TKV_TESTS_PLATFORM_ALLOCATION_H
#define TKV_TESTS_PLATFORM_ALLOCATION_H

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace tkv::test {

std::atomic<long> allocations{0};  // of all threads, so far

constexpr long kEndless = std::numeric_limits<long>::max();
thread_local long allocations_left = kEndless;  // in this thread; then std::bad_alloc

}  // namespace tkv::test

// Not inlined: the compiler takes an inlined pair of these for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  tkv::test::allocations.fetch_add(1, std::memory_order_relaxed);
  if (tkv::test::allocations_left == 0) throw std::bad_alloc();
  if (tkv::test::allocations_left != tkv::test::kEndless) --tkv::test::allocations_left;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

#endif
