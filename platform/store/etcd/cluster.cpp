#include "store/etcd/cluster.h"

#include <grpc/grpc.h>
#include <grpc/support/log.h>
#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "base/function_ref.h"
#include "etcd.grpc.pb.h"
#include "store/etcd/credentials.h"
#include "store/etcd/round_trip.h"
#include "store/etcd/server_version.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kMostEndpoints = 5;
constexpr milliseconds kSlackOfOnlyEndpoint{1000};  // there is no other to go to
constexpr milliseconds kLongestConnecting{2000};    // as far as it tells anything about the round trip
constexpr milliseconds kFirstPause{5};              // between rounds over the endpoints, doubling
constexpr milliseconds kLongestPause{100};
constexpr std::size_t kBytesPerMillisecond = 1024;  // of a slow network
constexpr milliseconds kMeasuredTransfer{16};       // answers to larger requests tell nothing about the round trip
constexpr int kReceiveLimit = 4 * 1024 * 1024;      // twice what a page or a value needs
constexpr int kTimeoutsBeforeReconnect = 3;
constexpr double kPatienceWithMember = 4;  // when it alone can answer

constexpr const char* kMayWantTls = " (when the server wants TLS, a ca must be configured)";
constexpr const char* kMayWantOtherTls =
    " (the server broke it off: it does not speak TLS, or does not accept this side's certificate)";

// The process in which gRPC was first used: its threads do not live on in a forked child.
std::atomic<pid_t> grpc_process{0};

// Keeps gRPC running. Once the last use has ended, gRPC's threads have ended as well, so that a process can exit or
// fork without them.
//
// gRPC runs until its last connection is gone. It cannot abandon a connection whose peer has accepted it and is silent;
// such a peer must not hold up whoever closes a store, so its threads may end a few seconds later.
//
// The last object that is destroyed may make gRPC end on a thread of its own. That thread says that gRPC has ended
// before it ends itself.
class GrpcUse {
 public:
  GrpcUse() {
    const std::lock_guard lock(mutex);
    if (uses++ == 0) others_use_it = !ours_linger && grpc_is_initialized() != 0;
    grpc_init();
  }
  GrpcUse(const GrpcUse&) = delete;
  GrpcUse& operator=(const GrpcUse&) = delete;

  ~GrpcUse() {
    const std::lock_guard lock(mutex);
    grpc_shutdown_blocking();
    if (--uses > 0 || others_use_it) return;
    const Deadline for_connections(kLongestShutdown);
    while ((ours_linger = grpc_is_initialized() != 0) && for_connections.left().count() > 0) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    if (ours_linger) return;
    const Deadline for_thread(kLongestThreadEnd);
    while (has_thread("grpc_shutdown") && for_thread.left().count() > 0) std::this_thread::sleep_for(milliseconds(1));
  }

 private:
  // Whether a thread of this process has this name.
  static bool has_thread(std::string_view name) {
    std::error_code error;
    std::filesystem::directory_iterator task("/proc/self/task", error);
    for (const std::filesystem::directory_iterator end; !error && task != end; task.increment(error)) {
      std::ifstream comm(task->path() / "comm");
      std::string line;
      if (std::getline(comm, line) && line == name) return true;
    }
    return false;
  }

