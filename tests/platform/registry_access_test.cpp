// Who somebody is, and what a key grants him.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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

TEST(Security, TidiedRecordHoldsNothingBehindItsNames) {
  sec_attr untidy{};
  std::memset(&untidy, 'z', sizeof untidy);
  untidy.user_perm = 1;
  untidy.group_perm = 2;
  untidy.other_perm = 3;
  std::memcpy(untidy.user_name, "al", 3);
  const sec_attr clean = tidied(untidy);
  EXPECT_EQ(user_of(clean), "al");
  EXPECT_EQ(group_of(clean), std::string(64, 'z'));
  for (std::size_t at = 2; at < sizeof clean.user_name; ++at) EXPECT_EQ(clean.user_name[at], '\0');
}

// A system of made-up people.
IdentityCalls people() {
  IdentityCalls calls;
  calls.effective_user = [] { return uid_t{1000}; };
  calls.effective_group = [] { return gid_t{100}; };
  calls.groups = [](int size, gid_t list[]) {
    const gid_t groups[] = {200, 100, 300};
    if (size == 0) return 3;
    std::memcpy(list, groups, sizeof groups);
    return 3;
  };
  calls.user_by_id = [](uid_t, passwd* record, char* buffer, std::size_t size, passwd** found) {
    if (size < 3000) return ERANGE;
    std::strcpy(buffer, "alice");
    record->pw_name = buffer;
    *found = record;
    return 0;
  };
  calls.group_by_id = [](gid_t id, group* record, char* buffer, std::size_t size, group** found) {
    static bool interrupted = false;
    interrupted = !interrupted;
    if (interrupted) return EINTR;
    if (id == 300) return ENOENT;
    if (size < 2000) return ERANGE;
    std::strcpy(buffer, id == 100 ? "staff" : "wheel");
    record->gr_name = buffer;
    *found = record;
    return 0;
  };
  return calls;
}

TEST(Identity, HasAllGroupsTheEffectiveOneFirst) {
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, people()).ok());
  EXPECT_EQ(identity.user, "alice");
  EXPECT_EQ(identity.groups, (std::vector<std::string>{"staff", "wheel", "300"}));
  EXPECT_EQ(identity.group(), "staff");
  EXPECT_FALSE(identity.superuser);
}

TEST(Identity, UserWithoutANameGoesByHisNumber) {
  IdentityCalls calls = people();
  calls.user_by_id = [](uid_t, passwd*, char*, std::size_t, passwd** found) { return *found = nullptr, 0; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, calls).ok());
  EXPECT_EQ(identity.user, "1000");
}

TEST(Identity, UidZeroIsTheSuperuserWhateverItsName) {
  IdentityCalls calls = people();
  calls.effective_user = [] { return uid_t{0}; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, calls).ok());
  EXPECT_TRUE(identity.superuser);
}

TEST(Identity, GroupsThatGrowMeanwhileAreReadAgain) {
  IdentityCalls calls = people();
  calls.groups = [](int size, gid_t list[]) {
    static int groups = 1;
    if (size == 0) return groups;
    if (groups == 1) {
      groups = 2;
      errno = EINVAL;
      return -1;
    }
    list[0] = 200;
    list[1] = 300;
    return 2;
  };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, calls).ok());
  EXPECT_EQ(identity.groups, (std::vector<std::string>{"staff", "wheel", "300"}));
}

TEST(Identity, ProcessWithoutSupplementaryGroupsHasItsEffectiveOneAlone) {
  IdentityCalls calls = people();
  calls.groups = [](int, gid_t[]) { return 0; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, calls).ok());
  EXPECT_EQ(identity.groups, std::vector<std::string>{"staff"});
}

TEST(Identity, FailingNameServiceIsAnErrorWithItsReason) {
  Identity identity;
  IdentityCalls calls = people();
  calls.user_by_id = [](uid_t, passwd*, char*, std::size_t, passwd**) { return EIO; };
  Status status = identity_of_process(&identity, calls);
  EXPECT_EQ(status.code(), PRTKV_UNKNOWN);
  EXPECT_EQ(status.text(), "the name of user 1000 cannot be read: Input/output error");

  calls = people();
  calls.group_by_id = [](gid_t, group*, char*, std::size_t, group**) { return EMFILE; };
  status = identity_of_process(&identity, calls);
  EXPECT_EQ(status.code(), PRTKV_UNKNOWN);
  EXPECT_EQ(status.text(), "the name of group 100 cannot be read: Too many open files");

  calls.group_by_id = [](gid_t, group*, char*, std::size_t, group**) { return ENOMEM; };
  EXPECT_EQ(identity_of_process(&identity, calls).code(), PRTKV_OUT_OF_MEMORY);

  calls = people();
  calls.groups = [](int, gid_t[]) { return errno = EPERM, -1; };
  EXPECT_EQ(identity_of_process(&identity, calls).code(), PRTKV_UNKNOWN);
  EXPECT_TRUE(identity.groups.empty()) << "a failure leaves the identity as it was";
}

TEST(Identity, OfThisProcessHasTheUserThatRunsTheTest) {
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity).ok());
  const passwd* record = getpwuid(geteuid());
  EXPECT_EQ(identity.user, record == nullptr ? std::to_string(geteuid()) : record->pw_name);
  EXPECT_EQ(identity.superuser, geteuid() == 0);
  EXPECT_FALSE(identity.groups.empty());
}

// Of a child that has taken other ids; what it found comes back through a pipe.
TEST(Identity, IsTheEffectiveOneNotTheRealOne) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can take other ids";
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const gid_t groups[] = {4242, 1};
    if (setgroups(2, groups) != 0 || setegid(65534) != 0 || seteuid(4343) != 0) _exit(1);
    Identity identity;
    if (!identity_of_process(&identity).ok()) _exit(2);
    std::string found = identity.user + (identity.superuser ? "!" : "") + ":";
    for (const std::string& name : identity.groups) found += name + ",";
    const ssize_t size = write(ends[1], found.data(), found.size());
    _exit(size == static_cast<ssize_t>(found.size()) ? 0 : 3);
  }
  close(ends[1]);
  char found[256] = "";
  const ssize_t size = read(ends[0], found, sizeof found - 1);
  close(ends[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  ASSERT_GT(size, 0);
  const auto named = [](gid_t id) {
    const group* record = getgrgid(id);
    return record == nullptr ? std::to_string(id) : std::string(record->gr_name);
  };
  EXPECT_EQ(std::string(found), "4343:" + named(65534) + "," + named(1) + "," + named(4242) + ",")
      << "the system lists groups by number";
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
