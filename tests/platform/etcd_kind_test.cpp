// The options with which the store for etcd is opened. A program of its own, since it loads a double of the module.
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "store/etcd/kind.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

const std::string kAsked = "asked for ";

std::string opened_with(const std::vector<std::string>& locations, const Settings& settings,
                        const StoreOpening& opening) {
  std::shared_ptr<Store> store;
  setenv("TKV_MODULE_DIR", TKV_TEST_MODULE_DIR, 1);
  return kEtcdKind.open({locations, settings}, opening, &store).text();
}

// The first test, since a module that was loaded stays in use.
TEST(ModuleOfAnotherRelease, IsRefusedAndNotCalled) {
  std::shared_ptr<Store> store;
  setenv("TKV_MODULE_DIR", TKV_TEST_OTHER_MODULE_DIR, 1);
  const Status status = kEtcdKind.open({{"etcd://a:1"}, {}}, {}, &store);
  EXPECT_EQ(status.code(), PRTKV_UNUSABLE);
  EXPECT_EQ(status.text(), "the store for etcd cannot be loaded: " TKV_TEST_OTHER_MODULE_DIR
                           "/libtkv_etcd.so belongs to another release of TKV than the library that loads it; install "
                           "both from one release");
}

TEST(EtcdKind, EverySettingReachesTheStore) {
  const Settings settings = {{"etcd.ca", "/ca"},         {"etcd.cert", "/cert"},
                             {"etcd.key", "/key"},       {"etcd.user", "someone"},
                             {"etcd.prefix", "/other/"}, {"etcd.password_file", "/password"},
                             {"etcd.timeout_ms", "2500"}};
  StoreOpening opening;
  opening.root_security.user_name[0] = 'r';
  EXPECT_EQ(opened_with({"etcd://a:1", "etcd://[::1]:2"}, settings, opening),
            kAsked + "endpoints=a:1,[::1]:2, ca=/ca cert=/cert key=/key user=someone password_file=/password " +
                "prefix=/other/ timeout_ms=2500 create root=r");
}

TEST(EtcdKind, DefaultsAreThoseOfTheTable) {
  EXPECT_EQ(opened_with({"etcd://a:1"}, {}, {}),
            kAsked + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=5000 create root=");
}

TEST(EtcdKind, ReadersDoNotCreateAndSomeDoNotWaitLong) {
  StoreOpening opening;
  opening.read_only = true;
  opening.max_wait_ms = 1000;
  EXPECT_EQ(opened_with({"etcd://a:1"}, {}, opening),
            kAsked + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=1000 open root=");
  opening.max_wait_ms = 9000;
  EXPECT_EQ(opened_with({"etcd://a:1"}, {{"etcd.timeout_ms", "300"}}, opening),
            kAsked + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=300 open root=");
}

// A program, copied to where its module is not. It belongs to "nobody" and can be run with that user's rights.
class CopiedProgram : public ::testing::Test {
 protected:
  void SetUp() override {
    struct statvfs mount {};
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a program to another user";
    ASSERT_EQ(statvfs(directory_.path().c_str(), &mount), 0);
    if ((mount.f_flag & ST_NOSUID) != 0) GTEST_SKIP() << "set-user-ID has no effect in " << directory_.path();
    const struct passwd* const nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    std::filesystem::copy_file(TKV_TEST_OPENER, program_);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(chown(program_.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
  }

  // What the program prints if its file has this mode and TKV_MODULE_DIR names the double of the module.
  std::string printed_with(mode_t mode) const {
    EXPECT_EQ(chmod(program_.c_str(), mode), 0);
    setenv("TKV_MODULE_DIR", TKV_TEST_MODULE_DIR, 1);
    FILE* const output = popen(program_.c_str(), "r");
    std::string printed;
    for (int byte = fgetc(output); byte != EOF; byte = fgetc(output)) printed += static_cast<char>(byte);
    EXPECT_EQ(pclose(output), 0);
    return printed;
  }

  const TemporaryDirectory directory_;
  const std::string program_ = directory_ / "opener";
};

TEST_F(CopiedProgram, LooksForTheModuleWhereTheEnvironmentSays) {
  const std::string printed = printed_with(0755);
  EXPECT_TRUE(printed.starts_with(kAsked)) << printed;
}

TEST_F(CopiedProgram, LetsNobodyChooseTheModuleIfItHasMoreRightsThanItsCaller) {
  const std::string printed = printed_with(04755);
  EXPECT_FALSE(printed.empty());
  EXPECT_FALSE(printed.starts_with(kAsked)) << printed;
  EXPECT_EQ(printed.find(TKV_TEST_MODULE_DIR), std::string::npos) << printed;
}

}  // namespace
}  // namespace tkv::store