  static constexpr milliseconds kLongestShutdown{2000};
  static constexpr milliseconds kLongestThreadEnd{10'000};  // it waits for nobody, but for a processor

  static inline std::mutex mutex;
  static inline int uses = 0;
  static inline bool others_use_it = false;  // other code in this process; nobody waits for its threads
  static inline bool ours_linger = false;    // after the last use
};

Status check_options(const ClusterOptions& options) {
  if (options.endpoints.empty() || options.endpoints.size() > kMostEndpoints) {
    return {PRTKV_INVALID_CONFIGURATION, "one to five etcd endpoints are needed"};
  }
  if (options.cert.empty() != options.key.empty()) {
    return {PRTKV_INVALID_CONFIGURATION, "cert and key of the etcd connection go together"};
  }
  if (!options.cert.empty() && options.ca.empty()) {
    return {PRTKV_INVALID_CONFIGURATION, "a cert for the etcd connection needs a ca"};
  }
  if (options.user.empty() != options.password_file.empty()) {
    return {PRTKV_INVALID_CONFIGURATION, "user and password_file of the etcd connection go together"};
  }
  if (options.timeout.count() <= 0) return {PRTKV_INVALID_CONFIGURATION, "timeout_ms must be above 0"};
  if (options.attempt.count() <= 0) return {PRTKV_INVALID_CONFIGURATION, "attempt_ms must be above 0"};
  return {};
}

std::shared_ptr<grpc::ChannelCredentials> credentials_of(const TlsIdentity& identity) {
  if (identity.ca.empty()) return grpc::InsecureChannelCredentials();
  grpc::SslCredentialsOptions options;
  options.pem_root_certs = identity.ca;
  options.pem_cert_chain = identity.cert;
  options.pem_private_key = identity.key;
  return grpc::SslCredentials(options);
}

grpc::ChannelArguments channel_arguments() {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(kReceiveLimit);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 5000);  // how long one attempt at a connection may take
  // A failed connection is dialled anew here. gRPC's own wait before it does so delays nothing but a close.
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);  // servers throw out who pings more often than every 5 s
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 3000);
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);  // repeating is decided here, not below
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a new channel is a new connection
  return arguments;
}

gpr_timespec gpr_time_after(milliseconds from_now) {
  return gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_millis(from_now.count(), GPR_TIMESPAN));
}

milliseconds transfer_time(std::size_t bytes) { return milliseconds(bytes / kBytesPerMillisecond); }

// A connection with one endpoint: its channel, the services on it, and the identity it was dialled with.
struct Link {
  Link(std::shared_ptr<grpc::Channel> dialled, std::shared_ptr<const TlsIdentity> with)
      : channel(std::move(dialled)),
        kv(channel),
        watch(channel),
        lease(channel),
        auth(channel),
        cluster(channel),
        maintenance(channel),
        identity(std::move(with)) {}

  // Connecting begins with the first request.
  void begin() {
    steady_clock::rep not_begun = 0;
    begun_.compare_exchange_strong(not_begun, steady_clock::now().time_since_epoch().count());
  }
  steady_clock::duration age() const { return steady_clock::now().time_since_epoch() - steady_clock::duration(begun_); }

  const std::shared_ptr<grpc::Channel> channel;
  etcdserverpb::KV::Stub kv;
  etcdserverpb::Watch::Stub watch;
  etcdserverpb::Lease::Stub lease;
  etcdserverpb::Auth::Stub auth;
  etcdserverpb::Cluster::Stub cluster;
  etcdserverpb::Maintenance::Stub maintenance;
  const std::shared_ptr<const TlsIdentity> identity;

 private:
  std::atomic<steady_clock::rep> begun_{0};
};

class Endpoint {
 public:
  void prepare(std::string address, std::function<std::shared_ptr<Link>()> dial) {
    address_ = std::move(address);
    dial_ = std::move(dial);
    link_ = dial_();
  }

  const std::string& address() const { return address_; }

  std::shared_ptr<Link> link() {
    const std::lock_guard lock(mutex_);
    return link_;
  }

  milliseconds patience(milliseconds slack) {
    const std::lock_guard lock(mutex_);
    return round_trip_.patience(slack);
  }

  // Waits until a request can be sent on `link`, or fails without being sent. Returns false if the time was too short;
  // connecting goes on meanwhile.
  bool connect(Link& link, milliseconds longest) {
    const gpr_timespec end = gpr_time_after(longest);
    link.begin();
    while (true) {
      const grpc_connectivity_state state = link.channel->GetState(true);
      if (state == GRPC_CHANNEL_READY) note_connected(link.age());
      if (state != GRPC_CHANNEL_IDLE && state != GRPC_CHANNEL_CONNECTING) return true;
      if (!link.channel->WaitForStateChange(state, end)) return false;
    }
  }

  void note_answer(steady_clock::duration time) {
    const std::lock_guard lock(mutex_);
    round_trip_.note(duration_cast<microseconds>(time));
  }

