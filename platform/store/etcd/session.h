// Session: what others can tell from whether the owner of unfinished work is still there.
//
// A session that writes has a key, sessions/<token>, which is attached to a lease of etcd. A thread keeps the lease
// alive. If the process ends, is stopped or is cut off for longer than the lease lasts, etcd removes the key, and with
// it every other key that was put with the lease. No process is inspected, and no clock but etcd's own counts.
//
// Whatever the session leaves in the cluster names the token. Each of its transactions compares that its key still
// exists; whoever takes over what it has left compares in the same transaction that the key does not. So an owner that
// wakes up after its work was taken over can no longer decide anything.
//
// A session that only reads has no key, no lease and no thread.
#ifndef TKV_PLATFORM_STORE_ETCD_SESSION_H
#define TKV_PLATFORM_STORE_ETCD_SESSION_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "base/status.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// Who writes: a token that is never used again, and what proves that its session goes on.
struct Owner {
  std::string token;
  std::int64_t lease = 0;
  std::int64_t since = 0;  // revision at which the session's key was created

  bool operator==(const Owner&) const = default;
};

// Adds the comparison that the owner's session goes on.
void compare_alive(TxnRequest* request, const Keys& keys, const Owner& owner);

// Adds the comparison that the session with this token has ended.
void compare_ended(TxnRequest* request, const Keys& keys, const std::string& token);

// Whether an answer to a request for the key of the owner's session shows that it goes on.
bool is_alive(const RangeResponse& session, const Owner& owner);

// Threads. Any number may call at once.
class Session {
 public:
  static constexpr std::int64_t kDefaultTtl = 20;

  // The lease lasts for `ttl` seconds, or longer if etcd insists.
  Session(Kv& kv, const Keys& keys, std::int64_t ttl) : kv_(kv), keys_(keys), ttl_(ttl) {}

  // Ends the session: etcd removes all keys that were put with its lease. If etcd cannot be reached, the lease runs
  // out. In a forked child the session stays the parent's.
  ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Gives the present owner. Begins a session if there is none, or if the last one was lost.
  Status owner(Owner* owner, Deadline deadline);

  // A transaction has found that the owner's session has ended. The next one to ask begins another.
  void lost(const Owner& owner);

  // Called each time the lease has been kept alive. To be set before the first session begins.
  void on_kept_alive(std::function<void()> function) { kept_alive_ = std::move(function); }

 private:
  Status begin(Deadline deadline);
  bool start_thread();
  void keep_alive();

  Kv& kv_;
  const Keys& keys_;
  const std::int64_t ttl_;
  std::function<void()> kept_alive_;
  std::mutex beginning_;  // held while a session is begun; taken before mutex_
  std::mutex mutex_;
  Owner owner_;  // no token: there is no session
  std::chrono::milliseconds interval_{0};
  bool closing_ = false;
  std::unique_ptr<std::condition_variable> wake_ = std::make_unique<std::condition_variable>();
  std::thread thread_;
};

}  // namespace tkv::store::etcd

#endif
