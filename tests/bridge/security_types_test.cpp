/* The security resolution: what record a security type, a parent key, a user and a group make. Seen through createKey,
 * which hands the record to the registry: in the session's group as it is, else in its second step.
 */
#include <cstring>
#include <limits>

#include "bridge_test.h"
#include "security_calls.h"

namespace bridge_test {
namespace {

using ::testing::Values;

constexpr uint64_t kNew = 7;
constexpr uint64_t kParent = 8;

class SecurityTypes : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey();
  }

  // The resolution succeeds with this record.
  void expectResolved(const Calls& resolution, const sec_attr& record) {
    const bool same_group = std::string(record.group_name, strnlen(record.group_name, TKV_NAME_SIZE)) == group_;
    expect({
        trace("createKey: inside native function for createkey\n"),
        takes("new"),
        trace("createKey: prtkv_create_key([new], 0)\n"),
        resolution,
        create_key("new", same_group ? record : first_step(record, user_, group_)).gives(kNew),
        trace("createKey: prtkv_create_key retval = 0\n"),
        when(!same_group,
             {set_security(kNew, record), trace("createKey: prtkv_set_key_security for key [new], rc=0\n")}),
        close_key(kNew),
        trace("createKey: prtkv_close_key retval = 0\n"),
        status(true),
        releases("new"),
    });
  }

  // The resolution fails with this result.
  void expectFailed(const Calls& resolution, int result) {
    expect({
        trace("createKey: inside native function for createkey\n"),
        takes("new"),
        trace("createKey: prtkv_create_key([new], 0)\n"),
        resolution,
        reports(0),
        trace("failed to fill sec attr retval=" + std::to_string(result)),
    });
    keepsCharacters({"new"});
  }

  void create(int type, jstring parent, jstring user, jstring group) {
    createKey(string("new"), type, parent, user, group);
  }

  std::string user_ = kUser;
  std::string group_ = kGroup;
};

std::string type_text(int type) { return "fill_sec_attr: secType = " + std::to_string(type); }

// Type 1.

