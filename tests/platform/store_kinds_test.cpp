// The table of store kinds, and how each row turns configured texts into the options of its store.
#include "store/store_kinds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "store/etcd/address.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const StoreKind& kind_named(const std::string& name) {
  for (const StoreKind* kind : store_kinds()) {
    if (kind->name == name) return *kind;
  }
  ADD_FAILURE() << "no kind " << name;
  return *store_kinds().front();
}

TEST(StoreKinds, LocationsBelongToTheKindOfTheirScheme) {
  EXPECT_STREQ(kind_of_location("/srv/registry").name, "lmdb");
  EXPECT_STREQ(kind_of_location("etcd://a:1").name, "etcd");
  EXPECT_STREQ(kind_of_location("etcd://").name, "etcd") << "malformed ones too";
  EXPECT_STREQ(kind_of_location("http://a:1").name, "lmdb");
  EXPECT_STREQ(kind_of_location("").name, "lmdb");
}

TEST(StoreKinds, OnlyTheFirstHasNoSchemeAndNoSettingHasTwoOwners) {
  std::set<std::string> names;
  for (const StoreKind* kind : store_kinds()) {
    EXPECT_EQ(*kind->scheme == '\0', kind == store_kinds().front()) << kind->name;
    EXPECT_LE(kind->max_locations, 5U) << kind->name << ": callers have five slots";
    for (const StoreSetting& setting : kind->settings) {
      EXPECT_TRUE(names.insert(setting.name).second) << setting.name;
      EXPECT_THAT(setting.name, HasSubstr("."));
      EXPECT_THAT(setting.text, HasSubstr("Default: ")) << setting.name;
      if (*setting.default_value == '\0') continue;
      EXPECT_TRUE(setting.check(setting.default_value).ok()) << setting.name;
      EXPECT_THAT(setting.text, HasSubstr(std::string("Default: ") + setting.default_value)) << setting.name;
    }
  }
  for (const StoreKind* kind : store_kinds()) {
    for (const StoreSetting& setting : kind->settings) {
      for (const char* needed : setting.needs) EXPECT_TRUE(needed == nullptr || names.contains(needed)) << setting.name;
    }
  }
}

TEST(LmdbKind, MapSizesHaveUnitsOfPowersOf1024) {
  const StoreSetting& map_size = kind_named("lmdb").settings[0];
  ASSERT_STREQ(map_size.name, "registry.map_size");
  for (const char* good : {"1048576", "1024K", "1024k", "1M", "1m", "16777216M", "16384G", "16384g", "16T", "16t",
                           "17179869184K", "17592186044416"}) {
    EXPECT_TRUE(map_size.check(good).ok()) << good;
  }
  for (const char* bad :
       {"1048575",        "1023K", "1023k", "0M",     "0G",  "0T", "16777217M", "16385G", "17T", "17179869185K",
        "17592186044417", "1MB",   "1MiB",  "1024KB", "1KK", "K",  "",          "1P",     "1 M", "-1M"}) {
    EXPECT_EQ(map_size.check(bad).code(), PRTKV_INVALID_CONFIGURATION) << bad;
  }
}

TEST(LmdbKind, OpensWithTheConfiguredMapSizeAndDirectory) {
  const TemporaryDirectory directory;
  const StoreKind& kind = kind_named("lmdb");
  const std::vector<std::string> locations = {directory / "registry"};
  const Settings settings = {{"registry.map_size", "1M"}};
  const StorePlace place = {locations, settings};
  EXPECT_TRUE(kind.check(place).ok());
  EXPECT_TRUE(kind.is_absent(place));
  std::shared_ptr<Store> store;
  ASSERT_EQ(kind.open(place, {}, &store).text(), "done");
  EXPECT_FALSE(kind.is_absent(place));
  EXPECT_STREQ(store->kind(), "lmdb");
  const std::vector<std::byte> large(1 << 20);
  const Status status = store->write([&](Update& update) -> Status {
    NodeId id = kNoNode;
    if (Status made = update.new_id(&id); !made.ok()) return made;
    if (Status set = update.set_value(id, 3, large); !set.ok()) return set;
    return update.insert(kRootNode, "a", {id, {}});
  });
  EXPECT_EQ(status.code(), PRTKV_STORAGE_FULL) << "more than the map holds";
}

TEST(LmdbKind, PassesTheGroupOn) {
  const TemporaryDirectory directory;
  const std::vector<std::string> locations = {directory / "registry"};
  const Settings settings = {{"registry.group", "no-such-group"}};
  std::shared_ptr<Store> store;
  const Status status = kind_named("lmdb").open({locations, settings}, {}, &store);
  EXPECT_THAT(status.text(), HasSubstr("no-such-group"));
}

TEST(LmdbKind, SamePlaceWhateverPathLeadsThere) {
  const TemporaryDirectory directory;
  const StoreKind& kind = kind_named("lmdb");
  const Settings none;
  const std::vector<std::string> here = {directory.path()};
  const std::vector<std::string> dotted = {directory / "."};
  const std::vector<std::string> elsewhere = {"/"};
  EXPECT_TRUE(kind.is_same({here, none}, {dotted, none}));
  EXPECT_FALSE(kind.is_same({here, none}, {elsewhere, none}));
}

TEST(EtcdKind, SamePlaceHasTheSameMembersAndPrefix) {
  const StoreKind& kind = kind_named("etcd");
  const std::vector<std::string> a = {"etcd://a:1"};
  const std::vector<std::string> b = {"etcd://b:1"};
  const Settings none;
  const Settings spelled_out = {{"etcd.prefix", "/tkv/"}};
  const Settings other = {{"etcd.prefix", "/other/"}};
  EXPECT_TRUE(kind.is_same({a, none}, {a, spelled_out}));
  EXPECT_FALSE(kind.is_same({a, none}, {a, other}));
  EXPECT_FALSE(kind.is_same({a, none}, {b, none}));
}

TEST(EtcdAddress, HostAndPort) {
  std::string endpoint;
  for (const char* good :
       {"etcd://a:1", "etcd://node-1.example.com:2379", "etcd://10.0.0.1:65535", "etcd://[::1]:2379"}) {
    SCOPED_TRACE(good);
    EXPECT_TRUE(parse_etcd_address(good, &endpoint).ok());
    EXPECT_EQ("etcd://" + endpoint, good);
  }
  for (const char* bad : {"", "etcd://", "etcd://a", "etcd://a:", "etcd://:1", "etcd://a:0", "etcd://a:65536",
                          "etcd://a:1x", "etcd://a b:1", "etcd://a/b:1", "etcd://::1:2379", "etcd://[]:1",
                          "etcd://[::1:1", "http://a:1", "/etcd://a:1", "etcd://a:-1"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(parse_etcd_address(bad, &endpoint).code(), PRTKV_INVALID_ARGUMENT);
  }
}

}  // namespace
}  // namespace tkv::store
