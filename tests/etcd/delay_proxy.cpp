#include "delay_proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>

#include "loopback.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Packet {
  steady_clock::time_point due;
  std::string bytes;
};

bool send_all(int to, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t part = send(to, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (part <= 0) return false;
    sent += static_cast<std::size_t>(part);
  }
  return true;
}

int milliseconds_until(steady_clock::time_point time) {
  const auto left = std::chrono::ceil<milliseconds>(time - steady_clock::now());
  return static_cast<int>(std::max<milliseconds::rep>(0, left.count()));
}

}  // namespace

DelayProxy::DelayProxy(std::string target, milliseconds round_trip)
    : target_(std::move(target)),
      round_trip_(round_trip),
      listener_(listening_socket("127.0.0.1:0")),
      endpoint_(endpoint_of(listener_)),
      acceptor_([this] { accept_all(); }) {}

DelayProxy::~DelayProxy() {
  ending_ = true;
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  for (Connection& connection : connections_) {
    shutdown(connection.dialler, SHUT_RDWR);
    connection.there.join();
    close(connection.dialler);
  }
}

void DelayProxy::accept_all() {
  while (!ending_) {
    const int dialler = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (dialler < 0) continue;
    Connection* const connection = &connections_.emplace_back();
    connection->dialler = dialler;
    connection->there = std::thread([this, connection] { set_up(connection); });
  }
}

// The kernel has accepted already. What the dialler has sent since then waits until a round trip has passed.
void DelayProxy::set_up(Connection* connection) {
  const int dialler = connection->dialler;
  pollfd hang_up{dialler, 0, 0};
  if (poll(&hang_up, 1, static_cast<int>(round_trip_.count())) != 0) return;
  const int target = connected_socket(target_);
  if (target >= 0) {
    connection->back = std::thread([this, dialler, target] { carry(target, dialler); });
    carry(dialler, target);
    connection->back.join();
    close(target);
  }
  shutdown(dialler, SHUT_RDWR);
}

// Returns when either end has closed the connection.
void DelayProxy::carry(int from, int to) const {
  std::deque<Packet> on_the_way;
  std::array<char, 65536> buffer;
  while (true) {
    pollfd end{from, POLLIN, 0};
    const int longest = on_the_way.empty() ? -1 : milliseconds_until(on_the_way.front().due);
    if (poll(&end, 1, longest) > 0) {
      const ssize_t size = recv(from, buffer.data(), buffer.size(), 0);
      if (size <= 0) break;
      on_the_way.push_back(
          {steady_clock::now() + round_trip_ / 2, std::string(buffer.data(), static_cast<std::size_t>(size))});
    }
    while (!on_the_way.empty() && milliseconds_until(on_the_way.front().due) == 0) {
      if (!send_all(to, on_the_way.front().bytes)) return;
      on_the_way.pop_front();
    }
  }
  shutdown(to, SHUT_RDWR);
}

}  // namespace tkv::store::etcd
