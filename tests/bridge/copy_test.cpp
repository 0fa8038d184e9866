/* copyRecurse and its walk: the order of the work, what each failure leaves open, and the reports that end true. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;
using namespace std::string_literals;

// The handles of the top keys, of the walk's keys, and of a child and its copy.
constexpr uint64_t kSource = 11;
constexpr uint64_t kDestination = 12;
constexpr uint64_t kWalkSource = 21;
constexpr uint64_t kWalkDestination = 22;
constexpr uint64_t kChild = 31;
constexpr uint64_t kCopy = 32;
constexpr uint64_t kInnerSource = 41;
constexpr uint64_t kInnerDestination = 42;

sec_attr top_record() { return owned(0x3f, 0x31, 0x2, "root", "wheel"); }
sec_attr session_groups_record() { return owned(0x3f, 0x34, 0x3, "bob", "staff"); }
sec_attr other_groups_record() { return owned(0x3e, 0x34, 0x1, "bob", "wheel"); }
sec_attr other_groups_first_step() { return owned(0x3e, 0x34, 0x1, "ada", "staff"); }

std::string ended(const std::string& text) { return text + std::string(1, '\0'); }

// A read of up to 2048 bytes; the type word holds nothing in particular before it.
Call read_value(uint64_t key, const std::string& value, int type = 3) {
  return get_value(key, 2048).with_argument(2, "word " + kAny).says(value).word(type);
}

Call create_copy(const std::string& name, int type, const sec_attr& record, const std::string& value,
                 uint64_t parent = kWalkDestination) {
  return create_n_set_key(name, type, record, value, parent).with_argument(4, "word " + kAny);
}

Calls top_opened(const std::string& name, uint64_t handle) {
  return {
      takes(name),
      trace("copyRecurse: calling prtkv_open_key(" + name + ")\n"),
      open_key(name).gives(handle),
      trace("copyRecurse: prtkv_open_key retval = 0 \n"),
  };
}

Calls top_value_copied() {
  return {
      read_value(kSource, ended("val")),
      trace("copyRecurse: The value for the key srckey= src val= val dtype = 3\n"),
      set_value(kDestination, 3, ended("val")),
      trace("copyRecurse: successfully set the value for the dest  key: dst = val val_size = 4, retval = 0"),
  };
}

// Everything before the walk.
Calls top_copied() {
  return {
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      top_value_copied(),
      get_security(kSource).record(top_record()),
  };
}

Calls top_secured(int type = 1, const sec_attr& record = top_record(), int rc = 0) {
  return {
      trace("recurse_fill_sec_attr: secType = " + std::to_string(type)),
      set_security(kDestination, record).returns(rc),
      trace("copyRecurse: prtkv_set_key_security for key [dst], rc=" + std::to_string(rc) + "\n"),
  };
}

Calls top_closed() { return {close_key(kSource), close_key(kDestination), releases("src"), releases("dst")}; }

// After a walk that failed.
Calls top_failed() { return {reports(0), trace("copyRecurse: Failure in copying"), top_closed(), status(true)}; }

Calls walk_opened(const std::string& source = "src", const std::string& destination = "dst",
                  uint64_t source_handle = kWalkSource, uint64_t destination_handle = kWalkDestination) {
  return {
      open_key(source).gives(source_handle),
      open_key(destination).gives(destination_handle),
      trace("\nprsrvtkv_copy_recurse: srckeyname = " + source),
  };
}

Calls walk_closed() { return {close_key(kWalkSource), close_key(kWalkDestination)}; }

Calls first_child(const std::string& name, int remaining, const std::string& source = "src",
                  uint64_t handle = kWalkSource) {
  return {
      enum_subkey(handle, -1).says(name).word(remaining),
      trace("\nprsrvtkv_copy_recurse: srckeyname = " + source + " out_subkey = " + name +
            ", total_remaining_subkey = " + std::to_string(remaining)),
  };
}

// A level without children.
Calls leaf(const std::string& source, const std::string& destination, uint64_t source_handle,
           uint64_t destination_handle) {
  return {
      walk_opened(source, destination, source_handle, destination_handle),
      enum_subkey(source_handle, -1).returns(16),
      status(true),
      close_key(source_handle),
      close_key(destination_handle),
  };
}

Call name_trace(const std::string& name) { return trace("prsrvtkv_copy_recurse: SUBKEY NAME = " + name); }

Calls value_traces(const std::string& source, const std::string& value, const std::string& child) {
  return {
      trace("\n prsrvtkv_copy_recurse:value of the src key " + source + " is " + value),
      trace("\n prsrvtkv_copy_recurse:trying to create and set new key " + child),
  };
}

Call recursion_trace() { return trace("\n prsrvtkv_copy_recurse: Making recursive CALL"); }

// The pass over the child "c" of the session's group, up to the recursive call.
Calls child_copied() {
  return {
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src.c", "x", "c"),
      create_copy("c", 3, session_groups_record(), ended("x")).gives(kCopy),
      recursion_trace(),
  };
}

Call no_more_children() { return enum_subkey(kWalkSource, 0).returns(16); }

Calls walk_ended(uint64_t copy = kCopy) {
  return {
      walk_closed(),
      close_key(copy),
      trace("\n prsrvtkv_copy_recurse: Closed handles..returning srckey = src"),
  };
}

class CopyRecurse : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
  void copy(int type = 1) { copyRecurse(string("src"), string("dst"), type); }
};

// Written out without the shorthands above.
TEST_F(CopyRecurse, CopiesValueAndSecurityOfASourceWithoutChildren) {
  expect({
      takes("src"),
      trace("copyRecurse: calling prtkv_open_key(src)\n"),
      open_key("src").gives(kSource),
      trace("copyRecurse: prtkv_open_key retval = 0 \n"),
      takes("dst"),
      trace("copyRecurse: calling prtkv_open_key(dst)\n"),
      open_key("dst").gives(kDestination),
      trace("copyRecurse: prtkv_open_key retval = 0 \n"),
      get_value(kSource, 2048).with_argument(2, "word " + kAny).says("val\0"s).word(3),
      trace("copyRecurse: The value for the key srckey= src val= val dtype = 3\n"),
      set_value(kDestination, 3, "val\0"s),
      trace("copyRecurse: successfully set the value for the dest  key: dst = val val_size = 4, retval = 0"),
      get_security(kSource).record(top_record()),
      open_key("src").gives(kWalkSource),
      open_key("dst").gives(kWalkDestination),
      trace("\nprsrvtkv_copy_recurse: srckeyname = src"),
      enum_subkey(kWalkSource, -1).returns(16),
      status(true),
      close_key(kWalkSource),
      close_key(kWalkDestination),
      trace("recurse_fill_sec_attr: secType = 1"),
      set_security(kDestination, top_record()),
      trace("copyRecurse: prtkv_set_key_security for key [dst], rc=0\n"),
      close_key(kSource),
      close_key(kDestination),
      releases("src"),
      releases("dst"),
      status(true),
  });
  copyRecurse(string("src"), string("dst"), 1);
}

// The security of the top key.

struct TopSecurity {
  int type;
  sec_attr record;
};

class CopyRecurseWithType : public CopyRecurse, public ::testing::WithParamInterface<TopSecurity> {};

TEST_P(CopyRecurseWithType, AdjustsTheTopKeysRecordOnly) {
  const auto& [type, record] = GetParam();
  expect({
      top_copied(),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(type, record),
      top_closed(),
      status(true),
  });
  copy(type);
}

INSTANTIATE_TEST_SUITE_P(Types, CopyRecurseWithType,
                         Values(TopSecurity{1, top_record()}, TopSecurity{2, owned(0x3f, 0x31, 0x2, "ada", "wheel")},
                                TopSecurity{3, owned(0x3f, 0x31, 0x2, "ada", "staff")},
                                TopSecurity{4, owned(0x3f, 0x31, 0x2, "ada", "staff")}, TopSecurity{5, top_record()},
                                TopSecurity{6, top_record()}, TopSecurity{0, top_record()},
                                TopSecurity{-1, top_record()}, TopSecurity{99, top_record()}));

TEST_F(CopyRecurse, ClearsTheNamesOfTheTopRecordWhole) {
  const sec_attr read = owned(0x3f, 0x31, 0x3f, std::string(64, 'u'), std::string(64, 'g'));
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      top_value_copied(),
      get_security(kSource).record(read),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(3, owned(0x3f, 0x31, 0x3f, "ada", "staff")),
      top_closed(),
      status(true),
  });
  copy(3);
}

TEST_F(CopyRecurse, LeavesTheStatusOfTheWalkWhenTheTopsSecurityCannotBeSet) {
  expect({
      top_copied(),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(1, top_record(), 2),
      top_closed(),
  });
  copy();
}

TEST_F(CopyRecurse, IgnoresTheResultsOfTheTopsCloses) {
  expect({
      top_copied(),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(),
      close_key(kSource).returns(3),
      close_key(kDestination).returns(15),
      releases("src"),
      releases("dst"),
      status(true),
  });
  copy();
}

// The top key's value.

TEST_F(CopyRecurse, CopiesAValueThatFillsTheBuffer) {
  const std::string value(2048, 'v');
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, value, 9),
      trace("copyRecurse: The value for the key srckey= src val= " + value + " dtype = 9\n"),
      set_value(kDestination, 9, value),
      trace("copyRecurse: successfully set the value for the dest  key: dst = " + value +
            " val_size = 2048, retval = 0"),
      get_security(kSource).record(top_record()),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
}

TEST_F(CopyRecurse, CopiesAValueWithNulsWhole) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, "a\0%s\0\0"s, 5),
      trace("copyRecurse: The value for the key srckey= src val= a dtype = 5\n"),
      set_value(kDestination, 5, "a\0%s\0\0"s),
      trace("copyRecurse: successfully set the value for the dest  key: dst = a val_size = 6, retval = 0"),
      get_security(kSource).record(top_record()),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
}

TEST_F(CopyRecurse, CopiesThatThereIsNoValue) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, "", 0),
      trace("copyRecurse: The value for the key srckey= src val=  dtype = 0\n"),
      set_value(kDestination, 0, ""),
      trace("copyRecurse: successfully set the value for the dest  key: dst =  val_size = 0, retval = 0"),
      get_security(kSource).record(top_record()),
      leaf("src", "dst", kWalkSource, kWalkDestination),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
}

// Failures before the walk.

class CopyRecurseWithResult : public CopyRecurse, public ::testing::WithParamInterface<int> {
 public:
  int rc() const { return GetParam(); }
  std::string rc_text() const { return std::to_string(GetParam()); }
};

TEST_P(CopyRecurseWithResult, ReportsASourceThatCannotBeOpened) {
  expect({
      takes("src"),
      trace("copyRecurse: calling prtkv_open_key(src)\n"),
      open_key("src").returns(rc()),
      trace("copyRecurse: prtkv_open_key retval = " + rc_text() + " \n"),
      reports(rc()),
      trace("copyRecurse: Failure in opening the handle to the key [src]\n"),
      releases("src"),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsADestinationThatCannotBeOpened) {
  expect({
      top_opened("src", kSource),
      takes("dst"),
      trace("copyRecurse: calling prtkv_open_key(dst)\n"),
      open_key("dst").returns(rc()),
      trace("copyRecurse: prtkv_open_key retval = " + rc_text() + " \n"),
      reports(rc()),
      trace("copyRecurse: Failure in opening the handle to the key [dst]\n"),
      close_key(kSource),
      releases("src"),
      releases("dst"),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAValueThatCannotBeRead) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, "").returns(rc()).size(5000),
      reports(rc()),
      top_closed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAValueThatCannotBeWritten) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, ended("val")),
      trace("copyRecurse: The value for the key srckey= src val= val dtype = 3\n"),
      set_value(kDestination, 3, ended("val")).returns(rc()),
      reports(rc()),
      top_closed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsSecurityThatCannotBeRead) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      top_value_copied(),
      get_security(kSource).returns(rc()),
      reports(rc()),
      top_closed(),
  });
  copy();
}

TEST_F(CopyRecurse, ReportsTheRegistrysText) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      read_value(kSource, "").returns(9).size(4096),
      reports_text("TKV-0009: buffer too small"),
      top_closed(),
  });
  copy();
}

TEST_F(CopyRecurse, ClosesAHandleThatAFailedOpenLeft) {
  expect({
      takes("src"),
      trace("copyRecurse: calling prtkv_open_key(src)\n"),
      open_key("src").returns(4).gives(kSource),
      trace("copyRecurse: prtkv_open_key retval = 4 \n"),
      reports(4),
      trace("copyRecurse: Failure in opening the handle to the key [src]\n"),
      close_key(kSource),
      releases("src"),
  });
  copy();
}

TEST_F(CopyRecurse, FailsWithoutTheSourcesCharacters) {
  expect({takes("src"), reports(0), trace("copyRecurse:NULL source key")});
  copyRecurse(unobtainable("src"), string("dst"), 1);
}

TEST_F(CopyRecurse, FailsForANullSource) {
  expect({reports(0), trace("copyRecurse:NULL source key")});
  copyRecurse(nullptr, string("dst"), 1);
}

// A destination without characters is reported and ends with status true.
TEST_F(CopyRecurse, EndsWithStatusTrueWithoutTheDestinationsCharacters) {
  expect({
      top_opened("src", kSource),
      takes("dst"),
      reports(0),
      trace("copyRecurse:NULL destkey"),
      close_key(kSource),
      releases("src"),
      status(true),
  });
  copyRecurse(string("src"), unobtainable("dst"), 1);
}

TEST_F(CopyRecurse, EndsWithStatusTrueForANullDestination) {
  expect({
      top_opened("src", kSource),
      reports_text("last"),
      trace("copyRecurse:NULL destkey"),
      close_key(kSource),
      releases("src"),
      status(true),
  });
  copyRecurse(string("src"), nullptr, 1);
}

// The walk. Handles that it leaves open are part of what it does: the next pass overwrites those of the one before.

TEST_F(CopyRecurse, CopiesAChildOfTheSessionsGroupInOneStep) {
  expect({
      top_copied(),
      walk_opened(),
      enum_subkey(kWalkSource, -1).says("c").word(0),
      trace("\nprsrvtkv_copy_recurse: srckeyname = src out_subkey = c, total_remaining_subkey = 0"),
      trace("prsrvtkv_copy_recurse: SUBKEY NAME = src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, "a\0b\0\0"s, 5),
      trace("\n prsrvtkv_copy_recurse:value of the src key src.c is a"),
      trace("\n prsrvtkv_copy_recurse:trying to create and set new key c"),
      create_copy("c", 5, session_groups_record(), "a\0b\0\0"s).gives(kCopy),
      trace("\n prsrvtkv_copy_recurse: Making recursive CALL"),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      enum_subkey(kWalkSource, 0).returns(16),
      close_key(kWalkSource),
      close_key(kWalkDestination),
      close_key(kCopy),
      trace("\n prsrvtkv_copy_recurse: Closed handles..returning srckey = src"),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild});
}

TEST_F(CopyRecurse, CopiesAChildOfAnotherGroupInTwoSteps) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(other_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src.c", "x", "c"),
      create_copy("c", 3, other_groups_first_step(), ended("x")).gives(kCopy),
      set_security(kCopy, other_groups_record()),
      trace("prsrvtkv_copy_recurse: prtkv_set_key_security for key [c], rc=0\n"),
      recursion_trace(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      no_more_children(),
      walk_ended(),
      top_secured(3, owned(0x3f, 0x31, 0x2, "ada", "staff")),
      top_closed(),
      status(true),
  });
  copy(3);
  leavesOpen({kChild});
}

TEST_F(CopyRecurse, CopiesEveryChildAndClosesTheLastCopyOnly) {
  const auto child = [](const std::string& name, uint64_t source, uint64_t former_source, uint64_t copy,
                        uint64_t former_copy, const std::string& value) -> Calls {
    return {
        name_trace("src." + name),
        open_key("src." + name).with_argument(1, out(former_source)).gives(source),
        get_security(source).record(session_groups_record()),
        read_value(source, value),
        value_traces("src." + name, value, name),
        create_copy(name, 3, session_groups_record(), value).with_argument(3, out(former_copy)).gives(copy),
        recursion_trace(),
        leaf("src." + name, "dst." + name, source + 100, copy + 100),
    };
  };
  expect({
      top_copied(),
      walk_opened(),
      first_child("long-name", 2),
      child("long-name", 51, 0, 61, 0, "a long value"),
      enum_subkey(kWalkSource, 0).says("b").word(7),
      child("b", 52, 51, 62, 61, "b"),
      enum_subkey(kWalkSource, 7).says("c").word(0),
      child("c", 53, 52, 63, 62, ""),
      no_more_children(),
      walk_ended(63),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({51, 61, 52, 62, 53});
}

// The first answer says how many children there are: what the registry has beyond that is not copied.
TEST_F(CopyRecurse, StopsAfterTheAnnouncedNumberOfChildren) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      child_copied(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      enum_subkey(kWalkSource, 0).says("new").word(5),
      walk_ended(),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild});
}

TEST_F(CopyRecurse, EndsWhenThereAreFewerChildrenThanAnnounced) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 5),
      child_copied(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      no_more_children(),
      walk_ended(),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild});
}

TEST_F(CopyRecurse, GoesDepthFirst) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      child_copied(),
      walk_opened("src.c", "dst.c", kInnerSource, kInnerDestination),
      first_child("d", 0, "src.c", kInnerSource),
      name_trace("src.c.d"),
      open_key("src.c.d").gives(71),
      get_security(71).record(other_groups_record()),
      read_value(71, "deep", 9),
      value_traces("src.c.d", "deep", "d"),
      create_copy("d", 9, other_groups_first_step(), "deep", kInnerDestination).gives(72),
      set_security(72, other_groups_record()),
      trace("prsrvtkv_copy_recurse: prtkv_set_key_security for key [d], rc=0\n"),
      recursion_trace(),
      leaf("src.c.d", "dst.c.d", 81, 82),
      enum_subkey(kInnerSource, 0).returns(16),
      close_key(kInnerSource),
      close_key(kInnerDestination),
      close_key(72),
      trace("\n prsrvtkv_copy_recurse: Closed handles..returning srckey = src.c"),
      no_more_children(),
      walk_ended(),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild, 71});
}

class CopyRecurseWithCount : public CopyRecurse, public ::testing::WithParamInterface<int> {};

TEST_P(CopyRecurseWithCount, EndsTheWalkAsDoneAndLeavesItsHandlesOpenForANegativeCount) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", GetParam()),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kWalkSource, kWalkDestination});
}

INSTANTIATE_TEST_SUITE_P(Counts, CopyRecurseWithCount, Values(-1, -2, -2147483647 - 1));

// Failures of the walk.

TEST_P(CopyRecurseWithResult, ReportsASourceThatTheWalkCannotOpen) {
  expect({
      top_copied(),
      open_key("src").returns(rc()),
      reports(rc()),
      trace("prsrvtkv_copy_recurse: source key does not exist"),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsADestinationThatTheWalkCannotOpen) {
  expect({
      top_copied(),
      open_key("src").gives(kWalkSource),
      open_key("dst").returns(rc()),
      reports(rc()),
      trace("prsrvtkv_copy_recurse: dest key does not exist"),
      close_key(kWalkSource),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAFailedFirstEnumeration) {
  expect({
      top_copied(),
      walk_opened(),
      enum_subkey(kWalkSource, -1).returns(rc()),
      reports(rc()),
      trace("prsrvtkv_copy_recurse:prtkv_enum_subkey, retval=" + rc_text()),
      walk_closed(),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAChildThatCannotBeOpened) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c%s", 0),
      name_trace("src.c%s"),
      open_key("src.c%s").returns(rc()),
      reports(rc()),
      trace("prsrvtkv_copy_recurse: : i = 0 c%s " + rc_text()),
      walk_closed(),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAChildOfWhichTheSecurityCannotBeRead) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).returns(rc()),
      reports(rc()),
      close_key(kChild),
      walk_closed(),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsAChildOfWhichTheValueCannotBeRead) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, "").returns(rc()).size(3000),
      reports(rc()),
      close_key(kChild),
      walk_closed(),
      top_failed(),
  });
  copy();
}

TEST_P(CopyRecurseWithResult, ReportsACopyThatCannotBeCreatedAndLeavesTheChildOpen) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src.c", "x", "c"),
      create_copy("c", 3, session_groups_record(), ended("x")).returns(rc()),
      reports(rc()),
      trace("\n prsrvtkv_copy_recurse:failed to create  and set new key c " + rc_text()),
      walk_closed(),
      top_failed(),
  });
  copy();
  leavesOpen({kChild});
}

TEST_P(CopyRecurseWithResult, ReportsACopyThatCannotBeCreatedForAnotherGroup) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(other_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src.c", "x", "c"),
      create_copy("c", 3, other_groups_first_step(), ended("x")).returns(rc()),
      reports(rc()),
      trace("\n prsrvtkv_copy_recurse:failed to create  and set new key c " + rc_text()),
      walk_closed(),
      top_failed(),
  });
  copy();
  leavesOpen({kChild});
}

TEST_P(CopyRecurseWithResult, ReportsACopyOfWhichTheSecurityCannotBeSet) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c%s", 0),
      name_trace("src.c%s"),
      open_key("src.c%s").gives(kChild),
      get_security(kChild).record(other_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src.c%s", "x", "c%s"),
      create_copy("c%s", 3, other_groups_first_step(), ended("x")).gives(kCopy),
      set_security(kCopy, other_groups_record()).returns(rc()),
      trace("prsrvtkv_copy_recurse: prtkv_set_key_security for key [c%s], rc=" + rc_text() + "\n"),
      reports(rc()),
      trace("prsrvtkv_copy_recurse: prtkv_set_key_security failed for key [c%s]\n"),
      close_key(kCopy),
      close_key(kWalkDestination),
      close_key(kWalkSource),
      top_failed(),
  });
  copy();
  leavesOpen({kChild});
}

TEST_P(CopyRecurseWithResult, ReportsAFailedLaterEnumeration) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 1),
      child_copied(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      enum_subkey(kWalkSource, 0).returns(rc()),
      reports(rc()),
      trace("\n prsrvtkv_copy_recurse:ERROR in enum call " + rc_text()),
      walk_closed(),
      close_key(kCopy),
      top_failed(),
  });
  copy();
  leavesOpen({kChild});
}

// A failed subtree ends the level above it at once, with its handles left open.
TEST_P(CopyRecurseWithResult, ReportsAFailedSubtreeOnEveryLevelAndClosesNothingOfThem) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 1),
      child_copied(),
      walk_opened("src.c", "dst.c", kInnerSource, kInnerDestination),
      first_child("d", 0, "src.c", kInnerSource),
      name_trace("src.c.d"),
      open_key("src.c.d").gives(71),
      get_security(71).record(session_groups_record()),
      read_value(71, ended("y")),
      value_traces("src.c.d", "y", "d"),
      create_copy("d", 3, session_groups_record(), ended("y"), kInnerDestination).gives(72),
      recursion_trace(),
      open_key("src.c.d").returns(rc()),
      reports(rc()),
      trace("prsrvtkv_copy_recurse: source key does not exist"),
      reports(0),
      reports(0),
      top_failed(),
  });
  copy();
  leavesOpen({kWalkSource, kWalkDestination, kChild, kCopy, kInnerSource, kInnerDestination, 71, 72});
}

INSTANTIATE_TEST_SUITE_P(Results, CopyRecurseWithResult, Values(2, 4, 9, 15, -1));

TEST_F(CopyRecurse, CountsTheChildrenInTheTraceOfOneThatCannotBeOpened) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 1),
      child_copied(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      enum_subkey(kWalkSource, 0).says("d").word(0),
      name_trace("src.d"),
      open_key("src.d").with_argument(1, out(kChild)).returns(4).gives(0),
      reports_text("TKV-0004: no such key"),
      trace("prsrvtkv_copy_recurse: : i = 1 d 4"),
      walk_closed(),
      top_failed(),
  });
  copy();
  leavesOpen({kChild, kCopy});
}

// The copy of the pass before stays open as well: only the handles that the failure's own line names are closed.
TEST_F(CopyRecurse, LeavesTheFormerCopyOpenWhenALaterChildFails) {
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 1),
      child_copied(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      enum_subkey(kWalkSource, 0).says("d").word(0),
      name_trace("src.d"),
      open_key("src.d").with_argument(1, out(kChild)).gives(51),
      get_security(51).record(session_groups_record()),
      read_value(51, ended("y")),
      value_traces("src.d", "y", "d"),
      create_copy("d", 3, session_groups_record(), ended("y")).with_argument(3, out(kCopy)).returns(55),
      reports(55),
      trace("\n prsrvtkv_copy_recurse:failed to create  and set new key d 55"),
      walk_closed(),
      top_failed(),
  });
  copy();
  leavesOpen({kChild, kCopy, 51});
}

// Names.

class CopyRecurseNames : public CopyRecurse {
 public:
  // The top of a copy between these names, up to the walk's first enumeration.
  Calls reached(const std::string& source, const std::string& destination) {
    return {
        top_opened(source, kSource),
        top_opened(destination, kDestination),
        read_value(kSource, ""),
        trace("copyRecurse: The value for the key srckey= " + source + " val=  dtype = 3\n"),
        set_value(kDestination, 3, ""),
        trace("copyRecurse: successfully set the value for the dest  key: " + destination +
              " =  val_size = 0, retval = 0"),
        get_security(kSource).record(top_record()),
        walk_opened(source, destination),
    };
  }
  Calls closed(const std::string& source, const std::string& destination) {
    return {close_key(kSource), close_key(kDestination), releases(source), releases(destination)};
  }
  Calls failed(const std::string& source, const std::string& destination) {
    return {reports(0), trace("copyRecurse: Failure in copying"), closed(source, destination), status(true)};
  }
};

struct Lengths {
  size_t source;
  size_t child;
};

class CopyRecurseTooLong : public CopyRecurseNames, public ::testing::WithParamInterface<Lengths> {};

TEST_P(CopyRecurseTooLong, StopsAtAnOverLongName) {
  const std::string source(GetParam().source, 's');
  const std::string child(GetParam().child, 'c');
  expect({
      reached(source, "dst"),
      first_child(child, 0, source),
      reports(0),
      trace("\n prsrvtkv_copy_recurse: SUBKEY NAME TOO BIG"),
      walk_closed(),
      failed(source, "dst"),
  });
  copyRecurse(string(source), string("dst"), 1);
}

INSTANTIATE_TEST_SUITE_P(Lengths, CopyRecurseTooLong,
                         Values(Lengths{264, 1}, Lengths{1, 264}, Lengths{132, 133}, Lengths{265, 1}, Lengths{500, 1},
                                Lengths{1023, 264}));

class CopyRecurseAtTheLimit : public CopyRecurseNames, public ::testing::WithParamInterface<Lengths> {};

// The test leaves the "." and the NUL out: at 264 the joined name has 265 characters.
TEST_P(CopyRecurseAtTheLimit, CopiesANameOf264) {
  const std::string source(GetParam().source, 's');
  const std::string child(GetParam().child, 'c');
  const std::string joined = source + "." + child;
  expect({
      reached(source, "dst"),
      first_child(child, 0, source),
      name_trace(joined),
      open_key(joined).gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, ended("x")),
      value_traces(joined, "x", child),
      create_copy(child, 3, session_groups_record(), ended("x")).gives(kCopy),
      recursion_trace(),
      leaf(joined, "dst." + child, kInnerSource, kInnerDestination),
      no_more_children(),
      walk_closed(),
      close_key(kCopy),
      trace("\n prsrvtkv_copy_recurse: Closed handles..returning srckey = " + source),
      top_secured(),
      closed(source, "dst"),
      status(true),
  });
  copyRecurse(string(source), string("dst"), 1);
  leavesOpen({kChild});
}

INSTANTIATE_TEST_SUITE_P(Lengths, CopyRecurseAtTheLimit,
                         Values(Lengths{263, 1}, Lengths{1, 263}, Lengths{132, 132}, Lengths{0, 264}));

class CopyRecurseLongDestination : public CopyRecurseNames, public ::testing::WithParamInterface<Lengths> {};

// Names of the destination are not tested: the registry judges them.
TEST_P(CopyRecurseLongDestination, GoesToAnyNameThatTheRegistryAccepts) {
  const std::string destination(GetParam().source, 'd');
  const std::string child(GetParam().child, 'c');
  expect({
      reached("src", destination),
      first_child(child, 0),
      name_trace("src." + child),
      open_key("src." + child).gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src." + child, "x", child),
      create_copy(child, 3, session_groups_record(), ended("x")).gives(kCopy),
      recursion_trace(),
      leaf("src." + child, destination + "." + child, kInnerSource, kInnerDestination),
      no_more_children(),
      walk_ended(),
      top_secured(1).with(trace("recurse_fill_sec_attr: secType = 1")).before("prtkv_set_key_security"),
      set_security(kDestination, top_record()),
      trace("copyRecurse: prtkv_set_key_security for key [" + destination + "], rc=0\n"),
      closed("src", destination),
      status(true),
  });
  copyRecurse(string("src"), string(destination), 1);
  leavesOpen({kChild});
}

INSTANTIATE_TEST_SUITE_P(Lengths, CopyRecurseLongDestination,
                         Values(Lengths{263, 1}, Lengths{300, 200}, Lengths{1021, 1}, Lengths{760, 261}));

// A name beyond the registry's longest is not accepted, so all that matters is that nothing is overrun.
TEST_F(CopyRecurseNames, SurviveADestinationBeyondTheRegistrysLongestName) {
  const std::string destination(1023, 'd');
  const std::string child(261, 'c');
  expect({
      reached("src", destination),
      first_child(child, 0),
      name_trace("src." + child),
      open_key("src." + child).gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, ended("x")),
      value_traces("src." + child, "x", child),
      create_copy(child, 3, session_groups_record(), ended("x")).gives(kCopy),
      recursion_trace(),
      open_key("src." + child).gives(kInnerSource),
      open_key("").with_argument(2, kAny).returns(5),
      reports(5),
      trace("prsrvtkv_copy_recurse: dest key does not exist"),
      close_key(kInnerSource),
      reports(0),
      failed("src", destination),
  });
  copyRecurse(string("src"), string(destination), 1);
  leavesOpen({kWalkSource, kWalkDestination, kChild, kCopy});
}

TEST_F(CopyRecurse, CopiesAChildsValueThatFillsTheBuffer) {
  const std::string value(2048, 'v');
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(session_groups_record()),
      read_value(kChild, value),
      value_traces("src.c", value, "c"),
      create_copy("c", 3, session_groups_record(), value).gives(kCopy),
      recursion_trace(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      no_more_children(),
      walk_ended(),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild});
}

// A group whose name fills its field differs from the session's, and is copied whole.
TEST_F(CopyRecurse, CopiesNamesThatFillTheirFields) {
  const sec_attr record = owned(1, 2, 3, std::string(64, 'u'), "staff" + std::string(59, 'x'));
  expect({
      top_copied(),
      walk_opened(),
      first_child("c", 0),
      name_trace("src.c"),
      open_key("src.c").gives(kChild),
      get_security(kChild).record(record),
      read_value(kChild, ended("x")),
      value_traces("src.c", "x", "c"),
      create_copy("c", 3, owned(1, 2, 3, "ada", "staff"), ended("x")).gives(kCopy),
      set_security(kCopy, record),
      trace("prsrvtkv_copy_recurse: prtkv_set_key_security for key [c], rc=0\n"),
      recursion_trace(),
      leaf("src.c", "dst.c", kInnerSource, kInnerDestination),
      no_more_children(),
      walk_ended(),
      top_secured(),
      top_closed(),
      status(true),
  });
  copy();
  leavesOpen({kChild});
}

// The walk looks at the session anew: one that was ended in the middle of a copy is reported, not used.
TEST_F(CopyRecurse, ReportsASessionThatEndedBeforeTheWalk) {
  expect({
      top_opened("src", kSource),
      top_opened("dst", kDestination),
      top_value_copied(),
      get_security(kSource).record(top_record()).then([] {
        recording().free(kProgram, recording().block("session")->bytes.get());
      }),
      reports_without_context(0),
      trace("prsrvtkv_copy_recurse: NULL context passed"),
      reports_without_context(0),
      trace("copyRecurse: Failure in copying"),
      top_closed(),
      status(true),
  });
  copy();
}

}  // namespace
}  // namespace bridge_test