  // Takes in how an attempt on `used` ended. A connection that could not be made is dialled anew, without gRPC's own
  // waiting, so that each attempt fails for a reason of its own. One whose packets vanish looks alive for long: it is
  // given up after several attempts in a row without an answer.
  void note(const std::shared_ptr<Link>& used, const Judgement& judgement) {
    const std::lock_guard lock(mutex_);
    if (used != link_) return;
    timeouts_ = judgement.timed_out ? timeouts_ + 1 : 0;
    if (!judgement.never_sent && timeouts_ < kTimeoutsBeforeReconnect) return;
    timeouts_ = 0;
    link_ = dial_();
  }

 private:
  // Connecting takes a round trip or two. That is all there is to go by before the first answer.
  void note_connected(steady_clock::duration time) {
    const std::lock_guard lock(mutex_);
    const auto longest = std::min<steady_clock::duration>(time, kLongestConnecting);
    if (!round_trip_.is_known()) round_trip_.note(duration_cast<microseconds>(longest));
  }

  std::string address_;
  std::function<std::shared_ptr<Link>()> dial_;
  std::mutex mutex_;
  std::shared_ptr<Link> link_;
  RoundTrip round_trip_;
  int timeouts_ = 0;
};

// How one attempt ended.
struct Answer {
  grpc::Status status;
  std::uint64_t cluster_id = 0;
  Status complaint;  // about a server that must not be used
};

using Attempt = FunctionRef<Answer(Link& link, grpc::ClientContext* context)>;

// Takes in a response of a watch. Returns true if it is the last one that is wanted.
bool take_in(const etcdserverpb::WatchResponse& response, WatchAnswer* answer, Status* complaint) {
  if (response.canceled()) {
    answer->compacted = response.compact_revision();
    const bool refused = answer->compacted == 0;
    if (refused) *complaint = Status(PRTKV_UNUSABLE, "it ended a watch: " + response.cancel_reason());
    return true;
  }
  for (const etcdserverpb::Event& event : response.events()) answer->events.push_back(event.kv());
  return !answer->events.empty();
}

}  // namespace

struct Cluster::Connection {
  explicit Connection(const ClusterOptions& chosen) : options(chosen), endpoints(chosen.endpoints.size()) {}

  const GrpcUse grpc;  // first, so that it ends last
  const pid_t process = getpid();
  const ClusterOptions options;
  std::vector<Endpoint> endpoints;
  std::atomic<std::size_t> preferred{0};
  std::atomic<std::uint64_t> cluster_id{0};
  std::atomic<std::uint64_t> retries{0};
  std::mutex identity_mutex;
  std::shared_ptr<const TlsIdentity> identity = std::make_shared<TlsIdentity>();
  std::mutex token_mutex;
  std::string token;
  std::uint64_t token_number = 0;

  Status open();
  Status read_identity();
  std::shared_ptr<Link> dial(const std::string& address);
  milliseconds slack() const;
  Status log_in(Deadline deadline);
  Status renew_token(std::uint64_t used_number, Deadline deadline);
  Status check_version(Deadline deadline);
  std::uint64_t add_token(grpc::ClientContext* context);

  Reply call(Deadline deadline, std::size_t bytes, bool with_token, Attempt attempt);
  Judgement ask(Endpoint& endpoint, double stretch, Deadline deadline, std::size_t bytes, grpc::ClientContext* context,
                Attempt attempt);
  Judgement judge_answer(const Answer& answer);
  Reply list_members(etcdserverpb::MemberListResponse* members, Deadline deadline);
  Reply list_alarms(etcdserverpb::AlarmResponse* alarms, Deadline deadline);
  Status ask_member(Endpoint& endpoint, Deadline deadline, etcdserverpb::StatusResponse* member);
  Status unreachable(const std::vector<std::string>& reasons) const;
};

namespace {

// Where a request is in its rounds over the endpoints.
class Rounds {
 public:
  Rounds(std::size_t endpoints, std::size_t first) : reasons_(endpoints), hopeless_(endpoints), index_(first) {}

