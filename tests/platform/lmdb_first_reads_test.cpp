// What the first transactions read after opening: pages of the file instead of LMDB's map.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "lmdb_files.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/pages_in_file.h"
#include "store/lmdb/tree.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

constexpr std::size_t kPageSize = 4096;

// A file of some pages, each of which is filled with its own number.
class PagesOfAFile : public ::testing::Test {
 protected:
  static constexpr std::size_t kPages = PagesInFile::kMostPages + 4;

  PagesOfAFile() {
    std::string bytes;
    for (std::size_t page = 0; page < kPages; ++page) bytes += std::string(kPageSize, static_cast<char>('a' + page));
    write_file(path_, bytes + "the beginning of one more");
    file_ = Descriptor(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  }

  static std::string text(const std::byte* page) {
    return page == nullptr ? "none" : std::string(reinterpret_cast<const char*>(page), kPageSize);
  }
  // Null if there is no room. A page that cannot be read is a failure.
  static const std::byte* page_of(PagesInFile& pages, std::uint64_t number) {
    const std::byte* page = nullptr;
    EXPECT_TRUE(pages.read(number, &page)) << number;
    return page;
  }
  static bool can_be_read(PagesInFile& pages, std::uint64_t number) {
    const std::byte* page = nullptr;
    const bool can_be = pages.read(number, &page);
    EXPECT_EQ(page != nullptr, can_be);
    return can_be;
  }
  static std::string expected(std::size_t page) { return std::string(kPageSize, static_cast<char>('a' + page)); }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  const std::string path_ = directory_ / "file";
  Descriptor file_{-1};
};

TEST_F(PagesOfAFile, StayAsTheyWereRead) {
  PagesInFile pages(file_.number(), kPageSize);
  const std::byte* const third = page_of(pages, 3);
  const std::byte* const seventh = page_of(pages, 7);
  write_file(path_, std::string(kPages * kPageSize, 'z'));
  EXPECT_EQ(text(third), expected(3));
  EXPECT_EQ(text(seventh), expected(7));
  EXPECT_EQ(page_of(pages, 3), third);
  EXPECT_EQ(page_of(pages, 7), seventh);
  EXPECT_EQ(text(page_of(pages, 8)), std::string(kPageSize, 'z'));
}

TEST_F(PagesOfAFile, AreNoMoreThanThereIsRoomFor) {
  PagesInFile pages(file_.number(), kPageSize);
  for (std::size_t page = 0; page < PagesInFile::kMostPages; ++page)
    ASSERT_EQ(text(page_of(pages, page)), expected(page));
  EXPECT_EQ(page_of(pages, PagesInFile::kMostPages), nullptr);
  EXPECT_EQ(pages.error(), 0);
  for (std::size_t page = 0; page < PagesInFile::kMostPages; ++page)
    EXPECT_EQ(text(page_of(pages, page)), expected(page));
}

TEST_F(PagesOfAFile, AreFoundByTheirAddress) {
  PagesInFile pages(file_.number(), kPageSize);
  std::uint64_t offset = 0;
  EXPECT_FALSE(pages.find(nullptr, &offset));
  const std::byte* const eighth = page_of(pages, 8);
  const std::byte* const second = page_of(pages, 2);
  for (const std::size_t at : {std::size_t{0}, std::size_t{1}, kPageSize - 1}) {
    ASSERT_TRUE(pages.find(eighth + at, &offset));
    EXPECT_EQ(offset, 8 * kPageSize + at);
    ASSERT_TRUE(pages.find(second + at, &offset));
    EXPECT_EQ(offset, 2 * kPageSize + at);
  }
  const std::byte elsewhere{};
  EXPECT_FALSE(pages.find(&elsewhere, &offset));
  EXPECT_FALSE(pages.find(std::max(eighth, second) + kPageSize, &offset)) << "no page was read to there";
}

TEST_F(PagesOfAFile, AreCopiedFromOneByOne) {
  std::array<std::byte, 10> bytes{};
  const auto copy_at = [&](std::uint64_t offset) {
    PagesInFile pages(file_.number(), kPageSize);
    (void)page_of(pages, 4);
    (void)page_of(pages, 3);
    return pages.copy(offset, bytes) ? std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()) : "none";
  };
  EXPECT_EQ(copy_at(3 * kPageSize), "dddddddddd");
  EXPECT_EQ(copy_at(5 * kPageSize - bytes.size()), "eeeeeeeeee");
  EXPECT_EQ(copy_at(4 * kPageSize - bytes.size() + 1), "none") << "on two pages";
  EXPECT_EQ(copy_at(2 * kPageSize), "none") << "not read before";
}

