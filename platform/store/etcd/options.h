// How a registry on an etcd cluster is opened.
#ifndef TKV_PLATFORM_STORE_ETCD_OPTIONS_H
#define TKV_PLATFORM_STORE_ETCD_OPTIONS_H

#include <string>
#include <vector>

#include "sec_attr.h"

namespace tkv::store {

struct EtcdOptions {
  std::vector<std::string> endpoints;  // "host:port", one to five
  std::string ca;                      // PEM files; empty: not used. With a ca the connection is TLS
  std::string cert;
  std::string key;
  std::string user;
  std::string password_file;     // one line; readable by its owner only
  std::string prefix = "/tkv/";  // of every key of this registry
  int timeout_ms = 5000;         // of one operation, over all endpoints
  bool create = true;            // make a fresh registry when there is none
  sec_attr root_security{};      // security record of a fresh registry's root
};

}  // namespace tkv::store

#endif
