// The options with which the store for etcd is opened. A program of its own, since it loads a double of the module.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "store/etcd/kind.h"
#include "store/etcd/module.h"

namespace tkv::store {
namespace {

const std::string kAbi = "abi=" + std::to_string(kEtcdModuleAbi) + " ";

std::string opened_with(const std::vector<std::string>& locations, const Settings& settings,
                        const StoreOpening& opening) {
  std::shared_ptr<Store> store;
  setenv("TKV_MODULE_DIR", TKV_TEST_MODULE_DIR, 1);
  return kEtcdKind.open({locations, settings}, opening, &store).text();
}

TEST(EtcdKind, EverySettingReachesTheStore) {
  const Settings settings = {{"etcd.ca", "/ca"},         {"etcd.cert", "/cert"},
                             {"etcd.key", "/key"},       {"etcd.user", "someone"},
                             {"etcd.prefix", "/other/"}, {"etcd.password_file", "/password"},
                             {"etcd.timeout_ms", "2500"}};
  StoreOpening opening;
  opening.root_security.user_name[0] = 'r';
  EXPECT_EQ(opened_with({"etcd://a:1", "etcd://[::1]:2"}, settings, opening),
            kAbi + "endpoints=a:1,[::1]:2, ca=/ca cert=/cert key=/key user=someone password_file=/password " +
                "prefix=/other/ timeout_ms=2500 create root=r");
}

TEST(EtcdKind, DefaultsAreThoseOfTheTable) {
  EXPECT_EQ(opened_with({"etcd://a:1"}, {}, {}),
            kAbi + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=5000 create root=");
}

TEST(EtcdKind, ReadersDoNotCreateAndSomeDoNotWaitLong) {
  StoreOpening opening;
  opening.read_only = true;
  opening.max_wait_ms = 1000;
  EXPECT_EQ(opened_with({"etcd://a:1"}, {}, opening),
            kAbi + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=1000 open root=");
  opening.max_wait_ms = 9000;
  EXPECT_EQ(opened_with({"etcd://a:1"}, {{"etcd.timeout_ms", "300"}}, opening),
            kAbi + "endpoints=a:1, ca= cert= key= user= password_file= prefix=/tkv/ timeout_ms=300 open root=");
}

}  // namespace
}  // namespace tkv::store