TEST_F(PagesOfAFile, AreUsedUpByCopies) {
  PagesInFile pages(file_.number(), kPageSize);
  std::array<std::byte, 10> bytes{};
  (void)page_of(pages, 3);
  ASSERT_TRUE(pages.begin_use());
  for (unsigned use = 1; use < PagesInFile::kMostUses; ++use) EXPECT_TRUE(pages.copy(3 * kPageSize, bytes));
  EXPECT_FALSE(pages.copy(3 * kPageSize, bytes));
  EXPECT_EQ(text(page_of(pages, 3)), expected(3)) << "a transaction uses it";
  pages.end_use();
  EXPECT_FALSE(pages.copy(3 * kPageSize, bytes));
}

TEST_F(PagesOfAFile, AreGoneWhenTheStateIsNoLongerTheLatest) {
  std::array<std::byte, 10> bytes{};
  PagesInFile pages(file_.number(), kPageSize);
  (void)page_of(pages, 3);
  ASSERT_TRUE(pages.begin_use());
  pages.give_up();
  EXPECT_EQ(text(page_of(pages, 3)), expected(3)) << "a transaction uses it";
  EXPECT_FALSE(pages.begin_use());
  EXPECT_FALSE(pages.copy(3 * kPageSize, bytes));
  pages.end_use();
  pages.give_up();
  EXPECT_EQ(page_of(pages, 3), nullptr);
  EXPECT_EQ(page_of(pages, 4), nullptr);
}

TEST_F(PagesOfAFile, AreMissingBehindItsEnd) {
  for (const std::size_t page : {kPages, kPages + 1, kPages + 1000}) {
    PagesInFile pages(file_.number(), kPageSize);
    EXPECT_FALSE(can_be_read(pages, page)) << page;
    EXPECT_EQ(pages.error(), ENODATA) << page;
    EXPECT_EQ(text(page_of(pages, kPages - 1)), expected(kPages - 1));
  }
}

TEST_F(PagesOfAFile, CannotBeReadWithoutIt) {
  PagesInFile pages(-1, kPageSize);
  EXPECT_FALSE(can_be_read(pages, 1));
  EXPECT_EQ(pages.error(), EBADF);
}

TEST_F(PagesOfAFile, AreForAFewTransactions) {
  PagesInFile pages(file_.number(), kPageSize);
  for (unsigned use = 0; use < PagesInFile::kMostUses; ++use) {
    ASSERT_TRUE(pages.begin_use()) << use;
    EXPECT_EQ(text(page_of(pages, use)), expected(use));
    if (use > 0) pages.end_use();
  }
  EXPECT_FALSE(pages.begin_use());
  EXPECT_EQ(text(page_of(pages, 2)), expected(2)) << "one of them has not ended";
  pages.end_use();
  EXPECT_FALSE(pages.begin_use());
  EXPECT_EQ(page_of(pages, 2), nullptr);
}

// A registry whose tree is a few levels deep, with short and long values.
class FirstReads : public ::testing::Test {
 protected:
  static constexpr std::size_t kNodes = 600;

  void SetUp() override {
    options_.directory = directory_ / "registry";
    store_ = open_or_fail(options_);
    const auto create = [&](Update& update) -> Status {
      for (std::size_t number = 0; number < kNodes; ++number) {
        Node node;
        if (Status status = update.new_id(&node.id); !status.ok()) return status;
        if (Status status = update.insert(kRootNode, name_of(number), node); !status.ok()) return status;
        const std::string value = value_of(number);
        const auto bytes = std::as_bytes(std::span(value.data(), value.size()));
        if (Status status = update.set_value(node.id, 3, bytes); !status.ok()) return status;
        ids_.push_back(node.id);
      }
      return {};
    };
    ASSERT_TRUE(store_->write(create).ok());
  }

  static std::string name_of(std::size_t number) { return std::string(100, 'n') + std::to_string(number); }
  static std::string value_of(std::size_t number) {
    return std::string(number % 50 == 0 ? 3 * kPageSize : 20, static_cast<char>('a' + number % 26)) +
           std::to_string(number);
  }
  std::string data_file() const { return options_.directory + "/data.mdb"; }

  // What a view finds at a name. `*place` tells where the value is.
  static std::string find(const FileState& state, std::size_t number, ValuePlace* place) {
    Node node;
    Value value;
    std::size_t size = 0;
    Status status = find_node(state, kRootNode, name_of(number), &node);
    if (status.ok()) status = find_value_up_to(state, node.id, std::size_t{1} << 20, &value, &size, place);
    if (!status.ok()) return status.text();
    return {reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()};
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
  std::shared_ptr<Store> store_;
  std::vector<NodeId> ids_;
};

// An environment of LMDB's own, and its first state.
class LocatedState {
 public:
  explicit LocatedState(const std::string& directory) : directory_(directory) {
    EXPECT_EQ(mdb_env_create(&env_), 0);
    EXPECT_EQ(mdb_env_open(env_, directory_.c_str(), MDB_NOTLS, 0600), 0);
    const Status status = locate_map(env_, directory_.c_str(), &map_, &first_);
    EXPECT_TRUE(status.ok()) << status.text();
  }
  ~LocatedState() { mdb_env_close(env_); }
  LocatedState(const LocatedState&) = delete;
  LocatedState& operator=(const LocatedState&) = delete;

