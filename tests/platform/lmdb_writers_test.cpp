// Writers on one node wait for each other with a deadline, and are told for whom they wait.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "child_process.h"
#include "lmdb_files.h"
#include "store/lmdb/commit_times.h"
#include "store/lmdb/reader_pool.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

class LmdbWriters : public ::testing::Test {
 protected:
  LmdbWriters() { options_.directory = temporary_ / "registry"; }

  // Writes "child", and stops in the middle of the write.
  int stop_while_writing() const {
    const auto store = open_or_fail(options_);
    const Status status = store->write([](Update& update) -> Status {
      raise(SIGSTOP);
      return update.set_value(kRootNode, 3, std::as_bytes(std::span("child", 5)));
    });
    return status.ok() ? 0 : 1;
  }

  std::shared_ptr<Store> open_impatient() {
    LmdbOptions options = options_;
    options.timeout_ms = 100;
    return open_or_fail(options);
  }

  TemporaryDirectory temporary_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

TEST_F(LmdbWriters, AWriterBehindAStoppedOneGivesUpAndNamesIt) {
  ChildProcess writer([&] { return stop_while_writing(); });
  writer.wait_until_stopped();
  const auto store = open_impatient();
  const Status status = set_text(*store, kRootNode, "parent");
  EXPECT_TRUE(status.is(PRTKV_BUSY)) << status.code();
  EXPECT_EQ(status.text().find("process " + std::to_string(writer.id()) + " (lmdb_writers_te) is writing"), 0u)
      << status.text();
  EXPECT_NE(status.text().find(options_.directory), std::string::npos) << status.text();
  EXPECT_EQ(text_of(*store), "");  // readers do not wait
  writer.proceed();
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_EQ(text_of(*store), "child");
  EXPECT_TRUE(set_text(*store, kRootNode, "parent").ok());
}

TEST_F(LmdbWriters, AWaitingWriterIsToldOnceForWhomItWaits) {
  ChildProcess writer([&] { return stop_while_writing(); });
  writer.wait_until_stopped();
  std::vector<std::string> messages;
  options_.on_wait = [&](const std::string& message) {
    messages.push_back(message);
    writer.proceed();
  };
  const auto store = open_or_fail(options_);
  EXPECT_TRUE(set_text(*store, kRootNode, "parent").ok());
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].find("waiting for process " + std::to_string(writer.id()) + " ("), 0u) << messages[0];
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_TRUE(set_text(*store, kRootNode, "again").ok());
  EXPECT_EQ(messages.size(), 1u);
}

TEST_F(LmdbWriters, AWriterThatDiesHoldsUpNobody) {
  ChildProcess writer([&] { return stop_while_writing(); });
  writer.wait_until_stopped();
  writer.end(SIGKILL);
  const auto store = open_or_fail(options_);
  EXPECT_TRUE(set_text(*store, kRootNode, "parent").ok());
  EXPECT_EQ(text_of(*store), "parent");
}

TEST_F(LmdbWriters, AChildThatWasForkedInAWriteDoesNotHoldTheLock) {
  const auto store = open_or_fail(options_);
  pid_t child = -1;
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    child = fork();
                    if (child == 0) {
                      for (;;) pause();
                    }
                    return update.set_value(kRootNode, 3, {});
                  })
                  .ok());
  EXPECT_EQ(in_child([&] { return set_text(*open_or_fail(options_), kRootNode, "x").ok() ? 0 : 1; }), 0);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST_F(LmdbWriters, AThreadGivesUpWaitingForAnother) {
  const auto store = open_or_fail(options_);
  const auto impatient = open_impatient();
  ASSERT_TRUE(store
                  ->write([&](Update& update) {
                    const Status status =
                        std::async(std::launch::async, [&] { return set_text(*impatient, kRootNode, "x"); }).get();
                    EXPECT_TRUE(status.is(PRTKV_BUSY));
                    EXPECT_EQ(status.text().find("another thread of this process is writing"), 0u) << status.text();
                    return update.set_value(kRootNode, 3, {});
                  })
                  .ok());
  EXPECT_TRUE(set_text(*impatient, kRootNode, "x").ok());
}

