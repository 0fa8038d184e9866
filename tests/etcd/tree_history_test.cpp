// The judge of histories, with histories that are legal and histories that are not.
#include "tree_history.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace tkv::store::etcd {
namespace {

// Two keys with a subkey each, made one after the other.
const std::string kBegin =
    "0 0 1 create a 1 : done\n"
    "0 2 3 create a.x 2 : done\n"
    "0 4 5 create b 3 : done\n";

struct Case {
  const char* claim;
  std::string history;
};

std::string print_claim(const testing::TestParamInfo<Case>& info) { return info.param.claim; }

class LegalHistory : public testing::TestWithParam<Case> {};
class IllegalHistory : public testing::TestWithParam<Case> {};

TEST_P(LegalHistory, IsAccepted) {
  EXPECT_EQ(judge_history(parse_history(kBegin + GetParam().history)), Ruling::kLegal);
}

TEST_P(IllegalHistory, IsRefused) {
  EXPECT_EQ(judge_history(parse_history(kBegin + GetParam().history)), Ruling::kIllegal);
}

const Case kLegal[] = {
    {"Nothing", ""},
    {"EachOutcome",
     "0 10 11 read a.x : value 2\n"
     "0 12 13 read a.y : no-such-key\n"
     "0 14 15 create a 4 : exists\n"
     "0 16 17 create c.d 4 : no-such-key\n"
     "0 18 19 write a.x 5 : done\n"
     "0 20 21 change a 7 : done\n"
     "0 22 23 create a.y 6 : done\n"
     "0 24 25 read-tree a : tree a=1/7 a.x=5/7 a.y=6/0\n"
     "0 26 27 move a b : exists\n"
     "0 28 29 move a c.d : no-such-key\n"
     "0 30 31 replace a b : done\n"
     "0 32 33 read-tree b : tree b=1/7 b.x=5/7 b.y=6/0\n"
     "0 34 35 import b=8 b.x=8 b.z=8 : done\n"
     "0 36 37 read-tree b : tree b=8/7 b.x=8/7 b.y=6/0 b.z=8/0\n"
     "0 38 39 remove b : done\n"
     "0 40 41 read-tree b : no-such-key\n"},
    {"ConcurrentOperationsInEitherOrder",
     "1 10 20 move a c : done\n"
     "2 11 19 write a.x 5 : done\n"
     "3 12 18 read c.x : no-such-key\n"
     "0 30 31 read c.x : value 5\n"},
    {"AWriteThatCameAfterTheMove",
     "1 10 20 move a c : done\n"
     "2 11 19 write a.x 5 : no-such-key\n"
     "0 30 31 read c.x : value 2\n"},
    {"AnUnansweredMoveThatHappenedLate",
     "1 10 - move a c :\n"
     "0 11 12 read a.x : value 2\n"
     "0 30 31 read c.x : value 2\n"},
    {"AnUnansweredRemovalThatNeverHappened",
     "1 10 - remove a :\n"
     "0 30 31 read a.x : value 2\n"},
    {"AChangeThatWouldHaveChangedNothingEarlier",
     "1 10 40 change a 0 : done\n"
     "2 12 13 change a 7 : done\n"
     "0 50 51 read-tree a : tree a=1/0 a.x=2/0\n"},
    {"AnUnansweredChangeBesideAnother",
     "1 10 - change a 7 :\n"
     "2 11 20 change a 5 : done\n"
     "0 30 31 read-tree a : tree a=1/7 a.x=2/7\n"
     "0 32 33 read-tree a : tree a=1/7 a.x=2/7\n"},
};

const Case kIllegal[] = {
    {"AMoveSeenByHalf",
     "1 10 20 move a c : done\n"
     "0 30 31 read-tree c : tree c=1/0\n"},
    {"AKeyInBothPlaces",
     "1 10 20 move a c : done\n"
     "2 30 31 read c.x : value 2\n"
     "2 32 33 read a.x : value 2\n"},
    {"AWriteLostInAMove",
     "1 10 20 move a c : done\n"
     "2 11 19 write a.x 5 : done\n"
     "0 30 31 read c.x : value 2\n"},
    {"AWriteLostInAnImport",
     "1 2 20 import a=7 : done\n"
     "2 6 8 write b 9 : done\n"
     "0 30 31 read b : value 3\n"},
    {"AChangeThatOvertookAnother",
     "1 10 11 change a 7 : done\n"
     "1 12 13 change a.x 5 : done\n"
     "0 30 31 read-tree a : tree a=1/7 a.x=2/7\n"},
    {"AKeyThatARecursiveChangeMissed",
     "1 10 20 change a 7 : done\n"
     "2 30 31 read-tree a : tree a=1/7 a.x=2/0\n"},
    {"AChangeSeenByHalfAndThenWholly",
     "1 10 40 change a 7 : done\n"
     "2 20 21 read-tree a : tree a=1/7 a.x=2/0\n"},
    {"AnImportSeenByHalf",
     "1 10 40 import a=8 a.x=8 : done\n"
     "2 20 21 read-tree a : tree a=8/0 a.x=2/0\n"},
    {"ARemovalSeenByHalf",
     "1 10 40 remove a : done\n"
     "2 20 21 read-tree a : tree a=1/0\n"},
    {"AKeyCreatedBelowWhatWasRemoved",
     "1 10 20 remove a : done\n"
     "2 30 31 create a.y 9 : done\n"},
    {"ARemovalThatWasUndone",
     "1 10 20 remove a : done\n"
     "2 30 31 read a.x : value 2\n"},
    {"TwoMovesOfOneKey",
     "1 10 20 move a c : done\n"
     "2 11 19 move a d : done\n"},
    {"AStaleReadAfterAMoveWasSeen",
     "1 10 40 move a c : done\n"
     "2 20 21 read c.x : value 2\n"
     "3 30 31 read a.x : value 2\n"},
    {"AnUnansweredMoveThatHappenedTwice",
     "1 10 - move a c :\n"
     "0 20 21 read c.x : value 2\n"
     "0 22 23 move c a : done\n"
     "0 24 25 read a.x : value 2\n"
     "0 26 27 read c.x : value 2\n"},
    {"AnAnswerBeforeTheCause",
     "2 6 7 read a.y : value 9\n"
     "1 10 20 create a.y 9 : done\n"},
};

INSTANTIATE_TEST_SUITE_P(Tree, LegalHistory, testing::ValuesIn(kLegal), print_claim);
INSTANTIATE_TEST_SUITE_P(Tree, IllegalHistory, testing::ValuesIn(kIllegal), print_claim);

TEST(HistoryText, ReadsWhatItPrints) {
  const std::string text =
      "0 10 20 create a 1 : done\n"
      "1 12 - move a b :\n"
      "2 14 30 read-tree b : tree b=1/0\n";
  EXPECT_EQ(print_history(parse_history("# a comment\n\n" + text)), text);
}

TEST(HistoryText, RefusesWhatIsNoOperation) {
  for (const char* text : {"0 10 20\n", "0 10 20 read a\n", "0 10 20 read a :\n", "0 10 - read a : value 1\n", "x\n"}) {
    EXPECT_THROW(parse_history(text), std::runtime_error) << text;
  }
  EXPECT_THROW(judge_history(parse_history("0 10 20 frobnicate a : done\n")), std::invalid_argument);
}

}  // namespace
}  // namespace tkv::store::etcd
