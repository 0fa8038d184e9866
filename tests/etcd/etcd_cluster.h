// EtcdCluster: an etcd cluster for one test, run by tests/cluster/etcd_cluster.py, which ends when the test does, even
// by a crash. Members can be killed, stopped, cut off from the others and started again.
#ifndef TKV_TESTS_ETCD_ETCD_CLUSTER_H
#define TKV_TESTS_ETCD_ETCD_CLUSTER_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "peer_proxy.h"
#include "store/etcd/cluster.h"
#include "store/etcd/options.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Calls `condition` until it holds. Returns false if it does not hold by the deadline, which is far beyond what a busy
// machine needs: only a broken program reaches it.
bool eventually(const std::function<bool()>& condition);

// For a request that must succeed, however busy the machine.
Deadline patience();

// A directory that is removed with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// An endpoint that refuses connections: nothing listens there, and nothing else can bind to it while this object lives.
class RefusingEndpoint {
 public:
  RefusingEndpoint();
  ~RefusingEndpoint();
  RefusingEndpoint(const RefusingEndpoint&) = delete;
  RefusingEndpoint& operator=(const RefusingEndpoint&) = delete;

  const std::string& endpoint() const { return endpoint_; }

 private:
  int socket_;
  std::string endpoint_;
};

// Runs a command without a shell and waits for its end. Returns its exit code, or -1 if a signal ended it.
int run(const std::vector<std::string>& command, std::string* output = nullptr);

class EtcdCluster {
 public:
  struct Options {
    int members = 1;
    std::vector<std::string> flags;      // further etcd flags, for each member
    std::vector<std::string> ctl_flags;  // further etcdctl flags
    std::string cert;                    // with TLS: a client certificate that the members accept, and its key
    std::string key;
    bool between_proxies = false;  // members reach each other through proxies, which can cut one off
    // Called with the cluster's IP address before the members start: to issue their certificates, for instance.
    std::function<void(const std::string& address)> prepare;
  };

  // Starts the cluster and waits until every member is healthy. Throws std::runtime_error if that fails; so does every
  // other function that acts on members.
  explicit EtcdCluster(Options options);
  EtcdCluster() : EtcdCluster(Options()) {}
  ~EtcdCluster();
  EtcdCluster(const EtcdCluster&) = delete;
  EtcdCluster& operator=(const EtcdCluster&) = delete;

  int size() const { return options_.members; }
  const std::string& endpoint(int member) const { return endpoints_[static_cast<std::size_t>(member)]; }
  const std::vector<std::string>& endpoints() const { return endpoints_; }

  // Options for a registry on this cluster, with ample time for a busy machine. Each call gives another prefix.
  EtcdOptions registry() const;

  // Waits until one of the members says that it leads.
  void wait_until_ready();

  // Waits until every running member is healthy.
  void wait_until_healthy();

  // The member that says it leads, or -1.
  int leader() const;

  void kill(int member);     // SIGKILL; waits for the process's end
  void start(int member);    // does not wait
  void restart(int member);  // waits until every running member is healthy
  void stop(int member);     // SIGSTOP
  void go_on(int member);    // SIGCONT
  // Cuts a member off from the others, or reconnects it; only with `between_proxies`.
  void cut(int member);
  void heal();

  // Saves a snapshot, and restores it into the same members (see etcd_cluster.py).
  void save() { (void)ask("save"); }
  void restore() { (void)ask("restore"); }

  // Runs etcdctl against the running members. Returns what it printed.
  std::string ctl(std::vector<std::string> arguments) const;
  void set_ctl_flags(std::vector<std::string> flags) { options_.ctl_flags = std::move(flags); }

 private:
  class Launcher;

  std::string ask(const std::string& command) const;
  bool is_cut(int target, const std::string& dialler) const;

  Options options_;
  std::unique_ptr<Launcher> launcher_;
  std::vector<std::string> endpoints_;
  std::vector<bool> running_;
  std::vector<std::unique_ptr<PeerProxy>> proxies_;
  std::atomic<int> cut_member_{-1};
  std::string cut_id_;
  mutable std::mutex cut_mutex_;
};

// Opens a store, trying again while the cluster is unreachable or the time was too short. Fails the test and returns
// null if it stays so.
std::shared_ptr<Store> open_when_ready(const EtcdOptions& options,
                                       const std::function<Interceptors()>& interceptors = {});

}  // namespace tkv::store::etcd

#endif
