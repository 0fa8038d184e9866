#include "etcd_store.h"

#include <gtest/gtest.h>

#include <string>

#include "etcd_cluster.h"

namespace tkv::store::etcd {
namespace {

class EtcdStore : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = new EtcdCluster(); }
  static void TearDownTestSuite() { delete cluster_; }

  static EtcdCluster* cluster_;
};
EtcdCluster* EtcdStore::cluster_ = nullptr;

TEST_F(EtcdStore, MakesReadsAndRemoves) {
  auto store = open_when_ready(cluster_->registry());
  ASSERT_TRUE(store);
  Status status = store->write([](Update& update) -> Status {
    Node root;
    if (Status s = update.find(kNoNode, "", &root); !s.ok()) return s;
    NodeId id;
    if (Status s = update.new_id(&id); !s.ok()) return s;
    if (Status s = update.insert(root.id, "a", {id, {}}); !s.ok()) return s;
    return update.set_value(id, 3, std::as_bytes(std::span("hello", 6)));
  });
  ASSERT_TRUE(status.ok()) << status.text();
  std::string text;
  status = store->read([&](View& view) -> Status {
    Node root, a;
    if (Status s = view.find(kNoNode, "", &root); !s.ok()) return s;
    if (Status s = view.find(root.id, "a", &a); !s.ok()) return s;
    Value value;
    if (Status s = view.value(a.id, &value); !s.ok()) return s;
    text.assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
    return {};
  });
  ASSERT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(text, std::string("hello\0", 6));
}

}  // namespace
}  // namespace tkv::store::etcd
