// Processes that are hidden, stopped or killed while they own unfinished work, on a real cluster.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "child.h"
#include "etcd_store_fixture.h"

namespace tkv::store::etcd {
namespace {

class EtcdOwnership : public EtcdStore {
 protected:
  // Requests of a build of 350 keys: two for the session, one for ids, and the batches from then on.
  static constexpr int kInTheMiddle = 6;

  std::vector<std::string> victim(const std::string& action, int last) const {
    return {TKV_ETCD_VICTIM, cluster_->endpoint(0), options_.prefix, action, std::to_string(last)};
  }

  void sweep() {
    Totals totals;
    EXPECT_TRUE(done(store_->check(
        true, [](const Finding& finding) { ADD_FAILURE() << finding.name << ": " << finding.detail; }, &totals)));
  }

  bool is_swept() {
    return count_raw(keys().all_staging()) == 0 && count_raw(keys().all_claims()) == 0 &&
           count_raw(keys().all_plans()) == 0;
  }

  // Starts an owner that waits in the middle of a build, for longer than a lease takes to run out without being kept
  // alive. Other sessions sweep meanwhile. Then lets it end, undisturbed.
  void expect_to_be_left_alone(const std::vector<std::string>& command) {
    Child owner(command);
    ASSERT_TRUE(eventually([&] { return count_raw(keys().all_staging()) == 1; }));
    const std::int64_t begun = begin_of_build();
    wait_for_a_lease_of_a_second();
    sweep();
    const std::shared_ptr<Store> other = open_watched(&watch_);
    EXPECT_EQ(begin_of_build(), begun) << "another session has given it up";
    ASSERT_TRUE(done(create_key(*other, "go")));
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_TRUE(done(open_key(*store_, "built.k349")));
  }

  // When the one build was begun, or zero if there is none.
  std::int64_t begin_of_build() {
    RangeResponse found;
    EXPECT_TRUE(raw().range(get_all(keys().all_staging()), &found, patience()).ok());
    return found.kvs_size() == 0 ? 0 : found.kvs(0).create_revision();
  }

  // Waits as long as a lease takes to run out that nobody keeps alive.
  void wait_for_a_lease_of_a_second() {
    Lease lease;
    ASSERT_TRUE(raw().grant_lease(1, &lease, patience()).ok());
    TxnRequest request;
    put(request.add_success(), "/probe", "", lease.id);
    TxnResponse response;
    ASSERT_TRUE(raw().txn(request, &response, patience()).ok());
    EXPECT_TRUE(eventually([&] { return count_raw({"/probe", "/probf"}) == 0; }));
  }

  // Waits for the end of every session under the prefix.
  void expect_sessions_to_end() {
    EXPECT_TRUE(eventually([&] { return count_raw(keys().all_sessions()) == 0; }));
  }

  void expect_whole(std::uint64_t nodes) {
    EXPECT_TRUE(eventually([&] { return is_swept(); }));
    EXPECT_EQ(totals_of(*store_).nodes, nodes);
    EXPECT_EQ(count_raw(keys().all_nodes()), static_cast<std::int64_t>(nodes));
  }
};

TEST_F(EtcdOwnership, AnOwnerStoppedForLongerThanItsLeaseCannotDecide) {
  Child owner(victim("build", -kInTheMiddle));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  ASSERT_EQ(count_raw(keys().all_staging()), 1);
  expect_sessions_to_end();
  sweep();
  EXPECT_TRUE(is_swept());
  EXPECT_EQ(count_raw(keys().all_nodes()), 1) << "only the root";
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0) << "it begins again, in another session";
  EXPECT_TRUE(done(open_key(*store_, "built.k349")));
  expect_whole(352);
}

TEST_F(EtcdOwnership, AnOwnerStoppedForLessGoesOn) {
  Child owner(victim("build", -kInTheMiddle));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0);
  expect_whole(352);
}

TEST_F(EtcdOwnership, AClaimantStoppedForLongerThanItsLeaseCannotDecide) {
  ASSERT_TRUE(done(build_keys(*store_, "many", 150)));
  store_.reset();  // so that the only session left is the owner's
  Child owner(victim("change", -7));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  store_ = open_watched(&watch_);
  ASSERT_EQ(count_raw(keys().all_claims()), 1);
  expect_sessions_to_end();
  sweep();
  EXPECT_TRUE(is_swept());
  ASSERT_TRUE(done(write_key(*store_, "many.k3", "meanwhile")));
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0);
  std::string text;
  ASSERT_TRUE(done(read_key(*store_, "many.k3", &text)));
  EXPECT_EQ(text, "changed");
  expect_whole(152);
}

