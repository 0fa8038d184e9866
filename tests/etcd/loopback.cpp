#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace tkv::store::etcd {
namespace {

sockaddr_in address_of(const std::string& endpoint) {
  const auto colon = endpoint.find(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(endpoint.substr(colon + 1))));
  inet_pton(AF_INET, endpoint.substr(0, colon).c_str(), &address.sin_addr);
  return address;
}

int new_socket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

}  // namespace

int bound_socket(const std::string& endpoint) {
  const int bound = new_socket();
  const sockaddr_in address = address_of(endpoint);
  if (bind(bound, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return bound;
  close(bound);
  throw std::runtime_error(endpoint + " is in use");
}

int listening_socket(const std::string& endpoint) {
  const int listener = bound_socket(endpoint);
  if (listen(listener, 64) == 0) return listener;
  close(listener);
  throw std::runtime_error(endpoint + " is in use");
}

int connected_socket(const std::string& endpoint) {
  const int connected = new_socket();
  const sockaddr_in address = address_of(endpoint);
  if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return connected;
  close(connected);
  return -1;
}

std::string endpoint_of(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return text + (":" + std::to_string(ntohs(address.sin_port)));
}

}  // namespace tkv::store::etcd
