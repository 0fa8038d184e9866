/* openKey and closeKey. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

class OpenKey : public BridgeTest {};
class CloseKey : public BridgeTest {};

Calls opened(const std::string& name, uint64_t handle) {
  return {takes(name), open_key(name).gives(handle), trace("openKey: prtkv_open_key retval = 0\n"), status(true)};
}

TEST_F(OpenKey, MakesTheOpenedKeyTheWorkingKeyAndKeepsItsName) {
  givenSession();
  expect({
      takes("a.b"),
      open_key("a.b").gives(7),
      trace("openKey: prtkv_open_key retval = 0\n"),
      status(true),
  });
  openKey(string("a.b"));
  EXPECT_EQ(session().working_key, 7u);
  keepsCharacters({"a.b"});
  leavesOpen({7});
}

TEST_F(OpenKey, OpensTheRoot) {
  givenSession();
  expect(opened("", 7));
  openKey(string(""));
  EXPECT_EQ(session().working_key, 7u);
  keepsCharacters({""});
  leavesOpen({7});
}

TEST_F(OpenKey, KeepsTheFormerWorkingKeyWhenTheOpenFails) {
  givenWorkingKey();
  expect({
      takes("a.%s"),
      open_key("a.%s").returns(4),
      trace("openKey: prtkv_open_key retval = 4\n"),
      reports(4),
      trace("openKey: prtkv_open_key failed for TKV key a.%s\n"),
  });
  openKey(string("a.%s"));
  EXPECT_EQ(session().working_key, kWorkingKey);
  keepsCharacters({"a.%s"});
}

TEST_F(OpenKey, KeepsTheFormerWorkingKeyAlsoWhenTheFailedOpenWroteAHandle) {
  givenWorkingKey();
  expect({
      takes("a"),
      open_key("a").returns(15).gives(9),
      trace("openKey: prtkv_open_key retval = 15\n"),
      reports_text("TKV-0015: registry unreachable"),
      trace("openKey: prtkv_open_key failed for TKV key a\n"),
  });
  openKey(string("a"));
  EXPECT_EQ(session().working_key, kWorkingKey);
  keepsCharacters({"a"});
}

TEST_F(OpenKey, ReplacesTheFormerWorkingKeyWithoutClosingIt) {
  givenSession();
  expect({opened("a", 7), opened("b", 8)});
  openKey(string("a"));
  openKey(string("b"));
  EXPECT_EQ(session().working_key, 8u);
  keepsCharacters({"a", "b"});
  leavesOpen({7, 8});
}

TEST_F(OpenKey, GoesOnWithoutCharacters) {
  givenWorkingKey();
  expect({
      takes("a"),
      open_key("").with_argument(2, "null").returns(13),
      trace("openKey: prtkv_open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"openKey: prtkv_open_key failed for TKV key " + kAny + "\\n\""}),
  });
  openKey(unobtainable("a"));
  EXPECT_EQ(session().working_key, kWorkingKey);
}

TEST_F(OpenKey, TakesNoCharactersOfANullName) {
  givenWorkingKey();
  expect({
      open_key("").with_argument(2, "null").returns(13),
      trace("openKey: prtkv_open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"openKey: prtkv_open_key failed for TKV key " + kAny + "\\n\""}),
  });
  openKey(nullptr);
  EXPECT_EQ(session().working_key, kWorkingKey);
}

class OpenKeyWithoutContext : public BridgeTest, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    BridgeTest::SetUp();
    if (GetParam() == 1) givenHalfSession();
    if (GetParam() == 2) givenEndedSession();
  }
};

// The registry decides what a null context is worth: the bridge hands it on.
TEST_P(OpenKeyWithoutContext, HandsTheNullContextToTheRegistry) {
  expect({
      takes("a"),
      open_key("a").without_context().returns(3),
      trace("openKey: prtkv_open_key retval = 3\n"),
      reports_without_context(3),
      trace("openKey: prtkv_open_key failed for TKV key a\n"),
  });
  openKey(string("a"));
  keepsCharacters({"a"});
}

// A registry that opens keys on a null context gets the key of a half session back, which has a record to keep it in.
TEST_F(OpenKey, KeepsAKeyThatTheRegistryOpensInAHalfInitialisedSession) {
  givenHalfSession();
  expect({
      takes("a"),
      open_key("a").without_context().gives(7),
      trace("openKey: prtkv_open_key retval = 0\n"),
      status(true),
      close_key(7).without_context(),
      trace("closeKey: prtkv_close_key retval = 0\n"),
      status(true),
  });
  openKey(string("a"));
  EXPECT_EQ(session().working_key, 7u);
  closeKey();
  keepsCharacters({"a"});
}

// The freed record is the memory context's: it may be read, not written.
TEST_F(OpenKey, LeavesTheRecordOfAnEndedSessionAlone) {
  givenEndedSession();
  expect({
      takes("a"),
      open_key("a").without_context().gives(7),
      trace("openKey: prtkv_open_key retval = 0\n"),
      status(true),
  });
  openKey(string("a"));
  EXPECT_EQ(session().working_key, 0u);
  keepsCharacters({"a"});
  leavesOpen({7});
}

// A site's program manager may count its memory contexts from zero; the registry context shows that the session is
// open.
TEST_F(OpenKey, KeepsTheKeyOfASessionWhoseMemoryContextIsZero) {
  givenSession();
  const_cast<tkv_session&>(session()).mem_ctx = 0;
  expect(opened("a", 7));
  openKey(string("a"));
  EXPECT_EQ(session().working_key, 7u);
  keepsCharacters({"a"});
  leavesOpen({7});
}

// There is no record to keep the key in.
TEST_F(OpenKey, SurvivesARegistryThatOpensAKeyWithoutASession) {
  expect({
      takes("a"),
      open_key("a").without_context().gives(7),
      trace("openKey: prtkv_open_key retval = 0\n"),
      status(true),
  });
  openKey(string("a"));
  keepsCharacters({"a"});
  leavesOpen({7});
}

INSTANTIATE_TEST_SUITE_P(NoneHalfEnded, OpenKeyWithoutContext, Values(0, 1, 2));

TEST_F(CloseKey, ClosesTheWorkingKeyAndKeepsTheClosedHandle) {
  givenWorkingKey();
  expect({
      close_key(kWorkingKey),
      trace("closeKey: prtkv_close_key retval = 0\n"),
      status(true),
  });
  closeKey();
  EXPECT_EQ(session().working_key, kWorkingKey);
}

TEST_F(CloseKey, SucceedsWithoutAWorkingKey) {
  givenSession();
  expect({status(true)});
  closeKey();
}

TEST_F(CloseKey, SucceedsWithoutASession) {
  expect({status(true)});
  closeKey();
}

TEST_F(CloseKey, SucceedsInAHalfInitialisedSession) {
  givenHalfSession();
  expect({status(true)});
  closeKey();
}

TEST_F(CloseKey, SucceedsInAnEndedSession) {
  givenEndedSession();
  expect({status(true)});
  closeKey();
}

TEST_F(CloseKey, ReportsAFailedCloseAndKeepsTheHandle) {
  givenWorkingKey();
  expect({
      close_key(kWorkingKey).returns(15),
      trace("closeKey: prtkv_close_key retval = 15\n"),
      reports(15),
      trace("closeKey: prtkv_close_key failed for TKV root key\n"),
  });
  closeKey();
  EXPECT_EQ(session().working_key, kWorkingKey);
}

TEST_F(CloseKey, ClosesTheSameHandleAgainAndReportsWhatTheRegistryAnswers) {
  givenWorkingKey();
  expect({
      close_key(kWorkingKey),
      trace("closeKey: prtkv_close_key retval = 0\n"),
      status(true),
      close_key(kWorkingKey).returns(3),
      trace("closeKey: prtkv_close_key retval = 3\n"),
      reports_text("TKV-0003: invalid handle"),
      trace("closeKey: prtkv_close_key failed for TKV root key\n"),
  });
  closeKey();
  closeKey();
}

TEST_F(CloseKey, ClosesTheKeyOfTheNextOpen) {
  givenWorkingKey();
  expect({
      close_key(kWorkingKey),
      trace("closeKey: prtkv_close_key retval = 0\n"),
      status(true),
      opened("a", 7),
      close_key(7),
      trace("closeKey: prtkv_close_key retval = 0\n"),
      status(true),
  });
  closeKey();
  openKey(string("a"));
  closeKey();
  keepsCharacters({"a"});
}

}  // namespace
}  // namespace bridge_test
