// Writers on one node wait for each other with a deadline, and are told for whom they wait.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "child_process.h"
#include "lmdb_files.h"
#include "store/lmdb/commit_times.h"
#include "store/lmdb/reader_pool.h"
#include "store/lmdb/writer_page.h"
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
  ASSERT_TRUE(set_text(*store, kRootNode, "first").ok());  // from the second write on, the lock's file is mapped
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

TEST_F(LmdbWriters, AChildOfAWriterThatDiesDoesNotHoldTheLock) {
  { open_or_fail(options_); }
  ChildProcess writer([&] {
    setpgid(0, 0);
    const auto store = open_or_fail(options_);
    if (!set_text(*store, kRootNode, "first").ok()) return 1;  // so that the second write maps the file
    const Status status = store->write([](Update&) -> Status {
      if (fork() == 0) {
        for (;;) pause();
      }
      raise(SIGSTOP);
      return {};
    });
    return status.ok() ? 0 : 1;
  });
  writer.wait_until_stopped();
  const pid_t group = writer.id();
  kill(group, SIGKILL);
  siginfo_t ended{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(group), &ended, WEXITED | WNOWAIT), 0);  // keeps the group's number in use
  EXPECT_TRUE(set_text(*open_impatient(), kRootNode, "x").ok());
  kill(-group, SIGKILL);
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

// Writes that are made within one transaction, because all but the first wait for that one to go on.
class LmdbGroup : public LmdbWriters {
 protected:
  using Function = std::function<Status(Update& update)>;

  LmdbGroup() {
    options_.on_wait = [this](const std::string&) { ++waiting_; };
    store_ = open_or_fail(options_);
    for (NodeId& node : nodes_)
      EXPECT_TRUE(add_node(*store_, kRootNode, "n" + std::to_string(&node - nodes_), &node).ok());
  }

  // Runs the first function and, while that is running, begins the others. Returns the results in the same order.
  std::vector<Status> write_together(const std::vector<Function>& functions) {
    std::vector<std::future<Status>> others;
    waiting_ = 0;
    bool begun = false;
    const auto first = [&](Update& update) -> Status {
      while (!begun && others.size() + 1 < functions.size()) {
        const Function& function = functions[others.size() + 1];
        others.push_back(std::async(std::launch::async, [&] { return write(function); }));
        while (waiting_ < others.size()) std::this_thread::yield();
      }
      begun = true;
      return functions.front()(update);
    };
    std::vector<Status> results{write(first)};
    for (std::future<Status>& other : others) results.push_back(other.get());
    return results;
  }

  // A child that is forked by the function ends here, with 0 if it was refused.
  Status write(const Function& function) {
    Status status = store_->write(function);
    if (getpid() != process_) _exit(status.is(PRTKV_UNUSABLE) ? 0 : 1);
    return status;
  }

  // Forks, and waits for the child. Both then set the value.
  Function forks(NodeId node) {
    return [this, node](Update& update) {
      const pid_t child = fork();
      int status = 0;
      if (child != 0) waitpid(child, &status, 0);
      ended_ = status;
      return sets(node, child == 0 ? "child" : "parent")(update);
    };
  }

  Function sets(NodeId node, const std::string& text) {
    return [node, text](Update& update) { return update.set_value(node, 3, std::as_bytes(std::span(text))); };
  }

  std::uint64_t state() {
    std::uint64_t state = 0;
    EXPECT_TRUE(store_
                    ->read([&](View& view) {
                      state = view.state();
                      return Status();
                    })
                    .ok());
    return state;
  }

  std::string texts() {
    std::string all;
    for (const NodeId node : nodes_) all += text_of(*store_, node) + ",";
    return all;
  }

  const pid_t process_ = getpid();
  std::atomic<int> ended_{-1};  // the latest child's status
  std::atomic<std::size_t> waiting_{0};
  std::shared_ptr<Store> store_;
  NodeId nodes_[4] = {};
};

TEST_F(LmdbGroup, WritersThatWaitForOneAnotherShareACommit) {
  const std::uint64_t before = state();
  for (const Status& status :
       write_together({sets(nodes_[0], "a"), sets(nodes_[1], "b"), sets(nodes_[2], "c"), sets(nodes_[3], "d")})) {
    EXPECT_TRUE(status.ok()) << status.text();
  }
  EXPECT_EQ(state(), before + 1);
  EXPECT_EQ(texts(), "a,b,c,d,");
  EXPECT_EQ(expect_sound(*store_).values, 4u);
}

