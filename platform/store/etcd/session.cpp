#include "store/etcd/session.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "store/etcd/token.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::milliseconds;

constexpr int kTriesPerTtl = 3;
constexpr milliseconds kLongestTry{2000};  // closing may have to wait for one
constexpr milliseconds kPauseAfterFailure{200};
constexpr milliseconds kLongestClose{500};

// For people who look at it with etcdctl.
std::string describe_process() {
  std::array<char, 256> host{};
  (void)gethostname(host.data(), host.size() - 1);
  return std::string("host ") + host.data() + "\nprocess " + std::to_string(getpid()) + "\n";
}

}  // namespace

void compare_alive(TxnRequest* request, const Keys& keys, const Owner& owner) {
  compare_created(request, keys.session(owner.token), owner.since);
}

void compare_ended(TxnRequest* request, const Keys& keys, const std::string& token) {
  compare_created(request, keys.session(token), 0);
}

bool is_alive(const RangeResponse& session, const Owner& owner) {
  return session.kvs_size() > 0 && session.kvs(0).create_revision() == owner.since;
}

Session::~Session() {
  if (!kv_.is_ours()) {
    // The session stayed in the parent process, and so did the thread. In this copy of the memory the thread is waiting
    // forever, and nobody may destroy what it waits on.
    if (thread_.joinable()) thread_.detach();
    (void)wake_.release();
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    closing_ = true;
  }
  wake_->notify_all();
  if (thread_.joinable()) thread_.join();
  if (owner_.lease != 0) (void)kv_.revoke_lease(owner_.lease, Deadline(std::min(kv_.timeout(), kLongestClose)));
}

Status Session::owner(Owner* owner, Deadline deadline) {
  const std::lock_guard one_at_a_time(beginning_);
  {
    const std::lock_guard lock(mutex_);
    *owner = owner_;
  }
  if (!owner->token.empty()) return {};
  Status status = begin(deadline);
  if (!status.ok()) return status;
  const std::lock_guard lock(mutex_);
  *owner = owner_;
  return {};
}

// A lost answer to the request for the lease costs a lease that nobody uses and that runs out.
Status Session::begin(Deadline deadline) {
  Lease lease;
  if (Reply reply = kv_.grant_lease(ttl_, &lease, deadline); !reply.ok()) return reply.status;
  Owner owner{random_token(), lease.id, 0};
  const std::string key = keys_.session(owner.token);
  TxnRequest request;
  compare_created(&request, key, 0);
  put(request.add_success(), key, describe_process(), lease.id);
  *request.add_failure()->mutable_request_range() = get_one(key);
  TxnResponse response;
  if (Reply reply = kv_.txn(request, &response, deadline); !reply.ok()) return reply.status;
  if (response.succeeded()) {
    owner.since = response.header().revision();
  } else {  // it was sent twice
    const RangeResponse& made = response.responses(0).response_range();
    if (made.kvs_size() == 0) return {PRTKV_BUSY, "the lease of this session ran out before its key was made"};
    owner.since = made.kvs(0).create_revision();
  }
  const std::lock_guard lock(mutex_);
  interval_ = milliseconds(lease.ttl * 1000 / kTriesPerTtl);
  owner_ = std::move(owner);
  return start_thread() ? Status() : Status(PRTKV_OUT_OF_MEMORY);
}

// One thread serves all sessions that follow each other.
bool Session::start_thread() {
  if (thread_.joinable()) return true;
  try {
    thread_ = std::thread([this] { keep_alive(); });
  } catch (const std::system_error&) {
    owner_ = {};
    return false;
  }
  return true;
}

void Session::lost(const Owner& owner) {
  const std::lock_guard lock(mutex_);
  if (owner_ == owner) owner_ = {};
}

void Session::keep_alive() {
  std::unique_lock lock(mutex_);
  milliseconds pause = interval_;
  while (!wake_->wait_for(lock, pause, [this] { return closing_; })) {
    const Owner owner = owner_;
    pause = interval_;
    if (owner.lease == 0) continue;
    lock.unlock();
    Lease lease{owner.lease, 0};
    const Reply reply = kv_.keep_lease_alive(&lease, Deadline(std::min(kLongestTry, pause)));
    if (reply.ok() && lease.ttl <= 0) lost(owner);
    if (reply.ok() && kept_alive_) kept_alive_();
    if (!reply.ok()) pause = std::min(pause, kPauseAfterFailure);
    lock.lock();
  }
}

}  // namespace tkv::store::etcd
