#include "store/etcd/cluster.h"

#include <grpc/grpc.h>
#include <grpc/support/log.h>
#include <grpcpp/grpcpp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>

#include "base/function_ref.h"
#include "etcd.grpc.pb.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMostEndpoints = 5;
constexpr milliseconds kAttempt{300};       // the first one at each of several endpoints
constexpr milliseconds kOnlyAttempt{1000};  // when there is no other endpoint to go to
constexpr milliseconds kFirstPause{5};      // between rounds over the endpoints, doubling
constexpr milliseconds kLongestPause{100};
constexpr std::size_t kBytesPerMillisecond = 1024;  // what a slow network is taken to carry
constexpr int kReceiveLimit = 4 * 1024 * 1024;      // twice what a page or a value needs
constexpr int kTimeoutsBeforeReconnect = 3;
constexpr int kOldestMajor = 3;
constexpr int kOldestMinor = 4;

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
    const Deadline deadline(kLongestShutdown);
    while ((ours_linger = grpc_is_initialized() != 0) && deadline.left().count() > 0) {
      std::this_thread::sleep_for(milliseconds(1));
    }
  }

 private:
  static constexpr milliseconds kLongestShutdown{500};

  static inline std::mutex mutex;
  static inline int uses = 0;
  static inline bool others_use_it = false;  // other code in this process; nobody waits for its threads
  static inline bool ours_linger = false;    // after the last use
};

Status read_file(const std::string& path, const char* what, std::string* content) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  const int error = errno;
  std::ostringstream text;
  if (!file || !(text << file.rdbuf())) {
    return {PRTKV_CONFIGURATION_UNREADABLE,
            std::string(what) + " '" + path + "' cannot be read: " + std::generic_category().message(error)};
  }
  *content = text.str();
  return {};
}

Status read_password(const std::string& path, std::string* password) {
  struct stat entry {};
  const int result = stat(path.c_str(), &entry);
  const int error = errno;
  if (result != 0) {
    return {PRTKV_CONFIGURATION_UNREADABLE,
            "password_file '" + path + "' cannot be read: " + std::generic_category().message(error)};
  }
  if ((entry.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return {PRTKV_INVALID_CONFIGURATION,
            "password_file '" + path + "' is open to others than its owner: take their rights away (chmod 600)"};
  }
  if (Status status = read_file(path, "password_file", password); !status.ok()) return status;
  const auto end = password->find_first_of("\r\n");
  if (end != std::string::npos) password->resize(end);
  if (password->empty()) return {PRTKV_INVALID_CONFIGURATION, "password_file '" + path + "' holds no password"};
  return {};
}

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
  return {};
}

Status make_credentials(const ClusterOptions& options, std::shared_ptr<grpc::ChannelCredentials>* credentials) {
  if (options.ca.empty()) {
    *credentials = grpc::InsecureChannelCredentials();
    return {};
  }
  grpc::SslCredentialsOptions tls;
  if (Status status = read_file(options.ca, "ca", &tls.pem_root_certs); !status.ok()) return status;
  if (!options.cert.empty()) {
    if (Status status = read_file(options.cert, "cert", &tls.pem_cert_chain); !status.ok()) return status;
    if (Status status = read_file(options.key, "key", &tls.pem_private_key); !status.ok()) return status;
  }
  *credentials = grpc::SslCredentials(tls);
  return {};
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

bool is_old(const std::string& version) {
  int major = 0;
  int minor = 0;
  const char* const end = version.data() + version.size();
  const auto [dot, error] = std::from_chars(version.data(), end, major);
  if (error != std::errc() || dot == end || *dot != '.') return true;
  if (std::from_chars(dot + 1, end, minor).ec != std::errc()) return true;
  return major < kOldestMajor || (major == kOldestMajor && minor < kOldestMinor);
}

milliseconds transfer_time(std::size_t bytes) { return milliseconds(bytes / kBytesPerMillisecond); }

}  // namespace

namespace {

// The services of one endpoint, on a channel of their own.
struct Services {
  explicit Services(const std::shared_ptr<grpc::Channel>& channel) : kv(channel), auth(channel), maintenance(channel) {}

  etcdserverpb::KV::Stub kv;
  etcdserverpb::Auth::Stub auth;
  etcdserverpb::Maintenance::Stub maintenance;
};

class Endpoint {
 public:
  void prepare(std::string address, std::function<std::shared_ptr<grpc::Channel>()> dial) {
    address_ = std::move(address);
    dial_ = std::move(dial);
    services_ = std::make_shared<Services>(dial_());
  }

  const std::string& address() const { return address_; }

  std::shared_ptr<Services> services() {
    std::lock_guard lock(mutex_);
    return services_;
  }

  // What an attempt on `used` tells of the connection. One that could not be made is dialled anew the next time,
  // without gRPC's own waiting, so that each attempt has a reason of its own. One whose packets vanish looks alive for
  // long: after some attempts without any answer it is given up as well.
  void note(const std::shared_ptr<Services>& used, bool not_connected, bool timed_out) {
    std::lock_guard lock(mutex_);
    if (used != services_) return;
    timeouts_ = timed_out ? timeouts_ + 1 : 0;
    if (!not_connected && timeouts_ < kTimeoutsBeforeReconnect) return;
    timeouts_ = 0;
    services_ = std::make_shared<Services>(dial_());
  }