TEST_F(LmdbWriters, TheNameOfTheHolderMayBeAnything) {
  ChildProcess writer([&] { return stop_while_writing(); });
  writer.wait_until_stopped();
  const auto store = open_impatient();
  const std::string file = options_.directory + "/writer.lock";
  const std::pair<std::string, std::string> cases[] = {
      {"", "another process is writing"},
      {std::string(200, '\xff'), "another process is writing"},
      {"-7 1 x", "another process is writing"},
      {"99999999999999999999 1 x", "another process is writing"},
      {"4711 1 e%s\x1b[31m\n", "process 4711 (e?s?[31m?) in another container is writing"},
      {"4711 1 " + std::string(200, 'x'),
       "process 4711 (" + std::string(89, 'x') + ") in another container is writing"},
  };
  for (const auto& [content, text] : cases) {
    write_file(file, content);
    const Status status = set_text(*store, kRootNode, "x");
    EXPECT_TRUE(status.is(PRTKV_BUSY));
    EXPECT_EQ(status.text().find(text), 0u) << status.text();
  }
}

TEST_F(LmdbWriters, AProcessThatWritesWithoutPauseLetsOthersWrite) {
  { open_or_fail(options_); }
  ChildProcess writer([&] {
    const auto store = open_or_fail(options_);
    while (set_text(*store, kRootNode, "child").ok()) continue;
    return 1;
  });
  const auto store = open_or_fail(options_);
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(set_text(*store, kRootNode, "parent").ok());
}

// Runs `body` as process 1 of a PID namespace of its own, and returns what it returned.
int as_first_process(const std::function<int()>& body) {
  return in_child([&] {
    if (unshare(CLONE_NEWPID) != 0) return 99;
    return in_child(body);
  });
}

TEST_F(LmdbWriters, AProcessWithTheIdOfAnotherInAnotherNamespaceIsRefused) {
  if (as_first_process([] { return 0; }) != 0) GTEST_SKIP() << "this user cannot create PID namespaces";
  const auto opens = [&] {
    std::shared_ptr<Store> store;
    const Status status = open_lmdb_store(options_, &store);
    const bool explains = status.text().find("in another PID namespace") != std::string::npos;
    return status.ok() ? 1 : status.is(PRTKV_UNUSABLE) && explains ? 2 : 3;
  };
  EXPECT_EQ(as_first_process([&] {
              const auto store = open_or_fail(options_);
              return as_first_process(opens);
            }),
            2);
  EXPECT_EQ(as_first_process(opens), 1);
}

TEST_F(LmdbWriters, IdleSessionsLeaveReaderSlotsToOthers) {
  { open_or_fail(options_); }
  ChildProcess idle([&] {
    const auto store = open_or_fail(options_);
    int depth = 0;
    const std::function<Status(View&)> deeper = [&](View&) -> Status {
      return ++depth < 1020 ? store->read(deeper) : Status();
    };
    if (!store->read(deeper).ok()) return 1;
    raise(SIGSTOP);
    return 0;
  });
  idle.wait_until_stopped();
  const auto store = open_or_fail(options_);
  int depth = 0;
  const std::function<Status(View&)> deeper = [&](View&) -> Status {
    return ++depth < 500 ? store->read(deeper) : Status();
  };
  EXPECT_TRUE(store->read(deeper).ok());
  EXPECT_EQ(depth, 500);
}

