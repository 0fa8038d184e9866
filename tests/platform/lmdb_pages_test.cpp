// The check of all pages, on files of a few pages that are composed here.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "page_builder.h"
#include "store/lmdb/pages.h"

namespace tkv::store {
namespace {

constexpr std::size_t kSize = PageBuilder::kSize;
constexpr std::uint64_t kTransaction = 4;

std::string numbers(const std::vector<std::uint64_t>& all) {
  std::string text;
  for (const std::uint64_t number : all) text += bytes_of_object(number);
  return text;
}

// A list of free pages: their number, then each of them.
std::string free_list(std::vector<std::uint64_t> pages) {
  pages.insert(pages.begin(), pages.size());
  return numbers(pages);
}

PageBuilder leaf(std::uint64_t number) { return {number, kLeafPage}; }
PageBuilder branch(std::uint64_t number) { return {number, kBranchPage}; }

std::string overflow(std::uint64_t number, std::uint16_t pages, const std::string& data) {
  std::string bytes = bytes_of_object(PageHeader{number, 0, kOverflowPage, pages, 0}) + data;
  bytes.resize(pages * kSize);
  return bytes;
}

std::string key(std::uint64_t transaction) { return bytes_of_object(transaction); }

// A sound file. The free pages: 2 lists them, among others in the overflow pages 3 and 4. The records: branch page 5
// leads to the branch pages 6 and 7, these to the leaf pages 8 to 11, and these to the overflow pages 15 and 16, with
// which the file ends. 12 to 14 are free.
struct Image {
  Image() {
    state.map.page_size = kSize;
    state.map.directory = "here";
    state.transaction = kTransaction;
    state.page_count = 17;
    state.free_pages = {kSize, kIntegerKeyTree, 1, 0, 1, 2, 2, 2};
    state.records = {0, kPlainTree, 3, 3, 4, 2, 6, 5};
    metas[0] = metas[1] = MetaPage{{0, 0, kMetaPage, 0, 0}, kMagic, kFormatVersion, 0, 0, {}, {}, 16, kTransaction};
    metas[1].header.number = 1;
    metas[1].transaction = kTransaction - 1;
    metas[1].free_pages.page_size = kSize;
    copy_roots();
    pages[2] = leaf(2).leaf(key(3), free_list({14, 13})).big(key(4), 3, 600).bytes();
    pages[3] = overflow(3, 2, free_list({12}));
    pages[5] = branch(5).branch("", 6).branch("m", 7).bytes();
    pages[6] = branch(6).branch("", 8).branch("f", 9).bytes();
    pages[7] = branch(7).branch("", 10).branch("t", 11).bytes();
    pages[8] = leaf(8).leaf("a", "1").leaf("b", "2").bytes();
    pages[9] = leaf(9).leaf("f", "3").bytes();
    pages[10] = leaf(10).leaf("m", "4").bytes();
    pages[11] = leaf(11).leaf("t", "5").big("u", 15, 600).bytes();
    pages[15] = overflow(15, 2, "6");
  }

  // The current meta page describes this state.
  void copy_roots() {
    metas[0].free_pages = state.free_pages;
    metas[0].records = state.records;
  }

  std::string bytes() const {
    std::string all(state.page_count * kSize, '\xAA');
    for (std::size_t i = 0; i < 2; ++i) all.replace(i * kSize, sizeof(MetaPage), bytes_of_object(metas[i]));
    for (const auto& [number, page] : pages) all.replace(number * kSize, page.size(), page);
    return all.substr(0, size);
  }

