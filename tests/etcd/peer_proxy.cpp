#include "peer_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace tkv::store::etcd {
namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int dial(int port) {
  const int target = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  if (connect(target, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return target;
  close(target);
  return -1;
}

bool pass_on(int from, int to, std::string* seen) {
  std::array<char, 65536> buffer;
  const ssize_t size = recv(from, buffer.data(), buffer.size(), 0);
  if (size <= 0) return false;
  if (seen != nullptr && seen->size() < 4096) seen->append(buffer.data(), static_cast<std::size_t>(size));
  for (ssize_t sent = 0; sent < size;) {
    const ssize_t part = send(to, buffer.data() + sent, static_cast<std::size_t>(size - sent), MSG_NOSIGNAL);
    if (part <= 0) return false;
    sent += part;
  }
  return true;
}

// etcd's members say in every request to each other who they are.
std::string dialler_of(const std::string& request) {
  constexpr std::string_view kHeader = "X-Server-From: ";
  const auto at = request.find(kHeader);
  if (at == std::string::npos) return {};
  const auto end = request.find('\r', at);
  return request.substr(at + kHeader.size(), end - at - kHeader.size());
}

}  // namespace

PeerProxy::PeerProxy(int target_port, std::function<bool(const std::string& dialler)> is_cut)
    : target_port_(target_port), is_cut_(std::move(is_cut)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 64) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no port for a proxy");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept_all(); });
}

PeerProxy::~PeerProxy() {
  ending_ = true;
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  for (Connection& connection : connections_) {
    connection.thread.join();
    close(connection.dialler);
    close(connection.target);
  }
}

void PeerProxy::accept_all() {
  while (!ending_) {
    const int dialler = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (dialler < 0) continue;
    const int target = dial(target_port_);
    if (target < 0) {
      close(dialler);
      continue;
    }
    const std::lock_guard lock(mutex_);
    Connection& connection = connections_.emplace_back();
    connection.dialler = dialler;
    connection.target = target;
    connection.thread = std::thread([this, dialler, target] { serve(dialler, target); });
  }
}

void PeerProxy::serve(int dialler, int target) {
  constexpr int kLookAgainMs = 20;
  std::string request;
  std::string name;
  while (!ending_) {
    if (name.empty()) name = dialler_of(request);
    const bool cut = is_cut_(name);
    std::array<pollfd, 2> ends{{{dialler, POLLIN, 0}, {target, POLLIN, 0}}};
    if (cut) {
      poll(nullptr, 0, kLookAgainMs);
      continue;
    }
    if (poll(ends.data(), ends.size(), kLookAgainMs) <= 0) continue;
    if (ends[0].revents != 0 && !pass_on(dialler, target, &request)) break;
    if (ends[1].revents != 0 && !pass_on(target, dialler, nullptr)) break;
  }
  shutdown(dialler, SHUT_RDWR);
  shutdown(target, SHUT_RDWR);
}

}  // namespace tkv::store::etcd
