/* The memory of a copy: what it takes from the thread's stack, what it does when the heap gives nothing, and where it
 * ends names that its buffers cannot hold.
 */
#include <pthread.h>

#include <algorithm>
#include <cstddef>

#include "bridge_test.h"

namespace {

// How many allocations still succeed before one fails; negative: all.
int allocations_left = -1;

}  // namespace

// Stands in for the calls of calloc in this program, all of which are the bridge's (the linker's option --wrap).
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
  if (allocations_left == 0) return nullptr;
  if (allocations_left > 0) --allocations_left;
  return __real_calloc(count, size);
}

namespace bridge_test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kStackSize = 1024 * 1024;  // sanitizers enlarge every stack frame
#else
constexpr size_t kStackSize = 128 * 1024;
#endif

// A registry that is one chain of keys, each with one subkey, of so many levels below the top.
struct Chain {
  int levels;
  int enumerated = 0;
  uint64_t last_key = 100;

  Answer operator()(const std::string& function) {
    Answer answer;
    if (function == "prtkv_open_key" || function == "prtkv_create_n_set_key") answer.handle = ++last_key;
    if (function == "prtkv_enum_subkey") {
      // On the way down each level has a subkey; the last has none, nor has any level a second one.
      if (enumerated++ < levels) {
        answer.bytes = "k";
        answer.word = 0;
      } else {
        answer.result = PRTKV_NO_MORE_SUBKEYS;
      }
    }
    if (function == "prtkv_get_last_error") answer.result = PRTKV_UNKNOWN;
    return answer;
  }
};

class CopyMemory : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
    judgeAlone();
  }
  void TearDown() override {
    allocations_left = -1;
    leavesOpen(recording().openKeys());  // as copy_test.cpp states in detail
    BridgeTest::TearDown();
  }

  void copyChain(int levels, const std::string& destination = "d") {
    recording().unscripted = Chain{levels};
    copyRecurse(string("s"), string(destination), 1);
    recording().unscripted = nullptr;
  }

  static long count(const std::string& beginning) {
    const auto& lines = recording().lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.starts_with(beginning); });
  }
};

TEST_F(CopyMemory, SixtyFourLevelsFitASmallStack) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackSize), 0);
  pthread_t thread;
  const auto copy = [](void* test) -> void* {
    static_cast<CopyMemory*>(test)->copyChain(64);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, copy, this), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(count("prtkv_create_n_set_key("), 64);
  EXPECT_EQ(recording().lines().back(), "prsrvut_setStatus(1)");
  EXPECT_EQ(count("prsrvut_setStatus(0)"), 0);
}

// The names of a copy's keys have 1,289 bytes, the NUL included: the longest full name and one level more.
TEST_F(CopyMemory, NamesOfTheDestinationEndWithTheirBuffer) {
  const struct {
    size_t destination;
    std::string opened;
  } kRows[] = {
      {1286, std::string(1286, 'd') + ".k"}, {1287, std::string(1287, 'd') + "."}, {1288, std::string(1288, 'd')},
      {1289, std::string(1288, 'd')},        {1290, std::string(1288, 'd')},       {5000, std::string(1288, 'd')},
  };
  for (const auto& row : kRows) {
    recording().forgetLines();
    copyChain(1, std::string(row.destination, 'd'));
    std::vector<std::string> opened;
    for (const std::string& line : recording().lines()) {
      if (line.starts_with("prtkv_open_key(") && line.find("dddd") != std::string::npos) opened.push_back(line);
    }
    ASSERT_EQ(opened.size(), 3U) << "by copyRecurse, by the walk, and by the walk below the child";
    EXPECT_THAT(opened.back(), ::testing::HasSubstr(quote(row.opened))) << row.destination;
  }
}

TEST_F(CopyMemory, ALevelWithoutMemoryIsAFailureOnEveryLevelAboveIt) {
  allocations_left = 2;
  copyChain(5);
  EXPECT_EQ(count("prsrvut_trace(\"prsrvtkv_copy_recurse: NOT ENOUGH MEMORY\")"), 1);
  EXPECT_EQ(count("prtkv_create_n_set_key("), 2);
  EXPECT_EQ(count("prtkv_enum_subkey("), 2);
  EXPECT_EQ(count("prsrvut_setStatus(0)"), 4) << "the level itself, the two above it, and copyRecurse";
  EXPECT_EQ(count("prsrvut_trace(\"copyRecurse: Failure in copying\")"), 1);
}

}  // namespace
}  // namespace bridge_test
