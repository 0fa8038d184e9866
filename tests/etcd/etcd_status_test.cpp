// What a store tells about its cluster.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "etcd_cluster.h"
#include "failure.h"
#include "request_watch.h"
#include "store/etcd/cluster_status.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

// ---- what the members say

void add_member(ClusterAnswer* answer, std::uint64_t id, const std::string& name, const std::string& url) {
  etcdserverpb::Member* member = answer->members.add_members();
  member->set_id(id);
  member->set_name(name);
  member->add_client_urls(url);
}

EndpointAnswer& add_answer(ClusterAnswer* answer, const std::string& address, std::uint64_t id, std::uint64_t leader) {
  EndpointAnswer& endpoint = answer->endpoints.emplace_back();
  endpoint.address = address;
  endpoint.member.mutable_header()->set_member_id(id);
  endpoint.member.set_leader(leader);
  endpoint.member.set_raft_term(5);
  endpoint.member.set_version("3.6.0");
  endpoint.member.set_db_size(1000);
  return endpoint;
}

void add_silence(ClusterAnswer* answer, const std::string& address) {
  EndpointAnswer& endpoint = answer->endpoints.emplace_back();
  endpoint.address = address;
  endpoint.status = Status(PRTKV_UNREACHABLE, "no answer in time");
}

ClusterAnswer three_members() {
  ClusterAnswer answer;
  add_member(&answer, 1, "alpha", "https://10.0.0.1:2379/");
  add_member(&answer, 2, "beta", "https://10.0.0.2:2379");
  add_member(&answer, 3, "gamma", "https://10.0.0.3:2379");
  return answer;
}

TEST(EtcdStatus, EachEndpointIsAssignedToItsMember) {
  ClusterAnswer answer = three_members();
  add_answer(&answer, "localhost:1", 2, 3);  // known to clients under an address of its own
  add_silence(&answer, "10.0.0.1:2379");
  answer.retries = 4;
  StoreStatus status;
  describe_cluster(answer, &status);
  ASSERT_TRUE(status.cluster);
  const auto& members = status.cluster->members;
  ASSERT_EQ(members.size(), 3u);
  EXPECT_EQ(members[0].name, "alpha");
  EXPECT_EQ(members[0].problem, "does not answer: no answer in time");
  EXPECT_EQ(members[0].version, "");
  EXPECT_EQ(members[1].name, "beta");
  EXPECT_EQ(members[1].address, "localhost:1");
  EXPECT_EQ(members[1].problem, "");
  EXPECT_EQ(members[1].version, "3.6.0");
  EXPECT_EQ(members[2].address, "10.0.0.3:2379");
  EXPECT_NE(members[2].problem.find("not one of the configured endpoints"), std::string::npos);
  EXPECT_TRUE(members[2].leads) << "whether or not it was asked";
  EXPECT_FALSE(members[0].leads || members[1].leads);
  EXPECT_EQ(status.cluster->retries, 4u);
}

TEST(EtcdStatus, AnEndpointOfNoKnownMemberIsShownByItsAddress) {
  ClusterAnswer answer = three_members();
  add_answer(&answer, "10.0.0.1:2379", 1, 1);
  add_silence(&answer, "old-host:2379");
  StoreStatus status;
  describe_cluster(answer, &status);
  ASSERT_EQ(status.cluster->members.size(), 4u);
  EXPECT_EQ(status.cluster->members[3].name, "");
  EXPECT_EQ(status.cluster->members[3].address, "old-host:2379");
  EXPECT_NE(status.cluster->members[3].problem, "");
}

TEST(EtcdStatus, WhoMayNotListTheMembersSeesTheEndpoints) {
  ClusterAnswer answer;
  add_silence(&answer, "10.0.0.1:2379");
  add_answer(&answer, "10.0.0.2:2379", 2, 2);
  StoreStatus status;
  describe_cluster(answer, &status);
  ASSERT_EQ(status.cluster->members.size(), 2u);
  EXPECT_NE(status.cluster->members[0].problem, "");
  EXPECT_EQ(status.cluster->members[1].address, "10.0.0.2:2379");
  EXPECT_TRUE(status.cluster->members[1].leads);
}