  FileState& state() { return first_.state; }
  const FirstState& first() const { return first_; }

 private:
  const std::string directory_;
  MDB_env* env_ = nullptr;
  FileMap map_;
  FirstState first_;
};

TEST_F(FirstReads, FindWhatTheMapShows) {
  store_.reset();
  std::vector<std::size_t> order;
  for (const std::size_t first : {0, 1, 300, 599}) order.push_back(first);
  for (std::size_t number = 0; number < kNodes; ++number) order.push_back(number);
  for (std::size_t begin = 0; begin < order.size(); begin += 50) {
    LocatedState located(options_.directory);
    ASSERT_NE(located.state().in_file, nullptr);
    for (std::size_t at = begin; at < std::min(begin + 50, order.size()); ++at) {
      FileState in_map = located.state();
      in_map.use_map();
      ValuePlace place;
      ValuePlace place_in_map;
      EXPECT_EQ(find(located.state(), order[at], &place), value_of(order[at]));
      EXPECT_EQ(find(in_map, order[at], &place_in_map), value_of(order[at]));
      EXPECT_EQ(place.offset, place_in_map.offset);
      EXPECT_EQ(place.record_size, place_in_map.record_size);
      EXPECT_EQ(place.value_page, place_in_map.value_page);
    }
    Node node;
    EXPECT_TRUE(find_node(located.state(), kRootNode, "missing", &node).is(PRTKV_NO_SUCH_KEY));
  }
}

TEST_F(FirstReads, CopyFromPagesOfThatStateOnly) {
  store_.reset();
  LocatedState located(options_.directory);
  ValuePlace place;
  ASSERT_EQ(find(located.state(), 1, &place), value_of(1));
  std::vector<std::byte> record(place.record_size);
  const std::uint64_t state = located.state().transaction;
  EXPECT_FALSE(located.first().copy(state + 1, place.offset, record));
  EXPECT_FALSE(located.first().copy(state - 1, place.offset, record));
  ASSERT_TRUE(located.first().copy(state, place.offset, record));
  Value value;
  EXPECT_TRUE(decode_value(ids_[1], record, &value).ok());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()), value_of(1));
}

TEST_F(FirstReads, ReportATruncatedFile) {
  store_.reset();
  LocatedState located(options_.directory);
  std::filesystem::resize_file(data_file(), 2 * kPageSize);
  Node node;
  const Status status = find_node(located.state(), kRootNode, name_of(300), &node);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(status.text().ends_with("is missing")) << status.text();
}

TEST_F(FirstReads, SeeWhatOthersHaveWritten) {
  store_.reset();
  for (unsigned reads = 0; reads < 2 * PagesInFile::kMostUses; ++reads) {
    store_ = open_or_fail(options_);
    for (unsigned read = 0; read < reads; ++read) ASSERT_EQ(text_of(*store_, ids_[read]), value_of(read));
    const std::string text = "written after " + std::to_string(reads) + " reads";
    ASSERT_EQ(in_child([&] {
                std::shared_ptr<Store> other;
                const bool opened = open_lmdb_store(options_, &other).ok();
                return opened && set_text(*other, ids_[kNodes - 1], text).ok() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(text_of(*store_, ids_[kNodes - 1]), text);
    EXPECT_EQ(text_of(*store_, ids_[1]), value_of(1));
    store_.reset();
  }
}

TEST_F(FirstReads, OfManyThreadsFindTheSame) {
  constexpr std::size_t kThreads = 6;
  for (unsigned round = 0; round < 30; ++round) {
    store_.reset();
    store_ = open_or_fail(options_);
    std::atomic<std::size_t> ready{0};
    std::vector<std::string> found(kThreads * 4);
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        ++ready;
        while (ready < kThreads) std::this_thread::yield();
        for (std::size_t read = 0; read < 4; ++read) {
          const std::size_t number = 4 * thread + read;
          (void)get_text(*store_, ids_[number * 20], &found[number]);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::size_t number = 0; number < found.size(); ++number) EXPECT_EQ(found[number], value_of(number * 20));
  }
}

}  // namespace
}  // namespace tkv::store
