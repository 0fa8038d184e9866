// PeerProxy: stands between the members of an etcd cluster, so that a test can cut one off from the others while its
// clients still reach it. A connection that is cut carries nothing in either direction and is not closed: as with a
// network that drops what is sent.
#ifndef TKV_TESTS_ETCD_PEER_PROXY_H
#define TKV_TESTS_ETCD_PEER_PROXY_H

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace tkv::store::etcd {

class PeerProxy {
 public:
  // Accepts on a port of its own and passes on to `target_port`. `is_cut` tells, for the member that dialled (by its id
  // in hexadecimal digits, empty when it does not say), whether the connection is cut at this moment.
  PeerProxy(int target_port, std::function<bool(const std::string& dialler)> is_cut);
  ~PeerProxy();
  PeerProxy(const PeerProxy&) = delete;
  PeerProxy& operator=(const PeerProxy&) = delete;

  int port() const { return port_; }

 private:
  struct Connection {
    int dialler = -1;
    int target = -1;
    std::thread thread;
  };

  void accept_all();
  void serve(int dialler, int target);

  int target_port_;
  std::function<bool(const std::string& dialler)> is_cut_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> ending_{false};
  std::mutex mutex_;
  std::list<Connection> connections_;
  std::thread acceptor_;
};

}  // namespace tkv::store::etcd

#endif
