#include "store/tree_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tkv::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// Records of a tree: root -> a (2) -> b (3), and what a test adds to them.
class TreeCheckTest : public ::testing::Test {
 protected:
  TreeCheckTest() {
    check_.add_node(kNoNode, "", kRootNode);
    check_.add_node(kRootNode, "a", 2);
    check_.add_node(2, "b", 3);
    check_.add_value(3, 10);
  }

  void finish() {
    check_.finish(&totals_, &removable_);
    for (const TreeCheck::CheckedNode& entry : removable_.nodes) removed_.push_back(entry.name);
  }

  static std::string kind_text(Finding::Kind kind) {
    switch (kind) {
      case Finding::Kind::kDamagedNode:
        return "damaged node ";
      case Finding::Kind::kDamagedValue:
        return "damaged value ";
      case Finding::Kind::kOrphan:
        return "orphan ";
      case Finding::Kind::kOrphanValue:
        return "orphan value ";
      case Finding::Kind::kDuplicateId:
        return "duplicate ";
      case Finding::Kind::kDamagedChange:
        return "damaged change ";
      case Finding::Kind::kUnfinishedChange:
        return "unfinished change ";
    }
    return "";
  }

  std::vector<std::string> findings_;
  std::function<void(const Finding&)> collect_ = [this](const Finding& finding) {
    findings_.push_back(kind_text(finding.kind) + finding.name + "/" + std::to_string(finding.id));
  };
  TreeCheck check_{collect_};
  Totals totals_;
  TreeCheck::Removable removable_;
  std::vector<std::string> removed_;
};

TEST_F(TreeCheckTest, ASoundTreeHasNoFindings) {
  finish();
  EXPECT_THAT(findings_, IsEmpty());
  EXPECT_THAT(removed_, IsEmpty());
  EXPECT_EQ(totals_.nodes, 3u);
  EXPECT_EQ(totals_.values, 1u);
  EXPECT_EQ(totals_.value_bytes, 10u);
}

TEST_F(TreeCheckTest, OfASubtreeThatHangsOnNothingTheTopIsReportedAndAllIsRemovable) {
  check_.add_node(50, "top", 51);
  check_.add_node(51, "below", 52);
  check_.add_value(52, 5);
  finish();
  EXPECT_THAT(findings_, ElementsAre("orphan top/51"));
  EXPECT_THAT(removed_, UnorderedElementsAre("top", "below"));
  EXPECT_THAT(removable_.values, ElementsAre(52));
  EXPECT_EQ(totals_.nodes, 3u);
  EXPECT_EQ(totals_.values, 1u);
}

TEST_F(TreeCheckTest, ALoopIsReportedNodeByNodeAndWhatHangsOnItIsRemovable) {
  check_.add_node(60, "x", 61);
  check_.add_node(61, "y", 60);
  check_.add_node(61, "below", 62);
  check_.add_node(62, "deeper", 63);
  finish();
  EXPECT_THAT(findings_, UnorderedElementsAre("orphan x/61", "orphan y/60"));
  EXPECT_THAT(removed_, UnorderedElementsAre("x", "y", "below", "deeper"));
}

TEST_F(TreeCheckTest, ANodeThatIsItsOwnParentIsALoop) {
  check_.add_node(70, "self", 70);
  finish();
  EXPECT_THAT(findings_, ElementsAre("orphan self/70"));
  EXPECT_THAT(removed_, ElementsAre("self"));
}

TEST_F(TreeCheckTest, NodesOfOneIdAreBothReportedAndBothStay) {
  check_.add_node(kRootNode, "twin", 2);
  finish();
  EXPECT_THAT(findings_, UnorderedElementsAre("duplicate a/2", "duplicate twin/2"));
  EXPECT_THAT(removed_, IsEmpty());
  EXPECT_EQ(totals_.nodes, 4u);
}

TEST_F(TreeCheckTest, AnUnreachedTwinIsRemovedAndTheReachedOneKeepsItsChildrenAndItsValue) {
  check_.add_node(80, "twin", 3);
  check_.add_node(3, "child", 4);
  finish();
  EXPECT_THAT(findings_, UnorderedElementsAre("duplicate b/3", "duplicate twin/3", "orphan twin/3"));
  EXPECT_THAT(removed_, ElementsAre("twin"));
  EXPECT_THAT(removable_.values, IsEmpty());
  EXPECT_EQ(totals_.nodes, 4u);
}

TEST_F(TreeCheckTest, AValueOfNoNodeIsReportedAndRemovable) {
  check_.add_value(90, 7);
  finish();
  EXPECT_THAT(findings_, ElementsAre("orphan value /90"));
  EXPECT_THAT(removable_.values, ElementsAre(90));
  EXPECT_EQ(totals_.values, 1u);
}

TEST_F(TreeCheckTest, WhatIsBelowADamagedNodeIsReportedAndRemovable) {
  check_.add_damaged_node(kRootNode, "damaged", "its checksum does not match");
  check_.add_node(50, "perhaps its child", 51);
  check_.add_value(50, 7);
  check_.add_node(70, "self", 70);  // has a parent, which is not the damaged node
  finish();
  EXPECT_THAT(findings_, UnorderedElementsAre("damaged node damaged/0", "orphan perhaps its child/51",
                                              "orphan value /50", "orphan self/70"));
  EXPECT_THAT(removed_, UnorderedElementsAre("perhaps its child", "self"));
  EXPECT_THAT(removable_.values, ElementsAre(50));
}

TEST_F(TreeCheckTest, DamagedRecordsThatNothingReachesAreRemovable) {
  check_.add_node(50, "orphan", 51);
  check_.add_damaged_node(51, "damaged", "its checksum does not match");
  check_.add_damaged_value(51, "its checksum does not match");
  finish();
  EXPECT_THAT(removed_, UnorderedElementsAre("orphan", "damaged"));
  EXPECT_THAT(removable_.values, ElementsAre(51));
}

TEST_F(TreeCheckTest, ADamagedRecordUnderAnUnknownKeyIsReportedAndKept) {
  check_.add_damaged_node(kNoNode, "Zebra", "an unknown key");
  finish();
  EXPECT_THAT(findings_, ElementsAre("damaged node Zebra/0"));
  EXPECT_THAT(removed_, IsEmpty());
}

TEST(TreeCheckRoot, WhatIsBelowADamagedRootIsReached) {
  std::vector<Finding> findings;
  const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
  TreeCheck check(collect);
  check.add_damaged_node(kNoNode, "", "its checksum does not match");
  check.add_node(kRootNode, "a", 2);
  check.add_value(kRootNode, 10);
  Totals totals;
  TreeCheck::Removable removable;
  check.finish(&totals, &removable);
  EXPECT_EQ(findings.size(), 1u);
  EXPECT_THAT(removable.nodes, IsEmpty());
  EXPECT_THAT(removable.values, IsEmpty());
  EXPECT_EQ(totals.nodes, 2u);
}

TEST_F(TreeCheckTest, ADamagedValueIsReportedAndKept) {
  check_.add_damaged_value(2, "its checksum does not match");
  finish();
  EXPECT_THAT(findings_, ElementsAre("damaged value /2"));
  EXPECT_THAT(removable_.values, IsEmpty());
  EXPECT_EQ(totals_.values, 1u);
}

}  // namespace
}  // namespace tkv::store