 private:
  std::string address_;
  std::function<std::shared_ptr<grpc::Channel>()> dial_;
  std::mutex mutex_;
  std::shared_ptr<Services> services_;
  int timeouts_ = 0;
};

// What one attempt gave.
struct Answer {
  grpc::Status status;
  std::uint64_t cluster_id = 0;
  std::string complaint;  // an answer that makes the endpoint unusable, in words
};

using Attempt = FunctionRef<Answer(Services& services, grpc::ClientContext* context)>;

}  // namespace

struct Cluster::Connection {
  const GrpcUse grpc;  // first, so that it ends last
  pid_t process = getpid();
  ClusterOptions options;
  std::string password;
  std::vector<Endpoint> endpoints;
  std::atomic<std::size_t> preferred{0};
  std::atomic<std::uint64_t> cluster_id{0};
  std::mutex token_mutex;
  std::string token;
  std::uint64_t token_number = 0;

  Status log_in(Deadline deadline);
  Status renew_token(std::uint64_t used_number, Deadline deadline);
  Status check_version(Deadline deadline);
  Reply call(Deadline deadline, std::size_t bytes, bool with_token, Attempt attempt);
  std::uint64_t add_token(grpc::ClientContext* context);
  Judgement judge_answer(const Answer& answer);
  Status unreachable(const std::vector<std::string>& reasons) const;
};

namespace {

// Where a request is in its rounds over the endpoints.
class Rounds {
 public:
  Rounds(std::size_t endpoints, std::size_t first, milliseconds allowance)
      : count_(endpoints), index_(first), attempt_((endpoints > 1 ? kAttempt : kOnlyAttempt) + allowance) {}

  std::size_t index() const { return index_; }
  milliseconds attempt() const { return attempt_; }

  void next(Deadline deadline) {
    index_ = (index_ + 1) % count_;
    if (++tried_ % count_ != 0) return;
    attempt_ += attempt_ / 2;
    std::this_thread::sleep_for(std::min(pause_, deadline.left()));
    pause_ = std::min(2 * pause_, kLongestPause);
  }

 private:
  std::size_t count_;
  std::size_t index_;
  std::size_t tried_ = 0;
  milliseconds attempt_;
  milliseconds pause_ = kFirstPause;
};

void set_deadline(grpc::ClientContext* context, milliseconds from_now) {
  context->set_deadline(
      gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_millis(from_now.count(), GPR_TIMESPAN)));
}

}  // namespace

std::uint64_t Cluster::Connection::add_token(grpc::ClientContext* context) {
  std::lock_guard lock(token_mutex);
  if (!token.empty()) context->AddMetadata("token", token);
  return token_number;
}

Judgement Cluster::Connection::judge_answer(const Answer& answer) {
  if (!answer.status.ok()) {
    Judgement judgement = judge(answer.status.error_code(), answer.status.error_message());
    const std::string& message = answer.status.error_message();
    const bool broken_off = message.find("ocket closed") != std::string::npos ||
                            message.find("Endpoint read failed") != std::string::npos ||
                            message.find("reset by peer") != std::string::npos;
    if (broken_off) {
      judgement.status = Status(judgement.status.code(),
                                judgement.status.text() + (options.ca.empty() ? kMayWantTls : kMayWantOtherTls));
    }
    return judgement;
  }
  if (!answer.complaint.empty())
    return {Verdict::kTryElsewhere, Status(PRTKV_UNREACHABLE, answer.complaint), true, true};
  std::uint64_t known = 0;
  if (answer.cluster_id == 0 || cluster_id.compare_exchange_strong(known, answer.cluster_id) ||
      known == answer.cluster_id) {
    return {};
  }
  return {Verdict::kFinal,
          Status(PRTKV_STORAGE_FAILED, "it belongs to another etcd cluster than was opened, or to a restored one"),
          false, false};
}

Status Cluster::Connection::unreachable(const std::vector<std::string>& reasons) const {
  std::string text = "no etcd endpoint gave an answer";
  for (std::size_t i = 0; i < reasons.size(); ++i) {
    text += (i == 0 ? ": " : "; ") + endpoints[i].address() + ": " +
            (reasons[i].empty() ? "not asked within the time" : reasons[i]);
  }
  return {PRTKV_UNREACHABLE, std::move(text)};
}

