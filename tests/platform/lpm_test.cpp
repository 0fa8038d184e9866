#include "lpm.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "lpm/memory_context.h"

namespace {

using tkv::lpm::MemoryContext;

// A context that ends with the test.
class ShortLivedContext {
 public:
  ShortLivedContext() : id_(lpmprinit()) {}
  ~ShortLivedContext() { lpmprterm(id_); }
  operator lpm_ctx() const { return id_; }  // NOLINT(google-explicit-constructor): stands for the handle

 private:
  lpm_ctx id_;
};

bool is_zero(const void* block, std::size_t size) {
  const auto* bytes = static_cast<const volatile unsigned char*>(block);
  for (std::size_t index = 0; index < size; ++index) {
    if (bytes[index] != 0) return false;
  }
  return true;
}

struct ProcessSize {
  std::size_t mapped = 0;    // bytes of addresses
  std::size_t resident = 0;  // bytes in memory
};

ProcessSize process_size() {
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  ProcessSize pages;
  EXPECT_EQ(std::fscanf(file, "%zu %zu", &pages.mapped, &pages.resident), 2);
  std::fclose(file);
  const auto page = static_cast<std::size_t>(getpagesize());
  return {pages.mapped * page, pages.resident * page};
}

constexpr std::uint32_t kSizes[] = {0,    1,    15,   16,   17,    63,     64,     888,
                                    1024, 4095, 4096, 4097, 70000, 131071, 131072, 1 << 20};

TEST(Lpm, GivesTheProcessTheSameContextEachTime) {
  const lpm_ctx context = lpminit(nullptr);
  EXPECT_NE(context, 0U);
  EXPECT_EQ(lpminit(nullptr), context);
}

TEST(Lpm, KeepsTheProcessContextWhenItIsEnded) {
  const lpm_ctx context = lpminit(nullptr);
  lpmprterm(context);
  EXPECT_EQ(lpminit(nullptr), context);
  void* block = prou_allocm(context, 10);
  EXPECT_NE(block, nullptr);
  prou_freem(context, block);
}

TEST(Lpm, NeverGivesAnIdTwice) {
  std::set<lpm_ctx> seen{lpminit(nullptr)};
  for (int round = 0; round < 100; ++round) {
    const lpm_ctx context = lpmprinit();
    EXPECT_TRUE(seen.insert(context).second);
    lpmprterm(context);
  }
}

TEST(Lpm, GivesZeroFilledAlignedBlocksOfEverySize) {
  const ShortLivedContext context;
  for (const std::uint32_t size : kSizes) {
    void* block = prou_allocm(context, size);
    ASSERT_NE(block, nullptr) << size;
    EXPECT_TRUE(is_zero(block, size)) << size;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
    std::memset(block, 0xA5, size);
  }
}

TEST(Lpm, ClearsABlockWhenItIsFreedAndKeepsItReadable) {
  const ShortLivedContext context;
  for (const std::uint32_t size : kSizes) {
    void* block = prou_allocm(context, size);
    ASSERT_NE(block, nullptr) << size;
    std::memset(block, 0xA5, size);
    prou_freem(context, block);
    EXPECT_TRUE(is_zero(block, size)) << size;
  }
}

TEST(Lpm, LetsASmallFreedBlockRestUntilEightOthersAreFreed) {
  const ShortLivedContext context;
  void* freed = prou_allocm(context, 888);
  prou_freem(context, freed);
  std::vector<void*> others;
  for (int round = 0; round < 20; ++round) others.push_back(prou_allocm(context, 888));
  for (void* other : others) EXPECT_NE(other, freed);
  for (int round = 0; round < 7; ++round) prou_freem(context, others[static_cast<std::size_t>(round)]);
  EXPECT_NE(prou_allocm(context, 888), freed);
  prou_freem(context, others[7]);
  EXPECT_EQ(prou_allocm(context, 888), freed);
}

TEST(Lpm, ReusesTheBlockThatWasFreedFirst) {
  const ShortLivedContext context;
  void* first = prou_allocm(context, 8192);
  void* second = prou_allocm(context, 8192);
  std::memset(first, 1, 8192);
  prou_freem(context, first);
  prou_freem(context, second);
  EXPECT_EQ(prou_allocm(context, 8000), first);
  EXPECT_TRUE(is_zero(first, 8192));
  EXPECT_EQ(prou_allocm(context, 8000), second);
}

TEST(Lpm, IgnoresASecondFree) {
  const ShortLivedContext context;
  void* block = prou_allocm(context, 10000);
  prou_freem(context, block);
  prou_freem(context, block);
  void* one = prou_allocm(context, 10000);
  void* other = prou_allocm(context, 10000);
  EXPECT_NE(one, other);
}

TEST(Lpm, IgnoresWhatIsNotABlockOfTheContext) {
  const ShortLivedContext context;
  const ShortLivedContext foreign;
  char on_stack[64];
  std::memset(on_stack, 0x5A, sizeof(on_stack));
  auto* block = static_cast<char*>(prou_allocm(foreign, 64));
  std::memset(block, 0x5A, 64);
  prou_freem(context, nullptr);
  prou_freem(context, on_stack);
  prou_freem(context, reinterpret_cast<void*>(std::uintptr_t{1}));
  prou_freem(context, block);      // another context's
  prou_freem(foreign, block + 1);  // not a block's start
  EXPECT_EQ(on_stack[0], 0x5A);
  EXPECT_EQ(block[0], 0x5A);
  EXPECT_EQ(block[63], 0x5A);
}

TEST(Lpm, OwnsNothingInANullUnknownOrEndedContext) {
  const lpm_ctx ended = lpmprinit();
  lpmprterm(ended);
  lpmprterm(ended);
  lpmprterm(0);
  lpmprterm(UINT64_MAX);
  for (const lpm_ctx context : {lpm_ctx{0}, ended, lpm_ctx{UINT64_MAX}}) {
    EXPECT_EQ(prou_allocm(context, 1), nullptr);
    char byte = 7;
    prou_freem(context, &byte);
    EXPECT_EQ(byte, 7);
  }
}

TEST(Lpm, GivesNullWhenTheSystemHasNoMore) {
  const ShortLivedContext context;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
  const rlimit little = {process_size().mapped + (std::size_t{1} << 30), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &little), 0);
  void* block = prou_allocm(context, UINT32_MAX);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(block, nullptr);
  EXPECT_NE(prou_allocm(context, 100), nullptr);
}

