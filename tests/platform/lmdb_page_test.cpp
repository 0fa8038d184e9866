#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "page_builder.h"
#include "store/lmdb/page.h"
#include "store/lmdb/tree_cursor.h"

namespace tkv::store {
namespace {

constexpr std::size_t kSize = PageBuilder::kSize;
constexpr std::uint64_t kNumber = 7;
constexpr std::uint64_t kPageCount = 100;

std::span<const std::byte> bytes_of(std::string_view text) { return std::as_bytes(std::span(text)); }

// Returns what is wrong with a page, or "".
std::string defect_of(const std::string& bytes, std::uint16_t kind, Page::Keys keys = Page::Keys::kBytes) {
  Page page;
  PageDefect defect = page.open(bytes_of(bytes).data(), bytes.size(), kNumber, kind);
  if (defect == nullptr) defect = page.check_nodes(kPageCount, keys);
  return defect == nullptr ? "" : defect;
}

PageBuilder leaf() { return PageBuilder(kNumber, kLeafPage).leaf("a", "1").leaf("bb", "22").big("c", 50, 1000); }
PageBuilder branch() { return PageBuilder(kNumber, kBranchPage).branch("", 3).branch("m", 4).branch("t", 99); }

TEST(Page, SoundPagesHaveNoDefect) {
  EXPECT_EQ(defect_of(leaf().bytes(), kLeafPage), "");
  EXPECT_EQ(defect_of(branch().bytes(), kBranchPage), "");
  EXPECT_EQ(defect_of(PageBuilder(kNumber, kLeafPage)
                          .leaf(bytes_of_object(std::uint64_t{256}), "")
                          .leaf(bytes_of_object(std::uint64_t{511}), "")
                          .bytes(),
                      kLeafPage, Page::Keys::kIntegers),
            "");
}

TEST(Page, NodesAreReadBack) {
  const std::string bytes = leaf().bytes();
  Page page;
  ASSERT_EQ(page.open(bytes_of(bytes).data(), bytes.size(), kNumber, kLeafPage), nullptr);
  EXPECT_EQ(page.number(), kNumber);
  EXPECT_TRUE(page.is_leaf());
  ASSERT_EQ(page.count(), 3u);
  PageNode node;
  ASSERT_TRUE(page.read(1, &node));
  EXPECT_EQ(compare_keys(node.key, bytes_of("bb")), 0);
  EXPECT_FALSE(node.is_big());
  ASSERT_TRUE(node.data_fits());
  EXPECT_EQ(compare_keys(node.rest.first(node.size_in_page()), bytes_of("22")), 0);
  ASSERT_TRUE(page.read(2, &node));
  EXPECT_TRUE(node.is_big());
  EXPECT_EQ(node.overflow_page(), 50u);
  EXPECT_EQ(node.data_size(), 1000u);
  EXPECT_EQ(node.size_in_page(), 8u);
}

TEST(Page, AChildsNumberHas48Bits) {
  const std::string bytes = PageBuilder(kNumber, kBranchPage).branch("", 0x123456789abc).branch("m", 4).bytes();
  Page page;
  ASSERT_EQ(page.open(bytes_of(bytes).data(), bytes.size(), kNumber, kBranchPage), nullptr);
  PageNode node;
  ASSERT_TRUE(page.read(0, &node));
  EXPECT_EQ(node.child(), 0x123456789abcu);
}

template <typename Integer>
std::string with(std::string bytes, std::size_t at, Integer value) {
  return bytes.replace(at, sizeof value, bytes_of_object(value));
}

constexpr std::size_t kFlagsAt = 10;
constexpr std::size_t kLowerAt = 12;
constexpr std::size_t kUpperAt = 14;
constexpr std::size_t kFirstOffsetAt = 16;

// The children in which two branch pages differ, or nothing if they differ in more than a few children's numbers.
std::optional<std::vector<unsigned>> difference(const std::string& left, const std::string& right) {
  Page pages[2];
  FewChildren children;
  std::size_t at = 0;
  for (const std::string* bytes : {&left, &right}) {
    EXPECT_EQ(pages[at++].open(bytes_of(*bytes).data(), bytes->size(), kNumber, kBranchPage), nullptr);
  }
  if (!Page::differ_in_few_children(pages[0], pages[1], &children)) return std::nullopt;
  return std::vector<unsigned>(children.indices().begin(), children.indices().end());
}

// A branch page with a child for each number, under the keys "000", "001" and so on.
std::string branch_of(const std::vector<std::uint64_t>& numbers) {
  PageBuilder page(kNumber, kBranchPage);
  std::size_t index = 0;
  for (const std::uint64_t number : numbers) {
    const std::string digits = std::to_string(1000 + index);
    page.branch(index++ == 0 ? "" : digits.substr(1), number);
  }
  return page.bytes();
}

TEST(Page, ChildrenInWhichPagesDifferAreFound) {
  constexpr std::size_t kMost = FewChildren::kMost;
  std::vector<std::uint64_t> numbers(kMost + 2, 50);
  std::vector<std::uint64_t> others = numbers;
  std::vector<unsigned> different;
  const std::string page = branch_of(numbers);
  EXPECT_EQ(difference(page, page), different);
  for (unsigned index = 0; index < numbers.size(); ++index) {
    others[index] += std::uint64_t{1} << (index * 5);  // in each of the number's three words
    different.push_back(index);
    using Answer = std::optional<std::vector<unsigned>>;
    EXPECT_EQ(difference(page, branch_of(others)), index < kMost ? Answer(different) : Answer());
  }
  for (unsigned index = 0; index < numbers.size(); ++index) {
    others = numbers;
    others[index] = 51;
    EXPECT_EQ(difference(page, branch_of(others)), std::vector<unsigned>{index});
  }
}

TEST(Page, PagesThatDifferInAnythingElseAreToldApart) {
  const auto page = [](const char* second, const char* third) {
    return PageBuilder(kNumber, kBranchPage).branch("", 3).branch(second, 4).branch(third, 5);
  };
  const std::string sound = page("m", "t").bytes();
  std::uint16_t offsets[3];
  std::memcpy(offsets, sound.data() + kFirstOffsetAt, sizeof offsets);
  std::string exchanged = with(sound, kFirstOffsetAt, offsets[1]);
  exchanged = with(exchanged, kFirstOffsetAt + 2, offsets[0]);
  const std::string others[] = {
      page("n", "t").bytes(),
      page("m", "u").bytes(),
      page("mm", "t").bytes(),  // of the same size
      page("mmm", "t").bytes(),
      page("m", "t").branch("x", 6).bytes(),
      PageBuilder(kNumber, kBranchPage).branch("", 3).branch("t", 5).bytes(),
      exchanged,
  };
  for (const std::string& other : others) EXPECT_EQ(difference(sound, other), std::nullopt);
  // The second node's key reaches into the first node, whose number would be taken for no part of it.
  const std::string overlapping = with(sound, offsets[1] + 6u, std::uint16_t{8});
  EXPECT_EQ(difference(overlapping, with(overlapping, offsets[0] + 0u, std::uint16_t{9})), std::nullopt);
  const std::string outside = with(sound, kFirstOffsetAt, static_cast<std::uint16_t>(kSize - 6));
  EXPECT_EQ(difference(outside, outside), std::nullopt);
}

TEST(Page, DefectsOfTheHeaderAreFound) {
  const std::string sound = leaf().bytes();
  const std::uint16_t lower = sizeof(PageHeader) + 3 * 2;
  std::uint16_t upper = 0;
  std::memcpy(&upper, sound.data() + kUpperAt, sizeof upper);
  const std::pair<std::string, const char*> cases[] = {
      {with(sound, 0, std::uint64_t{8}), "carries the number of another page"},
      {with(sound, kFlagsAt, kBranchPage), "is of the wrong kind"},
      {with(sound, kFlagsAt, static_cast<std::uint16_t>(kLeafPage | 0x10)), "is of the wrong kind"},
      {with(sound, kLowerAt, std::uint16_t{14}), "has impossible bounds"},
      {with(sound, kLowerAt, static_cast<std::uint16_t>(lower + 1)), "has impossible bounds"},
      {with(sound, kLowerAt, static_cast<std::uint16_t>(upper + 2)), "has impossible bounds"},
      {with(sound, kUpperAt, static_cast<std::uint16_t>(kSize + 1)), "has impossible bounds"},
      {with(sound, kLowerAt, std::uint16_t{sizeof(PageHeader)}), "has too few nodes"},
      {with(sound, kLowerAt, static_cast<std::uint16_t>(lower - 2)), "has nodes that overlap or leave gaps"},
      {with(sound, kLowerAt, static_cast<std::uint16_t>(lower + 2)), "has a node outside its bounds"},
      {with(sound, kUpperAt, static_cast<std::uint16_t>(upper - 2)), "has nodes that overlap or leave gaps"},
      {with(sound, kUpperAt, static_cast<std::uint16_t>(upper + 2)), "has a node outside its bounds"},
  };
  for (const auto& [bytes, defect] : cases) EXPECT_EQ(defect_of(bytes, kLeafPage), defect);
  const std::string lone = PageBuilder(kNumber, kBranchPage).branch("", 3).bytes();
  EXPECT_EQ(defect_of(lone, kBranchPage), "has too few nodes");
}

TEST(Page, DefectsOfNodesAreFound) {
  const std::string sound = leaf().bytes();
  std::uint16_t first = 0;
  std::uint16_t second = 0;
  std::memcpy(&first, sound.data() + kFirstOffsetAt, sizeof first);
  std::memcpy(&second, sound.data() + kFirstOffsetAt + 2, sizeof second);
  const std::pair<std::string, const char*> cases[] = {
      {with(sound, kFirstOffsetAt, std::uint16_t{0}), "has a node outside its bounds"},
      {with(sound, kFirstOffsetAt, static_cast<std::uint16_t>(kSize - 7)), "has a node outside its bounds"},
      {with(sound, kFirstOffsetAt, std::uint16_t{0xffff}), "has a node outside its bounds"},
      {with(sound, kFirstOffsetAt, second), "has its keys out of order"},
      {with(sound, first + 6u, std::uint16_t{500}), "has a node outside its bounds"},
      {with(sound, second + 6u, std::uint16_t{4}), "has nodes that overlap or leave gaps"},
      {with(sound, first + 0u, std::uint16_t{400}), "has a node that does not fit into it"},
      {with(sound, first + 2u, std::uint16_t{1}), "has a node that does not fit into it"},
      {with(sound, first + 4u, std::uint16_t{2}), "has a node that does not fit into it"},
      {with(sound, first + 8u, 'z'), "has its keys out of order"},
      {with(sound, second + 8u, 'a'), ""},
  };
  for (const auto& [bytes, defect] : cases) EXPECT_EQ(defect_of(bytes, kLeafPage), defect);
}

TEST(Page, KeysThatAreEqualAreOutOfOrder) {
  EXPECT_EQ(defect_of(PageBuilder(kNumber, kLeafPage).leaf("a", "").leaf("a", "").bytes(), kLeafPage),
            "has its keys out of order");
  EXPECT_EQ(
      defect_of(PageBuilder(kNumber, kBranchPage).branch("", 3).branch("m", 4).branch("m", 5).bytes(), kBranchPage),
      "has its keys out of order");
  // The first key of a branch page means nothing.
  EXPECT_EQ(defect_of(PageBuilder(kNumber, kBranchPage).branch("z", 3).branch("m", 4).bytes(), kBranchPage), "");
}

TEST(Page, ReferencesOutOfTheFileAreFound) {
  for (const std::uint64_t child : {std::uint64_t{0}, std::uint64_t{1}, kPageCount, std::uint64_t{1} << 40}) {
    EXPECT_EQ(defect_of(PageBuilder(kNumber, kBranchPage).branch("", 3).branch("m", child).bytes(), kBranchPage),
              "refers to a page that does not exist")
        << child;
    EXPECT_EQ(defect_of(PageBuilder(kNumber, kLeafPage).big("a", child, 10).bytes(), kLeafPage),
              "refers to a page that does not exist")
        << child;
  }
  // The last of the pages that it takes must exist as well.
  EXPECT_EQ(defect_of(PageBuilder(kNumber, kLeafPage).big("a", 98, 2 * kSize - sizeof(PageHeader)).bytes(), kLeafPage),
            "");
  EXPECT_EQ(
      defect_of(PageBuilder(kNumber, kLeafPage).big("a", 98, 2 * kSize - sizeof(PageHeader) + 1).bytes(), kLeafPage),
      "refers to a page that does not exist");
}

TEST(Page, KeysOfTheFreeListAreNumbers) {
  EXPECT_EQ(defect_of(PageBuilder(kNumber, kLeafPage).leaf("1234567", "").bytes(), kLeafPage, Page::Keys::kIntegers),
            "has an impossible key");
  const auto two = [](std::uint64_t first, std::uint64_t second) {
    return PageBuilder(kNumber, kLeafPage).leaf(bytes_of_object(first), "").leaf(bytes_of_object(second), "").bytes();
  };
  EXPECT_EQ(defect_of(two(1, 256), kLeafPage, Page::Keys::kIntegers), "");
  EXPECT_EQ(defect_of(two(256, 1), kLeafPage, Page::Keys::kIntegers), "has its keys out of order");
}

TEST(Page, HeadersOfOverflowPagesAreChecked) {
  const auto defect = [](std::uint64_t number, std::uint16_t flags, std::uint32_t pages, std::size_t size) {
    const std::string bytes = bytes_of_object(
        PageHeader{number, 0, flags, static_cast<std::uint16_t>(pages), static_cast<std::uint16_t>(pages >> 16)});
    return check_overflow_header(bytes_of(bytes).data(), kSize, kNumber, size, kPageCount) != nullptr;
  };
  EXPECT_FALSE(defect(kNumber, kOverflowPage, 1, kSize - sizeof(PageHeader)));
  EXPECT_FALSE(defect(kNumber, kOverflowPage, 93, 1));  // to the end of the file
  EXPECT_TRUE(defect(kNumber + 1, kOverflowPage, 1, 1));
  EXPECT_TRUE(defect(kNumber, kLeafPage, 1, 1));
  EXPECT_TRUE(defect(kNumber, kOverflowPage, 0, 1));
  EXPECT_TRUE(defect(kNumber, kOverflowPage, 1, kSize - sizeof(PageHeader) + 1));
  EXPECT_TRUE(defect(kNumber, kOverflowPage, 94, 1));
  EXPECT_TRUE(defect(kNumber, kOverflowPage, 0x10001, 1));
}

TEST(CompareKeys, ComparesBytesAndThenLengths) {
  const std::string_view ordered[] = {"",
                                      std::string_view("\0", 1),
                                      "a",
                                      "aaaaaaaa",
                                      "aaaaaaaaa",
                                      "aaaaaaaab",
                                      "aaaaaaaabbbbbbbbc",
                                      "aaaaaaaac",
                                      "aaaaaaab",
                                      "ab",
                                      "b",
                                      "\x7f",
                                      "\x80",
                                      "\xff",
                                      "\xff\xff\xff\xff\xff\xff\xff\xff\xff"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      const int order = compare_keys(bytes_of(ordered[i]), bytes_of(ordered[j]));
      EXPECT_EQ(order < 0, i < j) << i << " " << j;
      EXPECT_EQ(order == 0, i == j) << i << " " << j;
    }
  }
}

TEST(CheckedPages, HoldWhatWasAddedFewOrMany) {
  CheckedPages pages;
  const auto number_of = [](std::uint64_t each) { return (each * 7919) % 1000 * 2; };
  for (std::uint64_t added = 0; added < 100; ++added) {
    EXPECT_TRUE(pages.add(number_of(added)));
    EXPECT_FALSE(pages.add(number_of(added)));
    for (std::uint64_t each = 0; each < 100; ++each) {
      EXPECT_EQ(pages.has(number_of(each)), each <= added) << added << ", " << each;
      EXPECT_FALSE(pages.has(number_of(each) + 1));
    }
  }
  pages.clear();
  for (std::uint64_t each = 0; each < 100; ++each) EXPECT_FALSE(pages.has(number_of(each)));
  EXPECT_TRUE(pages.add(number_of(0)));
}

// Three levels: two branch pages with two leaf pages each.
class SmallTree {
 public:
  SmallTree() {
    put(2, PageBuilder(2, kBranchPage).branch("", 3).branch("m", 4));
    put(3, PageBuilder(3, kBranchPage).branch("", 5).branch("f", 6));
    put(4, PageBuilder(4, kBranchPage).branch("", 7).branch("t", 8));
    put(5, PageBuilder(5, kLeafPage).leaf("a", "1").leaf("c", "2"));
    put(6, PageBuilder(6, kLeafPage).leaf("f", "3").leaf("hh", "4"));
    put(7, PageBuilder(7, kLeafPage).leaf("n", "5").leaf("p", "6"));
    put(8, PageBuilder(8, kLeafPage).leaf("u", "7").leaf("x", "8"));
    state_.map = {bytes_of(file_).data(), file_.size(), kSize, ""};
    state_.transaction = 1;
    state_.page_count = kPages;
    state_.use_map();
    state_.records.page = 2;
    state_.records.depth = 3;
  }

