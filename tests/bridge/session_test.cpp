/* initializeTKVLevel and terminateTKV: what they call, what the session's record holds afterwards, and what stays when
 * an initialisation fails half-way.
 */
#include <cstring>
#include <limits>

#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

Call meta_init() { return {"scls_meta_ctx_init", {"scls context", "own buffer", "0x0"}}; }
Call user_query() {
  return {"scls_idq_get_user_name", {"scls context", "own buffer", "0x0", "session.user_name", "64", "64"}};
}
Call group_query() {
  return {"scls_idq_get_primary_privgrp_name", {"scls context", "own buffer", "0x0", "session.group_name", "64", "64"}};
}
Call init_registry(int level) { return {"prtkv_init_ext", {"out null", number(level), "own buffer", "1024", "0x0"}}; }
Call lx_start() { return {"lxlinit", {"null", "1", "error word"}}; }
Call lang_env() { return {"lxhLangEnv", {"session.lang_env_area", "0", "session.lx_handle_area"}}; }
Call lx_end(const std::string& handle = "session.lx_handle_area") { return {"lxlterm", {handle}}; }
Call end_registry(uint64_t ctx) { return {"prtkv_terminate", {context(ctx)}}; }

class InitializeTKVLevel : public BridgeTest {};
class InitializeTKVLevelWithLevel : public BridgeTest, public ::testing::WithParamInterface<jint> {};
class TerminateTKV : public BridgeTest {};

TEST_F(InitializeTKVLevel, OpensASession) {
  expect(initialisation(3));
  initializeTKVLevel(3);

  EXPECT_EQ(session().registry_ctx, kRegistry);
  EXPECT_EQ(session().working_key, 0u);
  EXPECT_EQ(session().debug_on, 0);
  EXPECT_EQ(session().mem_ctx, kProgram);
  EXPECT_EQ(session().scls_ctx, recording().block("scls context")->bytes.get());
  EXPECT_STREQ(session().user_name, kUser);
  EXPECT_STREQ(session().group_name, kGroup);
  EXPECT_EQ(session().lx_handle, static_cast<const void*>(session().lx_handle_area));
  EXPECT_EQ(session().lang_env, static_cast<const void*>(session().lang_env_area));
  EXPECT_EQ(session().charset_id, 873);
}

// Memory that held something before must not be taken for handles or names.
TEST_F(InitializeTKVLevel, ClearsTheRecordBeforeItIsUsed) {
  expect({
      program_manager(),
      allocates(888, "session"),
      Call("scls_meta_query_size", {"1"}).size(96),
      allocates(96, "scls context").gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel: NOT ENOUGH MEMORY"),
  });
  initializeTKVLevel(3);

  tkv_session cleared{};
  cleared.mem_ctx = kProgram;
  EXPECT_EQ(std::memcmp(&session(), &cleared, sizeof cleared), 0);
}

TEST_F(InitializeTKVLevel, SetsHandleAndEnvironmentBeforeTheyAreFilled) {
  const Calls calls = initialisation(3)
                          .with(Call("lxinitc", {"session.lx_handle_area", "lx global", "0", "0"}).then([] {
                            EXPECT_EQ(session().lx_handle, static_cast<const void*>(session().lx_handle_area));
                          }))
                          .with(lang_env().then([] {
                            EXPECT_EQ(session().lang_env, static_cast<const void*>(session().lang_env_area));
                          }));
  expect(calls);
  initializeTKVLevel(3);
}

TEST_F(InitializeTKVLevel, KeepsTheRegistryContextOnlyAtItsEnd) {
  expect(
      initialisation(3).with(Call("lxhcsn", {"session.lang_env_area", "session.lx_handle_area"}).returns(873).then([] {
        EXPECT_EQ(session().registry_ctx, 0u);
      })));
  initializeTKVLevel(3);
  EXPECT_EQ(session().registry_ctx, kRegistry);
}