  FileState state;
  std::array<MetaPage, 2> metas{};
  std::map<std::uint64_t, std::string> pages;
  std::size_t size = std::string::npos;  // of the file, if it is cut off
};

std::string damage_in(const Image& image, std::uint64_t* pages = nullptr) {
  const Descriptor file(memfd_create("pages", MFD_CLOEXEC));
  const std::string bytes = image.bytes();
  EXPECT_EQ(write(file.number(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  const Status status = check_pages(file.number(), image.state, [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    if (pages != nullptr) *pages = done;
  });
  EXPECT_TRUE(status.ok() || status.is(PRTKV_STORAGE_FAILED));
  return status.ok() ? "" : status.text();
}

TEST(PageCheck, ASoundFileHasNoDamageAndAllItsPagesAreSeen) {
  std::uint64_t pages = 0;
  EXPECT_EQ(damage_in(Image(), &pages), "");
  EXPECT_EQ(pages, 15u);
}

TEST(PageCheck, ATreeMayBeEmpty) {
  Image image;
  image.state.free_pages = {kSize, kIntegerKeyTree, 0, 0, 0, 0, 0, kNoPage};
  image.copy_roots();
  EXPECT_EQ(damage_in(image), "");
}

TEST(PageCheck, TheMetaPageOfAnotherStateMayLeadAnywhere) {
  Image image;
  image.metas[1].records = {0, 99, 99, 99, 99, 99, 99, 99};
  image.metas[1].transaction = kTransaction + 1;
  EXPECT_EQ(damage_in(image), "");
}

struct Case {
  const char* name;
  std::function<void(Image& image)> damage;
  const char* message;  // after "the registry in 'here' is damaged: "
};

const Case kCases[] = {
    {"MetaPage0IsNone", [](Image& image) { image.metas[0].magic = 1; }, "page 0 is not a meta page of LMDB"},
    {"MetaPage1IsNone", [](Image& image) { image.metas[1].header.flags = 0; }, "page 1 is not a meta page of LMDB"},
    {"MetaPageOfAnotherVersion", [](Image& image) { image.metas[1].version = 2; }, "page 1 is not a meta page of LMDB"},
    {"MetaPageWithAnotherPageSize", [](Image& image) { image.metas[1].free_pages.page_size = 1024; },
     "page 1 is not a meta page of LMDB"},
    {"MetaPageInTheOthersPlace", [](Image& image) { image.metas[1].transaction = kTransaction + 2; },
     "page 1 carries the wrong transaction number"},
    {"RecordsRootChangedSince", [](Image& image) { ++image.metas[0].records.page; },
     "page 0 has changed since it was read"},
    {"FreeRootChangedSince", [](Image& image) { ++image.metas[0].free_pages.entries; },
     "page 0 has changed since it was read"},

    {"FreePageBeyondTheFile", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({17})); },
     "page 17 does not exist, and is referred to"},
    {"FreeMetaPage", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({1})); },
     "page 1 does not exist, and is referred to"},
    {"PageFreeTwice", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({13})); },
     "page 13 is used in two places"},
    {"PageFreeAndInUse",
     [](Image& image) { image.pages[2] = leaf(2).leaf(key(3), free_list({10})).big(key(4), 3, 600).bytes(); },
     "page 10 is used in two places"},
    {"RootFreeAndInUse", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({5})); },
     "page 5 is used in two places"},
    {"OverflowPageFreeAndInUse", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({15})); },
     "page 15 is used in two places"},
    {"SecondOverflowPageFreeAndInUse", [](Image& image) { image.pages[3] = overflow(3, 2, free_list({16})); },
     "page 16 is used in two places"},
    {"EmptyFreeList", [](Image& image) { image.pages[2] = leaf(2).leaf(key(3), "").big(key(4), 3, 600).bytes(); },
     "page 2 has a list of free pages that is cut off"},
    {"CutOffFreeList",
     [](Image& image) {
       image.pages[2] = leaf(2).leaf(key(3), numbers({3, 14, 13})).big(key(4), 3, 600).bytes();
     },
     "page 2 has a list of free pages that is cut off"},
    {"CutOffFreeListInOverflowPages", [](Image& image) { image.pages[3] = overflow(3, 2, numbers({75})); },
     "page 3 has a list of free pages that is cut off"},
    {"FreeListUnderAKeyThatIsNoNumber",
     [](Image& image) {
       image.pages[2] = leaf(2).leaf("four", free_list({14, 13})).big(key(4), 3, 600).bytes();
     },
     "page 2 has an impossible key"},

    {"PageThatIsTwiceInItsParent",
     [](Image& image) { image.pages[7] = branch(7).branch("", 10).branch("t", 10).bytes(); },
     "page 10 is used in two places"},
    {"PageBelowItself", [](Image& image) { image.pages[7] = branch(7).branch("", 10).branch("t", 7).bytes(); },
     "page 7 is used in two places"},
    {"PageOfTheWrongKind", [](Image& image) { image.pages[6] = leaf(6).leaf("a", "1").bytes(); },
     "page 6 is of the wrong kind"},
    {"KeysOutOfOrder", [](Image& image) { image.pages[8] = leaf(8).leaf("b", "2").leaf("a", "1").bytes(); },
     "page 8 has its keys out of order"},
    {"KeyAboveTheParentsRange", [](Image& image) { image.pages[8] = leaf(8).leaf("a", "1").leaf("f", "2").bytes(); },
     "page 8 has keys outside the range that its parent allows"},
    {"KeyBelowTheParentsRange", [](Image& image) { image.pages[9] = leaf(9).leaf("e", "3").bytes(); },
     "page 9 has keys outside the range that its parent allows"},
    {"KeyAboveTheRangeOfThePageAboveTheParent", [](Image& image) { image.pages[9] = leaf(9).leaf("m", "3").bytes(); },
     "page 9 has keys outside the range that its parent allows"},
    {"KeyBelowTheRangeOfThePageAboveTheParent", [](Image& image) { image.pages[10] = leaf(10).leaf("l", "4").bytes(); },
     "page 10 has keys outside the range that its parent allows"},
    {"SeparatorBelowTheParentsRange",
     [](Image& image) { image.pages[7] = branch(7).branch("", 10).branch("c", 11).bytes(); },
     "page 7 has keys outside the range that its parent allows"},
    {"OverflowPagesOfAnotherRecord", [](Image& image) { image.pages[15] = overflow(14, 2, "6"); },
     "page 15 is not the beginning of the record that it should hold"},
    {"TooFewOverflowPages", [](Image& image) { image.pages[15] = overflow(15, 1, "6"); },
     "page 15 is not the beginning of the record that it should hold"},

    {"FileThatLacksALeaf", [](Image& image) { image.size = 11 * kSize; }, "page 11 is missing"},
    {"FileThatLacksPartOfALeaf", [](Image& image) { image.size = 12 * kSize - 1; }, "page 11 is missing"},
    {"FileThatLacksARecordsOverflowPages", [](Image& image) { image.size = 15 * kSize; }, "page 15 is missing"},
    {"FileThatLacksTheEndOfARecord", [](Image& image) { image.size = 15 * kSize + sizeof(PageHeader) + 599; },
     "page 15 is cut off"},

    {"MoreRecordsThanCounted",
     [](Image& image) {
       --image.state.records.entries;
       image.copy_roots();
     },
     "it has 6 records, and meta page 0 counts 5"},
    {"OtherBranchPagesThanCounted",
     [](Image& image) {
       ++image.state.records.branch_pages;
       image.copy_roots();
     },
     "page 0 counts other pages than there are"},
    {"OtherLeafPagesThanCounted",
     [](Image& image) {
       ++image.state.free_pages.leaf_pages;
       image.copy_roots();
     },
     "page 0 counts other pages than there are"},
    {"OtherOverflowPagesThanCounted",
     [](Image& image) {
       --image.state.records.overflow_pages;
       image.copy_roots();
     },
     "page 0 counts other pages than there are"},
};

class DamagedPages : public ::testing::TestWithParam<Case> {};

TEST_P(DamagedPages, AreNamed) {
  Image image;
  GetParam().damage(image);
  EXPECT_EQ(damage_in(image), std::string("the registry in 'here' is damaged: ") + GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Cases, DamagedPages, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST(PageCheck, ADiskThatCannotDeliverAPageIsReported) {
  const Descriptor none(-1);
  const Status status = check_pages(none.number(), Image().state, [](std::uint64_t, std::uint64_t) {});
  EXPECT_FALSE(status.ok());
  EXPECT_NE(status.text().find("cannot read page 0 of the registry in 'here'"), std::string::npos) << status.text();
}

}  // namespace
}  // namespace tkv::store