  std::size_t index() const { return index_; }
  const std::vector<std::string>& reasons() const { return reasons_; }

  // Attempts grow by half with each round, for endpoints that have become slower.
  double stretch() const { return stretch_; }

  // Takes in why the endpoint's turn failed. Of several reasons, that there was no answer says least.
  void note(const Judgement& judgement) {
    std::string& reason = reasons_[index_];
    if (reason.empty() || !judgement.timed_out) reason = judgement.status.text();
    hopeless_[index_] = judgement.hopeless;
  }

  bool is_hopeless() const { return std::find(hopeless_.begin(), hopeless_.end(), false) == hopeless_.end(); }

  void next(Deadline deadline) {
    index_ = (index_ + 1) % reasons_.size();
    if (++tried_ % reasons_.size() != 0) return;
    stretch_ *= 1.5;
    std::this_thread::sleep_for(std::min(pause_, deadline.left()));
    pause_ = std::min(2 * pause_, kLongestPause);
  }

 private:
  std::vector<std::string> reasons_;
  std::vector<bool> hopeless_;
  std::size_t index_;
  std::size_t tried_ = 0;
  double stretch_ = 1;
  milliseconds pause_ = kFirstPause;
};

}  // namespace

std::uint64_t Cluster::Connection::add_token(grpc::ClientContext* context) {
  const std::lock_guard lock(token_mutex);
  if (!token.empty()) context->AddMetadata("token", token);
  return token_number;
}

Judgement Cluster::Connection::judge_answer(const Answer& answer) {
  if (!answer.status.ok()) {
    Judgement judgement = judge(answer.status.error_code(), answer.status.error_message());
    if (judgement.broken_off) {
      judgement.status = Status(judgement.status.code(),
                                judgement.status.text() + (options.ca.empty() ? kMayWantTls : kMayWantOtherTls));
    }
    return judgement;
  }
  if (!answer.complaint.ok()) return {Verdict::kFinal, answer.complaint};
  std::uint64_t known = 0;
  if (answer.cluster_id == 0 || cluster_id.compare_exchange_strong(known, answer.cluster_id) ||
      known == answer.cluster_id) {
    return {};
  }
  return {
      Verdict::kFinal,
      Status(PRTKV_UNUSABLE,
             "it belongs to another etcd cluster than was opened, or to a restored one; open the registry again, and "
             "let `location` name the members of one cluster only")};
}

Status Cluster::Connection::unreachable(const std::vector<std::string>& reasons) const {
  std::string text = "no etcd endpoint gave an answer";
  for (std::size_t i = 0; i < reasons.size(); ++i) {
    text += (i == 0 ? ": " : "; ") + endpoints[i].address() + ": " +
            (reasons[i].empty() ? "not asked within the time" : reasons[i]);
  }
  return {PRTKV_UNREACHABLE, std::move(text)};
}

milliseconds Cluster::Connection::slack() const {
  return endpoints.size() > 1 ? options.attempt : std::max(options.attempt, kSlackOfOnlyEndpoint);
}

Judgement Cluster::Connection::ask(Endpoint& endpoint, double stretch, Deadline deadline, std::size_t bytes,
                                   grpc::ClientContext* context, Attempt attempt) {
  const auto link = endpoint.link();
  const auto patience = [&] { return std::chrono::ceil<milliseconds>(endpoint.patience(slack()) * stretch); };
  // While one endpoint is being connected, the others get their turns; the only one has all the time there is.
  const milliseconds to_connect = endpoints.size() > 1 ? std::min(patience(), deadline.left()) : deadline.left();
  if (!endpoint.connect(*link, to_connect) || deadline.left().count() == 0) {
    Judgement judgement = judge(grpc::StatusCode::DEADLINE_EXCEEDED, "");
    judgement.never_sent = true;
    return judgement;
  }
  context->set_deadline(gpr_time_after(std::min(patience() + transfer_time(bytes), deadline.left())));
  const auto sent = steady_clock::now();
  const Answer answer = attempt(*link, context);
  if (answer.status.ok() && transfer_time(bytes) <= kMeasuredTransfer) endpoint.note_answer(steady_clock::now() - sent);
  Judgement judgement = judge_answer(answer);
  endpoint.note(link, judgement);
  if (*endpoint.link()->identity != *link->identity) judgement.hopeless = false;
  return judgement;
}