TEST_F(SecurityTypes, Type1TakesOwnerAndGroupFromTheArguments) {
  expectResolved({fill_trace(1), user_given(1, "bob"), group_given(1, "wheel")},
                 owned(0x3f, 0x34, 0x3, "bob", "wheel"));
  create(1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SecurityTypes, Type1LeavesTheGroupEmptyWithoutOne) {
  expectResolved({fill_trace(1), user_given(1, "bob"), no_group_given()}, owned(0x3f, 0x34, 0x3, "bob", ""));
  create(1, nullptr, string("bob"), nullptr);
}

TEST_F(SecurityTypes, Type1DoesNotLookAtTheParent) {
  expectResolved({fill_trace(1), user_given(1, "bob"), no_group_given()}, owned(0x3f, 0x34, 0x3, "bob", ""));
  create(1, unobtainable("p"), string("bob"), nullptr);
}

TEST_F(SecurityTypes, Type1FailsWithoutAUser) {
  expectFailed({fill_trace(1), reports(0), trace("fill_sec_attr: velmar user name found was null")}, 4);
  create(1, nullptr, nullptr, string("wheel"));
}

TEST_F(SecurityTypes, Type1FailsWithAnEmptyUser) {
  expectFailed(
      {
          fill_trace(1),
          native_string("", ""),
          trace("fill_sec_attr: native user name= rc=0"),
          reports(0),
          trace("fill_sec_attr: velmar user name found was null"),
      },
      4);
  create(1, nullptr, string(""), string("wheel"));
}

// Type 2.

Calls inherits(const std::string& parent, const sec_attr& record) {
  return {
      fill_trace(2),
      takes(parent),
      trace(type_text(2) + ", parent_keyname = [" + parent + "]"),
      open_key(parent).gives(kParent),
      get_security(kParent).record(record),
  };
}

Calls given_back(const std::string& parent) { return {close_key(kParent), releases(parent)}; }

TEST_F(SecurityTypes, Type2InheritsTheParentsMasksAndGroup) {
  expectResolved({inherits("%s.p", owned(0x31, 0x12, 0x3e, "root", "wheel")), no_group_given(), given_back("%s.p")},
                 owned(0x31, 0x12, 0x3e, "ada", "wheel"));
  create(2, string("%s.p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2LimitsAParentsRightsOfEverybody) {
  expectResolved({inherits("p", owned(0x3f, 0x3f, 0x3f, "root", "staff")), no_group_given(), given_back("p")},
                 owned(0x3f, 0x3f, 0x3, "ada", "staff"));
  create(2, string("p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2KeepsRightsThatOnlyLookLikeEverybodys) {
  expectResolved({inherits("p", owned(0x3f, 0x3f, 0x7f, "root", "staff")), no_group_given(), given_back("p")},
                 owned(0x3f, 0x3f, 0x7f, "ada", "staff"));
  create(2, string("p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2ClearsTheParentsOwnerWhole) {
  expectResolved({inherits("p", owned(1, 2, 3, std::string(64, 'x'), "wheel")), no_group_given(), given_back("p")},
                 owned(1, 2, 3, "ada", "wheel"));
  create(2, string("p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2PrefersTheArguments) {
  expectResolved({inherits("p", owned(1, 2, 0x3f, "root", std::string(64, 'w'))), user_given(2, "bob"),
                  group_given(2, "dev"), given_back("p")},
                 owned(1, 2, 3, "bob", "dev"));
  create(2, string("p"), string("bob"), string("dev"));
}

TEST_F(SecurityTypes, Type2IgnoresTheResultOfTheParentsClose) {
  expectResolved(
      {inherits("p", owned(1, 2, 3, "root", "wheel")), no_group_given(), close_key(kParent).returns(3), releases("p")},
      owned(1, 2, 3, "ada", "wheel"));
  create(2, string("p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2FailsWhenTheParentCannotBeOpened) {
  expectFailed(
      {
          fill_trace(2),
          takes("%s"),
          trace(type_text(2) + ", parent_keyname = [%s]"),
          open_key("%s").returns(4),
          reports(4),
          trace("fill_sec_attr: could not open key=[%s], rc=[4]"),
          releases("%s"),
      },
      2);
  create(2, string("%s"), string("bob"), string("dev"));
}

TEST_F(SecurityTypes, Type2ClosesAHandleThatTheFailedOpenLeft) {
  expectFailed(
      {
          fill_trace(2),
          takes("p"),
          trace(type_text(2) + ", parent_keyname = [p]"),
          open_key("p").returns(4).gives(kParent),
          reports_text("TKV-0004: key 'p' does not exist"),
          trace("fill_sec_attr: could not open key=[p], rc=[4]"),
          given_back("p"),
      },
      2);
  create(2, string("p"), nullptr, nullptr);
}

TEST_F(SecurityTypes, Type2FailsWhenTheParentsSecurityCannotBeRead) {
  expectFailed(
      {
          fill_trace(2),
          takes("p"),
          trace(type_text(2) + ", parent_keyname = [p]"),
          open_key("p").gives(kParent),
          get_security(kParent).returns(2).record(owned(1, 2, 3, "root", "wheel")),
          reports(2),
          trace("fill_sec_attr: could not get security, retval=2"),
          given_back("p"),
      },
      2);
  create(2, string("p"), string("bob"), string("dev"));
}

TEST_F(SecurityTypes, Type2GivesTheParentBackWhenANameCannotBeConverted) {
  expectFailed({inherits("p", owned(1, 2, 3, "root", "wheel")), native_string("bob", "").returns(-7),
                trace("fill_sec_attr: native user name= rc=-7"), reports(0), given_back("p")},
               0);
  create(2, string("p"), string("bob"), nullptr);
}

// Groups are compared as texts: what lies behind the end of a name does not count.
TEST_F(SecurityTypes, Type2ComparesTheParentsGroupOnlyUpToItsEnd) {
  sec_attr parent = owned(1, 2, 3, "root", "staff");
  std::memcpy(parent.group_name + 6, "rest", 4);
  sec_attr record = parent;
  std::memset(record.user_name, 0, TKV_NAME_SIZE);
  std::memcpy(record.user_name, "ada", 3);
  expectResolved({inherits("p", parent), no_group_given(), given_back("p")}, record);
  create(2, string("p"), nullptr, nullptr);
}

// Types 3, 4 and 6.

class SecurityTypesOfTheSession : public SecurityTypes, public ::testing::WithParamInterface<int> {};

TEST_P(SecurityTypesOfTheSession, GiveTheSessionsUserAndGroup) {
  expectResolved({fill_trace(GetParam()), takes("no.such.key"), no_group_given(), releases("no.such.key")},
                 owned(0x3f, 0x3f, 0x3, "ada", "staff"));
  create(GetParam(), string("no.such.key"), nullptr, nullptr);
}

TEST_P(SecurityTypesOfTheSession, PreferTheArguments) {
  expectResolved({fill_trace(GetParam()), takes("p"), user_given(GetParam(), "bob"), group_given(GetParam(), "dev"),
                  releases("p")},
                 owned(0x3f, 0x3f, 0x3, "bob", "dev"));
  create(GetParam(), string("p"), string("bob"), string("dev"));
}

TEST_P(SecurityTypesOfTheSession, KeepTheNamesWhenTheArgumentsAreEmpty) {
  expectResolved(
      {
          fill_trace(GetParam()),
          takes(""),
          native_string("", ""),
          trace("fill_sec_attr: native user name= rc=0"),
          native_string("", ""),
          trace("fill_sec_attr: native group name= rc=0"),
          no_group_given(),
          releases(""),
      },
      owned(0x3f, 0x3f, 0x3, "ada", "staff"));
  create(GetParam(), string(""), string(""), string(""));
}

INSTANTIATE_TEST_SUITE_P(Types, SecurityTypesOfTheSession, Values(3, 4, 6));

class SecurityTypesWithParent : public SecurityTypes, public ::testing::WithParamInterface<int> {};

TEST_P(SecurityTypesWithParent, FailAtOnceForANullParent) {
  expectFailed({fill_trace(GetParam()), reports(0), trace("fill_sec_attr: parent key name null")}, 4);
  create(GetParam(), nullptr, string("bob"), string("dev"));
}

TEST_P(SecurityTypesWithParent, FailAtOnceWithoutTheParentsCharacters) {
  expectFailed({fill_trace(GetParam()), takes("p"), reports(0), trace("fill_sec_attr: parent key name null")}, 4);
  create(GetParam(), unobtainable("p"), string("bob"), string("dev"));
}

INSTANTIATE_TEST_SUITE_P(Types, SecurityTypesWithParent, Values(2, 3, 4, 6));

// Type 5.

TEST_F(SecurityTypes, Type5GivesEverybodyEverything) {
  expectResolved({fill_trace(5), no_group_given()}, owned(0x3f, 0x3f, 0x3f, "", ""));
  create(5, nullptr, nullptr, nullptr);
}

TEST_F(SecurityTypes, Type5TakesTheArguments) {
  expectResolved({fill_trace(5), user_given(5, "bob"), group_given(5, "staff")},
                 owned(0x3f, 0x3f, 0x3f, "bob", "staff"));
  create(5, string("p"), string("bob"), string("staff"));
}

// Other types.

class UnknownSecurityType : public SecurityTypes, public ::testing::WithParamInterface<int> {};

TEST_P(UnknownSecurityType, IsNotReportedByTheResolution) {
  expectFailed(fill_trace(GetParam()), 6);
  create(GetParam(), string("p"), string("bob"), string("dev"));
}

INSTANTIATE_TEST_SUITE_P(Types, UnknownSecurityType,
                         Values(0, 7, -1, 100, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()));

// Names.

TEST_F(SecurityTypes, TracesTheNativeFormOfTheNames) {
  expectResolved(
      {
          fill_trace(5),
          native_string("b\xc3\xb6"
                        "b",
                        "b\xf6"
                        "b")
              .returns(1),
          trace("fill_sec_attr: native user name=b\xf6"
                "b rc=1"),
          trace("fill_sec_attr: secType = 5, velmar_user = [b\xf6"
                "b]"),
          native_string("%s", "%n"),
          trace("fill_sec_attr: native group name=%n rc=0"),
          trace("fill_sec_attr: secType = 5, group_name = [%n]"),
      },
      owned(0x3f, 0x3f, 0x3f,
            "b\xf6"
            "b",
            "%n"));
  create(5, nullptr,
         string("b\xc3\xb6"
                "b"),
         string("%s"));
}

TEST_F(SecurityTypes, AcceptNamesOfOneCharacter) {
  expectResolved({fill_trace(1), user_given(1, "u"), group_given(1, "g")}, owned(0x3f, 0x34, 0x3, "u", "g"));
  create(1, nullptr, string("u"), string("g"));
}

TEST_F(SecurityTypes, AcceptAUserOfLength64) {
  const std::string user(63, 'u');
  expectResolved({fill_trace(5), user_given(5, user), no_group_given()}, owned(0x3f, 0x3f, 0x3f, user, ""));
  create(5, nullptr, string(user), nullptr);
}

TEST_F(SecurityTypes, AcceptAGroupOfLength64) {
  const std::string group(63, 'g');
  expectResolved({fill_trace(5), group_given(5, group)}, owned(0x3f, 0x3f, 0x3f, "", group));
  create(5, nullptr, nullptr, string(group));
}

// A library that does not count the NUL fills the whole field with a name of length 64.
TEST_F(SecurityTypes, AcceptNamesThatFillTheirFieldsWithoutAnEnd) {
  const std::string user(64, 'u');
  const std::string group(64, 'g');
  expectResolved(
      {
          fill_trace(3),
          takes("p"),
          native_string(user, user).size(64),
          trace("fill_sec_attr: native user name=" + user + " rc=0"),
          trace("fill_sec_attr: secType = 3, velmar_user = [" + user + "]"),
          native_string(group, group).size(64),
          trace("fill_sec_attr: native group name=" + group + " rc=0"),
          trace("fill_sec_attr: secType = 3, group_name = [" + group + "]"),
          releases("p"),
      },
      owned(0x3f, 0x3f, 0x3, user, group));
  create(3, string("p"), string(user), string(group));
}

TEST_F(SecurityTypes, RefuseAUserLongerThan64) {
  expectFailed(
      {
          fill_trace(3),
          takes("p"),
          native_string("long", std::string(63, 'u')).returns(1).size(65),
          trace("fill_sec_attr: native user name=" + std::string(63, 'u') + " rc=1"),
          trace("fill_sec_attr: secType = 3, velmar_user = [" + std::string(63, 'u') + "]"),
          reports(0),
          releases("p"),
      },
      5);
  create(3, string("p"), string("long"), string("dev"));
}

TEST_F(SecurityTypes, RefuseAGroupLongerThan64) {
  expectFailed(
      {
          fill_trace(3),
          takes("p"),
          user_given(3, "bob"),
          native_string("long", std::string(63, 'g')).size(65),
          trace("fill_sec_attr: native group name=" + std::string(63, 'g') + " rc=0"),
          trace("fill_sec_attr: secType = 3, group_name = [" + std::string(63, 'g') + "]"),
          reports(0),
          releases("p"),
      },
      5);
  create(3, string("p"), string("bob"), string("long"));
}

// The length is what the conversion gives back, not what is in the buffer.
TEST_F(SecurityTypes, RefuseAShortNameOfWhichTheConversionGivesALongLength) {
  expectFailed(
      {
          fill_trace(5),
          native_string("bob", "bob").size(1000),
          trace("fill_sec_attr: native user name=bob rc=0"),
          trace("fill_sec_attr: secType = 5, velmar_user = [bob]"),
          reports(0),
      },
      5);
  create(5, nullptr, string("bob"), nullptr);
}

TEST_F(SecurityTypes, DoNotTakeTheUsersLengthForTheGroups) {
  expectResolved(
      {
          fill_trace(5),
          native_string("bob", "bob").size(10),
          trace("fill_sec_attr: native user name=bob rc=0"),
          trace("fill_sec_attr: secType = 5, velmar_user = [bob]"),
          native_string("dev", "dev"),
          trace("fill_sec_attr: native group name=dev rc=0"),
          trace("fill_sec_attr: secType = 5, group_name = [dev]"),
      },
      owned(0x3f, 0x3f, 0x3f, "bob", "dev"));
  create(5, nullptr, string("bob"), string("dev"));
}

TEST_F(SecurityTypes, FailWhenTheGroupCannotBeConverted) {
  expectFailed(
      {
          fill_trace(4),
          takes("p"),
          user_given(4, "bob"),
          native_string("dev", "d").returns(-1),
          trace("fill_sec_attr: native group name=d rc=-1"),
          reports(0),
          releases("p"),
      },
      0);
  create(4, string("p"), string("bob"), string("dev"));
}

TEST_F(SecurityTypes, FailWhenTheUserCannotBeConverted) {
  expectFailed(
      {
          fill_trace(6),
          takes("p"),
          native_string("bob", "b").returns(-1),
          trace("fill_sec_attr: native user name=b rc=-1"),
          reports(0),
          releases("p"),
      },
      0);
  create(6, string("p"), string("bob"), string("dev"));
}

TEST_F(SecurityTypes, LeaveTheSessionAsItWas) {
  const tkv_session before = session();
  expectResolved(
      {inherits("p", owned(1, 2, 3, "root", "wheel")), user_given(2, "bob"), group_given(2, "dev"), given_back("p")},
      owned(1, 2, 3, "bob", "dev"));
  create(2, string("p"), string("bob"), string("dev"));
  EXPECT_EQ(std::memcmp(&before, &session(), sizeof before), 0);
}

// Names of 64 bytes in the session.

class SessionNamesWithoutEnd : public SecurityTypes {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    user_ = std::string(64, 'U');
    group_ = std::string(64, 'G');
    givenWorkingKey({.user = user_, .group = group_});
  }
};

TEST_F(SessionNamesWithoutEnd, AreCopiedAndComparedWithinTheirFields) {
  expectResolved({fill_trace(3), takes("p"), no_group_given(), releases("p")}, owned(0x3f, 0x3f, 0x3, user_, group_));
  create(3, string("p"), nullptr, nullptr);
}

TEST_F(SessionNamesWithoutEnd, DifferFromGroupsThatBeginAlike) {
  expectResolved({fill_trace(5), group_given(5, std::string(63, 'G'))},
                 owned(0x3f, 0x3f, 0x3f, "", std::string(63, 'G')));
  create(5, nullptr, nullptr, string(std::string(63, 'G')));
}

TEST_F(SessionNamesWithoutEnd, ReplaceTheParentsOwner) {
  expectResolved({inherits("p", owned(1, 2, 3, "root", "wheel")), no_group_given(), given_back("p")},
                 owned(1, 2, 3, user_, "wheel"));
  create(2, string("p"), nullptr, nullptr);
}

}  // namespace
}  // namespace bridge_test
