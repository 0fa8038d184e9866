/* moveKey. */
#include <limits>

#include "bridge_test.h"

namespace bridge_test {
namespace {

class MoveKey : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

constexpr uint64_t kSource = 7;
constexpr uint64_t kParent = 8;
constexpr uint64_t kMoved = 9;

Calls names_taken(int flags = 0) {
  return {takes("a.src"), takes("b.par"), takes("new"), trace("moveKey: flags =" + std::to_string(flags) + "\n")};
}

Calls opened(const std::string& name, uint64_t handle) {
  return {
      trace("moveKey: calling prtkv_open_key(" + name + ")\n"),
      open_key(name).gives(handle),
      trace("moveKey: prtkv_open_key retval = 0 \n"),
  };
}

Calls names_released() { return {releases("a.src"), releases("b.par"), releases("new")}; }

class MoveKeyWithFlags : public MoveKey, public ::testing::WithParamInterface<jint> {};

TEST_P(MoveKeyWithFlags, MovesTheKeyAndClosesAllThreeHandles) {
  expect({
      takes("a.src"),
      takes("b.par"),
      takes("new"),
      trace("moveKey: flags =" + std::to_string(GetParam()) + "\n"),
      trace("moveKey: calling prtkv_open_key(a.src)\n"),
      open_key("a.src").gives(kSource),
      trace("moveKey: prtkv_open_key retval = 0 \n"),
      trace("moveKey: calling prtkv_open_key(b.par)\n"),
      open_key("b.par").gives(kParent),
      trace("moveKey: prtkv_open_key retval = 0 \n"),
      move_key(kSource, kParent, "new", GetParam()).gives(kMoved),
      status(true),
      close_key(kSource),
      close_key(kParent),
      close_key(kMoved),
      releases("a.src"),
      releases("b.par"),
      releases("new"),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Flags, MoveKeyWithFlags,
                         ::testing::Values(0, 1, 2, -1, std::numeric_limits<jint>::max(),
                                           std::numeric_limits<jint>::min()));

TEST_F(MoveKey, IgnoresTheResultsOfTheCloses) {
  expect({
      names_taken(1),
      opened("a.src", kSource),
      opened("b.par", kParent),
      move_key(kSource, kParent, "new", 1).gives(kMoved),
      status(true),
      close_key(kSource).returns(3),
      close_key(kParent).returns(4),
      close_key(kMoved).returns(15),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 1);
}

TEST_F(MoveKey, ClosesNoMovedKeyThatItDidNotGet) {
  expect({
      names_taken(),
      opened("a.src", kSource),
      opened("b.par", kParent),
      move_key(kSource, kParent, "new", 0),
      status(true),
      close_key(kSource),
      close_key(kParent),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

TEST_F(MoveKey, FailsWithoutSourceCharacters) {
  expect({takes("a.src"), reports(0), trace("moveKey:NULL source key")});
  moveKey(unobtainable("a.src"), string("b.par"), string("new"), 0);
}

TEST_F(MoveKey, FailsWithANullSource) {
  expect({reports_text("last"), trace("moveKey:NULL source key")});
  moveKey(nullptr, string("b.par"), string("new"), 0);
}

TEST_F(MoveKey, FailsWithoutParentCharacters) {
  expect({takes("a.src"), takes("b.par"), reports(0), trace("moveKey:NULL parent tgt key"), releases("a.src")});
  moveKey(string("a.src"), unobtainable("b.par"), string("new"), 0);
}

TEST_F(MoveKey, FailsWithANullParent) {
  expect({takes("a.src"), reports(0), trace("moveKey:NULL parent tgt key"), releases("a.src")});
  moveKey(string("a.src"), nullptr, string("new"), 0);
}

TEST_F(MoveKey, FailsWithoutTargetCharacters) {
  expect({
      takes("a.src"),
      takes("b.par"),
      takes("new"),
      reports(0),
      trace("moveKey:NULL tgt key"),
      releases("a.src"),
      releases("b.par"),
  });
  moveKey(string("a.src"), string("b.par"), unobtainable("new"), 0);
}

TEST_F(MoveKey, FailsWithANullTarget) {
  expect({
      takes("a.src"),
      takes("b.par"),
      reports(0),
      trace("moveKey:NULL tgt key"),
      releases("a.src"),
      releases("b.par"),
  });
  moveKey(string("a.src"), string("b.par"), nullptr, 0);
}

class MoveKeyWithResult : public MoveKey, public ::testing::WithParamInterface<int> {};

// A missing key is a failure like any other.
TEST_P(MoveKeyWithResult, ReportsASourceThatCannotBeOpened) {
  expect({
      names_taken(),
      trace("moveKey: calling prtkv_open_key(a.src)\n"),
      open_key("a.src").returns(GetParam()),
      trace("moveKey: prtkv_open_key retval = " + std::to_string(GetParam()) + " \n"),
      reports(GetParam()),
      trace("moveKey: Failure in opening the handle to the key [a.src]\n"),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

TEST_P(MoveKeyWithResult, ReportsAParentThatCannotBeOpenedAndClosesTheSource) {
  expect({
      names_taken(),
      opened("a.src", kSource),
      trace("moveKey: calling prtkv_open_key(b.par)\n"),
      open_key("b.par").returns(GetParam()),
      trace("moveKey: prtkv_open_key retval = " + std::to_string(GetParam()) + " \n"),
      reports(GetParam()),
      trace("moveKey: Failure in opening the handle to the key [b.par]\n"),
      close_key(kSource),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

TEST_P(MoveKeyWithResult, ReportsAFailedMoveAndClosesBothKeys) {
  expect({
      names_taken(),
      opened("a.src", kSource),
      opened("b.par", kParent),
      move_key(kSource, kParent, "new", 0).returns(GetParam()),
      reports(GetParam()),
      trace("moveKey: Failure in prtkv_move_key[" + std::to_string(GetParam()) + "]\n"),
      close_key(kSource),
      close_key(kParent),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

INSTANTIATE_TEST_SUITE_P(Results, MoveKeyWithResult, ::testing::Values(4, 2, 55, 17, -1));

TEST_F(MoveKey, ReportsTheRegistrysText) {
  expect({
      names_taken(),
      opened("a.src", kSource),
      opened("b.par", kParent),
      move_key(kSource, kParent, "new", 0).returns(55),
      reports_text("TKV-0055: key 'b.par.new' exists"),
      trace("moveKey: Failure in prtkv_move_key[55]\n"),
      close_key(kSource),
      close_key(kParent),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

TEST_F(MoveKey, ClosesWhateverHandleAFailedCallLeft) {
  expect({
      names_taken(),
      opened("a.src", kSource),
      opened("b.par", kParent),
      move_key(kSource, kParent, "new", 0).returns(55).gives(kMoved),
      reports(55),
      trace("moveKey: Failure in prtkv_move_key[55]\n"),
      close_key(kSource),
      close_key(kParent),
      close_key(kMoved),
      names_released(),
  });
  moveKey(string("a.src"), string("b.par"), string("new"), 0);
}

TEST_F(MoveKey, PassesNamesWithPercentSignsOn) {
  expect({
      takes("%s"),
      takes("%n"),
      takes("%d"),
      trace("moveKey: flags =0\n"),
      opened("%s", kSource),
      opened("%n", kParent),
      move_key(kSource, kParent, "%d", 0).gives(kMoved),
      status(true),
      close_key(kSource),
      close_key(kParent),
      close_key(kMoved),
      releases("%s"),
      releases("%n"),
      releases("%d"),
  });
  moveKey(string("%s"), string("%n"), string("%d"), 0);
}

}  // namespace
}  // namespace bridge_test