Reply Cluster::Connection::call(Deadline deadline, std::size_t bytes, bool with_token, Attempt attempt) {
  if (process != getpid()) {
    return {Verdict::kFinal,
            Status(PRTKV_UNREACHABLE, "this process was forked from the one that opened the registry on etcd"), false};
  }
  Rounds rounds(endpoints.size(), preferred, transfer_time(bytes));
  std::vector<std::string> reasons(endpoints.size());
  std::vector<bool> hopeless(endpoints.size());
  bool repeated = false;
  bool renewed = false;
  while (true) {
    Endpoint& endpoint = endpoints[rounds.index()];
    const auto services = endpoint.services();
    grpc::ClientContext context;
    const milliseconds time = std::min(rounds.attempt(), deadline.left());
    set_deadline(&context, time);
    const std::uint64_t token_used = with_token ? add_token(&context) : 0;
    const Answer answer = attempt(*services, &context);
    const bool timed_out = answer.status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
    Judgement judgement = judge_answer(answer);
    endpoint.note(services, judgement.never_sent, timed_out);
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
    // What is cut short by the deadline has nothing to say.
    std::string& reason = reasons[rounds.index()];
    if (reason.empty() || !timed_out || time == rounds.attempt()) reason = judgement.status.text();
    hopeless[rounds.index()] = judgement.hopeless;
    const bool all_hopeless = std::find(hopeless.begin(), hopeless.end(), false) == hopeless.end();
    if (!all_hopeless) rounds.next(deadline);
    if (all_hopeless || deadline.left().count() == 0) return {Verdict::kTryElsewhere, unreachable(reasons), repeated};
  }
}

Status Cluster::Connection::log_in(Deadline deadline) {
  etcdserverpb::AuthenticateRequest request;
  request.set_name(options.user);
  request.set_password(password);
  constexpr std::size_t kPasswordHashing = 1024 * kBytesPerMillisecond;  // deliberately slow in the server
  return call(deadline, kPasswordHashing, false,
              [&](Services& services, grpc::ClientContext* context) {
                etcdserverpb::AuthenticateResponse response;
                Answer answer{
                    services.auth.Authenticate(context, request, &response), response.header().cluster_id(), {}};
                if (answer.status.ok()) token = response.token();
                return answer;
              })
      .status;
}

Status Cluster::Connection::renew_token(std::uint64_t used_number, Deadline deadline) {
  std::lock_guard lock(token_mutex);
  if (token_number != used_number) return {};  // another thread was quicker
  Status status = log_in(deadline);
  if (status.ok()) ++token_number;
  return status;
}

Status Cluster::Connection::check_version(Deadline deadline) {
  return call(deadline, 0, true,
              [&](Services& services, grpc::ClientContext* context) {
                etcdserverpb::StatusResponse response;
                Answer answer{services.maintenance.Status(context, {}, &response), response.header().cluster_id(), {}};
                if (answer.status.ok() && is_old(response.version())) {
                  answer.complaint = "etcd " + response.version() + " is too old: 3.4 or later is needed";
                }
                return answer;
              })
      .status;
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
  auto connection = std::make_unique<Connection>();
  connection->options = options;
  if (!options.user.empty()) {
    if (Status status = read_password(options.password_file, &connection->password); !status.ok()) return status;
  }
  std::shared_ptr<grpc::ChannelCredentials> credentials;
  if (Status status = make_credentials(options, &credentials); !status.ok()) return status;
  connection->endpoints = std::vector<Endpoint>(options.endpoints.size());
  for (std::size_t i = 0; i < options.endpoints.size(); ++i) {
    const std::string& address = options.endpoints[i];
    connection->endpoints[i].prepare(address, [address, credentials, interceptors = options.interceptors] {
      return grpc::experimental::CreateCustomChannelWithInterceptors(
          "dns:///" + address, credentials, channel_arguments(), interceptors ? interceptors() : Interceptors());
    });
  }
  // gRPC's own log would go to the standard error of whatever program this is.
  if (getenv("GRPC_VERBOSITY") == nullptr)  // NOLINT(concurrency-mt-unsafe): as gRPC itself reads it
    gpr_set_log_verbosity(static_cast<gpr_log_severity>(GPR_LOG_SEVERITY_ERROR + 1));
  const Deadline deadline(options.timeout);
  if (!options.user.empty()) {
    if (Status status = connection->log_in(deadline); !status.ok()) return status;
  }
  if (Status status = connection->check_version(deadline); !status.ok()) return status;
  cluster->reset(new Cluster(std::move(connection)));
  return {};
}

Reply Cluster::range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
                     Deadline deadline) {
  const std::size_t expected = request.limit() > 1 ? kReceiveLimit / 4 : 0;
  return connection_->call(deadline, expected, true, [&](Services& services, grpc::ClientContext* context) {
    response->Clear();
    return Answer{services.kv.Range(context, request, response), response->header().cluster_id(), {}};
  });
}

Reply Cluster::txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
                   std::size_t expected) {
  return connection_->call(
      deadline, request.ByteSizeLong() + expected, true, [&](Services& services, grpc::ClientContext* context) {
        response->Clear();
        return Answer{services.kv.Txn(context, request, response), response->header().cluster_id(), {}};
      });
}

std::chrono::milliseconds Cluster::timeout() const { return connection_->options.timeout; }

bool Cluster::is_ours() const { return connection_->process == getpid(); }

}  // namespace tkv::store::etcd
