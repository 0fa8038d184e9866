// Opening a registry on etcd beside, within and around other keys, against a cluster in memory.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "fake_kv.h"
#include "store/etcd/build.h"
#include "store/etcd/opening.h"
#include "store/etcd/registry_mark.h"
#include "store/etcd/token.h"
#include "store/record.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

class EtcdOpening : public testing::Test {
 protected:
  Status open(const std::string& prefix, bool create = true) {
    EtcdOptions options;
    options.prefix = prefix;
    options.create = create;
    core_ = std::make_unique<Core>(std::make_unique<SharedKv>(kv_), prefix);
    return open_registry(*core_, options);
  }

  // As releases did before they marked the prefix.
  void create_unmarked(const std::string& prefix) {
    const Keys keys(prefix);
    kv_.put(keys.meta(), as_text(encode_meta(Meta())));
    kv_.put(keys.node({kNoNode, ""}), as_text(encode_node(kNoNode, "", {kRootNode, {}})));
  }

  std::string mark_of(const std::string& prefix) { return kv_.get(Keys(prefix).mark()); }

  FakeKv kv_;
  std::unique_ptr<Core> core_;
};

TEST_F(EtcdOpening, MarksAFreshRegistry) {
  ASSERT_TRUE(done(open("/tkv/")));
  const auto mark = RegistryMark::parse(mark_of("/tkv/"));
  ASSERT_TRUE(mark);
  EXPECT_EQ(mark->format, RegistryMark::kFormat);
  ASSERT_TRUE(done(open("/tkv/")));
  EXPECT_EQ(RegistryMark::parse(mark_of("/tkv/"))->incarnation, mark->incarnation);
}

TEST_F(EtcdOpening, MarksARegistryOfAnEarlierRelease) {
  create_unmarked("/tkv/");
  ASSERT_TRUE(done(open("/tkv/", false)));
  EXPECT_EQ(mark_of("/tkv/"), "") << "without being asked to create, it writes nothing";
  ASSERT_TRUE(done(open("/tkv/")));
  EXPECT_TRUE(RegistryMark::parse(mark_of("/tkv/")));
}

TEST_F(EtcdOpening, BeginsTheLogOfARegistryOfAnEarlierReleaseOnce) {
  create_unmarked("/tkv/");
  ASSERT_TRUE(done(open("/tkv/", false)));
  EXPECT_EQ(kv_.mod_revision(Keys("/tkv/").log()), 0) << "without being asked to create, it writes nothing";
  ASSERT_TRUE(done(open("/tkv/")));
  const std::int64_t begun = kv_.mod_revision(Keys("/tkv/").log());
  EXPECT_GT(begun, 0);
  ASSERT_TRUE(done(open("/tkv/")));
  EXPECT_EQ(kv_.mod_revision(Keys("/tkv/").log()), begun);
}

TEST_F(EtcdOpening, RefusesAPrefixWithinThatOfAnotherRegistry) {
  ASSERT_TRUE(done(open("/tkv/")));
  for (const char* prefix : {"/tkv/staging/", "/tkv/garbage/", "/tkv/txn/", "/tkv/n/", "/tkv/other/deep/"}) {
    const std::size_t keys = kv_.count(Keys("/tkv/").all());
    const Status status = open(prefix);
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << prefix << ": " << status.text();
    EXPECT_NE(status.text().find("'/tkv/'"), std::string::npos) << status.text();
    EXPECT_EQ(kv_.count(Keys("/tkv/").all()), keys) << prefix << ": something was written";
  }
}

TEST_F(EtcdOpening, RefusesAPrefixWithinThatOfAnUnmarkedRegistry) {
  create_unmarked("/tkv/");
  EXPECT_TRUE(open("/tkv/staging/").is(PRTKV_UNUSABLE));
}

TEST_F(EtcdOpening, RefusesAPrefixAroundAnotherRegistry) {
  ASSERT_TRUE(done(open("/tkv/staging/")));
  for (const char* prefix : {"/tkv/", "/tk", "/"}) {
    const Status status = open(prefix);
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << prefix << ": " << status.text();
    EXPECT_EQ(mark_of(prefix), "") << prefix;
  }
}

TEST_F(EtcdOpening, RefusesToMarkAnUnmarkedRegistryAroundAnother) {
  for (const char* folder : {"staging/", "garbage/", "txn/", "other/"}) {
    create_unmarked(std::string("/") + folder + "outer/");
    create_unmarked(std::string("/") + folder + "outer/" + folder);
    const Status status = open(std::string("/") + folder + "outer/");
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << folder << ": " << status.text();
  }
}

TEST_F(EtcdOpening, RefusesToCreateARegistryAmongOtherKeys) {
  kv_.put("/tkv/somebody", "else's");
  const Status status = open("/tkv/");
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("/tkv/somebody"), std::string::npos) << status.text();
  EXPECT_EQ(kv_.count(Keys("/tkv/").all()), 1u);
}

TEST_F(EtcdOpening, RegistriesBesideEachOtherAreFine) {
  EXPECT_TRUE(done(open("/tkv/a/")));
  EXPECT_TRUE(done(open("/tkv/b/")));
  EXPECT_TRUE(done(open("/tkv/a/")));
}

TEST_F(EtcdOpening, RefusesALaterFormatAndADamagedMark) {
  ASSERT_TRUE(done(open("/tkv/")));
  kv_.put(Keys("/tkv/").mark(), "format 3\nwhatever\n");
  Status status = open("/tkv/");
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("format 3"), std::string::npos) << status.text();
  kv_.put(Keys("/tkv/").mark(), "nonsense");
  EXPECT_TRUE(open("/tkv/").is(PRTKV_STORAGE_FAILED));
}

// The keys of a registry below /tkv/staging/ and the like, and what others may have put there.
TEST_F(EtcdOpening, SweepingLeavesAloneWhatItDoesNotRecognize) {
  ASSERT_TRUE(done(open("/tkv/")));
  const std::string stranger =
      "1 1 00000000-0000-0000-0000-000000000000 pid:[1] 1 1";  // reads like the mark of a writer long gone
  for (const char* folder : {"staging", "garbage", "txn", "claims", "plan"}) {
    const std::string prefix = std::string("/tkv/") + folder + "/";
    create_unmarked(prefix);
    kv_.put(prefix + "v/0000000000000001", "a value");
    kv_.put(prefix + "note", stranger);
  }
  kv_.put(Keys("/tkv/").staging(random_token()), "not what a build says");
  const std::size_t keys = kv_.count(Keys("/tkv/").all());
  EXPECT_TRUE(done(core_->sweeper.sweep_all()));
  EXPECT_TRUE(done(core_->sweeper.sweep_for_repair()));
  EXPECT_EQ(kv_.count(Keys("/tkv/").all()), keys);
}

}  // namespace
}  // namespace tkv::store::etcd
