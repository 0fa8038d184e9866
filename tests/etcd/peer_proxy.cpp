#include "peer_proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "loopback.h"

namespace tkv::store::etcd {
namespace {

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

// Every request between members names its sender.
std::string dialler_of(const std::string& request) {
  constexpr std::string_view kHeader = "X-Server-From: ";
  const auto at = request.find(kHeader);
  if (at == std::string::npos) return {};
  const auto end = request.find('\r', at);
  return request.substr(at + kHeader.size(), end - at - kHeader.size());
}

}  // namespace

PeerProxy::PeerProxy(const std::string& endpoint, std::string target,
                     std::function<bool(const std::string& dialler)> is_cut)
    : target_(std::move(target)), is_cut_(std::move(is_cut)), listener_(listening_socket(endpoint)) {
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
    const int target = connected_socket(target_);
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
