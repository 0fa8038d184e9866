/* getPatchLevel and setZUVEDDependencies. */
#include <limits>

#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

constexpr int kMost = std::numeric_limits<int>::max();
constexpr int kLeast = std::numeric_limits<int>::min();

class GetPatchLevel : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

Call patch_level() { return {"clsvswpatch", {context(kRegistry), "0x0", "word", "0x0"}}; }

class GetPatchLevelWithLevel : public GetPatchLevel, public ::testing::WithParamInterface<int> {};

TEST_P(GetPatchLevelWithLevel, GivesTheLevelWithoutATrace) {
  expect({patch_level().word(GetParam()), status(true)});
  EXPECT_EQ(getPatchLevel(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Levels, GetPatchLevelWithLevel, Values(0, 1, 17, -1, kMost, kLeast));

class GetPatchLevelWithResult : public GetPatchLevel, public ::testing::WithParamInterface<int> {};

TEST_P(GetPatchLevelWithResult, IsMinusOneWithTheRegistrysTextWhenTheQueryFails) {
  expect({
      patch_level().returns(GetParam()).word(5),
      last_error().says("TKV-0008: 100%").word(8),
      new_string("TKV-0008: 100%"),
      result_string("TKV-0008: 100%"),
      deletes_reference("TKV-0008: 100%"),
      status(false),
  });
  EXPECT_EQ(getPatchLevel(), -1);
}

INSTANTIATE_TEST_SUITE_P(Results, GetPatchLevelWithResult, Values(1, 8, 15, -1));

TEST_F(GetPatchLevel, SendsTheTextWhateverTheLastErrorsResult) {
  expect({
      patch_level().returns(8),
      last_error().returns(14).says("left over"),
      sends_text("left over"),
      status(false),
  });
  EXPECT_EQ(getPatchLevel(), -1);
}

TEST_F(GetPatchLevel, SendsAnEmptyTextWhenTheRegistryHasNone) {
  expect({patch_level().returns(8), last_error().returns(14), sends_text(""), status(false)});
  EXPECT_EQ(getPatchLevel(), -1);
}

class SetZUVEDDependencies : public BridgeTest, public ::testing::WithParamInterface<int> {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

Call set_dependencies(int mode) { return {"prtkv_set_zuved_dependencies", {context(kRegistry), number(mode), "0x0"}}; }

TEST_P(SetZUVEDDependencies, PassesTheModeUnchanged) {
  expect({
      set_dependencies(GetParam()),
      trace("setZUVEDependencies: prtkv_set_zuved_dependencies retval = 0\n"),
      status(true),
  });
  setZUVEDDependencies(GetParam());
}

TEST_P(SetZUVEDDependencies, ReportsAFailureWithTheMode) {
  expect({
      set_dependencies(GetParam()).returns(2),
      trace("setZUVEDependencies: prtkv_set_zuved_dependencies retval = 2\n"),
      reports(2),
      trace("setZUVEDependencies: failed to set dependencies when the PEV mode [" + std::to_string(GetParam()) +
            "] \n"),
  });
  setZUVEDDependencies(GetParam());
}

TEST_P(SetZUVEDDependencies, ReportsTheRegistrysText) {
  expect({
      set_dependencies(GetParam()).returns(15),
      trace("setZUVEDependencies: prtkv_set_zuved_dependencies retval = 15\n"),
      reports_text("TKV-0015: unreachable"),
      trace("setZUVEDependencies: failed to set dependencies when the PEV mode [" + std::to_string(GetParam()) +
            "] \n"),
  });
  setZUVEDDependencies(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Modes, SetZUVEDDependencies, Values(0, 1, 2, -1, kMost, kLeast));

}  // namespace
}  // namespace bridge_test
