// Sockets on loopback, by endpoints: "127.0.0.1:2379". Port 0 lets the kernel choose.
#ifndef TKV_TESTS_ETCD_LOOPBACK_H
#define TKV_TESTS_ETCD_LOOPBACK_H

#include <string>

namespace tkv::store::etcd {

// Throws std::runtime_error if the endpoint is in use.
int bound_socket(const std::string& endpoint);
int listening_socket(const std::string& endpoint);

// Returns -1 if nothing listens there.
int connected_socket(const std::string& endpoint);

// The endpoint that a socket is bound to.
std::string endpoint_of(int socket);

}  // namespace tkv::store::etcd

#endif