TEST_F(LmdbGroup, EachSeesWhatThoseBeforeItHaveWritten) {
  const auto append = [&](const char* letter) -> Function {
    return [&, letter](Update& update) -> Status {
      Value value;
      if (Status status = update.value(nodes_[0], &value); !status.ok()) return status;
      std::string text(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
      return sets(nodes_[0], text + letter)(update);
    };
  };
  const std::uint64_t before = state();
  write_together({append("a"), append("b"), append("c")});
  EXPECT_EQ(text_of(*store_, nodes_[0]), "abc");
  EXPECT_EQ(state(), before + 1);
}

TEST_F(LmdbGroup, AFailureUndoesItsOwnChangesAndNoOthers) {
  const auto fail_after = [&](NodeId node) -> Function {
    return [&, node](Update& update) -> Status {
      if (Status status = sets(node, "undone")(update); !status.ok()) return status;
      return {PRTKV_ACCESS_DENIED, "no"};
    };
  };
  const auto results =
      write_together({sets(nodes_[0], "a"), fail_after(nodes_[1]), sets(nodes_[2], "c"), [&](Update& update) {
                        return update.insert(kRootNode, "n0", Node{99, {}});
                      }});
  EXPECT_TRUE(results[0].ok());
  EXPECT_TRUE(results[1].is(PRTKV_ACCESS_DENIED));
  EXPECT_TRUE(results[2].ok());
  EXPECT_TRUE(results[3].is(PRTKV_KEY_EXISTS)) << results[3].text();
  EXPECT_EQ(texts(), "a,,c,,");
}

TEST_F(LmdbGroup, IfTheFirstFailsTheOthersAreWritten) {
  const auto results = write_together({[&](Update& update) -> Status {
                                         (void)sets(nodes_[0], "undone")(update);
                                         return PRTKV_ACCESS_DENIED;
                                       },
                                       sets(nodes_[1], "b"), sets(nodes_[2], "c")});
  EXPECT_TRUE(results[0].is(PRTKV_ACCESS_DENIED));
  EXPECT_TRUE(results[1].ok());
  EXPECT_TRUE(results[2].ok());
  EXPECT_EQ(texts(), ",b,c,,");
}

TEST_F(LmdbGroup, AnExceptionPassesThroughToItsOwnCaller) {
  std::atomic<int> caught{0};
  const auto throws = [&](Update& update) -> Status {
    (void)sets(nodes_[1], "undone")(update);
    throw std::runtime_error("thrown");
  };
  // write_together() would pass it on, too.
  std::future<void> thrower;
  const auto results = write_together({[&](Update& update) -> Status {
                                         if (!thrower.valid()) {
                                           thrower = std::async(std::launch::async, [&] {
                                             try {
                                               (void)store_->write(throws);
                                             } catch (const std::runtime_error&) {
                                               ++caught;
                                             }
                                           });
                                           while (waiting_ < 3) std::this_thread::yield();
                                         }
                                         return sets(nodes_[0], "a")(update);
                                       },
                                       sets(nodes_[2], "c"), sets(nodes_[3], "d")});
  thrower.get();
  EXPECT_EQ(caught, 1);
  for (const Status& status : results) EXPECT_TRUE(status.ok());
  EXPECT_EQ(texts(), "a,,c,d,");
}

TEST_F(LmdbGroup, TheFailureOfTheCommitIsReportedToEach) {
  const auto results =
      write_together({[&](Update& update) {
                        std::filesystem::rename(options_.directory + "/data.mdb", options_.directory + "/gone.mdb");
                        return sets(nodes_[0], "a")(update);
                      },
                      sets(nodes_[1], "b"), sets(nodes_[2], "c")});
  for (const Status& status : results) {
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.code();
    EXPECT_NE(status.text().find("were replaced or removed"), std::string::npos) << status.text();
  }
  store_.reset();
  std::filesystem::rename(options_.directory + "/gone.mdb", options_.directory + "/data.mdb");
  store_ = open_or_fail(options_);
  EXPECT_EQ(texts(), ",,,,");
}

TEST_F(LmdbGroup, TheStateBeforeAnUpdateHoldsTheChangesOfThoseBeforeIt) {
  std::string seen;
  const auto results =
      write_together({sets(nodes_[0], "a"),
                      [&](Update& update) -> Status {
                        Value value;
                        if (Status status = sets(nodes_[0], "b")(update); !status.ok()) return status;
                        Status status = update.before().value(nodes_[0], &value);
                        seen.assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
                        return status;
                      },
                      sets(nodes_[1], "c")});
  for (const Status& status : results) EXPECT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(seen, "a");
  EXPECT_EQ(texts(), "b,c,,,");
}

TEST_F(LmdbGroup, AReadWithinAWriteSeesTheChangesOfThoseBeforeIt) {
  std::string seen;
  const auto results = write_together({sets(nodes_[0], "a"), [&](Update& update) -> Status {
                                         Status status = get_text(*store_, nodes_[0], &seen);
                                         return status.ok() ? sets(nodes_[1], seen)(update) : status;
                                       }});
  for (const Status& status : results) EXPECT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(seen, "a");
  EXPECT_EQ(texts(), "a,a,,,");
}

TEST_F(LmdbGroup, EachHasARevisionAndALogRecordOfItsOwn) {
  Revision before = 0;
  ASSERT_TRUE(store_->read([&](View& view) { return view.revision(&before); }).ok());
  write_together({sets(nodes_[0], "a"), sets(nodes_[1], "b"), sets(nodes_[2], "c")});
  std::vector<Revision> logged;
  LogRange range;
  range.after = before;
  LogPosition position;
  const auto note = [&](const ChangeRecord& record) {
    logged.push_back(record.revision);
    return Status();
  };
  ASSERT_TRUE(store_->changes(range, note, &position).ok());
  EXPECT_EQ(logged, (std::vector<Revision>{before + 1, before + 2, before + 3}));
  std::string text;
  const auto read_second = [&](View& view) -> Status {
    Value value;
    if (Status status = view.value(nodes_[2], &value); !status.ok()) return status;
    text = value.bytes.empty() ? "none" : "some";
    return {};
  };
  ASSERT_TRUE(store_->read_at(before + 2, read_second).ok());
  EXPECT_EQ(text, "none") << "the state after the second of them";
}

TEST_F(LmdbGroup, ChangesThatDoNotFitIntoTheMapMakeItGrow) {
  store_.reset();
  options_.first_map_size = 1 << 20;
  store_ = open_or_fail(options_);
  const std::string text(900'000, 'x');
  const auto results =
      write_together({sets(nodes_[0], text), sets(nodes_[1], text), sets(nodes_[2], text), sets(nodes_[3], text)});
  for (const Status& status : results) EXPECT_TRUE(status.ok()) << status.text();
  for (const NodeId node : nodes_) EXPECT_EQ(text_of(*store_, node), text);
  expect_sound(*store_);
}

TEST_F(LmdbGroup, ChildrenThatAreForkedInAWriteChangeNothing) {
  const auto results = write_together({forks(nodes_[0])});
  EXPECT_TRUE(results[0].ok());
  EXPECT_EQ(ended_, 0);
  EXPECT_EQ(texts(), "parent,,,,");
}

TEST_F(LmdbGroup, ChildrenThatAreForkedInAWriteWithinAnotherChangeNothing) {
  const auto results = write_together({sets(nodes_[0], "a"), forks(nodes_[1]), sets(nodes_[2], "c")});
  for (const Status& status : results) EXPECT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(ended_, 0);
  EXPECT_EQ(texts(), "a,parent,c,,");
}

TEST_F(LmdbWriters, ManyThreadsTakeFewerCommitsThanWrites) {
  const TemporaryDirectory on_disk;
  options_.directory = on_disk / "registry";
  const auto store = open_or_fail(options_);
  constexpr int kThreads = 8;
  constexpr int kWrites = 50;
  const auto number_of_states = [&] {
    std::uint64_t state = 0;
    (void)store->read([&](View& view) {
      state = view.state();
      return Status();
    });
    return state;
  };
  const auto count_up = [](Update& update) -> Status {
    Value value;
    if (Status status = update.value(kRootNode, &value); !status.ok()) return status;
    const std::string text(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
    const std::string next = std::to_string(text.empty() ? 1 : std::stoi(text) + 1);
    return update.set_value(kRootNode, 3, std::as_bytes(std::span(next)));
  };
  const std::uint64_t before = number_of_states();
  std::vector<std::future<int>> failures;
  for (int thread = 0; thread < kThreads; ++thread) {
    failures.push_back(std::async(std::launch::async, [&] {
      int failed = 0;
      for (int i = 0; i < kWrites; ++i) failed += store->write(count_up).ok() ? 0 : 1;
      return failed;
    }));
  }
  for (std::future<int>& failed : failures) EXPECT_EQ(failed.get(), 0);
  EXPECT_EQ(text_of(*store), std::to_string(kThreads * kWrites));
  EXPECT_LT(number_of_states() - before, static_cast<std::uint64_t>(kThreads * kWrites));
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

TEST_F(LmdbWriters, ProcessesThatWriteWithoutPauseLetOneAnotherWrite) {
  { open_or_fail(options_); }
  const auto write_fifty_times = [&] {
    const auto store = open_or_fail(options_);
    int failures = 0;
    for (int i = 0; i < 50; ++i) failures += set_text(*store, kRootNode, "x").ok() ? 0 : 1;
    return failures;
  };
  ChildProcess endless([&] {
    const auto store = open_or_fail(options_);
    if (set_text(*store, kRootNode, "endless").ok()) raise(SIGSTOP);
    while (set_text(*store, kRootNode, "endless").ok()) continue;
    return 1;
  });
  endless.wait_until_stopped();
  endless.proceed();
  ChildProcess first(write_fifty_times);
  ChildProcess second(write_fifty_times);
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(waitpid(endless.id(), nullptr, WNOHANG), 0) << "it has stopped writing";
  endless.end(SIGKILL);
}

// A byte of the writers' lock, taken as a process of any release does. It is released with the object.
class LockedByte {
 public:
  LockedByte(const std::string& directory, off_t byte)
      : file_(open((directory + "/writer.lock").c_str(), O_RDWR | O_CLOEXEC)) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = byte;
    range.l_len = 1;
    has_it_ = fcntl(file_.number(), F_OFD_SETLK, &range) == 0;
  }
  bool has_it() const { return has_it_; }

 private:
  const Descriptor file_;
  bool has_it_ = false;
};

constexpr off_t kNextWriter = 0;
constexpr off_t kWriter = 1;

TEST_F(LmdbWriters, NobodyOvertakesTheProcessThatIsNext) {
  const auto store = open_impatient();
  for (const off_t byte : {kNextWriter, kWriter}) {
    ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
    const LockedByte taken(options_.directory, byte);
    ASSERT_TRUE(taken.has_it());
    EXPECT_TRUE(set_text(*store, kRootNode, "ahead").is(PRTKV_BUSY)) << "byte " << byte;
    const off_t other = byte == kNextWriter ? kWriter : kNextWriter;
    EXPECT_TRUE(LockedByte(options_.directory, other).has_it()) << "the writer that gave up has kept a byte";
  }
  EXPECT_EQ(text_of(*store), "before");
  EXPECT_TRUE(set_text(*store, kRootNode, "after").ok());
}

TEST_F(LmdbWriters, AnotherProcessCanBeNextWhileOneWrites) {
  const auto store = open_or_fail(options_);
  const auto check = [&](Update&) -> Status {
    EXPECT_FALSE(LockedByte(options_.directory, kWriter).has_it());
    EXPECT_TRUE(LockedByte(options_.directory, kNextWriter).has_it());
    return {};
  };
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(store->write(check).ok());
  for (const off_t byte : {kNextWriter, kWriter}) EXPECT_TRUE(LockedByte(options_.directory, byte).has_it());
}

TEST_F(LmdbWriters, EmptyingTheFileOfTheLockHarmsNobody) {
  const auto store = open_or_fail(options_);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
    EXPECT_TRUE(store
                    ->write([&](Update& update) {
                      write_file(options_.directory + "/writer.lock", "");
                      return update.set_value(kRootNode, 3, {});
                    })
                    .ok());
    write_file(options_.directory + "/writer.lock", "");
  }
}

class WriterPages : public ::testing::Test {
 protected:
  WriterPages() {
    one_.refresh(file_.number());
    other_.refresh(file_.number());
  }

  static Descriptor fresh_file(const std::string& path) {
    write_file(path, "x");
    return Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC));
  }

  const TemporaryDirectory directory_;
  const Descriptor file_ = fresh_file(directory_ / "writer.lock");
  WriterPage one_;
  WriterPage other_;
};