Reply Cluster::Connection::call(Deadline deadline, std::size_t bytes, bool with_token, Attempt attempt) {
  if (process != getpid()) {
    return {Verdict::kFinal,
            Status(PRTKV_UNREACHABLE, "this process was forked from the one that opened the registry on etcd"), false};
  }
  Rounds rounds(endpoints.size(), preferred);
  bool repeated = false;
  bool renewed = false;
  while (true) {
    Endpoint& endpoint = endpoints[rounds.index()];
    grpc::ClientContext context;
    const std::uint64_t token_used = with_token ? add_token(&context) : 0;
    const Judgement judgement = ask(endpoint, rounds.stretch(), deadline, bytes, &context, attempt);
    switch (judgement.verdict) {
      case Verdict::kDone:
        preferred = rounds.index();
        return {Verdict::kDone, {}, repeated};
      case Verdict::kRenewToken:
        if (renewed || !with_token || options.user.empty()) return {Verdict::kFinal, judgement.status, repeated};
        renewed = true;
        if (Status status = renew_token(token_used, deadline); !status.ok()) {
          return {Verdict::kFinal, std::move(status), repeated};
        }
        continue;
      case Verdict::kTryElsewhere:
        break;
      default:
        return {judgement.verdict, judgement.status.about(endpoint.address()), repeated};
    }
    repeated = repeated || !judgement.never_sent;
    rounds.note(judgement);
    if (!rounds.is_hopeless()) rounds.next(deadline);
    if (rounds.is_hopeless() || deadline.left().count() == 0) {
      return {Verdict::kTryElsewhere, unreachable(rounds.reasons()), repeated};
    }
    ++retries;
  }
}

Status Cluster::Connection::log_in(Deadline deadline) {
  Secret password;
  if (Status status = read_password(options.password_file, &password); !status.ok()) return status;
  etcdserverpb::AuthenticateRequest request;
  request.set_name(options.user);
  request.set_password(password.text);
  constexpr std::size_t kPasswordHashing = 1024 * kBytesPerMillisecond;  // deliberately slow in the server
  const Reply reply = call(deadline, kPasswordHashing, false, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::AuthenticateResponse response;
    Answer answer{link.auth.Authenticate(context, request, &response), response.header().cluster_id(), {}};
    if (answer.status.ok()) token = response.token();
    return answer;
  });
  Secret::wipe(request.mutable_password());
  return reply.status;
}

Status Cluster::Connection::renew_token(std::uint64_t used_number, Deadline deadline) {
  const std::lock_guard lock(token_mutex);
  if (token_number != used_number) return {};  // another thread was quicker
  Status status = log_in(deadline);
  if (status.ok()) ++token_number;
  return status;
}

Status Cluster::Connection::check_version(Deadline deadline) {
  return call(deadline, 0, true,
              [&](Link& link, grpc::ClientContext* context) {
                etcdserverpb::StatusResponse response;
                Answer answer{link.maintenance.Status(context, {}, &response), response.header().cluster_id(), {}};
                if (answer.status.ok()) answer.complaint = check_server_version(response.version());
                return answer;
              })
      .status;
}

Reply Cluster::Connection::list_members(etcdserverpb::MemberListResponse* members, Deadline deadline) {
  return call(deadline, 0, true, [&](Link& link, grpc::ClientContext* context) {
    members->Clear();
    return Answer{link.cluster.MemberList(context, {}, members), members->header().cluster_id(), {}};
  });
}

Reply Cluster::Connection::list_alarms(etcdserverpb::AlarmResponse* alarms, Deadline deadline) {
  return call(deadline, 0, true, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::AlarmRequest request;
    request.set_action(etcdserverpb::AlarmRequest::GET);
    alarms->Clear();
    return Answer{link.maintenance.Alarm(context, request, alarms), alarms->header().cluster_id(), {}};
  });
}

