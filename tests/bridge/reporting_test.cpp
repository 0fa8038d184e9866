/* What reaches the result object: status, code, text, and in which order, for any method. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

class Report : public BridgeTest {
 protected:
  // A failing operation of the registry, with the given report.
  void expectFailedClose(const Calls& report) {
    expect({
        close_key(kWorkingKey).returns(15),
        trace("closeKey: prtkv_close_key retval = 15\n"),
        report,
        trace("closeKey: prtkv_close_key failed for TKV root key\n"),
    });
  }
};

TEST_F(Report, DeliversTheRegistrysTextAndNoCode) {
  givenWorkingKey();
  expectFailedClose({
      status(false),
      last_error().says("TKV-0015: unreachable").word(15),
      new_string("TKV-0015: unreachable"),
      result_string("TKV-0015: unreachable"),
      deletes_reference("TKV-0015: unreachable"),
  });
  closeKey();
}

TEST_F(Report, DeliversTheCodeWhenTheRegistryHasNoText) {
  givenWorkingKey();
  expectFailedClose({status(false), last_error().returns(4).says("unused").word(3), error_code(15)});
  closeKey();
}

TEST_F(Report, PassesATextWithPercentSignsOnUnchanged) {
  givenWorkingKey();
  expectFailedClose(reports_text("100%s full %n"));
  closeKey();
}

TEST_F(Report, PassesTheLongestTextOn) {
  givenWorkingKey();
  expectFailedClose(reports_text(std::string(1023, 't')));
  closeKey();
}

TEST_F(Report, PassesAnEmptyTextOn) {
  givenWorkingKey();
  expectFailedClose(reports_text(""));
  closeKey();
}

TEST_F(Report, GoesOnWhenTheTextsStringCannotBeMade) {
  givenWorkingKey();
  expectFailedClose({
      status(false),
      last_error().says("text"),
      new_string("text").gives_null(),
      result_string("").with_argument(2, "null"),
  });
  closeKey();
}

TEST_F(Report, GoesOnWhenTheCallbacksFail) {
  givenWorkingKey();
  expectFailedClose({
      status(false).returns(-1),
      last_error().says("text"),
      new_string("text"),
      result_string("text").returns(-1),
      deletes_reference("text"),
  });
  closeKey();
}

TEST_F(Report, AsksTheRegistryForItsTextAlsoForTheBridgesOwnCodes) {
  givenWorkingKey();
  expect({
      takes("a"),
      reports_text("TKV-0012: out of memory"),
      trace("getUserName: KEY PASSED is NULL"),
  });
  EXPECT_EQ(getUserName(unobtainable("a")), nullptr);
}

TEST_F(Report, GoesToANullResultObjectAsToAnyOther) {
  givenWorkingKey();
  result_object = nullptr;
  expect({
      close_key(kWorkingKey).returns(15),
      Call("prsrvut_trace", {"on null", quote("closeKey: prtkv_close_key retval = 15\n")}),
      Call("prsrvut_setStatus", {"on null", "0"}),
      last_error().returns(14),
      Call("prsrvut_callMethod", {"on null", quote("setTKVErrCode"), quote("(I)V"), "15"}),
      Call("prsrvut_trace", {"on null", quote("closeKey: prtkv_close_key failed for TKV root key\n")}),
  });
  closeKey();
}

}  // namespace
}  // namespace bridge_test