TEST_P(InitializeTKVLevelWithLevel, PassesTheLevelUnchanged) {
  expect(initialisation(GetParam()));
  initializeTKVLevel(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Levels, InitializeTKVLevelWithLevel,
                         Values(0, 1, 5, -1, std::numeric_limits<jint>::max(), std::numeric_limits<jint>::min()));

TEST_F(InitializeTKVLevel, RecordsWhetherTracingWasOn) {
  expect(initialisation(0).with(Call("prsrvut_isDebugOn", {}).returns(7)));
  initializeTKVLevel(0);
  EXPECT_EQ(session().debug_on, 7);
}

TEST_F(InitializeTKVLevel, KeepsACharacterSetIdOfSixteenBits) {
  expect(initialisation(0, {.charset_id = 0xfffe}));
  initializeTKVLevel(0);
  EXPECT_EQ(static_cast<uint16_t>(session().charset_id), 0xfffe);
}

TEST_F(InitializeTKVLevel, TakesTheSizeOfTheIdentityContextAsThirtyTwoBits) {
  expect(initialisation(0).with(Call("scls_meta_query_size", {"1"}).size(0x100000060)));
  initializeTKVLevel(0);
}

TEST_F(InitializeTKVLevel, KeepsNamesThatFillTheirFields) {
  const std::string user(64, 'u');
  const std::string group(64, 'g');
  expect(initialisation(0, {.user = user, .group = group}));
  initializeTKVLevel(0);
  EXPECT_EQ(std::string(session().user_name, 64), user);
  EXPECT_EQ(std::string(session().group_name, 64), group);
}

TEST_F(InitializeTKVLevel, FailsWithoutMemoryForTheRecord) {
  expect({
      program_manager(),
      allocates(888, "session").gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel: NOT ENOUGH MEMORY"),
  });
  initializeTKVLevel(3);
}

TEST_F(InitializeTKVLevel, FailsWithoutAProgramManager) {
  expect({
      Call("lpminit", {"null"}).gives(0),
      allocates(888, "session").with_argument(0, "pm 0").gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel: NOT ENOUGH MEMORY"),
  });
  initializeTKVLevel(3);
}

TEST_F(InitializeTKVLevel, LeavesNoSessionWithoutMemoryForTheRecordAlsoWhenThereWasOne) {
  givenSession();
  expect({
      program_manager(),
      allocates(888, "second").gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel: NOT ENOUGH MEMORY"),
  });
  initializeTKVLevel(3);
  verify();

  expect({reports_without_context(1), trace("getKeyValue: NULL context PASSED")});
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

TEST_F(InitializeTKVLevel, FailsWithoutMemoryForTheIdentityContext) {
  expect({
      program_manager(),
      allocates(888, "session"),
      Call("scls_meta_query_size", {"1"}).size(96),
      allocates(96, "scls context").gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel: NOT ENOUGH MEMORY"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().mem_ctx, kProgram);
  EXPECT_EQ(session().scls_ctx, nullptr);
  EXPECT_EQ(session().registry_ctx, 0u);
}

TEST_F(InitializeTKVLevel, FailsWhenTheIdentityContextCannotBeInitialised) {
  expect({
      initialisation(3).before("scls_meta_ctx_init"),
      meta_init().returns(1),
      reports_without_context(0),
      trace("\n initializeTKVLevel:failed to initialize SCLS context"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().scls_ctx, recording().block("scls context")->bytes.get());
}

TEST_F(InitializeTKVLevel, FailsWithoutAUserName) {
  expect({
      initialisation(3).before("scls_idq_get_user_name"),
      user_query().returns(3),
      reports_without_context(0),
      trace("\n initializeTKVLevel:failed to initialize SCLS context"),
  });
  initializeTKVLevel(3);
}

TEST_F(InitializeTKVLevel, GoesOnWithoutAPrimaryGroup) {
  const Calls calls = initialisation(3);
  expect({
      calls.before("scls_idq_get_primary_privgrp_name"),
      group_query().returns(3),
      trace("\n initializeTKVLevel:OS does not support primary group"),
      is_debug_on(true),
      trace("\n initializeTKVLevel: NEW level = 3\n"),
      init_registry(3).gives(kRegistry),
      trace("\n initializeTKVLevel: NEW prtkv_init retval = 0\n"),
      lx_start(),
      Call("lxinitc", {"session.lx_handle_area", "lx global", "0", "0"}),
      lang_env(),
      Call("lxhcsn", {"session.lang_env_area", "session.lx_handle_area"}).returns(1),
      status(true),
  });
  initializeTKVLevel(3);
  EXPECT_STREQ(session().group_name, "");
  EXPECT_EQ(session().registry_ctx, kRegistry);
}

class InitializeTKVLevelWithGroupResult : public BridgeTest, public ::testing::WithParamInterface<int> {};

TEST_P(InitializeTKVLevelWithGroupResult, FailsOnAnyOtherGroupResult) {
  expect({
      initialisation(3).before("scls_idq_get_primary_privgrp_name"),
      group_query().returns(GetParam()),
      reports_without_context(0),
      trace("\n initializeTKVLevel:failed to initialize SCLS context"),
  });
  initializeTKVLevel(3);
}

INSTANTIATE_TEST_SUITE_P(Results, InitializeTKVLevelWithGroupResult, Values(1, 2, 4, -3));

TEST_F(InitializeTKVLevel, SendsCodeAndTextOfTheRegistryThatCannotBeOpenedAndNoStatus) {
  expect({
      initialisation(3).before("prtkv_init_ext"),
      init_registry(3).returns(7).says("TKV-0007: 100% broken"),
      trace("\n initializeTKVLevel: NEW prtkv_init retval = 7\n"),
      error_code(7),
      sends_text("TKV-0007: 100% broken"),
      trace("\n initializeTKVLevel::prtkv_init failed\n"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().registry_ctx, 0u);
  EXPECT_EQ(session().lx_handle, nullptr);
}

TEST_F(InitializeTKVLevel, SendsAnEmptyTextWhenTheRegistryGaveNone) {
  expect({
      initialisation(3).before("prtkv_init_ext"),
      init_registry(3).returns(-5),
      trace("\n initializeTKVLevel: NEW prtkv_init retval = -5\n"),
      error_code(-5),
      sends_text(""),
      trace("\n initializeTKVLevel::prtkv_init failed\n"),
  });
  initializeTKVLevel(3);
}

TEST_F(InitializeTKVLevel, DoesNotKeepTheRegistryContextWhenTheOpeningFailed) {
  expect({
      initialisation(3).before("prtkv_init_ext"),
      init_registry(3).returns(7).gives(kRegistry).says("broken"),
      trace("\n initializeTKVLevel: NEW prtkv_init retval = 7\n"),
      error_code(7),
      sends_text("broken"),
      trace("\n initializeTKVLevel::prtkv_init failed\n"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().registry_ctx, 0u);
}

TEST_F(InitializeTKVLevel, FailsWithoutCharacterSetServices) {
  expect({
      initialisation(3).before("lxlinit"),
      lx_start().gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel::lxlinit failed\n"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().registry_ctx, 0u) << "the registry context is not kept";
  EXPECT_EQ(session().lx_handle, nullptr);
}

TEST_F(InitializeTKVLevel, DoesNotTestTheResultOfTheHandlesInitialisation) {
  expect(initialisation(3).with(Call("lxinitc", {"session.lx_handle_area", "lx global", "0", "0"}).gives_null()));
  initializeTKVLevel(3);
  EXPECT_EQ(session().lx_handle, static_cast<const void*>(session().lx_handle_area));
}

TEST_F(InitializeTKVLevel, ReleasesTheHandleWhenThereIsNoLanguageEnvironment) {
  expect({
      initialisation(3).before("lxhLangEnv"),
      lang_env().gives_null(),
      lx_end(),
      reports_without_context(0),
      trace("\n initializeTKVLevel::lxhcurrlangid failed\n"),
  });
  initializeTKVLevel(3);
  EXPECT_EQ(session().lx_handle, nullptr);
  EXPECT_EQ(session().lang_env, nullptr);
  EXPECT_EQ(session().registry_ctx, 0u) << "the registry context is not kept";
}

TEST_F(InitializeTKVLevel, MakesOperationsReportThatThereIsNoRegistryContextAfterItFailed) {
  expect({
      initialisation(3).before("lxlinit"),
      lx_start().gives_null(),
      reports_without_context(0),
      trace("\n initializeTKVLevel::lxlinit failed\n"),
  });
  initializeTKVLevel(3);
  verify();

  expect({reports_without_context(0), trace("keyExists: NULL context")});
  EXPECT_EQ(keyExists(string("a")), JNI_FALSE);
  verify();

  expect({reports_without_context(1), trace("getKeyValue: NULL context PASSED")});
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

TEST_F(InitializeTKVLevel, ReplacesAnOpenSessionWithoutClosingIt) {
  givenWorkingKey();
  expect(initialisation(4));
  initializeTKVLevel(4);

  EXPECT_THAT(recording().blocksTaken(), ::testing::ElementsAre("session", "scls context", "session", "scls context"));
  EXPECT_EQ(session().working_key, 0u) << "the new record starts without a working key";
}

TEST_F(InitializeTKVLevel, ReportsWithoutTheFormerSessionsContextWhenASecondOneFails) {
  givenSession();
  givenHalfSession();
  expect({reports_without_context(0), trace("keyExists: NULL context")});
  EXPECT_EQ(keyExists(string("a")), JNI_FALSE);
}

TEST_F(InitializeTKVLevel, OpensANewSessionAfterOneWasEnded) {
  givenEndedSession();
  expect(initialisation(5));
  initializeTKVLevel(5);
  EXPECT_EQ(session().registry_ctx, kRegistry);
}

TEST_F(TerminateTKV, ClosesTheRegistryTheCharacterSetServicesAndTheRecord) {
  givenSession();
  expect({
      end_registry(kRegistry),
      lx_end(),
      frees("session"),
      status(true),
  });
  terminateTKV();
  EXPECT_THAT(recording().blocksTaken(), ::testing::ElementsAre("scls context"));
}

TEST_F(TerminateTKV, SucceedsWhateverTheRegistryAnswers) {
  givenSession();
  expect({
      end_registry(kRegistry).returns(7),
      lx_end(),
      frees("session"),
      status(true),
  });
  terminateTKV();
}

TEST_F(TerminateTKV, DoesNotCloseTheWorkingKey) {
  givenWorkingKey();
  expect({
      end_registry(kRegistry),
      lx_end(),
      frees("session"),
      status(true),
  });
  terminateTKV();
}

TEST_F(TerminateTKV, EndsAHalfInitialisedSession) {
  givenHalfSession();
  expect({end_registry(0), frees("session"), status(true)});
  terminateTKV();
}

TEST_F(TerminateTKV, DoesNotEndTheCharacterSetServicesTwice) {
  expect({
      initialisation(3).before("lxhLangEnv"),
      lang_env().gives_null(),
      lx_end(),
      reports_without_context(0),
      trace("\n initializeTKVLevel::lxhcurrlangid failed\n"),
  });
  initializeTKVLevel(3);
  verify();

  expect({end_registry(0), frees("session"), status(true)});
  terminateTKV();
}

// The ended record reads as zeros, so a second end goes through its steps with null handles.
TEST_F(TerminateTKV, EndsAnEndedSessionWithNullHandles) {
  givenEndedSession();
  expect({end_registry(0), Call("prou_freem", {program(0), "session"}), status(true)});
  terminateTKV();
}

TEST_F(TerminateTKV, SucceedsWithoutASession) {
  terminateTKV();
  ASSERT_FALSE(recording().lines().empty());
  EXPECT_EQ(recording().lines().back(), status(true).line());
  recording().forgetLines();
}

}  // namespace
}  // namespace bridge_test