Status Cluster::Connection::ask_member(Endpoint& endpoint, Deadline deadline, etcdserverpb::StatusResponse* member) {
  bool renewed = false;
  while (true) {
    grpc::ClientContext context;
    const std::uint64_t token_used = add_token(&context);
    const Judgement judgement =
        ask(endpoint, kPatienceWithMember, deadline, 0, &context, [&](Link& link, grpc::ClientContext* with) {
          member->Clear();
          return Answer{link.maintenance.Status(with, {}, member), member->header().cluster_id(), {}};
        });
    if (judgement.verdict != Verdict::kRenewToken || renewed || options.user.empty()) return judgement.status;
    renewed = true;
    if (Status status = renew_token(token_used, deadline); !status.ok()) return status;
  }
}

// The files as they are now. If they cannot be used, because they are being replaced, the former contents stay.
Status Cluster::Connection::read_identity() {
  if (options.ca.empty()) return {};
  auto read = std::make_shared<TlsIdentity>();
  if (Status status = read_tls_identity({options.ca, options.cert, options.key}, read.get()); !status.ok()) {
    return status;
  }
  const std::lock_guard lock(identity_mutex);
  identity = std::move(read);
  return {};
}

std::shared_ptr<Link> Cluster::Connection::dial(const std::string& address) {
  (void)read_identity();
  std::shared_ptr<const TlsIdentity> with;
  {
    const std::lock_guard lock(identity_mutex);
    with = identity;
  }
  auto channel = grpc::experimental::CreateCustomChannelWithInterceptors(
      "dns:///" + address, credentials_of(*with), channel_arguments(),
      options.interceptors ? options.interceptors() : Interceptors());
  return std::make_shared<Link>(std::move(channel), std::move(with));
}

Status Cluster::Connection::open() {
  // gRPC's own log would go to the standard error of whatever program this is.
  if (getenv("GRPC_VERBOSITY") == nullptr)  // NOLINT(concurrency-mt-unsafe): as gRPC itself reads it
    gpr_set_log_verbosity(static_cast<gpr_log_severity>(GPR_LOG_SEVERITY_ERROR + 1));
  // GRPC_TRACE makes gRPC print what it sends. A password must not end up in a log.
  if (!options.user.empty()) grpc_tracer_set_enabled("all", 0);
  if (Status status = read_identity(); !status.ok()) return status;
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    endpoints[i].prepare(options.endpoints[i], [this, i] { return dial(options.endpoints[i]); });
  }
  const Deadline deadline(options.timeout);
  if (!options.user.empty()) {
    if (Status status = log_in(deadline); !status.ok()) return status;
  }
  return check_version(deadline);
}

Cluster::Cluster(std::unique_ptr<Connection> connection) : connection_(std::move(connection)) {}

Cluster::~Cluster() {
  // A forked child must not touch what belongs to the parent's gRPC threads, not even to release it.
  if (!is_ours()) (void)connection_.release();
}

Status Cluster::connect(const ClusterOptions& options, std::unique_ptr<Cluster>* cluster) {
  if (Status status = check_options(options); !status.ok()) return status;
  pid_t nobody = 0;
  if (!grpc_process.compare_exchange_strong(nobody, getpid()) && nobody != getpid()) {
    return {PRTKV_UNREACHABLE, "this process was forked from one that used a registry on etcd, and cannot open one"};
  }
  auto connection = std::make_unique<Connection>(options);
  if (Status status = connection->open(); !status.ok()) return status;
  cluster->reset(new Cluster(std::move(connection)));
  return {};
}

Reply Cluster::range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
                     Deadline deadline) {
  const std::size_t expected = request.limit() > 1 ? kReceiveLimit / 4 : 0;
  return connection_->call(deadline, expected, true, [&](Link& link, grpc::ClientContext* context) {
    response->Clear();
    return Answer{link.kv.Range(context, request, response), response->header().cluster_id(), {}};
  });
}

Reply Cluster::txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
                   std::size_t expected) {
  return connection_->call(
      deadline, request.ByteSizeLong() + expected, true, [&](Link& link, grpc::ClientContext* context) {
        response->Clear();
        return Answer{link.kv.Txn(context, request, response), response->header().cluster_id(), {}};
      });
}

