// How often the heap is asked on the way of a read, counted.
#include <gtest/gtest.h>

#include <string>

#include "allocation.h"
#include "prtkv.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

using test::allocations;

// Opens, reads and closes; false when any of it fails.
bool read_once(prtkv_ctx ctx, const char* name, char* buffer, std::uint32_t capacity, std::uint32_t* size) {
  prtkv_key key = 0;
  std::int32_t type = 0;
  *size = capacity;
  return prtkv_open_key(ctx, &key, name) == PRTKV_DONE &&
         prtkv_get_value(ctx, key, &type, buffer, size) == PRTKV_DONE && prtkv_close_key(ctx, key) == PRTKV_DONE;
}

TEST(Allocations, CounterCounts) {
  const long before = allocations.load();
  delete new std::string(1000, 'x');
  EXPECT_GE(allocations.load() - before, 2);
}

TEST(Allocations, WarmOpenGetAndCloseOfUpToOneKibibyteNeedNone) {
  const TemporaryDirectory directory;
  store::LmdbOptions options;
  options.directory = directory / "registry";
  options.root_security = open_to_all();
  std::shared_ptr<store::Store> store;
  ASSERT_EQ(store::open_lmdb_store(options, &store).text(), "done");
  const Context ctx(client_on(store, person("bob", {"users"})));
  const char* names[] = {"", "SYSTEM", "SYSTEM.version", "SYSTEM.version.patch"};
  for (int level = 1; level < 4; ++level) {
    prtkv_key key = 0;
    std::int32_t word = 0;
    const std::string value(1024, static_cast<char>('0' + level));
    const prtkv_key parent = ctx.open(names[level - 1]);
    const char* last = std::string_view(names[level]).rfind('.') == std::string_view::npos
                           ? names[level]
                           : names[level] + std::string_view(names[level]).rfind('.') + 1;
    ASSERT_EQ(prtkv_create_n_set_key(ctx, parent, last, &key, &word, 3, open_to_all(), value.data(), 1024), PRTKV_DONE);
    ASSERT_EQ(prtkv_close_key(ctx, key), PRTKV_DONE);
    ASSERT_EQ(prtkv_close_key(ctx, parent), PRTKV_DONE);
  }
  char buffer[1024];
  std::uint32_t size = 0;
  for (const char* name : names) ASSERT_TRUE(read_once(ctx, name, buffer, sizeof buffer, &size));
  const long before = allocations.load();
  int failed = 0;
  for (int n = 0; n < 1000; ++n) {
    if (!read_once(ctx, names[n % 4], buffer, sizeof buffer, &size)) ++failed;
  }
  EXPECT_EQ(allocations.load() - before, 0);
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(size, 1024U);
  EXPECT_EQ(buffer[1023], '3');
}

}  // namespace
}  // namespace tkv::registry
