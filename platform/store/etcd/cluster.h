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
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/status.h"
#include "etcd.pb.h"
#include "store/etcd/judgement.h"

namespace grpc::experimental {
class ClientInterceptorFactoryInterface;
}

namespace tkv::store::etcd {

class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds from_now) : at_(std::chrono::steady_clock::now() + from_now) {}

  // Never negative.
  std::chrono::milliseconds left() const {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(at_ - std::chrono::steady_clock::now());
    return rest.count() > 0 ? rest : std::chrono::milliseconds(0);
  }

 private:
  std::chrono::steady_clock::time_point at_;
};

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

// How a request ended. `repeated`: it was sent again after an answer that never came, so what it did the first time is
// for the caller to tell from the answer, or, when that is a failure, not known.
struct Outcome {
  Verdict verdict = Verdict::kDone;
  Status status;
  bool repeated = false;

  bool ok() const { return verdict == Verdict::kDone; }
};

class Cluster {
 public:
  // Checks the options, logs in and makes sure of the server's version. 41 and 42 for what is wrong with options and
  // files, 2 for a refused login, 15 with every endpoint's reason when none can be used.
  static Status connect(const ClusterOptions& options, std::unique_ptr<Cluster>* cluster);

  ~Cluster();
  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  Outcome range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response, Deadline deadline);

  // A transaction that is sent again, as it is, when its answer is lost: one that only reads, or whose comparisons fail
  // once it has been made, or whose repetition changes nothing. `expected`: bytes of an answer that takes its time.
  Outcome txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
              std::size_t expected = 0);

  std::chrono::milliseconds timeout() const;

  // Whether this process is the one that connected.
  bool is_ours() const;

 private:
  struct Connection;
  explicit Cluster(std::unique_ptr<Connection> connection);

  std::unique_ptr<Connection> connection_;
};

}  // namespace tkv::store::etcd

#endif
