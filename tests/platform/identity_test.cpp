// The identity of a process, and of a user of this machine.
#include "base/identity.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "temporary_directory.h"

namespace tkv {
namespace {

// A system with made-up users.
NameService people() {
  NameService service;
  service.effective_user = [] { return uid_t{1000}; };
  service.effective_group = [] { return gid_t{100}; };
  service.groups = [](int size, gid_t list[]) {
    const gid_t groups[] = {200, 100, 300};
    if (size == 0) return 3;
    std::memcpy(list, groups, sizeof groups);
    return 3;
  };
  service.user_by_id = [](uid_t, passwd* record, char* buffer, std::size_t size, passwd** found) {
    if (size < 3000) return ERANGE;
    std::strcpy(buffer, "alice");
    record->pw_name = buffer;
    *found = record;
    return 0;
  };
  service.group_by_id = [](gid_t id, group* record, char* buffer, std::size_t size, group** found) {
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
  return service;
}

TEST(Identity, HasAllGroupsTheEffectiveOneFirst) {
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, people()).ok());
  EXPECT_EQ(identity.user, "alice");
  EXPECT_EQ(identity.groups, (std::vector<std::string>{"staff", "wheel", "300"}));
  EXPECT_EQ(identity.group(), "staff");
  EXPECT_FALSE(identity.superuser);
}

TEST(Identity, UserWithoutANameIsIdentifiedByNumber) {
  NameService service = people();
  service.user_by_id = [](uid_t, passwd*, char*, std::size_t, passwd** found) { return *found = nullptr, 0; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, service).ok());
  EXPECT_EQ(identity.user, "1000");
}

TEST(Identity, UidZeroIsTheSuperuserWhateverItsName) {
  NameService service = people();
  service.effective_user = [] { return uid_t{0}; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, service).ok());
  EXPECT_TRUE(identity.superuser);
}

TEST(Identity, GroupsThatGrowBetweenTwoCallsAreReadAgain) {
  NameService service = people();
  service.groups = [](int size, gid_t list[]) {
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
  ASSERT_TRUE(identity_of_process(&identity, service).ok());
  EXPECT_EQ(identity.groups, (std::vector<std::string>{"staff", "wheel", "300"}));
}

TEST(Identity, ProcessWithoutSupplementaryGroupsHasItsEffectiveOneAlone) {
  NameService service = people();
  service.groups = [](int, gid_t[]) { return 0; };
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity, service).ok());
  EXPECT_EQ(identity.groups, std::vector<std::string>{"staff"});
}

