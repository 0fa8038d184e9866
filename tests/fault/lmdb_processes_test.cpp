// Several processes on one registry: no acknowledged write is lost, whatever other processes write, whichever process
// is killed, and even when the power fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "child_process.h"
#include "file_system.h"
#include "lmdb_files.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

// A process that writes, and sends a number through a pipe after each acknowledged write.
class Writer {
 public:
  explicit Writer(const std::function<void(const std::function<void(int)>& acknowledge)>& body)
      : process_([&] {
          body([this](int number) { (void)!write(pipe_.ends[1], &number, sizeof number); });
          return 0;
        }) {
    close(pipe_.ends[1]);
  }
  ~Writer() {
    process_.end(SIGKILL);
    close(pipe_.ends[0]);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  ChildProcess& process() { return process_; }

  // Waits for the next acknowledgement. Returns false if the process has ended.
  bool next(int* number) { return read(pipe_.ends[0], number, sizeof *number) == sizeof *number; }

 private:
  struct Pipe {
    Pipe() {
      if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    }
    int ends[2] = {-1, -1};
  };

  Pipe pipe_;
  ChildProcess process_;
};

// Writes the numbers from `first` on, endlessly: each as a key of its own and as the value of the root.
void write_numbers(const LmdbOptions& options, int first, const std::function<void(int)>& acknowledge) {
  std::shared_ptr<Store> store;
  if (!open_lmdb_store(options, &store).ok()) _exit(2);
  for (int number = first;; ++number) {
    const Status status = store->write([&](Update& update) -> Status {
      Node node;
      const std::string text = std::to_string(number);
      if (Status made = update.new_id(&node.id); !made.ok()) return made;
      if (Status made = update.insert(kRootNode, text, node); !made.ok()) return made;
      if (Status made = update.set_value(node.id, 3, std::as_bytes(std::span(text))); !made.ok()) return made;
      return update.set_value(kRootNode, 3, std::as_bytes(std::span(text)));
    });
    if (!status.ok()) _exit(3);
    acknowledge(number);
  }
}

class LmdbProcesses : public ::testing::Test {
 protected:
  LmdbProcesses() { options_.directory = directory_ / "registry"; }

  // The number must be there as write_numbers wrote it.
  static void expect_written(Store& store, int number) {
    Node node;
    const std::string name = std::to_string(number);
    const Status status = store.read([&](View& view) { return view.find(kRootNode, name, &node); });
    ASSERT_TRUE(status.ok()) << "number " << number << " was acknowledged: " << status.text();
    EXPECT_EQ(text_of(store, node.id), name);
  }

  TemporaryDirectory directory_;
  LmdbOptions options_;
};

TEST_F(LmdbProcesses, TwoConcurrentWritersLoseNothing) {
  constexpr int kWrites = 150;
  { open_or_fail(options_); }
  const auto count_up = [&](char letter) {
    return [&, letter](const std::function<void(int)>&) {
      std::shared_ptr<Store> store;
      if (!open_lmdb_store(options_, &store).ok()) _exit(2);
      for (int i = 0; i < kWrites; ++i) {
        const Status status = store->write([&](Update& update) -> Status {
          Value value;
          if (Status read = update.value(kRootNode, &value); !read.ok()) return read;
          const std::string former(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
          const std::string later = std::to_string(former.empty() ? 1 : std::stoi(former) + 1);
          Node node;
          if (Status made = update.new_id(&node.id); !made.ok()) return made;
          if (Status made = update.insert(kRootNode, letter + std::to_string(i), node); !made.ok()) return made;
          return update.set_value(kRootNode, 1, std::as_bytes(std::span(later)));
        });
        if (!status.ok()) _exit(3);
      }
    };
  };
  Writer first(count_up('a'));
  Writer second(count_up('b'));
  EXPECT_EQ(first.process().wait(), 0);
  EXPECT_EQ(second.process().wait(), 0);
  const auto store = open_or_fail(options_);
  EXPECT_EQ(text_of(*store, kRootNode), std::to_string(2 * kWrites));
  EXPECT_EQ(expect_sound(*store).nodes, 2u * kWrites + 1);
}

TEST_F(LmdbProcesses, AKilledWriterLosesNoAcknowledgedWrite) {
  constexpr int kRounds = 100;
  std::vector<int> acknowledged;
  std::shared_ptr<Store> watching;
  for (int round = 0; round < kRounds; ++round) {
    // In every other round this process keeps the registry open throughout.
    watching = round % 2 == 0 ? nullptr : open_or_fail(options_);
    Writer writer([&](const auto& acknowledge) { write_numbers(options_, round * 100'000, acknowledge); });
    int number = 0;
    for (int writes = 0; writes < 1 + round % 4; ++writes) {
      ASSERT_TRUE(writer.next(&number)) << "round " << round;
      acknowledged.push_back(number);
    }
    writer.process().end(SIGKILL);
    while (writer.next(&number)) acknowledged.push_back(number);
    const auto store = open_or_fail(options_);
    expect_written(*store, acknowledged.back());
    ASSERT_TRUE(set_text(*store, kRootNode, "still writable").ok());
  }
  const auto store = open_or_fail(options_);
  for (const int number : acknowledged) expect_written(*store, number);
  expect_sound(*store);
}

TEST_F(LmdbProcesses, APowerCutLosesNoAcknowledgedWrite) {
  SmallFileSystem disk(SmallFileSystem::Kind::kExt4, 16 * 1024 * 1024);
  if (!disk.obstacle().empty()) GTEST_SKIP() << disk.obstacle();
  options_.directory = disk / "registry";
  std::vector<int> acknowledged;
  for (int round = 0; round < 5; ++round) {
    int number = 0;
    {
      Writer writer([&](const auto& acknowledge) { write_numbers(options_, round * 100'000, acknowledge); });
      for (int writes = 0; writes < 5; ++writes) {
        ASSERT_TRUE(writer.next(&number)) << "round " << round << ": it ended with " << writer.process().wait();
        acknowledged.push_back(number);
      }
      if (!disk.cut_power()) GTEST_SKIP() << "this kernel does not cut the power of an ext4";
      while (writer.next(&number)) acknowledged.push_back(number);  // the writer ends at its first failure
    }
    ASSERT_TRUE(disk.remount()) << disk.obstacle();
    const auto store = open_or_fail(options_);
    for (const int written : acknowledged) expect_written(*store, written);
    expect_sound(*store);
  }
}

}  // namespace
}  // namespace tkv::store