  const FileState& state() const { return state_; }

 private:
  static constexpr std::size_t kPages = 9;

  void put(std::uint64_t number, const PageBuilder& page) { file_.replace(number * kSize, kSize, page.bytes()); }

  std::string file_ = std::string(kPages * kSize, '\0');
  FileState state_;
};

// Where a search has ended: its page, and the record, or that behind the gap.
std::string found_by(TreeCursor cursor, bool found) {
  const std::string page = std::to_string(cursor.page_number()) + (found ? " " : " before ");
  std::span<const std::byte> record;
  EXPECT_TRUE(found || !cursor.enter_gap());
  if (cursor.at_end()) return page + "the end";
  EXPECT_FALSE(cursor.record(&record));
  return page + std::string(reinterpret_cast<const char*>(record.data()), record.size());
}

TEST(TreeCursor, ASearchFromTheLatestPageEndsWhereOneFromTheRootDoes) {
  const SmallTree tree;
  std::vector<std::string> keys{"", "hh", "hhh"};
  for (char letter = 'a'; letter <= 'z'; ++letter) keys.emplace_back(1, letter);
  for (const std::string& first : keys) {
    for (const std::string& second : keys) {
      bool found = false;
      TreeCursor from_root(tree.state());
      ASSERT_FALSE(from_root.seek(bytes_of(second), &found));
      const std::string expected = found_by(from_root, found);
      TreeCursor cursor(tree.state());
      ASSERT_FALSE(cursor.seek(bytes_of(first), &found));
      ASSERT_FALSE(cursor.seek_from_here(bytes_of(second), &found));
      EXPECT_EQ(found_by(cursor, found), expected) << "'" << second << "' after '" << first << "'";
      ASSERT_FALSE(cursor.seek(bytes_of(first), &found));
      ASSERT_FALSE(found ? PageDamage() : cursor.enter_gap());
      while (!cursor.at_end()) ASSERT_FALSE(cursor.next());
      ASSERT_FALSE(cursor.seek_from_here(bytes_of(second), &found));
      EXPECT_FALSE(cursor.at_end());
      EXPECT_EQ(found_by(cursor, found), expected) << "'" << second << "' after a walk from '" << first << "'";
    }
  }
}

}  // namespace
}  // namespace tkv::store