TEST(EtcdStatus, OfTwoEndpointsOfAMemberTheOneThatAnswersCounts) {
  for (const bool silent_first : {true, false}) {
    ClusterAnswer answer = three_members();
    if (silent_first) add_silence(&answer, "10.0.0.1:2379");
    add_answer(&answer, "localhost:2379", 1, 1);
    if (!silent_first) add_silence(&answer, "10.0.0.1:2379");
    StoreStatus status;
    describe_cluster(answer, &status);
    ASSERT_EQ(status.cluster->members.size(), 3u);
    EXPECT_EQ(status.cluster->members[0].problem, "");
    EXPECT_EQ(status.cluster->members[0].address, "localhost:2379");
  }
}

TEST(EtcdStatus, AFormerLeaderThatDoesNotKnowOfTheElectionIsNotShownAsLeader) {
  ClusterAnswer answer = three_members();
  add_answer(&answer, "10.0.0.2:2379", 2, 2).member.set_raft_term(6);
  add_answer(&answer, "10.0.0.1:2379", 1, 1);
  StoreStatus status;
  describe_cluster(answer, &status);
  EXPECT_FALSE(status.cluster->members[0].leads);
  EXPECT_TRUE(status.cluster->members[1].leads);
}

TEST(EtcdStatus, TheSizeIsThatOfTheLargestDatabaseAndTheLimitTheLowestQuota) {
  ClusterAnswer answer = three_members();
  add_answer(&answer, "10.0.0.1:2379", 1, 1).member.set_db_size_quota(9000);
  EndpointAnswer& second = add_answer(&answer, "10.0.0.2:2379", 2, 1);
  second.member.set_db_size(2000);
  second.member.set_db_size_in_use(1500);
  second.member.set_db_size_quota(8000);
  add_answer(&answer, "10.0.0.3:2379", 3, 1);
  StoreStatus status;
  describe_cluster(answer, &status);
  EXPECT_EQ(status.bytes, 2000u);
  EXPECT_EQ(status.max_bytes, 8000u);
  EXPECT_EQ(status.cluster->bytes_in_use, 1500u);
}

TEST(EtcdStatus, AlarmsNameTheirMembers) {
  ClusterAnswer answer = three_members();
  const auto raise = [&](std::uint64_t member, etcdserverpb::AlarmType alarm) {
    answer.alarms.add_alarms()->set_member_id(member);
    answer.alarms.mutable_alarms()->rbegin()->set_alarm(alarm);
  };
  raise(2, etcdserverpb::NOSPACE);
  raise(3, etcdserverpb::CORRUPT);
  raise(77, static_cast<etcdserverpb::AlarmType>(9));
  StoreStatus status;
  describe_cluster(answer, &status);
  const auto& alarms = status.cluster->alarms;
  ASSERT_EQ(alarms.size(), 3u);
  EXPECT_EQ(alarms[0].member + " " + alarms[0].alarm, "beta no space");
  EXPECT_EQ(alarms[1].member + " " + alarms[1].alarm, "gamma corrupt data");
  EXPECT_EQ(alarms[2].member + " " + alarms[2].alarm, "77 alarm 9");
}

// ---- real clusters

TEST(EtcdStatusOfCluster, OneMemberLeadsAndTellsItsSize) {
  EtcdCluster cluster;
  const auto store = open_when_ready(cluster.registry());
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a", "value")));
  StoreStatus status;
  ASSERT_TRUE(done(store->status(&status)));
  ASSERT_TRUE(status.cluster);
  ASSERT_EQ(status.cluster->members.size(), 1u);
  const ClusterMember& member = status.cluster->members[0];
  EXPECT_EQ(member.name, "m0");
  EXPECT_EQ(member.address, cluster.endpoint(0));
  EXPECT_TRUE(member.leads);
  EXPECT_EQ(member.problem, "");
  EXPECT_TRUE(member.version.starts_with("3.")) << member.version;
  EXPECT_GT(member.bytes, 0u);
  EXPECT_EQ(status.bytes, member.bytes);
  EXPECT_GT(status.cluster->bytes_in_use, 0u);
  EXPECT_TRUE(status.cluster->alarms.empty());
  EXPECT_EQ(status.cluster->builds, 0u);
  const std::uint64_t revision = status.cluster->revision;
  ASSERT_TRUE(done(create_key(*store, "b")));
  ASSERT_TRUE(done(store->status(&status)));
  EXPECT_GT(status.cluster->revision, revision);
}

