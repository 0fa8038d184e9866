// The connection with an etcd cluster: up to five endpoints, of which one is asked at a time, and the next one when it
// does not answer.
//
// Every request ends by its deadline. It is tried in short attempts, so that a member that is stopped, cut off or
// without a leader costs one attempt; the endpoint that answered last is asked first the next time. Attempts grow
// longer with each round over the endpoints, for answers that take their time.
//
// Threads. Any number may call at once. After a fork the child's calls fail: gRPC's threads stay with the parent.
#ifndef TKV_PLATFORM_STORE_ETCD_CLUSTER_H
#define TKV_PLATFORM_STORE_ETCD_CLUSTER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/status.h"
#include "store/etcd/kv.h"

namespace grpc::experimental {
class ClientInterceptorFactoryInterface;
}

namespace tkv::store::etcd {

using Interceptors = std::vector<std::unique_ptr<grpc::experimental::ClientInterceptorFactoryInterface>>;

struct ClusterOptions {
  std::vector<std::string> endpoints;
  std::string ca;
  std::string cert;
  std::string key;
  std::string user;
  std::string password_file;
  std::chrono::milliseconds timeout{5000};
  std::function<Interceptors()> interceptors;  // of each channel; tests look at the requests
};

class Cluster final : public Kv {
 public:
  // Checks the options, logs in and makes sure of the server's version. 41 and 42 for what is wrong with options and
  // files, 2 for a refused login, 15 with every endpoint's reason when none can be used.
  static Status connect(const ClusterOptions& options, std::unique_ptr<Cluster>* cluster);

  ~Cluster() override;

  using Kv::txn;
  Reply range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
              Deadline deadline) override;
  Reply txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
            std::size_t expected) override;
  std::chrono::milliseconds timeout() const override;
  bool is_ours() const override;

 private:
  struct Connection;
  explicit Cluster(std::unique_ptr<Connection> connection);

  std::unique_ptr<Connection> connection_;
};

}  // namespace tkv::store::etcd

#endif
