#include "etcd_cluster.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "loopback.h"
#include "store/etcd/etcd_store.h"

namespace tkv::store::etcd {
namespace {

constexpr std::chrono::seconds kLongest{300};
constexpr std::chrono::seconds kRequest{60};

struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  }
  int ends[2];
};

// `input`, if not -1, becomes the command's standard input. `errors`: whether `output` takes its errors as well.
pid_t spawn(const std::vector<std::string>& command, int input, int output, bool errors) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  if (input >= 0) posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
  if (errors) posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
  pid_t process = -1;
  const int error = posix_spawnp(&process, arguments[0], &files, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) throw std::runtime_error(command[0] + " cannot be started");
  return process;
}

int wait_for(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> words_of(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kLongest;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

Deadline patience() { return Deadline(kRequest); }

TemporaryDirectory::TemporaryDirectory() {
  path_ = (std::filesystem::temp_directory_path() / "tkv-etcd-XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

RefusingEndpoint::RefusingEndpoint() : socket_(bound_socket("127.0.0.1:0")), endpoint_(endpoint_of(socket_)) {}

RefusingEndpoint::~RefusingEndpoint() { close(socket_); }

int run(const std::vector<std::string>& command, std::string* output) {
  const Pipe pipe;
  const pid_t process = spawn(command, -1, pipe.ends[1], true);
  close(pipe.ends[1]);
  std::string text;
  char buffer[4096];
  ssize_t size = 0;
  while ((size = ::read(pipe.ends[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(size));
  close(pipe.ends[0]);
  if (output != nullptr) *output = text;
  return wait_for(process);
}

// The process that runs the members. It ends, and they with it, when its standard input is closed: here, or by the
// kernel when this process dies.
class EtcdCluster::Launcher {
 public:
  explicit Launcher(const std::vector<std::string>& arguments) {
    const Pipe commands;
    const Pipe answers;
    std::vector<std::string> command{"python3", TKV_ETCD_LAUNCHER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    process_ = spawn(command, commands.ends[0], answers.ends[1], false);
    close(commands.ends[0]);
    close(answers.ends[1]);
    commands_ = commands.ends[1];
    answers_ = answers.ends[0];
  }

  ~Launcher() {
    close(commands_);
    close(answers_);
    wait_for(process_);
  }

  std::string ask(const std::string& command) {
    const std::lock_guard lock(mutex_);
    const std::string line = command + "\n";
    if (::write(commands_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      throw std::runtime_error("etcd cluster: the launcher has ended");
    }
    std::string answer;
    char each = 0;
    while (::read(answers_, &each, 1) == 1 && each != '\n') answer += each;
    if (answer != "ok" && answer.rfind("ok ", 0) != 0) {
      throw std::runtime_error("etcd cluster: " + command + ": " + answer);
    }
    return answer.substr(std::min<std::size_t>(3, answer.size()));
  }

 private:
  pid_t process_ = -1;
  int commands_ = -1;
  int answers_ = -1;
  std::mutex mutex_;
};

EtcdCluster::EtcdCluster(Options options)
    : options_(std::move(options)), running_(static_cast<std::size_t>(options_.members), true) {
  std::vector<std::string> arguments{"--members", std::to_string(options_.members)};
  if (options_.between_proxies) arguments.emplace_back("--peers-through-proxies");
  if (!options_.cert.empty()) arguments.insert(arguments.end(), {"--tls", options_.cert, options_.key});
  arguments.insert(arguments.end(), {"--", "--heartbeat-interval=60", "--election-timeout=600"});
  arguments.insert(arguments.end(), options_.flags.begin(), options_.flags.end());
  launcher_ = std::make_unique<Launcher>(arguments);
  endpoints_ = words_of(launcher_->ask("endpoints"));
  if (options_.prepare) options_.prepare(launcher_->ask("address"));
  if (options_.between_proxies) {
    const std::vector<std::string> peers = words_of(launcher_->ask("peers"));
    const std::vector<std::string> proxies = words_of(launcher_->ask("proxies"));
    for (int i = 0; i < size(); ++i) {
      const auto at = static_cast<std::size_t>(i);
      proxies_.push_back(std::make_unique<PeerProxy>(
          proxies[at], peers[at], [this, i](const std::string& dialler) { return is_cut(i, dialler); }));
    }
  }
  launcher_->ask("start");
}

EtcdCluster::~EtcdCluster() = default;

std::string EtcdCluster::ask(const std::string& command) const { return launcher_->ask(command); }

EtcdOptions EtcdCluster::registry() const {
  static std::atomic<int> registries{0};
  EtcdOptions options;
  options.endpoints = endpoints();
  options.prefix = "/test" + std::to_string(++registries) + "/";
  options.timeout_ms = static_cast<int>(std::chrono::milliseconds(kRequest).count());
  options.root_security.user_perm = TKV_RIGHT_ALL;
  return options;
}

void EtcdCluster::start(int member) {
  launcher_->ask("start " + std::to_string(member));
  running_[static_cast<std::size_t>(member)] = true;
}

void EtcdCluster::kill(int member) {
  launcher_->ask("kill " + std::to_string(member));
  running_[static_cast<std::size_t>(member)] = false;
}

void EtcdCluster::restart(int member) {
  kill(member);
  start(member);
  wait_until_healthy();
}

void EtcdCluster::stop(int member) { launcher_->ask("stop " + std::to_string(member)); }

void EtcdCluster::go_on(int member) { launcher_->ask("cont " + std::to_string(member)); }

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
    if (!running_[static_cast<std::size_t>(i)]) continue;
    addresses +=
        (addresses.empty() ? "" : ",") + std::string(options_.cert.empty() ? "http://" : "https://") + endpoint(i);
  }
  std::vector<std::string> all{"env", "ETCDCTL_API=3", "etcdctl", "--command-timeout=60s", "--endpoints=" + addresses};
  all.insert(all.end(), options_.ctl_flags.begin(), options_.ctl_flags.end());
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::string output;
  run(all, &output);
  return output;
}

int EtcdCluster::leader() const { return std::stoi(launcher_->ask("leader")); }

void EtcdCluster::wait_until_ready() {
  ASSERT_TRUE(eventually([this] { return leader() >= 0; })) << "the cluster has no leader";
}

void EtcdCluster::wait_until_healthy() { launcher_->ask("wait"); }

std::shared_ptr<Store> open_when_ready(const EtcdOptions& options, const std::function<Interceptors()>& interceptors) {
  std::shared_ptr<Store> store;
  Status status;
  eventually([&] {
    status = open_etcd_store(options, &store, interceptors);
    return !status.is(PRTKV_UNREACHABLE) && !status.is(PRTKV_BUSY) && !status.is(PRTKV_UNDECIDED);
  });
  EXPECT_TRUE(status.ok()) << status.text();
  return store;
}

}  // namespace tkv::store::etcd