TEST_F(WriterPages, WhoeverRingsWakesASleeper) {
  for (const bool rings_first : {false, true}) {
    const std::uint32_t announced = one_.announce(1);
    if (rings_first) other_.ring(1);
    std::thread sleeper([&] { one_.sleep(1, announced, std::chrono::hours(1)); });
    if (!rings_first) other_.ring(1);
    sleeper.join();
  }
}

TEST_F(WriterPages, EachBellWakesItsOwnSleepers) {
  const std::uint32_t announced = one_.announce(0);
  other_.ring(1);
  EXPECT_EQ(one_.announce(0), announced);
  other_.ring(0);
  EXPECT_NE(one_.announce(0), announced);
}

TEST_F(WriterPages, AsManyTurnsAreTakenAsWereOffered) {
  EXPECT_FALSE(one_.has_turns());
  EXPECT_FALSE(one_.take_turn());
  one_.offer_turns(2);
  EXPECT_TRUE(other_.take_turn());
  EXPECT_TRUE(other_.has_turns());
  EXPECT_TRUE(one_.take_turn());
  EXPECT_FALSE(other_.has_turns());
  EXPECT_FALSE(other_.take_turn());
  one_.offer_turns(2);
  one_.offer_turns(0);
  EXPECT_FALSE(other_.take_turn());
}

TEST_F(WriterPages, AnEmptyFileHasNoTurnsAndNamesNobody) {
  one_.offer_turns(2);
  ASSERT_EQ(ftruncate(file_.number(), 0), 0);
  one_.refresh(file_.number());
  EXPECT_FALSE(one_.has_turns());
  EXPECT_FALSE(one_.take_turn());
  EXPECT_FALSE(one_.names(std::string(WriterPage::kHolderSize, '\0')));
  one_.ring(0);
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
