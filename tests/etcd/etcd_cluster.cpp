#include "etcd_cluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "store/etcd/etcd_store.h"

namespace tkv::store::etcd {
namespace {

std::vector<char*> pointers(const std::vector<std::string>& command) {
  std::vector<char*> result;
  for (const std::string& word : command) result.push_back(const_cast<char*>(word.c_str()));
  result.push_back(nullptr);
  return result;
}

pid_t spawn(const std::vector<std::string>& command, int output) {
  const std::vector<char*> arguments = pointers(command);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

int wait_for(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds longest) {
  const auto end = std::chrono::steady_clock::now() + longest;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TemporaryDirectory::TemporaryDirectory() {
  path_ = (std::filesystem::temp_directory_path() / "tkv-etcd-XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

int free_port() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool bound = bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(listener);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

int run(const std::vector<std::string>& command, std::string* output) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const pid_t process = spawn(command, ends[1]);
  close(ends[1]);
  std::string text;
  char buffer[4096];
  ssize_t size = 0;
  while ((size = ::read(ends[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(size));
  close(ends[0]);
  if (output != nullptr) *output = text;
  return wait_for(process);
}

EtcdCluster::EtcdCluster(Options options) : options_(std::move(options)) {
  static std::atomic<int> clusters{0};
  token_ = "tkv-test-" + std::to_string(getpid()) + "-" + std::to_string(++clusters);
  // A port that was free a moment ago may be another test's by now: then all members start again on other ports.
  for (int attempt = 0; attempt < 5; ++attempt) {
    members_ = std::vector<Member>(static_cast<std::size_t>(options_.members));
    for (int i = 0; i < size(); ++i) {
      Member& member = members_[static_cast<std::size_t>(i)];
      member.client_port = free_port();
      member.peer_port = free_port();
      if (!options_.between_proxies) continue;
      member.proxy = std::make_unique<PeerProxy>(member.peer_port,
                                                 [this, i](const std::string& dialler) { return is_cut(i, dialler); });
    }
    for (int i = 0; i < size(); ++i) start(i);
    const bool up = eventually([&] {
      for (Member& member : members_) {
        if (member.process > 0 && waitpid(member.process, nullptr, WNOHANG) == member.process) member.process = 0;
        if (member.process == 0) return true;
      }
      return leader() >= 0;
    });
    bool all = up;
    for (int i = 0; i < size(); ++i) all = all && is_running(i);
    if (all) return;
    for (int i = 0; i < size(); ++i) kill(i);
    std::filesystem::remove_all(directory_.path());
    std::filesystem::create_directory(directory_.path());
  }
  throw std::runtime_error("etcd does not start");
}

EtcdCluster::~EtcdCluster() {
  for (int i = 0; i < size(); ++i) kill(i);
}

std::string EtcdCluster::endpoint(int member) const {
  return "127.0.0.1:" + std::to_string(members_[static_cast<std::size_t>(member)].client_port);
}

std::vector<std::string> EtcdCluster::endpoints() const {
  std::vector<std::string> result;
  for (int i = 0; i < size(); ++i) result.push_back(endpoint(i));
  return result;
}

EtcdOptions EtcdCluster::registry() const {
  static std::atomic<int> registries{0};
  EtcdOptions options;
  options.endpoints = endpoints();
  options.prefix = "/test" + std::to_string(++registries) + "/";
  options.root_security.user_perm = TKV_RIGHT_ALL;
  return options;
}

std::vector<std::string> EtcdCluster::command(int member) const {
  const auto name = [](int i) { return "m" + std::to_string(i); };
  const auto url = [](int port) { return "http://127.0.0.1:" + std::to_string(port); };
  const auto peer = [&](int i) {
    const Member& of = members_[static_cast<std::size_t>(i)];
    return url(of.proxy ? of.proxy->port() : of.peer_port);
  };
  const std::string client = options_.scheme + "://" + endpoint(member);
  std::string all;
  for (int i = 0; i < size(); ++i) all += (i == 0 ? "" : ",") + name(i) + "=" + peer(i);
  std::vector<std::string> result{"etcd",
                                  "--name=" + name(member),
                                  "--data-dir=" + directory_.file(name(member)),
                                  "--listen-client-urls=" + client,
                                  "--advertise-client-urls=" + client,
                                  "--listen-peer-urls=" + url(members_[static_cast<std::size_t>(member)].peer_port),
                                  "--initial-advertise-peer-urls=" + peer(member),
                                  "--initial-cluster=" + all,
                                  "--initial-cluster-state=new",
                                  "--initial-cluster-token=" + token_,
                                  "--heartbeat-interval=60",
                                  "--election-timeout=600",
                                  "--log-level=error"};
  result.insert(result.end(), options_.flags.begin(), options_.flags.end());
  return result;
}

void EtcdCluster::start(int member) {
  const int log = open(directory_.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  members_[static_cast<std::size_t>(member)].process = spawn(command(member), log);
  close(log);
}

void EtcdCluster::kill(int member) {
  pid_t& process = members_[static_cast<std::size_t>(member)].process;
  if (process <= 0) return;
  ::kill(process, SIGKILL);
  wait_for(process);
  process = 0;
}

void EtcdCluster::restart(int member) {
  kill(member);
  start(member);
  wait_until_ready();
}

void EtcdCluster::stop(int member) { ::kill(members_[static_cast<std::size_t>(member)].process, SIGSTOP); }

void EtcdCluster::go_on(int member) { ::kill(members_[static_cast<std::size_t>(member)].process, SIGCONT); }

// The lines of the list: id, state, name, peer address, client address.
void EtcdCluster::cut(int member) {
  const std::string list = ctl({"member", "list"});
  const auto name = list.find(", m" + std::to_string(member) + ",");
  ASSERT_NE(name, std::string::npos) << list;
  const auto line = list.rfind('\n', name);
  const std::size_t begin = line == std::string::npos ? 0 : line + 1;
  const std::lock_guard lock(cut_mutex_);
  cut_id_ = list.substr(begin, list.find(',', begin) - begin);
  cut_member_ = member;
}

void EtcdCluster::heal() { cut_member_ = -1; }

bool EtcdCluster::is_cut(int target, const std::string& dialler) const {
  if (cut_member_ < 0) return false;
  const std::lock_guard lock(cut_mutex_);
  return target == cut_member_ || dialler == cut_id_;
}

std::string EtcdCluster::ctl(std::vector<std::string> arguments) const {
  std::string addresses;
  for (int i = 0; i < size(); ++i) {
    if (is_running(i)) addresses += (addresses.empty() ? "" : ",") + options_.scheme + "://" + endpoint(i);
  }
  std::vector<std::string> all{"env", "ETCDCTL_API=3", "etcdctl", "--endpoints=" + addresses};
  all.insert(all.end(), options_.ctl_flags.begin(), options_.ctl_flags.end());
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::string output;
  run(all, &output);
  return output;
}

int EtcdCluster::leader() const {
  for (int i = 0; i < size(); ++i) {
    if (!is_running(i)) continue;
    std::vector<std::string> command{"env", "ETCDCTL_API=3", "etcdctl", "--command-timeout=1s",
                                     "--endpoints=" + options_.scheme + "://" + endpoint(i)};
    command.insert(command.end(), options_.ctl_flags.begin(), options_.ctl_flags.end());
    command.insert(command.end(), {"endpoint", "status"});
    std::string output;
    // endpoint, id, version, size, is leader, is learner, ...
    if (run(command, &output) != 0) continue;
    std::string::size_type at = 0;
    for (int comma = 0; comma < 4 && at != std::string::npos; ++comma) at = output.find(',', at + 1);
    if (at != std::string::npos && output.compare(at, 6, ", true") == 0) return i;
  }
  return -1;
}

void EtcdCluster::wait_until_ready() {
  ASSERT_TRUE(eventually([this] { return leader() >= 0; })) << "the cluster has no leader";
}

std::shared_ptr<Store> open_when_ready(const EtcdOptions& options) {
  std::shared_ptr<Store> store;
  Status status;
  eventually([&] {
    status = open_etcd_store(options, &store);
    return !status.is(PRTKV_UNREACHABLE);
  });
  EXPECT_TRUE(status.ok()) << status.text();
  return store;
}

}  // namespace tkv::store::etcd