// The stream ends with the first answer that has events. An endpoint that has begun to watch need not answer any
// further.
Reply Cluster::watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
                     Deadline deadline) {
  const std::size_t as_long_as_it_takes =
      static_cast<std::size_t>(deadline.left().count() + 2 * kMeasuredTransfer.count()) * kBytesPerMillisecond;
  return connection_->call(deadline, as_long_as_it_takes, true, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::WatchRequest request;
    request.mutable_create_request()->set_key(key);
    request.mutable_create_request()->set_start_revision(start);
    request.mutable_create_request()->set_fragment(true);
    const std::stop_callback cancel(stop, [context] { context->TryCancel(); });
    const auto stream = link.watch.Watch(context);
    etcdserverpb::WatchResponse response;
    Answer outcome;
    *answer = {};
    bool begun = false;
    bool over = !stream->Write(request);
    while (!over && stream->Read(&response)) {
      outcome.cluster_id = response.header().cluster_id();
      begun = true;
      over = take_in(response, answer, &outcome.complaint);
    }
    context->TryCancel();
    outcome.status = stream->Finish();
    if (begun || stop.stop_requested()) outcome.status = grpc::Status::OK;
    return outcome;
  });
}

Reply Cluster::grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) {
  return connection_->call(deadline, 0, true, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::LeaseGrantRequest request;
    request.set_ttl(ttl);
    etcdserverpb::LeaseGrantResponse response;
    Answer answer{link.lease.LeaseGrant(context, request, &response), response.header().cluster_id(), {}};
    *lease = {response.id(), response.ttl()};
    return answer;
  });
}

// A stream for each request: requests are seldom, and the next one may have to go to another member.
Reply Cluster::keep_lease_alive(Lease* lease, Deadline deadline) {
  return connection_->call(deadline, 0, true, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::LeaseKeepAliveRequest request;
    request.set_id(lease->id);
    etcdserverpb::LeaseKeepAliveResponse response;
    const auto stream = link.lease.LeaseKeepAlive(context);
    const bool answered = stream->Write(request) && stream->WritesDone() && stream->Read(&response);
    grpc::Status status = stream->Finish();
    // The answer is there; how the stream ends does not matter.
    if (answered) status = grpc::Status::OK;
    if (!answered && status.ok()) status = {grpc::StatusCode::UNAVAILABLE, "the lease was not answered for"};
    if (answered) lease->ttl = response.ttl();
    return Answer{status, response.header().cluster_id(), {}};
  });
}

Reply Cluster::revoke_lease(std::int64_t id, Deadline deadline) {
  return connection_->call(deadline, 0, true, [&](Link& link, grpc::ClientContext* context) {
    etcdserverpb::LeaseRevokeRequest request;
    request.set_id(id);
    etcdserverpb::LeaseRevokeResponse response;
    return Answer{link.lease.LeaseRevoke(context, request, &response), response.header().cluster_id(), {}};
  });
}

// Whoever may not see members or alarms sees the rest.
Reply Cluster::ask_members(ClusterAnswer* answer, Deadline deadline) {
  *answer = {};
  if (Reply reply = connection_->list_members(&answer->members, deadline);
      !reply.ok() && !reply.status.is(PRTKV_ACCESS_DENIED)) {
    return reply;
  }
  if (Reply reply = connection_->list_alarms(&answer->alarms, deadline);
      !reply.ok() && !reply.status.is(PRTKV_ACCESS_DENIED)) {
    return reply;
  }
  for (Endpoint& endpoint : connection_->endpoints) {
    EndpointAnswer& each = answer->endpoints.emplace_back();
    each.address = endpoint.address();
    each.status = connection_->ask_member(endpoint, Deadline(connection_->options.timeout), &each.member);
  }
  answer->retries = connection_->retries;
  return {};
}

std::chrono::milliseconds Cluster::timeout() const { return connection_->options.timeout; }

bool Cluster::is_ours() const { return connection_->process == getpid(); }

}  // namespace tkv::store::etcd
