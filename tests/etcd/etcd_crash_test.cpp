#include <gtest/gtest.h>

#include <string>

#include "etcd_cluster.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

// Processes that are killed at each of their requests in turn. Whatever they were doing is done completely or not at
// all, and the next session removes what they left behind.
class EtcdCrash : public testing::TestWithParam<const char*> {
 protected:
  static constexpr int kMany = 150;

  static std::int64_t count(Cluster& cluster, const KeyRange& range) {
    RangeResponse response;
    EXPECT_TRUE(cluster.range(get_range(range, 1), &response, patience()).ok());
    return response.count();
  }

  // Lets the leases of all sessions run out now.
  static void end_sessions(Cluster& cluster, const Keys& keys) {
    RangeResponse sessions;
    EXPECT_TRUE(cluster.range(get_all(keys.all_sessions()), &sessions, patience()).ok());
    for (const KeyValue& session : sessions.kvs()) EXPECT_TRUE(cluster.revoke_lease(session.lease(), patience()).ok());
  }

  // How many of the subkeys of "many" have the value that a change gives them.
  static int changed(Store& store) {
    int count = 0;
    EXPECT_TRUE(done(store.read_all([&](View& view) -> Status {
      Node many;
      count = 0;
      if (Status status = follow(view, "many", &many); !status.ok()) return status;
      return view.children(many.id, [&](std::string_view, const Node& node) -> Status {
        Value value;
        if (Status status = view.value(node.id, &value); !status.ok()) return status;
        count += text_of(value) == "changed" ? 1 : 0;
        return {};
      });
    })));
    return count;
  }

  // A key "old" with subkeys of its own and theirs.
  static void make_old(Store& store) {
    ASSERT_TRUE(done(build_keys(store, "old", 30)));
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(done(create_key(store, "old.k" + std::to_string(i) + ".below", "value")));
    }
  }
};

TEST_P(EtcdCrash, LeavesAWholeRegistryThatTheNextSessionCleans) {
  EtcdCluster cluster;
  ClusterOptions raw_options;
  raw_options.endpoints = cluster.endpoints();
  raw_options.timeout = patience().left();
  std::unique_ptr<Cluster> raw;
  ASSERT_TRUE(done(Cluster::connect(raw_options, &raw)));
  constexpr int kMostRequests = 60;
  bool finished = false;
  int killed = 0;
  for (int last = 1; last <= kMostRequests && !finished; ++last) {
    const EtcdOptions options = cluster.registry();
    auto store = open_when_ready(options);
    ASSERT_TRUE(store);
    make_old(*store);
    ASSERT_TRUE(done(build_keys(*store, "many", kMany)));
    store.reset();

    std::string output;
    const int code =
        run({TKV_ETCD_VICTIM, cluster.endpoint(0), options.prefix, GetParam(), std::to_string(last)}, &output);
    ASSERT_TRUE(code == 0 || code == -1) << output;
    finished = code == 0;
    killed += finished ? 0 : 1;

    const Keys keys(options.prefix);
    end_sessions(*raw, keys);
    ASSERT_TRUE(done(open_etcd_store(options, &store)));
    EXPECT_TRUE(eventually([&] {
      return count(*raw, keys.all_staging()) == 0 && count(*raw, keys.all_garbage()) == 0 &&
             count(*raw, keys.all_writers()) == 0 && count(*raw, keys.all_claims()) == 0 &&
             count(*raw, keys.all_plans()) == 0;
    })) << "killed at request "
        << last;
    const bool built = open_key(*store, "built").ok();
    const bool old = open_key(*store, "old").ok();
    const bool small = open_key(*store, "small").ok();
    const int now_changed = changed(*store);
    EXPECT_TRUE(now_changed == 0 || now_changed == kMany) << now_changed << " after request " << last;
    const Totals totals = totals_of(*store);
    EXPECT_EQ(totals.nodes, 1u + (built ? 351u : 0u) + (old ? 36u : 0u) + (small ? 1u : 0u) + 1u + kMany) << last;
    EXPECT_EQ(totals.values, (built ? 350u : 0u) + (old ? 35u : 0u) + (small ? 1u : 0u) + kMany) << last;
    EXPECT_EQ(count(*raw, keys.all_nodes()), static_cast<std::int64_t>(totals.nodes)) << last;
    EXPECT_EQ(count(*raw, keys.all_values()), static_cast<std::int64_t>(totals.values)) << last;
    if (finished) {
      EXPECT_EQ(built, GetParam() == std::string("build"));
      EXPECT_EQ(old, GetParam() != std::string("delete"));
      EXPECT_EQ(small, GetParam() == std::string("create"));
      EXPECT_EQ(now_changed, GetParam() == std::string("change") ? kMany : 0);
    }
  }
  EXPECT_TRUE(finished);
  EXPECT_GE(killed, 3);
}

INSTANTIATE_TEST_SUITE_P(EachRequest, EtcdCrash, testing::Values("build", "delete", "create", "change"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace tkv::store::etcd
