// The connection with an etcd cluster of up to five endpoints. One is asked at a time, and the next one if it does not
// answer.
//
// Attempts. Every request ends by its deadline. It is made in attempts, so that a member that is stopped, cut off or
// without a leader costs one attempt; the endpoint that answered last is asked first the next time. An attempt may take
// as long as the endpoint's answers have been found to take, as far as they are predictable, and `attempt` longer. An
// endpoint that has not answered yet is judged by the time that connecting took. Attempts grow by half with each round
// over the endpoints. Waiting for a connection is not an attempt: nothing has been sent, and while one endpoint is
// being connected the others get their turns.
//
// Files. The password is read for each login, the certificates and the key for each connection, so that a session
// survives their replacement. A replacement that cannot be used is ignored until it can.
//
// Threads. Any number may call at once. After a fork the child's calls fail: gRPC's threads stay with the parent. They
// end when the last Cluster of the process is destroyed, which waits for them; only a connection that a silent peer has
// accepted keeps them for a few seconds longer.
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
  std::chrono::milliseconds timeout{5000};     // of one operation, over all endpoints
  std::chrono::milliseconds attempt{300};      // how long an answer may be overdue; for an only endpoint 1 s at least
  std::function<Interceptors()> interceptors;  // for each channel; tests watch requests with them
};

class Cluster final : public Kv {
 public:
  // Checks the options, logs in and checks the server's version. Returns PRTKV_INVALID_CONFIGURATION or
  // PRTKV_CONFIGURATION_UNREADABLE for options and files that cannot be used, PRTKV_ACCESS_DENIED for a refused login,
  // PRTKV_UNUSABLE for a server that must not be used, and PRTKV_UNREACHABLE, with the reason of each endpoint, if
  // none answers.
  static Status connect(const ClusterOptions& options, std::unique_ptr<Cluster>* cluster);

  ~Cluster() override;

  using Kv::txn;
  Reply range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
              Deadline deadline) override;
  Reply txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
            std::size_t expected) override;
  Reply watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
              Deadline deadline) override;
  Reply grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) override;
  Reply keep_lease_alive(Lease* lease, Deadline deadline) override;
  Reply revoke_lease(std::int64_t id, Deadline deadline) override;
  Reply ask_members(ClusterAnswer* answer, Deadline deadline) override;
  std::chrono::milliseconds timeout() const override;
  bool is_ours() const override;

 private:
  struct Connection;
  explicit Cluster(std::unique_ptr<Connection> connection);

  std::unique_ptr<Connection> connection_;
};

}  // namespace tkv::store::etcd

#endif
