// Concurrent use of one registry: threads of one session, sessions on one store, processes on one directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "prtkv.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

constexpr int kThreads = 4;

std::shared_ptr<store::Store> lmdb_in(const TemporaryDirectory& directory) {
  store::LmdbOptions options;
  options.directory = directory / "registry";
  options.root_security = open_to_all();
  std::shared_ptr<store::Store> store;
  return store::open_lmdb_store(options, &store).ok() ? store : nullptr;
}

void in_threads(const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) threads.emplace_back(work, number);
  for (std::thread& thread : threads) thread.join();
}

TEST(Sharing, ThreadsThatDoNotSerialiseOnOneSessionLoseNothing) {
  const TemporaryDirectory directory;
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const Context ctx(client_on(store, person("bob")));
  const prtkv_key root = ctx.open("");
  std::atomic<int> wrong{0};
  constexpr int kKeys = 25;
  in_threads([&](int number) {
    for (int n = 0; n < kKeys; ++n) {
      const std::string name = "t" + std::to_string(number) + "-" + std::to_string(n);
      prtkv_key key = 0;
      prtkv_key again = 0;
      std::int32_t word = 0;
      char buffer[64];
      std::uint32_t size = sizeof buffer;
      char text[PRTKV_ERROR_TEXT_SIZE];
      std::int32_t text_size = sizeof text;
      const bool good = prtkv_create_n_set_key(ctx, root, name.c_str(), &key, &word, 3, open_to_all(), name.data(),
                                               static_cast<std::uint32_t>(name.size())) == PRTKV_DONE &&
                        prtkv_open_key(ctx, &again, name.c_str()) == PRTKV_DONE &&
                        prtkv_get_value(ctx, again, &word, buffer, &size) == PRTKV_DONE &&
                        std::string(buffer, size) == name && prtkv_close_key(ctx, key) == PRTKV_DONE &&
                        prtkv_close_key(ctx, key) == PRTKV_INVALID_HANDLE &&
                        (n % 5 != 0 || prtkv_delete_key(ctx, again, 0) == PRTKV_DONE) &&
                        prtkv_open_key(ctx, &key, "absent") == PRTKV_NO_SUCH_KEY;
      (void)prtkv_get_last_error(ctx, &word, text, &text_size);
      if (!good) ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  char name[PRTKV_SUBKEY_NAME_SIZE];
  std::uint32_t size = sizeof name;
  std::int32_t remaining = 0;
  ASSERT_EQ(prtkv_enum_subkey(ctx, root, name, &size, &remaining), PRTKV_DONE);
  EXPECT_EQ(remaining + 1, kThreads * kKeys * 4 / 5);
}

TEST(Sharing, ASessionThatEndsUnderOtherThreadsYieldsInvalidHandle) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  for (int round = 0; round < 20; ++round) {
    prtkv_ctx ctx = 0;
    ASSERT_TRUE(add_context(ground.as(person("bob")), &ctx).ok());
    std::atomic<int> started{0};
    std::atomic<int> wrong{0};
    in_threads([&](int number) {
      ++started;
      if (number == 0) {
        while (started.load() < kThreads) std::this_thread::yield();
        if (prtkv_terminate(ctx) != PRTKV_DONE) ++wrong;
        return;
      }
      prtkv_key key = 0;
      int32_t code = PRTKV_DONE;
      while ((code = prtkv_open_key(ctx, &key, "a")) == PRTKV_DONE) {
        if (code = prtkv_close_key(ctx, key); code != PRTKV_DONE) break;
      }
      if (code != PRTKV_INVALID_HANDLE) ++wrong;
    });
    EXPECT_EQ(wrong.load(), 0);
  }
}

// The value of a key that was opened by name, or "" and the code of the function that failed.
std::string read_by_name(prtkv_ctx ctx, const char* name, std::int32_t* code) {
  prtkv_key key = 0;
  std::int32_t type = 0;
  char buffer[64];
  std::uint32_t size = sizeof buffer;
  if (*code = prtkv_open_key(ctx, &key, name); *code != PRTKV_DONE) return "";
  if (*code = prtkv_get_value(ctx, key, &type, buffer, &size); *code != PRTKV_DONE) return "";
  *code = prtkv_close_key(ctx, key);
  return {buffer, size};
}

TEST(Sharing, TheHandleOfAnEndedSessionNeverReachesTheNextOneInItsPlace) {
  const TemporaryDirectory directories[] = {TemporaryDirectory(TemporaryDirectory::Where::kInMemory),
                                            TemporaryDirectory(TemporaryDirectory::Where::kInMemory)};
  const std::string values[] = {"even", "odd"};
  std::shared_ptr<Client> clients[2];
  for (std::size_t i = 0; i < std::size(clients); ++i) {
    const auto store = lmdb_in(directories[i]);
    ASSERT_NE(store, nullptr);
    clients[i] = client_on(store, person("bob"));
    KeyId id = kAnyKey;
    ASSERT_TRUE(clients[i]->create("", "a", open_to_all(), 3, bytes_of(values[i]), &id).ok());
  }
  constexpr std::size_t kRounds = 200;
  std::array<prtkv_ctx, kRounds> contexts{};
  std::atomic<std::size_t> round{0};  // whose context has been opened
  std::atomic<std::uint64_t> reads{0};
  std::atomic<int> wrong{0};
  const auto read_on = [&](std::size_t before) {
    for (std::size_t now = round; now <= kRounds; now = round) {
      if (now <= before) continue;
      std::int32_t code = PRTKV_DONE;
      const std::string value = read_by_name(contexts[now - 1 - before], "a", &code);
      const bool ended = code == PRTKV_INVALID_HANDLE;
      if (!ended && (code != PRTKV_DONE || value != values[(now - 1 - before) % 2])) ++wrong;
      if (code == PRTKV_DONE) ++reads;
    }
  };
  std::vector<std::thread> threads;
  for (const std::size_t before : {0, 0, 1}) threads.emplace_back(read_on, before);
  for (std::size_t number = 0; number < kRounds; ++number) {
    EXPECT_TRUE(add_context(clients[number % 2], &contexts[number]).ok());
    round = number + 1;
    for (const std::uint64_t enough = reads + 10; reads < enough;) std::this_thread::yield();
    EXPECT_EQ(prtkv_terminate(contexts[number]), PRTKV_DONE);
  }
  round = kRounds + 1;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Sharing, NoTwoHandlesAreTheSameAndOthersSessionsHandlesAreInvalid) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  const Context first(ground.as(person("bob")));
  const Context second(ground.as(person("bob")));
  std::set<prtkv_key> keys;
  constexpr int kHandles = 300;
  for (int i = 0; i < kHandles; ++i) {
    const prtkv_key of_first = first.open("a");
    const prtkv_key of_second = second.open("a");
    EXPECT_TRUE(keys.insert(of_first).second);
    EXPECT_TRUE(keys.insert(of_second).second);
    EXPECT_EQ(prtkv_close_key(first, of_second), PRTKV_INVALID_HANDLE);
    EXPECT_EQ(prtkv_close_key(second, of_first), PRTKV_INVALID_HANDLE);
    if (i % 3 == 0) {
      EXPECT_EQ(prtkv_close_key(first, of_first), PRTKV_DONE);
    }
  }
  EXPECT_EQ(keys.size(), 2u * kHandles);
}

// Reads a key in every way that the C functions offer. Returns true if all of them succeed.
bool read_in_every_way(prtkv_ctx ctx, const char* name) {
  prtkv_key key = 0;
  std::int32_t word = 0;
  char buffer[PRTKV_ERROR_TEXT_SIZE];
  std::uint32_t size = sizeof buffer;
  std::int32_t text_size = sizeof buffer;
  sec_attr security{};
  return prtkv_open_key(ctx, &key, name) == PRTKV_DONE &&
         prtkv_get_value(ctx, key, &word, buffer, &size) == PRTKV_DONE &&
         prtkv_get_key_security(ctx, key, &security) == PRTKV_DONE &&
         prtkv_enum_subkey(ctx, key, buffer, &size, &word) != PRTKV_INVALID_HANDLE &&
         prtkv_get_last_error(ctx, &word, buffer, &text_size) != PRTKV_INVALID_HANDLE &&
         prtkv_close_key(ctx, key) == PRTKV_DONE;
}

// Holds the next write to the store until it may proceed.
class HeldWrite {
 public:
  explicit HeldWrite(Ground& ground) {
    ground.store->before(store::Call::kWrite, [this] {
      begun_.count_down();
      proceed_.wait();
    });
  }

  void wait_until_begun() { begun_.wait(); }
  void proceed() { proceed_.count_down(); }

 private:
  std::latch begun_{1};
  std::latch proceed_{1};
};

TEST(Sharing, NothingWaitsForAWriteOfTheSameSession) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  const Context ctx(ground.as(person("bob")));
  const prtkv_key key = ctx.open("a");
  HeldWrite held(ground);
  auto written = std::async(std::launch::async, [&] { return prtkv_set_value(ctx, key, 3, "w", 1); });
  held.wait_until_begun();
  auto read = std::async(std::launch::async, [&] { return read_in_every_way(ctx, "a"); });
  EXPECT_EQ(read.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  held.proceed();
  EXPECT_TRUE(read.get());
  EXPECT_EQ(written.get(), PRTKV_DONE);
  EXPECT_EQ(ground.value("a"), "w");
}

TEST(Sharing, ReadsOfOneSessionRunAtTheSameTime) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  const Context ctx(ground.as(person("bob")));
  const prtkv_key key = ctx.open("a");
  std::atomic<int> inside{0};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  ground.store->before(store::Call::kRead, [&] {
    ++inside;
    while (inside.load() < kThreads && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  });
  std::atomic<int> wrong{0};
  in_threads([&](int) {
    std::int32_t type = 0;
    char buffer[8];
    std::uint32_t size = sizeof buffer;
    if (prtkv_get_value(ctx, key, &type, buffer, &size) != PRTKV_DONE || std::string(buffer, size) != "v") ++wrong;
    if (inside.load() < kThreads) ++wrong;
  });
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Sharing, AHandleThatIsClosedDuringItsWriteStaysClosed) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  const Context ctx(ground.as(person("bob")));
  const prtkv_key key = ctx.open("a");
  prtkv_key other = 0;
  ground.store->before(store::Call::kWrite, [&] {
    EXPECT_EQ(prtkv_close_key(ctx, key), PRTKV_DONE);
    other = ctx.open("");  // in the slot of the closed one
  });
  EXPECT_EQ(prtkv_delete_key(ctx, key, 0), PRTKV_DONE);
  EXPECT_FALSE(ground.has("a"));
  EXPECT_EQ(prtkv_close_key(ctx, key), PRTKV_INVALID_HANDLE);
  EXPECT_EQ(prtkv_close_key(ctx, other), PRTKV_DONE);
}