TEST(EtcdStatusOfCluster, AMemberThatIsGoneIsNamedAndTheOthersAnswer) {
  EtcdCluster::Options members;
  members.members = 3;
  EtcdCluster cluster(members);
  const EtcdOptions options = cluster.registry();
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a")));
  const auto leaders = [](const StoreStatus& status) {
    const auto& all = status.cluster->members;
    return std::count_if(all.begin(), all.end(), [](const ClusterMember& member) { return member.leads; });
  };
  StoreStatus status;
  ASSERT_TRUE(done(store->status(&status)));
  ASSERT_EQ(status.cluster->members.size(), 3u);
  for (const ClusterMember& member : status.cluster->members) EXPECT_EQ(member.problem, "") << member.name;
  EXPECT_EQ(leaders(status), 1);

  const int gone = cluster.leader();
  ASSERT_GE(gone, 0);
  cluster.kill(gone);
  cluster.wait_until_ready();
  const auto fresh = open_when_ready(options);
  for (const auto& each : {store, fresh}) {
    ASSERT_TRUE(eventually([&] { return each->status(&status).ok() && leaders(status) == 1; }));
    ASSERT_EQ(status.cluster->members.size(), 3u);
    for (const ClusterMember& member : status.cluster->members) {
      const bool is_gone = member.address == cluster.endpoint(gone);
      EXPECT_EQ(member.problem.starts_with("does not answer: "), is_gone) << member.name << " " << member.problem;
      EXPECT_EQ(member.version.empty(), is_gone) << member.name;
      EXPECT_FALSE(is_gone && member.leads);
    }
  }
}

TEST(EtcdStatusOfCluster, CountsTheRequestsThatWereSentAgainSinceTheSessionWasOpened) {
  EtcdCluster cluster;
  std::atomic<int> to_lose{0};
  RequestWatch watch;
  watch.decide([&](const std::string&) { return to_lose-- > 0 ? Fate::kLoseRequest : Fate::kPass; });
  std::shared_ptr<Store> store;
  ASSERT_TRUE(done(open_etcd_store(cluster.registry(), &store, watch.interceptors())));
  StoreStatus status;
  ASSERT_TRUE(done(store->status(&status)));
  const std::uint64_t before = status.cluster->retries;
  to_lose = 2;
  ASSERT_TRUE(done(open_key(*store, "")));
  ASSERT_TRUE(done(store->status(&status)));
  EXPECT_GE(status.cluster->retries, before + 2);
}

TEST(EtcdStatusOfCluster, TheSpaceAlarmIsShownUntilItIsDisarmed) {
  EtcdCluster::Options small;
  small.flags = {"--quota-backend-bytes=4194304"};
  EtcdCluster cluster(small);
  const auto store = open_when_ready(cluster.registry());
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a")));
  Status written;
  const std::string large(512 * 1024, 'x');
  for (int i = 0; i < 40 && written.ok(); ++i) written = write_key(*store, "a", large);
  ASSERT_TRUE(says(written, PRTKV_STORAGE_FULL, {"space alarm"}));
  StoreStatus status;
  ASSERT_TRUE(done(store->status(&status)));
  ASSERT_EQ(status.cluster->alarms.size(), 1u);
  EXPECT_EQ(status.cluster->alarms[0].member, "m0");
  EXPECT_EQ(status.cluster->alarms[0].alarm, "no space");
  cluster.ctl({"alarm", "disarm"});
  ASSERT_TRUE(done(store->status(&status)));
  EXPECT_TRUE(status.cluster->alarms.empty());
}

}  // namespace
}  // namespace tkv::store::etcd
