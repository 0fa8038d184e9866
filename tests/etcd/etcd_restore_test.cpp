// Sessions on a real cluster into whose members a snapshot is restored: same addresses, same ids, an earlier state.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "etcd_cluster.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/keys.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

class EtcdRestore : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    EtcdCluster::Options options;
    options.members = 3;
    cluster_ = new EtcdCluster(options);
  }
  static void TearDownTestSuite() { delete cluster_; }

  void SetUp() override { options_ = cluster_->registry(); }

  std::shared_ptr<Store> session() const { return open_when_ready(options_); }

  static void make(Store& store, const std::string& name, int keys) {
    for (int i = 0; i < keys; ++i) ASSERT_TRUE(done(create_key(store, name + std::to_string(i), name)));
  }

  // Others write until the cluster's revision is beyond what it was before the restoration.
  void catch_up(Store& store) {
    for (int i = 0; i < kLost; ++i) ASSERT_TRUE(done(write_key(store, "saved0", std::to_string(i))));
  }

  static void expect_ended(const Status& status) {
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.code() << " " << status.text();
    EXPECT_NE(status.text().find("another history of this cluster"), std::string::npos) << status.text();
  }

  static constexpr int kSaved = 5;  // keys in the snapshot
  static constexpr int kLost = 20;  // keys created after it

  static inline EtcdCluster* cluster_ = nullptr;
  EtcdOptions options_;
};

TEST_F(EtcdRestore, EndsSessionsThatHaveSeenWhatIsLost) {
  const auto writer = session();
  const auto reader = session();
  make(*writer, "saved", kSaved);
  cluster_->save();
  make(*writer, "lost", kLost);
  std::string text;
  ASSERT_TRUE(done(read_key(*reader, "lost3", &text)));
  cluster_->restore();

  expect_ended(read_key(*reader, "saved0", &text));
  expect_ended(create_key(*writer, "again", "text"));
  const auto after = session();
  ASSERT_TRUE(done(read_key(*after, "saved0", &text)));
  EXPECT_EQ(text, "saved");
  EXPECT_TRUE(open_key(*after, "lost0").is(PRTKV_NO_SUCH_KEY));
  make(*after, "new", kLost);
  expect_ended(read_key(*reader, "saved0", &text));
  expect_ended(create_key(*writer, "again", "text"));
  EXPECT_EQ(totals_of(*after).nodes, 1u + kSaved + kLost);
}

TEST_F(EtcdRestore, EndsAWriterHoweverFarTheOthersHaveCome) {
  const auto writer = session();
  make(*writer, "saved", kSaved);
  cluster_->save();
  make(*writer, "lost", kLost);
  const auto late = session();  // takes its ids after the snapshot, and `writer` before
  make(*late, "late", 1);
  cluster_->restore();

  const auto after = session();
  make(*after, "new", kLost);
  catch_up(*after);
  expect_ended(create_key(*late, "again", "text"));
  expect_ended(create_key(*writer, "again", "text"));
  make(*after, "more", 1);
  EXPECT_EQ(totals_of(*after).nodes, 1u + kSaved + kLost + 1);
}

// Whatever a session that is not ended reads and writes belongs to the restored history.
TEST_F(EtcdRestore, LeavesSessionsAloneThatHaveSeenNothingOfWhatIsLost) {
  const auto writer = session();
  make(*writer, "saved", kSaved);
  const auto idle = session();
  std::string text;
  ASSERT_TRUE(done(read_key(*idle, "saved0", &text)));
  cluster_->save();
  make(*writer, "lost", kLost);
  cluster_->restore();

  ASSERT_TRUE(done(read_key(*idle, "saved0", &text)));
  EXPECT_TRUE(open_key(*idle, "lost0").is(PRTKV_NO_SUCH_KEY));
  ASSERT_TRUE(done(create_key(*idle, "idle", "text")));
  make(*session(), "new", kLost);
  EXPECT_EQ(totals_of(*session()).nodes, 1u + kSaved + 1 + kLost);
}

// As releases did before they marked the prefix.
TEST_F(EtcdRestore, GivesNoIdTwiceInARegistryWithoutAMark) {
  make(*session(), "saved", kSaved);
  (void)cluster_->ctl({"del", Keys(options_.prefix).mark()});
  options_.create = false;
  cluster_->save();
  const auto writer = session();
  make(*writer, "lost", kLost);
  cluster_->restore();

  const auto after = session();
  make(*after, "new", kLost);
  catch_up(*after);
  expect_ended(create_key(*writer, "again", "text"));
  EXPECT_EQ(totals_of(*after).nodes, 1u + kSaved + kLost);
}

}  // namespace
}  // namespace tkv::store::etcd