TEST(Sharing, ASessionEndsAfterTheOperationsThatAreUsingIt) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  prtkv_ctx ctx = 0;
  ASSERT_TRUE(add_context(ground.as(person("bob")), &ctx).ok());
  prtkv_key key = 0;
  ASSERT_EQ(prtkv_open_key(ctx, &key, "a"), PRTKV_DONE);
  HeldWrite held(ground);
  auto written = std::async(std::launch::async, [&] { return prtkv_set_value(ctx, key, 3, "w", 1); });
  held.wait_until_begun();
  auto ended = std::async(std::launch::async, [&] { return prtkv_terminate(ctx); });
  prtkv_key again = 0;
  while (prtkv_open_key(ctx, &again, "a") == PRTKV_DONE) std::this_thread::yield();
  EXPECT_EQ(prtkv_open_key(ctx, &again, "a"), PRTKV_INVALID_HANDLE);
  held.proceed();
  EXPECT_EQ(written.get(), PRTKV_DONE);
  EXPECT_EQ(ended.get(), PRTKV_DONE);
  EXPECT_EQ(ground.value("a"), "w");
}

// Threads that read without a pause would keep others out for as long as they like if a lock let them.
TEST(Sharing, AWriterGetsItsTurnAmongThreadsThatReadWithoutPause) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const Context ctx(client_on(store, person("bob")));
  prtkv_key key = ctx.open("");
  std::int32_t word = 0;
  ASSERT_EQ(prtkv_create_n_set_key(ctx, key, "a", &key, &word, 3, open_to_all(), "v", 1), PRTKV_DONE);
  constexpr int kReaders = 8;
  constexpr std::uint64_t kWrites = 100;
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<std::uint64_t> reads{0};
  std::vector<std::thread> readers;
  for (int number = 0; number < kReaders; ++number) {
    readers.emplace_back([&] {
      for (; !done.load(); ++reads)
        if (!read_in_every_way(ctx, "a")) ++wrong;
    });
  }
  while (reads.load() < kReaders) std::this_thread::yield();
  const std::uint64_t before = reads.load();
  for (std::uint64_t i = 0; i < kWrites; ++i) EXPECT_EQ(prtkv_set_value(ctx, key, 3, "v", 1), PRTKV_DONE);
  const std::uint64_t meanwhile = reads.load() - before;
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_LT(meanwhile / kWrites, 10'000u) << "reads for each write";
}

