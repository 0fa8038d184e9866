// DelayProxy: a network with a long round-trip time between a session and a member of a cluster. Whatever is sent
// arrives after half of it, in either direction; setting up a connection takes one round trip, as it does with TCP.
#ifndef TKV_TESTS_ETCD_DELAY_PROXY_H
#define TKV_TESTS_ETCD_DELAY_PROXY_H

#include <atomic>
#include <chrono>
#include <list>
#include <string>
#include <thread>

namespace tkv::store::etcd {

class DelayProxy {
 public:
  DelayProxy(std::string target, std::chrono::milliseconds round_trip);
  ~DelayProxy();
  DelayProxy(const DelayProxy&) = delete;
  DelayProxy& operator=(const DelayProxy&) = delete;

  const std::string& endpoint() const { return endpoint_; }

 private:
  struct Connection {
    int dialler = -1;
    std::thread there;
    std::thread back;
  };

  void accept_all();
  void set_up(Connection* connection);
  void carry(int from, int to) const;

  const std::string target_;
  const std::chrono::milliseconds round_trip_;
  const int listener_;
  const std::string endpoint_;
  std::atomic<bool> ending_{false};
  std::list<Connection> connections_;
  std::thread acceptor_;
};

}  // namespace tkv::store::etcd

#endif