TEST(Identity, FailingNameServiceIsAnErrorWithItsReason) {
  Identity identity;
  NameService service = people();
  service.user_by_id = [](uid_t, passwd*, char*, std::size_t, passwd**) { return EIO; };
  Status status = identity_of_process(&identity, service);
  EXPECT_EQ(status.code(), PRTKV_UNKNOWN);
  EXPECT_EQ(status.text(), "the name of user 1000 cannot be read: Input/output error");

  service = people();
  service.group_by_id = [](gid_t, group*, char*, std::size_t, group**) { return EMFILE; };
  status = identity_of_process(&identity, service);
  EXPECT_EQ(status.code(), PRTKV_UNKNOWN);
  EXPECT_EQ(status.text(), "the name of group 100 cannot be read: Too many open files");

  service.group_by_id = [](gid_t, group*, char*, std::size_t, group**) { return ENOMEM; };
  EXPECT_EQ(identity_of_process(&identity, service).code(), PRTKV_OUT_OF_MEMORY);

  service = people();
  service.groups = [](int, gid_t[]) { return errno = EPERM, -1; };
  EXPECT_EQ(identity_of_process(&identity, service).code(), PRTKV_UNKNOWN);
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

// Runs in a child process with other ids, which returns its identity through a pipe.
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

// Users of the system above: alice by name and number, who is in 200 groups.
NameService known_users() {
  NameService service = people();
  service.user_by_id = [](uid_t id, passwd* record, char* buffer, std::size_t, passwd** found) {
    *found = nullptr;
    if (id != 1000) return ENOENT;
    std::strcpy(buffer, "alice");
    record->pw_name = buffer;
    record->pw_uid = 1000;
    record->pw_gid = 100;
    *found = record;
    return 0;
  };
  service.user_by_name = [](const char* name, passwd* record, char* buffer, std::size_t size, passwd** found) {
    *found = nullptr;
    return std::strcmp(name, "alice") != 0 ? 0
                                           : NameService(known_users()).user_by_id(1000, record, buffer, size, found);
  };
  service.groups_of_user = [](const char* user, gid_t primary, gid_t list[], int* count) {
    EXPECT_STREQ(user, "alice");
    const bool fits = *count >= 200;
    for (int at = 0; fits && at < 200; ++at) list[at] = at == 0 ? primary : 200;
    *count = 200;
    return fits ? 200 : -1;
  };
  return service;
}

// Names that are kept as long as a file of accounts stays as it is. The tests change that file.
class KeptNames : public ::testing::Test {
 protected:
  void SetUp() override {
    now_ = AccountNames::Clock::time_point{};
    write(accounts_, "first");
  }

  static void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

  // Replaces a file the way programs that change accounts do.
  static void replace(const std::string& path) {
    write(path + "+", "other");
    std::filesystem::rename(path + "+", path);
  }

  // The name of a user whom the name service calls `current`.
  std::string name_of(id_t id, const std::string& current) {
    std::string name;
    const auto ask = [&](std::string* found) { return *found = current, 0; };
    EXPECT_EQ(names_.find(id, ask, &name), 0);
    return name;
  }

  const TemporaryDirectory place_;
  const std::string accounts_ = place_.path() + "/passwd";
  static inline AccountNames::Clock::time_point now_;
  AccountNames names_{{accounts_.c_str(), [] { return now_; }}};
};

TEST_F(KeptNames, AreNotAskedForAgain) {
  EXPECT_EQ(name_of(7, "before"), "before");
  EXPECT_EQ(name_of(7, "after"), "before");
}

TEST_F(KeptNames, AreThoseOfOneId) {
  EXPECT_EQ(name_of(7, "seven"), "seven");
  EXPECT_EQ(name_of(8, "eight"), "eight");
  EXPECT_EQ(name_of(7 + 64, "another"), "another") << "which takes the place of 7";
  EXPECT_EQ(name_of(7, "seven again"), "seven again");
}

TEST_F(KeptNames, AreOutdatedOnceTheFileOfAccountsIsReplaced) {
  name_of(7, "before");
  replace(accounts_);
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST_F(KeptNames, AreOutdatedOnceTheFileOfAccountsIsWrittenTo) {
  name_of(7, "before");
  write(accounts_, "first and second");
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST_F(KeptNames, AreOutdatedOnceTheFileOfAccountsIsRemoved) {
  name_of(7, "before");
  std::filesystem::remove(accounts_);
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST_F(KeptNames, AreOutdatedAfterASecond) {
  name_of(7, "before");
  now_ += AccountNames::kAge - std::chrono::nanoseconds(1);
  EXPECT_EQ(name_of(7, "after"), "before");
  now_ += std::chrono::nanoseconds(1);
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST_F(KeptNames, AreOutdatedIfTheFileChangesWhileTheNameServiceIsAsked) {
  std::string name;
  const auto ask = [&](std::string* found) {
    *found = "before";
    replace(accounts_);
    return 0;
  };
  ASSERT_EQ(names_.find(7, ask, &name), 0);
  EXPECT_EQ(name, "before");
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST_F(KeptNames, AreNoneAfterAFailure) {
  std::string name = "unchanged";
  EXPECT_EQ(names_.find(
                7, [](std::string*) { return EIO; }, &name),
            EIO);
  EXPECT_EQ(name, "unchanged");
  EXPECT_EQ(name_of(7, "after"), "after");
}

TEST(IdentityOfUser, IsFoundByNameAndByNumber) {
  for (const char* name : {"alice", "1000"}) {
    std::optional<Identity> identity;
    ASSERT_TRUE(identity_of_user(name, &identity, known_users()).ok());
    ASSERT_TRUE(identity) << name;
    EXPECT_EQ(identity->user, "alice");
    EXPECT_EQ(identity->group(), "staff");
    EXPECT_EQ(identity->groups.size(), 200U) << "the list grows until it holds all groups";
    EXPECT_FALSE(identity->superuser);
  }
}

TEST(IdentityOfUser, NumberWithoutAnAccountStandsForAUserWithoutGroups) {
  std::optional<Identity> identity;
  ASSERT_TRUE(identity_of_user("54321", &identity, known_users()).ok());
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity->user, "54321");
  EXPECT_TRUE(identity->groups.empty());
  EXPECT_FALSE(identity->superuser);
}

TEST(IdentityOfUser, UnknownNameIsNobody) {
  for (const char* name : {"mallory", "", "1000x", "-1", "4294967295", "4294967296"}) {
    std::optional<Identity> identity = Identity{"former", {}, true};
    ASSERT_TRUE(identity_of_user(name, &identity, known_users()).ok());
    EXPECT_FALSE(identity) << name;
  }
}

TEST(IdentityOfUser, FailingNameServiceIsAnErrorWithItsReason) {
  NameService service = known_users();
  service.user_by_name = [](const char*, passwd*, char*, std::size_t, passwd**) { return EIO; };
  std::optional<Identity> identity;
  const Status status = identity_of_user("alice", &identity, service);
  EXPECT_EQ(status.code(), PRTKV_UNKNOWN);
  EXPECT_EQ(status.text(), "the record of user 'alice' cannot be read: Input/output error");
  service = known_users();
  service.group_by_id = [](gid_t, group*, char*, std::size_t, group**) { return EMFILE; };
  EXPECT_EQ(identity_of_user("alice", &identity, service).code(), PRTKV_UNKNOWN);
  EXPECT_FALSE(identity);
}

}  // namespace
}  // namespace tkv