// Creates a key below another, by its level name.
bool create_below(prtkv_ctx ctx, prtkv_key parent, const std::string& level) {
  prtkv_key key = 0;
  std::int32_t word = 0;
  return prtkv_create_key(ctx, parent, level.c_str(), &key, &word, open_to_all()) == PRTKV_DONE &&
         prtkv_close_key(ctx, key) == PRTKV_DONE;
}

TEST(Sharing, ThreadsThatReadTheListOfOneHandleGetEachSubkeyOnce) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const Context ctx(client_on(store, person("bob")));
  constexpr int kSubkeys = 200;
  for (int n = 0; n < kSubkeys; ++n) ASSERT_TRUE(create_below(ctx, ctx.open(""), "key" + std::to_string(n)));
  for (int round = 0; round < 20; ++round) {
    const prtkv_key key = ctx.open("");
    std::vector<std::vector<std::string>> names(kThreads);
    std::vector<std::vector<std::int32_t>> counts(kThreads);
    std::vector<std::int32_t> ends(kThreads);
    in_threads([&](int number) {
      const auto thread = static_cast<std::size_t>(number);
      char name[PRTKV_SUBKEY_NAME_SIZE];
      std::uint32_t size = sizeof name;
      std::int32_t remaining = 0;
      while ((ends[thread] = prtkv_enum_subkey(ctx, key, name, &size, &remaining)) == PRTKV_DONE) {
        names[thread].emplace_back(name, size);
        counts[thread].push_back(remaining);
        size = sizeof name;
      }
    });
    std::set<std::string> all_names;
    std::set<std::int32_t> all_counts;
    std::size_t taken = 0;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      taken += names[thread].size();
      all_names.insert(names[thread].begin(), names[thread].end());
      all_counts.insert(counts[thread].begin(), counts[thread].end());
      EXPECT_EQ(ends[thread], PRTKV_NO_MORE_SUBKEYS);
    }
    EXPECT_EQ(taken, std::size_t{kSubkeys});
    EXPECT_EQ(all_names.size(), std::size_t{kSubkeys});
    EXPECT_EQ(all_counts.size(), std::size_t{kSubkeys});
    EXPECT_EQ(prtkv_close_key(ctx, key), PRTKV_DONE);
  }
}