TEST(Lpm, FreesALargeBlockWithoutTouchingItsPages) {
  constexpr std::uint32_t kSize = std::uint32_t{1} << 30;
  const ShortLivedContext context;
  auto* block = static_cast<char*>(prou_allocm(context, kSize));
  ASSERT_NE(block, nullptr);
  block[kSize - 1] = 1;
  const std::size_t before = process_size().resident;
  prou_freem(context, block);
  EXPECT_LT(process_size().resident, before + (kSize >> 6));
  EXPECT_EQ(block[kSize - 1], 0);
}

TEST(Lpm, ServesThreadsAtOnce) {
  const ShortLivedContext context;
  std::vector<std::thread> threads;
  for (int number = 1; number <= 4; ++number) {
    threads.emplace_back([&context, number] {
      std::vector<unsigned char*> blocks;
      for (int round = 0; round < 2000; ++round) {
        auto* block = static_cast<unsigned char*>(prou_allocm(context, 64));
        ASSERT_TRUE(is_zero(block, 64));
        std::memset(block, number, 64);
        blocks.push_back(block);
        if (blocks.size() < 16) continue;
        for (unsigned char* held : blocks) {
          ASSERT_EQ(held[63], number);
          prou_freem(context, held);
        }
        blocks.clear();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(MemoryContext, RoundsUpByAtMostAQuarter) {
  for (std::size_t size = 64; size < 3'000'000; size += 1 + size / 7) {
    const std::size_t served = MemoryContext::class_size(size);
    EXPECT_GE(served, size);
    EXPECT_LE(served, size + size / 4 + 16) << size;
    EXPECT_EQ(served % 16, 0U);
    EXPECT_EQ(MemoryContext::class_size(served), served) << size;
    EXPECT_TRUE(served < MemoryContext::kPagedSize || served % 4096 == 0) << size;
  }
}

TEST(MemoryContext, HoldsNoMoreAfterManyRoundsThanAfterAFew) {
  MemoryContext context;
  std::mt19937 random(1);
  std::vector<std::size_t> sizes;
  for (int count = 0; count < 200; ++count) sizes.push_back(random() % 20000);
  std::size_t held = 0;
  for (int round = 0; round < 200; ++round) {
    std::vector<void*> blocks;
    for (const std::size_t size : sizes) blocks.push_back(context.take(size));
    for (void* block : blocks) context.give_back(block);
    // By then, each class has its maximum of resting blocks.
    if (round == 10) held = context.held_bytes();
    ASSERT_TRUE(round <= 10 || context.held_bytes() == held) << round;
  }
}

TEST(MemoryContext, HoldsFewBlocksForOneThatComesAndGoes) {
  MemoryContext context;
  for (int round = 0; round < 10000; ++round) context.give_back(context.take(100));
  EXPECT_LE(context.held_bytes(), (MemoryContext::kRestingBlocks + 1) * MemoryContext::class_size(100));
  MemoryContext large;
  for (int round = 0; round < 1000; ++round) large.give_back(large.take(1 << 20));
  EXPECT_EQ(large.held_bytes(), std::size_t{1} << 20);
}

TEST(MemoryContext, ReturnsThePagesOfLargeFreedBlocks) {
  constexpr std::size_t kSize = std::size_t{64} << 20;
  MemoryContext context;
  void* block = context.take(kSize);
  std::memset(block, 1, kSize);
  const std::size_t in_use = process_size().resident;
  context.give_back(block);
  EXPECT_LT(process_size().resident + kSize / 2, in_use);
  EXPECT_TRUE(is_zero(block, 4096));
}

}  // namespace
