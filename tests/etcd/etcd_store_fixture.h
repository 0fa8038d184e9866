// A registry on a real etcd cluster for each test, and access to its keys without the store.
#ifndef TKV_TESTS_ETCD_ETCD_STORE_FIXTURE_H
#define TKV_TESTS_ETCD_ETCD_STORE_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "etcd_cluster.h"
#include "request_watch.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"
#include "tree.h"

namespace tkv::store::etcd {

// All tests share one cluster of one member; each has a registry of its own.
class EtcdStore : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = new EtcdCluster(); }
  static void TearDownTestSuite() { delete cluster_; }

  void SetUp() override {
    options_ = cluster_->registry();
    options_.attempt_ms = options_.timeout_ms;  // requests are counted: none is sent again because the machine is busy
    store_ = open_watched(&watch_);
    ASSERT_TRUE(store_);
  }

  std::shared_ptr<Store> open_watched(RequestWatch* watch) {
    std::shared_ptr<Store> store;
    EXPECT_TRUE(done(open_etcd_store(options_, &store, watch->interceptors())));
    return store;
  }

  // The number of requests that `action` sends.
  template <typename Action>
  int requests_of(Action action) {
    watch_.reset();
    EXPECT_TRUE(done(action()));
    return watch_.count();
  }

  // A connection without the store, for what only an operator or a fault does.
  Cluster& raw() {
    if (!raw_) {
      ClusterOptions options;
      options.endpoints = options_.endpoints;
      options.timeout = patience().left();
      EXPECT_TRUE(done(Cluster::connect(options, &raw_)));
    }
    return *raw_;
  }
  void put_raw(const std::string& key, const std::string& value) {
    TxnRequest request;
    put(request.add_success(), key, value);
    TxnResponse response;
    EXPECT_TRUE(raw().txn(request, &response, patience()).ok());
  }
  std::string get_raw(const std::string& key) {
    RangeResponse response;
    EXPECT_TRUE(raw().range(get_one(key), &response, patience()).ok());
    return response.kvs_size() == 0 ? "" : response.kvs(0).value();
  }
  std::int64_t count_raw(const KeyRange& range) {
    RangeResponse response;
    RangeRequest request = get_range(range, 1);
    EXPECT_TRUE(raw().range(request, &response, patience()).ok());
    return response.count();
  }

  Keys keys() const { return Keys(options_.prefix); }

  static inline EtcdCluster* cluster_ = nullptr;
  EtcdOptions options_;
  RequestWatch watch_;
  std::shared_ptr<Store> store_;
  std::unique_ptr<Cluster> raw_;
};

}  // namespace tkv::store::etcd

#endif
