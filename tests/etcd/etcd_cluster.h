// EtcdCluster: an etcd cluster of the test's own, on loopback, with ports of its own and its data in a directory that
// is removed at the end. Members are processes that can be killed, stopped, cut off and started again.
#ifndef TKV_TESTS_ETCD_ETCD_CLUSTER_H
#define TKV_TESTS_ETCD_ETCD_CLUSTER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "peer_proxy.h"
#include "store/etcd/module.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Calls `condition` until it is true; false when it did not come true in time.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds longest = std::chrono::milliseconds(30000));

// A directory that is removed with all that is in it.
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

// A port that nobody listens on.
int free_port();

// Runs a command without a shell and waits for it; its exit code.
int run(const std::vector<std::string>& command, std::string* output = nullptr);

class EtcdCluster {
 public:
  struct Options {
    int members = 1;
    std::vector<std::string> flags;      // more of etcd's, for each member
    std::vector<std::string> ctl_flags;  // more of etcdctl's: certificates
    std::string scheme = "http";         // of the clients' connections
    bool between_proxies = false;        // members reach each other through proxies of the test, which can cut one off
  };

  explicit EtcdCluster(Options options);
  EtcdCluster() : EtcdCluster(Options()) {}
  ~EtcdCluster();
  EtcdCluster(const EtcdCluster&) = delete;
  EtcdCluster& operator=(const EtcdCluster&) = delete;

  int size() const { return static_cast<int>(members_.size()); }
  std::string endpoint(int member) const;
  std::vector<std::string> endpoints() const;

  // For a registry of its own on this cluster: each call gives another prefix.
  EtcdOptions registry() const;

  // Waits until the cluster has a leader that answers.
  void wait_until_ready();

  // The member that leads, -1 when nobody answers.
  int leader() const;

  void kill(int member);  // with -9, and waits for its end
  void start(int member);
  void restart(int member);  // and waits until it answers
  void stop(int member);     // SIGSTOP
  void go_on(int member);
  // Cuts a member off from the others, or lets it back; only with `between_proxies`.
  void cut(int member);
  void heal();
  bool is_running(int member) const { return members_[static_cast<std::size_t>(member)].process > 0; }

  // etcdctl with this cluster's endpoints; what it printed.
  std::string ctl(std::vector<std::string> arguments) const;
  void set_ctl_flags(std::vector<std::string> flags) { options_.ctl_flags = std::move(flags); }

 private:
  struct Member {
    int client_port = 0;
    int peer_port = 0;
    pid_t process = 0;
    std::unique_ptr<PeerProxy> proxy;
  };

  std::vector<std::string> command(int member) const;

  Options options_;
  bool is_cut(int target, const std::string& dialler) const;

  TemporaryDirectory directory_;
  std::vector<Member> members_;
  std::atomic<int> cut_member_{-1};
  std::string cut_id_;
  mutable std::mutex cut_mutex_;
  std::string token_;
};

// Opens, repeating while the cluster is not there yet; fails the test when it never is.
std::shared_ptr<Store> open_when_ready(const EtcdOptions& options);

}  // namespace tkv::store::etcd

#endif