TEST_F(EtcdOwnership, TheWorkOfAKilledOwnerIsSweptOnceItsLeaseHasRunOut) {
  Child owner(victim("build", kInTheMiddle));
  EXPECT_EQ(owner.wait(), -1);
  ASSERT_EQ(count_raw(keys().all_staging()), 1);
  expect_sessions_to_end();
  const std::shared_ptr<Store> next = open_watched(&watch_);
  expect_whole(1);
}

// In a process namespace of its own its number means nothing here, and /proc does not show it there.
TEST_F(EtcdOwnership, AnOwnerThatCannotBeSeenIsNotTakenForDead) {
  std::vector<std::string> command = {"unshare", "--pid", "--fork", "--mount-proc", "--kill-child"};
  if (run({"unshare", "--pid", "--fork", "--mount-proc", "true"}) != 0) {
    command.insert(command.begin() + 1, {"--user", "--map-root-user"});
    if (run({"unshare", "--user", "--map-root-user", "--pid", "--fork", "--mount-proc", "true"}) != 0) {
      GTEST_SKIP() << "this machine permits no process namespaces";
    }
  }
  const std::vector<std::string> linger = victim("linger", 1000);
  command.insert(command.end(), linger.begin(), linger.end());
  expect_to_be_left_alone(command);
}

std::vector<std::string> with_skew(const std::string& seconds, std::vector<std::string> command) {
  command.insert(command.begin(), {"env", "TKV_CLOCK_SKEW=" + seconds});
  return command;
}

TEST_F(EtcdOwnership, AnOwnerWhoseClockIsSlowIsNotTakenForDead) {
  expect_to_be_left_alone(with_skew("-3600", victim("linger", 1000)));
}

TEST_F(EtcdOwnership, AnOwnerWhoseClockIsFastIsNotTakenForDead) {
  expect_to_be_left_alone(with_skew("3600", victim("linger", 1000)));
}

TEST_F(EtcdOwnership, AKilledOwnerWhoseClockWasFastIsSweptAsAnyOther) {
  Child owner(with_skew("3600", victim("build", kInTheMiddle)));
  EXPECT_EQ(owner.wait(), -1);
  ASSERT_EQ(count_raw(keys().all_staging()), 1);
  expect_sessions_to_end();
  const std::shared_ptr<Store> next = open_watched(&watch_);
  expect_whole(1);
}

// While there is no leader, nobody can keep a lease alive, and none runs out: an election begins them anew.
TEST(EtcdOwnershipWithoutALeader, LastsForTheLivingAndEndsForTheDead) {
  EtcdCluster::Options members;
  members.members = 3;
  EtcdCluster cluster(members);
  EtcdOptions options = cluster.registry();
  options.session_ttl_s = 5;
  const auto living = open_when_ready(options);
  options.timeout_ms = 1000;
  const auto other = open_when_ready(options);
  ASSERT_TRUE(living && other);
  const Keys keys(options.prefix);
  ClusterOptions connection;
  connection.endpoints = options.endpoints;
  connection.timeout = patience().left();
  std::unique_ptr<Cluster> raw;
  ASSERT_TRUE(done(Cluster::connect(connection, &raw)));
  const auto builds = [&] {
    RangeResponse found;
    EXPECT_TRUE(raw->range(get_all(keys.all_staging()), &found, patience()).ok());
    return found.kvs_size();
  };
  Child dead({TKV_ETCD_VICTIM, cluster.endpoint(0), options.prefix, "build", "6"});
  EXPECT_EQ(dead.wait(), -1);
  int runs = 0;
  const auto lose_leader = [&](int key) {
    if (key == 0) ++runs;
    if (key != 300 || runs > 1) return;
    EXPECT_EQ(builds(), 2);
    const int leader = cluster.leader();
    for (int member = 0; member < 3; ++member) {
      if (member != leader) cluster.kill(member);
    }
    const Deadline outage(std::chrono::seconds(options.session_ttl_s + 1));
    while (outage.left().count() > 0) EXPECT_FALSE(open_key(*other, "").ok());
    for (int member = 0; member < 3; ++member) {
      if (member != leader) cluster.start(member);
    }
    cluster.wait_until_healthy();
    EXPECT_TRUE(eventually([&] {
      Totals totals;
      EXPECT_TRUE(done(other->check(
          true, [](const Finding&) {}, &totals)));
      return builds() == 1;
    })) << "that of the dead owner goes";
  };
  EXPECT_TRUE(done(build_keys(*living, "kept", 350, lose_leader)));
  EXPECT_EQ(runs, 1) << "the living owner was taken for dead";
  EXPECT_EQ(totals_of(*living).nodes, 352u);
}

}  // namespace
}  // namespace tkv::store::etcd
