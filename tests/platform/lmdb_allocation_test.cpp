// Reading allocates nothing: neither a read transaction, nor a lookup, nor a value of up to 1 KiB.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "lmdb_files.h"
#include "temporary_directory.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TKV_SANITIZED 1
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void*, std::size_t),
                                                         void (*on_free)(const volatile void*));
#endif

namespace {
std::atomic<long> allocations{0};
}

#ifndef TKV_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

// Replace libc's functions, for LMDB as well, since the program's symbols take precedence.
[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
[[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) {
  ++allocations;
  return __libc_realloc(block, size);
}
}
#else
// A sanitizer has a malloc of its own, which must not be replaced; it offers a hook instead.
[[maybe_unused]] const int hooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});
#endif

namespace tkv::store {
namespace {

TEST(LmdbAllocation, TheCounterCounts) {
  const long before = allocations;
  delete new std::string(1000, 'x');
  EXPECT_GT(allocations, before);
}

TEST(LmdbAllocation, AReadOfAValueUpToOneKiBAllocatesNothing) {
  const TemporaryDirectory directory;
  LmdbOptions options;
  options.directory = directory / "registry";
  const auto store = open_or_fail(options);
  NodeId a = kNoNode;
  NodeId b = kNoNode;
  ASSERT_TRUE(add_node(*store, kRootNode, "a", &a).ok());
  ASSERT_TRUE(add_node(*store, a, "b", &b).ok());
  ASSERT_TRUE(set_text(*store, b, std::string(1024, 'v')).ok());
  const auto read = [&] {
    std::size_t size = 0;
    const Status status = store->read([&](View& view) -> Status {
      Node node;
      Node missing;
      Value value;
      if (view.structure() == 0) return PRTKV_UNKNOWN;
      if (Status found = view.find(kRootNode, "a", &node); !found.ok()) return found;
      if (Status found = view.find(node.id, "b", &node); !found.ok()) return found;
      if (!view.find(node.id, "c", &missing).is(PRTKV_NO_SUCH_KEY)) return PRTKV_UNKNOWN;
      if (Status found = view.value(node.id, &value); !found.ok()) return found;
      size = value.bytes.size();
      return {};
    });
    return status.ok() ? size : 0;
  };
  ASSERT_EQ(read(), 1024u);  // the first one makes the transaction that the others use again
  const long before = allocations;
  std::size_t total = 0;
  for (int i = 0; i < 1000; ++i) total += read();
  const long after = allocations;
  EXPECT_EQ(after - before, 0);
  EXPECT_EQ(total, 1024'000u);
}

}  // namespace
}  // namespace tkv::store
