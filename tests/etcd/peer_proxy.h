// PeerProxy: forwards connections between the members of an etcd cluster, so that a test can cut one off from the
// others while its clients still reach it. A cut connection carries nothing in either direction and stays open, as on a
// network that drops packets.
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
  // Listens on `endpoint` and forwards to `target`. `is_cut` says whether the connection of a member is cut at this
  // moment. The member is identified by its id in hexadecimal digits, "" until it has sent it.
  PeerProxy(const std::string& endpoint, std::string target, std::function<bool(const std::string& dialler)> is_cut);
  ~PeerProxy();
  PeerProxy(const PeerProxy&) = delete;
  PeerProxy& operator=(const PeerProxy&) = delete;

 private:
  struct Connection {
    int dialler = -1;
    int target = -1;
    std::thread thread;
  };

  void accept_all();
  void serve(int dialler, int target);

  std::string target_;
  std::function<bool(const std::string& dialler)> is_cut_;
  int listener_;
  std::atomic<bool> ending_{false};
  std::mutex mutex_;
  std::list<Connection> connections_;
  std::thread acceptor_;
};

}  // namespace tkv::store::etcd

#endif
