/* keyExists and deleteKey. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

class KeyExists : public BridgeTest {};
class DeleteKey : public BridgeTest {};

Calls looked_up(const std::string& name, const Call& open, int rc) {
  return {
      takes(name),
      trace("keyExists: calling prtkv_open_key(" + name + ")\n"),
      open,
      trace("keyExists: prtkv_open_key retval = " + std::to_string(rc) + " \n"),
  };
}

TEST_F(KeyExists, IsTrueForAKeyThatCanBeOpened) {
  givenSession();
  expect({
      takes("a.b"),
      trace("keyExists: calling prtkv_open_key(a.b)\n"),
      open_key("a.b").gives(7),
      trace("keyExists: prtkv_open_key retval = 0 \n"),
      close_key(7),
      trace("keyExists: prtkv_close_key retval = 0 \n"),
      releases("a.b"),
      status(true),
  });
  EXPECT_EQ(keyExists(string("a.b")), JNI_TRUE);
}

TEST_F(KeyExists, IsFalseWithStatusTrueForAMissingKey) {
  givenSession();
  expect({looked_up("a", open_key("a").returns(4), 4), releases("a"), status(true)});
  EXPECT_EQ(keyExists(string("a")), JNI_FALSE);
}

TEST_F(KeyExists, ReportsAFailedOpen) {
  givenSession();
  expect({
      looked_up("%d.b", open_key("%d.b").returns(5), 5),
      trace("keyExists: Failure in opening the handle to the key [%d.b]\n"),
      releases("%d.b"),
      reports(5),
  });
  EXPECT_EQ(keyExists(string("%d.b")), JNI_FALSE);
}

TEST_F(KeyExists, ReportsTheRegistrysTextOfAFailedOpen) {
  givenSession();
  expect({
      looked_up("a", open_key("a").returns(-1), -1),
      trace("keyExists: Failure in opening the handle to the key [a]\n"),
      releases("a"),
      reports_text("TKV-0007: damaged"),
  });
  EXPECT_EQ(keyExists(string("a")), JNI_FALSE);
}

TEST_F(KeyExists, IsTrueWithAReportWhenTheCloseFails) {
  givenSession();
  expect({
      looked_up("a", open_key("a").gives(7), 0),
      close_key(7).returns(15),
      trace("keyExists: prtkv_close_key retval = 15 \n"),
      releases("a"),
      reports(15),
  });
  EXPECT_EQ(keyExists(string("a")), JNI_TRUE);
}

TEST_F(KeyExists, AsksTheRegistryWithoutANameWhenItsCharactersCannotBeHad) {
  givenSession();
  expect({
      takes("a"),
      Call("prsrvut_trace", {"\"keyExists: calling prtkv_open_key(" + kAny + ")\\n\""}),
      open_key("").with_argument(2, "null").returns(13),
      trace("keyExists: prtkv_open_key retval = 13 \n"),
      Call("prsrvut_trace", {"\"keyExists: Failure in opening the handle to the key [" + kAny + "]\\n\""}),
      reports(13),
  });
  EXPECT_EQ(keyExists(unobtainable("a")), JNI_FALSE);
}

TEST_F(KeyExists, AsksTheRegistryWithoutANameForANullName) {
  givenSession();
  expect({
      Call("prsrvut_trace", {"\"keyExists: calling prtkv_open_key(" + kAny + ")\\n\""}),
      open_key("").with_argument(2, "null").returns(13),
      trace("keyExists: prtkv_open_key retval = 13 \n"),
      Call("prsrvut_trace", {"\"keyExists: Failure in opening the handle to the key [" + kAny + "]\\n\""}),
      reports(13),
  });
  EXPECT_EQ(keyExists(nullptr), JNI_FALSE);
}

TEST_F(KeyExists, DoesNotUseTheWorkingKey) {
  givenWorkingKey();
  expect({
      looked_up("a", open_key("a").gives(7), 0),
      close_key(7),
      trace("keyExists: prtkv_close_key retval = 0 \n"),
      releases("a"),
      status(true),
  });
  EXPECT_EQ(keyExists(string("a")), JNI_TRUE);
  EXPECT_EQ(session().working_key, kWorkingKey);
}

// The value of `recurse` and the flag that the registry gets.
struct Recursion {
  int recurse;
  int traced;
  int flag;
};

class DeleteKeyWithRecursion : public BridgeTest, public ::testing::WithParamInterface<Recursion> {};

TEST_P(DeleteKeyWithRecursion, DeletesTheSubtreeOnlyForOne) {
  givenSession();
  const auto& [recurse, traced, flag] = GetParam();
  expect({
      takes("a.b"),
      open_key("a.b").gives(7),
      trace("deleteKey: prtkv_open_key retval = 0\n"),
      trace("deleteKey: recurse is " + std::to_string(traced) + "\n"),
      delete_key(7, flag),
      trace("deleteKey: prtkv_delete_key retval = 0\n"),
      status(true),
      releases("a.b"),
  });
  deleteKey(string("a.b"), static_cast<jboolean>(recurse));
}

INSTANTIATE_TEST_SUITE_P(Values, DeleteKeyWithRecursion,
                         Values(Recursion{0, 0, 0}, Recursion{1, 1, 1}, Recursion{2, 2, 0}, Recursion{3, 3, 0},
                                Recursion{128, 128, 0}, Recursion{255, 255, 0}));

TEST_F(DeleteKey, SucceedsForAMissingKey) {
  givenSession();
  expect({
      takes("a"),
      open_key("a").returns(4),
      trace("deleteKey: prtkv_open_key retval = 4\n"),
      trace("deleteKey: key [a] does not exist\n"),
      status(true),
      releases("a"),
  });
  deleteKey(string("a"), JNI_TRUE);
}

TEST_F(DeleteKey, ReportsAFailedOpen) {
  givenSession();
  expect({
      takes("a%n"),
      open_key("a%n").returns(5),
      trace("deleteKey: prtkv_open_key retval = 5\n"),
      reports(5),
      trace("deleteKey: Failure in getting handle to  the key [a%n]\n"),
      releases("a%n"),
  });
  deleteKey(string("a%n"), JNI_FALSE);
}

TEST_F(DeleteKey, ReportsAFailedDeletionAndClosesTheKey) {
  givenSession();
  expect({
      takes("a"),
      open_key("a").gives(7),
      trace("deleteKey: prtkv_open_key retval = 0\n"),
      trace("deleteKey: recurse is 0\n"),
      delete_key(7, 0).returns(6),
      trace("deleteKey: prtkv_delete_key retval = 6\n"),
      reports_text("TKV-0006: key 'a' has subkeys"),
      trace("deleteKey: Failure in deleting the  key [a]\n"),
      close_key(7),
      releases("a"),
  });
  deleteKey(string("a"), JNI_FALSE);
}

TEST_F(DeleteKey, IgnoresTheResultOfTheCloseAfterAFailedDeletion) {
  givenSession();
  expect({
      takes("a"),
      open_key("a").gives(7),
      trace("deleteKey: prtkv_open_key retval = 0\n"),
      trace("deleteKey: recurse is 1\n"),
      delete_key(7, 1).returns(2),
      trace("deleteKey: prtkv_delete_key retval = 2\n"),
      reports(2),
      trace("deleteKey: Failure in deleting the  key [a]\n"),
      close_key(7).returns(3),
      releases("a"),
  });
  deleteKey(string("a"), JNI_TRUE);
}

TEST_F(DeleteKey, AsksTheRegistryWithoutANameWhenItsCharactersCannotBeHad) {
  givenSession();
  expect({
      takes("a"),
      open_key("").with_argument(2, "null").returns(13),
      trace("deleteKey: prtkv_open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"deleteKey: Failure in getting handle to  the key [" + kAny + "]\\n\""}),
  });
  deleteKey(unobtainable("a"), JNI_TRUE);
}

TEST_F(DeleteKey, AsksTheRegistryWithoutANameForANullName) {
  givenSession();
  expect({
      open_key("").with_argument(2, "null").returns(13),
      trace("deleteKey: prtkv_open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"deleteKey: Failure in getting handle to  the key [" + kAny + "]\\n\""}),
  });
  deleteKey(nullptr, JNI_TRUE);
}

}  // namespace
}  // namespace bridge_test
