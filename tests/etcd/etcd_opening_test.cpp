// Opening a registry on etcd beside, within and around other keys, against a cluster in memory.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_kv.h"
#include "store/etcd/build.h"
#include "store/etcd/checker.h"
#include "store/etcd/opening.h"
#include "store/etcd/registry_mark.h"
#include "store/etcd/session.h"
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

// Releases that know format 2 only do not write the log. They refuse the registry from then on, and what their open
// sessions write compares the mark.
TEST_F(EtcdOpening, RaisesTheFormatOfARegistryWithoutALog) {
  const Keys keys("/tkv/");
  ASSERT_TRUE(done(open("/tkv/")));
  RegistryMark mark = *RegistryMark::parse(mark_of("/tkv/"));
  mark.format = 2;
  kv_.put(keys.mark(), mark.print());
  kv_.erase(keys.log());
  ASSERT_TRUE(done(open("/tkv/", false)));
  EXPECT_EQ(mark_of("/tkv/"), mark.print()) << "without being asked to create, it writes nothing";
  ASSERT_TRUE(done(open("/tkv/")));
  mark.format = RegistryMark::kFormat;
  EXPECT_EQ(mark_of("/tkv/"), mark.print());
  EXPECT_EQ(kv_.mod_revision(keys.log()), kv_.mod_revision(keys.mark())) << "both at once";
}

TEST_F(EtcdOpening, TakesARegistryWhoseFormatAnotherSessionRaises) {
  const Keys keys("/tkv/");
  ASSERT_TRUE(done(open("/tkv/")));
  RegistryMark mark = *RegistryMark::parse(mark_of("/tkv/"));
  mark.format = 2;
  kv_.put(keys.mark(), mark.print());
  mark.format = RegistryMark::kFormat;
  bool raised = false;
  kv_.before_txn = [&](const TxnRequest& request) {
    const bool writes = request.success_size() > 0 && request.success(0).has_request_put();
    if (writes && !std::exchange(raised, true)) kv_.put(keys.mark(), mark.print());
    return Reply();
  };
  ASSERT_TRUE(done(open("/tkv/")));
  EXPECT_TRUE(raised);
  EXPECT_EQ(mark_of("/tkv/"), mark.print());
}

// Two sessions find no mark. The other one belongs to a later release, and is faster.
TEST_F(EtcdOpening, LooksAtTheMarkThatAnotherSessionHasPut) {
  create_unmarked("/tkv/");
  std::string mark = "format 4\nwhatever\n";
  kv_.before_txn = [&](const TxnRequest& request) {
    const bool writes = request.success_size() > 0 && request.success(0).has_request_put();
    if (writes && mark_of("/tkv/").empty()) kv_.put(Keys("/tkv/").mark(), mark);
    return Reply();
  };
  const Status status = open("/tkv/");
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.text();
  EXPECT_EQ(mark_of("/tkv/"), mark);
  kv_.erase(Keys("/tkv/").mark());
  mark = RegistryMark::make().print();
  EXPECT_TRUE(done(open("/tkv/")));
  EXPECT_EQ(mark_of("/tkv/"), mark);
}

// As after a deletion that was made while there was no space.
TEST_F(EtcdOpening, GoesOnWithALogThatCouldNotBeWritten) {
  const Keys keys("/tkv/");
  ASSERT_TRUE(done(open("/tkv/")));
  const std::string mark = mark_of("/tkv/");
  kv_.erase(keys.log());
  kv_.is_full = true;
  ASSERT_TRUE(done(open("/tkv/"))) << "to delete something";
  EXPECT_EQ(kv_.get(keys.log()), "");
  kv_.is_full = false;
  ASSERT_TRUE(done(open("/tkv/")));
  EXPECT_NE(kv_.get(keys.log()), "");
  EXPECT_EQ(mark_of("/tkv/"), mark);
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
  kv_.put(Keys("/tkv/").mark(), "format 4\nwhatever\n");
  Status status = open("/tkv/");
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("format 4"), std::string::npos) << status.text();
  kv_.put(Keys("/tkv/").mark(), "nonsense");
  status = open("/tkv/");
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("etcdctl del /tkv/registry"), std::string::npos) << status.text();
  kv_.erase(Keys("/tkv/").mark());
  EXPECT_TRUE(done(open("/tkv/"))) << "as the message says";
  EXPECT_TRUE(RegistryMark::parse(mark_of("/tkv/")));
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

TEST_F(EtcdOpening, ARepairReportsWhatItDoesNotRecognizeAndLeavesItAlone) {
  ASSERT_TRUE(done(open("/tkv/")));
  for (const char* key : {"n/", "n/unknown", "v/unknown", "unknown"}) kv_.put(std::string("/tkv/") + key, "unknown");
  Owner owner;
  ASSERT_TRUE(done(core_->session.owner(&owner, core_->deadline()))) << "a repair belongs to a session that has a key";
  const std::vector<std::string> keys = kv_.keys_of(Keys("/tkv/").all());
  for (int round = 0; round < 2; ++round) {
    int findings = 0;
    Totals totals;
    const ChangeDescription description{.note = "repair"};
    EXPECT_TRUE(done(check_registry(
        *core_, &description, [&](const Finding&) { ++findings; }, [](const CheckProgress&) {}, &totals)));
    EXPECT_EQ(findings, 3) << "what is among the nodes and values";
  }
  std::vector<std::string> left = kv_.keys_of(Keys("/tkv/").all());
  std::erase_if(left, [&](const std::string& key) { return key.starts_with("/tkv/txn/" + owner.token); });  // its mark
  EXPECT_EQ(left, keys);
}

}  // namespace
}  // namespace tkv::store::etcd