TEST(Sharing, AHandleThatIsClosedWhileItsListIsReadEndsTheList) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const Context ctx(client_on(store, person("bob")));
  for (int n = 0; n < 200; ++n) ASSERT_TRUE(create_below(ctx, ctx.open(""), "key" + std::to_string(n)));
  std::atomic<int> wrong{0};
  for (int round = 0; round < 50; ++round) {
    const prtkv_key key = ctx.open("");
    std::atomic<int> taken{0};
    in_threads([&](int number) {
      if (number == 0) {
        while (taken.load() < 20) std::this_thread::yield();
        if (prtkv_close_key(ctx, key) != PRTKV_DONE) ++wrong;
        return;
      }
      char name[PRTKV_SUBKEY_NAME_SIZE];
      std::uint32_t size = sizeof name;
      std::int32_t remaining = 0;
      std::int32_t code = PRTKV_DONE;
      while ((code = prtkv_enum_subkey(ctx, key, name, &size, &remaining)) == PRTKV_DONE) {
        if (std::string(name, size).substr(0, 3) != "key") ++wrong;
        size = sizeof name;
        ++taken;
      }
      if (code != PRTKV_INVALID_HANDLE && code != PRTKV_NO_MORE_SUBKEYS) ++wrong;
    });
  }
  EXPECT_EQ(wrong.load(), 0);
}