TEST_F(LmdbWriters, AThreadTakesTheReaderSlotThatAnIdleOneKeeps) {
  const auto store = open_or_fail(options_);
  EXPECT_EQ(text_of(*store, kRootNode), "");  // this thread keeps its slot
  ChildProcess busy([&] {
    const auto own = open_or_fail(options_);
    const std::function<Status(View&)> deeper = [&](View&) -> Status {
      const Status status = own->read(deeper);
      if (status.is(PRTKV_BUSY)) raise(SIGSTOP);  // in the innermost read: all other slots are taken
      return status.is(PRTKV_BUSY) ? Status(PRTKV_DONE) : status;
    };
    return own->read(deeper).ok() ? 0 : 1;
  });
  busy.wait_until_stopped();
  // Threads begin to look for a slot at different places. One that begins elsewhere than this thread reads.
  ReaderPool places;
  const auto first_place = [&] {
    ReaderSlot& slot = places.claim(false);
    places.release(slot);
    return &slot;
  };
  const ReaderSlot* const here = first_place();
  for (bool done = false; !done;) {
    std::thread([&] {
      if (first_place() == here) return;
      done = true;
      EXPECT_EQ(text_of(*store, kRootNode), "");
    }).join();
  }
}

TEST_F(LmdbWriters, TheStatusCountsTheReadersOfAllProcesses) {
  options_.map_size = 16 << 20;
  const auto store = open_or_fail(options_);
  StoreStatus before;
  ASSERT_TRUE(store->status(&before).ok());
  EXPECT_EQ(before.bytes, std::filesystem::file_size(options_.directory + "/data.mdb"));
  EXPECT_EQ(before.max_bytes, std::uint64_t{16} << 20);
  EXPECT_EQ(before.max_readers, 1022u);
  EXPECT_GE(before.readers, 1u);
  ChildProcess other([&] {
    const auto own = open_or_fail(options_);
    return own->read([](View&) -> Status {
                raise(SIGSTOP);
                return {};
              }).ok()
               ? 0
               : 1;
  });
  other.wait_until_stopped();
  StoreStatus after;
  ASSERT_TRUE(store->status(&after).ok());
  EXPECT_EQ(after.readers, before.readers + 1);
}

TEST_F(LmdbWriters, TheStatusNamesAReaderThatHasHeldAStateForMinutes) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, std::string(100'000, 'a')).ok());
  ChildProcess reader([&] {
    const auto own = open_or_fail(options_);
    return own->read_all([](View&) -> Status {
                raise(SIGSTOP);
                return {};
              }).ok()
               ? 0
               : 1;
  });
  reader.wait_until_stopped();
  for (const char letter : {'b', 'c'}) ASSERT_TRUE(set_text(*store, kRootNode, std::string(100'000, letter)).ok());
  StoreStatus status;
  ASSERT_TRUE(store->status(&status).ok());
  EXPECT_TRUE(status.long_readers.empty());
  const Descriptor times(open((options_.directory + "/writer.lock").c_str(), O_RDWR | O_CLOEXEC));
  CommitTimes(times.number()).note(std::uint64_t{1} << 40, std::time(nullptr) - 300);  // as if it had begun before
  ASSERT_TRUE(store->status(&status).ok());
  ASSERT_EQ(status.long_readers.size(), 1u);
  EXPECT_EQ(status.long_readers[0].process, reader.id());
  EXPECT_EQ(status.long_readers[0].command.substr(0, 9), "lmdb_writ");
  EXPECT_GE(status.long_readers[0].seconds, 300u);
  EXPECT_GE(status.long_readers[0].held_bytes, 200'000u);
}

TEST(CommitTimes, AreNotedOnceInEachIntervalAndForgottenAfterTwoHours) {
  const TemporaryDirectory directory;
  const Descriptor file(open((directory / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const CommitTimes times(file.number());
  constexpr std::int64_t kNow = 30 * 1'000'000;
  EXPECT_EQ(times.held_for(7, kNow), 0);
  times.note(8, kNow - 90);
  times.note(9, kNow - 75);  // in the same half minute
  times.note(12, kNow - 30);
  EXPECT_EQ(times.held_for(7, kNow), 90);
  EXPECT_EQ(times.held_for(8, kNow), 30) << "that 9 followed at once was not noted";
  EXPECT_EQ(times.held_for(11, kNow), 30);
  EXPECT_EQ(times.held_for(12, kNow), 0);
  EXPECT_EQ(times.held_for(7, kNow - 100), 0) << "of the future";
  EXPECT_EQ(times.held_for(7, kNow + 8000), 0);
}

}  // namespace
}  // namespace tkv::store
