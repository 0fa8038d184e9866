// The options for opening a registry on an etcd cluster.
#ifndef TKV_PLATFORM_STORE_ETCD_OPTIONS_H
#define TKV_PLATFORM_STORE_ETCD_OPTIONS_H

#include <string>
#include <vector>

#include "sec_attr.h"

namespace tkv::store {

struct EtcdOptions {
  std::vector<std::string> endpoints;  // "host:port", one to five
  std::string ca;                      // PEM files; "" for none. With a ca the connection uses TLS
  std::string cert;
  std::string key;
  std::string user;
  std::string password_file;     // one line; accessible to its owner only
  std::string prefix = "/tkv/";  // of every key of this registry
  int timeout_ms = 5000;         // time limit of one operation, over all endpoints
  int attempt_ms = 300;          // how long an answer may be overdue before another endpoint is asked
  int session_ttl_s = 20;        // how long what a dead session was at stays its own; tests set less
  int sweep_interval_s = 300;    // how often a session looks for what others have left; tests set less
  bool create = true;            // create a registry if there is none
  sec_attr root_security{};      // security record of a new registry's root
};

}  // namespace tkv::store

#endif