// The largest number among the names of a key's subkeys; -1 if there is none or if anything fails.
int largest_subkey(const Context& ctx, const char* parent) {
  const prtkv_key key = ctx.open(parent);
  char name[PRTKV_SUBKEY_NAME_SIZE];
  std::uint32_t size = sizeof name;
  std::int32_t remaining = 0;
  int largest = -1;
  while (prtkv_enum_subkey(ctx, key, name, &size, &remaining) == PRTKV_DONE) {
    largest = std::max(largest, std::atoi(name));
    size = sizeof name;
  }
  return prtkv_close_key(ctx, key) == PRTKV_DONE ? largest : -1;
}

// Each subkey is deleted only after the next one was created: no list may lack the latest one that was announced.
TEST(Sharing, AListHasEverySubkeyWhoseCreationWasAcknowledged) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const Context writer(client_on(store, person("bob")));
  const Context reader(client_on(store, person("bob")));
  ASSERT_TRUE(create_below(writer, writer.open(""), "parent"));
  const prtkv_key parent = writer.open("parent");
  ASSERT_TRUE(create_below(writer, parent, "0"));
  constexpr int kSubkeys = 300;
  std::atomic<int> announced{0};
  std::atomic<int> lists{0};
  std::atomic<int> wrong{0};
  in_threads([&](int number) {
    if (number == 0) {
      for (int n = 1; n <= kSubkeys; ++n) {
        if (!create_below(writer, parent, std::to_string(n))) ++wrong;
        announced = n;
        const std::string former = "parent." + std::to_string(n - 1);
        if (prtkv_delete_key(writer, writer.open(former.c_str()), 0) != PRTKV_DONE) ++wrong;
        const int before = lists.load();
        while (lists.load() < before + 4) std::this_thread::yield();  // some of them from what is known
      }
      announced = -1;
      return;
    }
    for (int least = announced; least >= 0; least = announced) {
      if (largest_subkey(reader, "parent") < least) ++wrong;
      ++lists;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Sharing, ReadersSeeAMovedKeyAtOnePlaceOnly) {
  const TemporaryDirectory directory;
  const auto store = lmdb_in(directory);
  ASSERT_NE(store, nullptr);
  const BareTree registry(store, superuser());
  store::NodeId id = store::kNoNode;
  ASSERT_TRUE(registry
                  .write([&](Writer& tree) {
                    if (Status status = tree.create("", "a", open_to_all(), 0, {}, &id); !status.ok()) return status;
                    if (Status status = tree.create("", "b", open_to_all(), 0, {}, &id); !status.ok()) return status;
                    return tree.create("a", "key", open_to_all(), 0, {}, &id);
                  })
                  .ok());
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  in_threads([&](int number) {
    if (number == 0) {
      for (int n = 0; n < 50; ++n) {
        const bool there = n % 2 == 1;
        store::NodeId moved = store::kNoNode;
        const Status status = registry.write([&](Writer& tree) {
          return tree.move(there ? "b.key" : "a.key", there ? "a" : "b", "key", false, &moved);
        });
        if (!status.ok()) ++wrong;
      }
      done = true;
      return;
    }
    DirectoryCache cache;
    while (!done.load()) {
      int places = 0;
      const Status status = registry.read(
          [&](Reader& tree) {
            bool in_a = false;
            bool in_b = false;
            Status asked = tree.exists("a.key", &in_a);
            if (asked.ok()) asked = tree.exists("b.key", &in_b);
            places = in_a + in_b;
            return asked;
          },
          &cache);
      if (!status.ok() || places != 1) ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}

// Writes `count` keys through the C functions. Returns 0 for success.
int write_as_a_process(int number, int count) {
  prtkv_ctx ctx = 0;
  char text[PRTKV_ERROR_TEXT_SIZE];
  std::uint64_t text_size = sizeof text;
  if (prtkv_init_ext(&ctx, 1, text, &text_size, 0) != PRTKV_DONE) return 1;
  prtkv_key root = 0;
  if (prtkv_open_key(ctx, &root, "") != PRTKV_DONE) return 2;
  for (int n = 0; n < count; ++n) {
    const std::string name = "p" + std::to_string(number) + "-" + std::to_string(n);
    prtkv_key key = 0;
    std::int32_t word = 0;
    if (prtkv_create_n_set_key(ctx, root, name.c_str(), &key, &word, 3, open_to_all(), name.c_str(),
                               static_cast<std::uint32_t>(name.size() + 1)) != PRTKV_DONE) {
      return 3;
    }
    if (prtkv_close_key(ctx, key) != PRTKV_DONE) return 4;
  }
  return prtkv_terminate(ctx) == PRTKV_DONE ? 0 : 5;
}

TEST(Sharing, ProcessesThatWriteAtOnceLoseNothing) {
  const TemporaryDirectory directory;
  const std::string file = directory / "tkv.conf";
  std::ofstream(file) << "[registry]\nlocation = " << directory / "registry"
                      << "\n";
  ASSERT_EQ(setenv("TKV_CONF", file.c_str(), 1), 0);
  constexpr int kProcesses = 2;
  constexpr int kKeys = 100;
  std::vector<pid_t> children;
  for (int number = 0; number < kProcesses; ++number) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(write_as_a_process(number, kKeys));
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  prtkv_ctx ctx = 0;
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  std::uint64_t text_size = sizeof text;
  ASSERT_EQ(prtkv_init_ext(&ctx, 1, text, &text_size, 0), PRTKV_DONE) << text;
  int missing = 0;
  for (int number = 0; number < kProcesses; ++number) {
    for (int n = 0; n < kKeys; ++n) {
      prtkv_key key = 0;
      const std::string name = "p" + std::to_string(number) + "-" + std::to_string(n);
      if (prtkv_open_key(ctx, &key, name.c_str()) != PRTKV_DONE) ++missing;
    }
  }
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(prtkv_terminate(ctx), PRTKV_DONE);
  unsetenv("TKV_CONF");
}

TEST(Sharing, DeletionByAnotherProcessIsSeenByAnOpenHandle) {
  const TemporaryDirectory directory;
  const std::string file = directory / "tkv.conf";
  std::ofstream(file) << "[registry]\nlocation = " << directory / "registry"
                      << "\n";
  ASSERT_EQ(setenv("TKV_CONF", file.c_str(), 1), 0);
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(go[1]);
    char byte = 0;
    if (read(go[0], &byte, 1) != 1) _exit(10);
    prtkv_ctx ctx = 0;
    prtkv_key key = 0;
    char text[PRTKV_ERROR_TEXT_SIZE];
    std::uint64_t text_size = sizeof text;
    if (prtkv_init_ext(&ctx, 0, text, &text_size, 0) != PRTKV_DONE) _exit(11);
    if (prtkv_open_key(ctx, &key, "a") != PRTKV_DONE) _exit(12);
    _exit(prtkv_delete_key(ctx, key, 1));
  }
  close(go[0]);
  prtkv_ctx ctx = 0;
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  std::uint64_t text_size = sizeof text;
  ASSERT_EQ(prtkv_init_ext(&ctx, 0, text, &text_size, 0), PRTKV_DONE) << text;
  prtkv_key root = 0;
  prtkv_key key = 0;
  prtkv_key below = 0;
  std::int32_t word = 0;
  std::uint32_t size = 0;
  ASSERT_EQ(prtkv_open_key(ctx, &root, ""), PRTKV_DONE);
  ASSERT_EQ(prtkv_create_key(ctx, root, "a", &key, &word, open_to_all()), PRTKV_DONE);
  ASSERT_EQ(prtkv_create_key(ctx, key, "b", &below, &word, open_to_all()), PRTKV_DONE);
  ASSERT_EQ(prtkv_get_value(ctx, below, &word, nullptr, &size), PRTKV_DONE);
  ASSERT_EQ(write(go[1], "g", 1), 1);
  close(go[1]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(prtkv_get_value(ctx, below, &word, nullptr, &size), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(prtkv_set_value(ctx, key, 3, "x", 2), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(prtkv_create_key(ctx, key, "c", &below, &word, open_to_all()), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(prtkv_terminate(ctx), PRTKV_DONE);
  unsetenv("TKV_CONF");
}

}  // namespace
}  // namespace tkv::registry
