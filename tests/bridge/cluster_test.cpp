/* isCluster. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

class IsCluster : public BridgeTest {};

Call configuration() { return {"clsugetconf", {program(kShortProgram), "0x0", "word 1"}}; }

TEST_F(IsCluster, IsTrueForAConfiguredCluster) {
  expect({
      short_program_manager(),
      configuration().word(4),
      end_short_program_manager(),
      is_debug_on(false),
      status(true),
      is_debug_on(false),
      boolean_result(true),
  });
  isCluster();
}

TEST_F(IsCluster, TracesTheAnswerWithTracingOn) {
  expect({
      short_program_manager(),
      configuration().word(4),
      end_short_program_manager(),
      is_debug_on(true),
      trace("JNI: clsugetconf retValue = 0"),
      status(true),
      is_debug_on(true),
      trace("Velmar Cluster is configured"),
      boolean_result(true),
  });
  isCluster();
}

// Each line is guarded by a question of its own.
TEST_F(IsCluster, AsksBeforeEachLine) {
  expect({
      short_program_manager(),
      configuration().word(4),
      end_short_program_manager(),
      is_debug_on(false),
      status(true),
      Call("prsrvut_isDebugOn", {}).returns(-1),
      trace("Velmar Cluster is configured"),
      boolean_result(true),
  });
  isCluster();
}

class IsClusterWithWord : public BridgeTest, public ::testing::WithParamInterface<int> {};

TEST_P(IsClusterWithWord, IsFalseForAnyOtherConfiguration) {
  expect({
      short_program_manager(),
      configuration().word(GetParam()),
      end_short_program_manager(),
      is_debug_on(true),
      trace("JNI: clsugetconf retValue = 0"),
      status(true),
      boolean_result(false),
  });
  isCluster();
}

INSTANTIATE_TEST_SUITE_P(Words, IsClusterWithWord, Values(0, 1, 2, 3, 5, 8, -4, 0x104));

TEST_F(IsCluster, IsFalseWhenTheServiceWritesNothing) {
  expect({
      short_program_manager(),
      configuration(),
      end_short_program_manager(),
      is_debug_on(false),
      status(true),
      boolean_result(false),
  });
  isCluster();
}

class IsClusterWithResult : public BridgeTest, public ::testing::WithParamInterface<int> {};

TEST_P(IsClusterWithResult, SendsOnlyATextWhenTheServiceFails) {
  expect({
      short_program_manager(),
      configuration().returns(GetParam()).word(4),
      end_short_program_manager(),
      is_debug_on(false),
      is_debug_on(false),
      new_string("JNI: clsugetconf failed"),
      result_string("JNI: clsugetconf failed"),
      deletes_reference("JNI: clsugetconf failed"),
  });
  isCluster();
}

TEST_P(IsClusterWithResult, TracesTheFailureWithTracingOn) {
  expect({
      short_program_manager(),
      configuration().returns(GetParam()),
      end_short_program_manager(),
      is_debug_on(true),
      trace("JNI: clsugetconf retValue = " + std::to_string(GetParam())),
      is_debug_on(true),
      trace("JNI: clsugetconf failed with error code = " + std::to_string(GetParam()) + "\n"),
      sends_text("JNI: clsugetconf failed"),
  });
  isCluster();
}

INSTANTIATE_TEST_SUITE_P(Results, IsClusterWithResult, Values(1, 41, -1));

TEST_F(IsCluster, DoesNotDependOnTheSession) {
  const Calls calls = {
      short_program_manager(), configuration().word(4), end_short_program_manager(), is_debug_on(false), status(true),
      is_debug_on(false),      boolean_result(true),
  };
  givenSession();
  expect(calls);
  isCluster();
  verify();
  givenHalfSession();
  expect(calls);
  isCluster();
  verify();
  givenEndedSession();
  expect(calls);
  isCluster();
}

}  // namespace
}  // namespace bridge_test
