// Identities, and the rights that a key grants them.
#include <gtest/gtest.h>

#include <cstring>

#include "registry/access.h"
#include "registry_fixture.h"

namespace tkv::registry {
namespace {

struct AccessCase {
  const char* claim;
  Identity identity;
  sec_attr security;
  Rights granted;
};

class Access : public ::testing::TestWithParam<AccessCase> {};

TEST_P(Access, GrantsTheUnionOfTheClasses) {
  EXPECT_EQ(rights_of(GetParam().identity, GetParam().security), GetParam().granted) << GetParam().claim;
}

std::string long_name(char last) { return std::string(63, 'n') + last; }

INSTANTIATE_TEST_SUITE_P(
    Table, Access,
    ::testing::Values(
        AccessCase{"owner", person("alice"), owned_by("alice", "staff", 0x01, 0x02, 0x04), 0x05},
        AccessCase{"group", person("bob", {"other", "staff"}), owned_by("alice", "staff", 0x01, 0x02, 0x04), 0x06},
        AccessCase{"owner in the group", person("alice", {"staff"}), owned_by("alice", "staff", 0x08, 0x10, 0x20),
                   0x38},
        AccessCase{"other", person("bob", {"users"}), owned_by("alice", "staff", 0x3f, 0x3f, 0x02), 0x02},
        AccessCase{"other with nothing", person("bob"), owned_by("alice", "staff", 0x3f, 0x3f, 0), 0},
        AccessCase{"superuser", superuser(), owned_by("alice", "staff", 0, 0, 0), 0x3f},
        AccessCase{"empty user is nobody's", person(""), owned_by("", "", 0x3f, 0x3f, 0x01), 0x01},
        AccessCase{"empty group is nobody's", person("bob", {""}), owned_by("", "", 0x3f, 0x3f, 0x01), 0x01},
        AccessCase{"a longer name is another", person("alice2"), owned_by("alice", "", 0x3f, 0, 0), 0},
        AccessCase{"a shorter name is another", person("alic"), owned_by("alice", "", 0x3f, 0, 0), 0},
        AccessCase{"64 bytes without a NUL", person(long_name('x')), owned_by(long_name('x'), "", 0x3f, 0, 0), 0x3f},
        AccessCase{"64 bytes, another", person(long_name('y')), owned_by(long_name('x'), "", 0x3f, 0, 0), 0},
        AccessCase{"65 bytes match no 64", person(long_name('x') + "x"), owned_by(long_name('x'), "", 0x3f, 0, 0), 0},
        AccessCase{"a group of 64 bytes", person("b", {long_name('g')}), owned_by("", long_name('g'), 0, 0x07, 0),
                   0x07}));

TEST(AccessReason, SaysWhichClassGrantsWhat) {
  const AccessReason reason = explain_access(person("alice", {"users"}), owned_by("alice", "staff", 0x05, 0x3f, 0x02));
  EXPECT_FALSE(reason.superuser);
  EXPECT_TRUE(reason.owner);
  EXPECT_FALSE(reason.group);
  EXPECT_EQ(reason.owner_grants, 0x05);
  EXPECT_EQ(reason.group_grants, 0);
  EXPECT_EQ(reason.other_grants, 0x02);
  EXPECT_EQ(reason.granted, 0x07);
  EXPECT_TRUE(explain_access(superuser(), sec_attr{}).superuser);
}

TEST(Security, MasksOutsideTheSixRightsAreRefused) {
  EXPECT_TRUE(check_security(owned_by("", "", 0x3f, 0x3f, 0x3f)).ok());
  EXPECT_EQ(check_security(owned_by("", "", 0x40, 0, 0)).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(check_security(owned_by("", "", 0, -1, 0)).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(check_security(owned_by("", "", 0, 0, 0x80)).code(), PRTKV_INVALID_ARGUMENT);
}

TEST(Security, ANormalizedRecordHasZerosAfterItsNames) {
  sec_attr untidy{};
  std::memset(&untidy, 'z', sizeof untidy);
  untidy.user_perm = 1;
  untidy.group_perm = 2;
  untidy.other_perm = 3;
  std::memcpy(untidy.user_name, "al", 3);
  const sec_attr clean = normalized(untidy);
  EXPECT_EQ(user_of(clean), "al");
  EXPECT_EQ(group_of(clean), std::string(64, 'z'));
  for (std::size_t at = 2; at < sizeof clean.user_name; ++at) EXPECT_EQ(clean.user_name[at], '\0');
}

TEST(Identity, GivesFreshKeysToItself) {
  const sec_attr security = default_security(person("alice", {"staff", "wheel"}));
  EXPECT_EQ(user_of(security), "alice");
  EXPECT_EQ(group_of(security), "staff");
  EXPECT_EQ(security.user_perm, 0x3f);
  EXPECT_EQ(security.group_perm, 0x34);
  EXPECT_EQ(security.other_perm, 0x3);
}

TEST(Identity, NamesOfMoreThan64BytesFitNoRecord) {
  sec_attr security{};
  EXPECT_TRUE(set_user(&security, std::string(64, 'u')).ok());
  EXPECT_EQ(set_user(&security, std::string(65, 'v')).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(set_group(&security, std::string(65, 'v')).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(user_of(security), std::string(64, 'u'));
}

}  // namespace
}  // namespace tkv::registry
