#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "certificates.h"
#include "child.h"
#include "delay_proxy.h"
#include "etcd_cluster.h"
#include "failure.h"
#include "request_watch.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

Status open(const EtcdOptions& options) {
  std::shared_ptr<Store> store;
  return open_etcd_store(options, &store);
}

// ---- slow networks

Status list_root(Store& store) {
  return store.read([](View& view) -> Status {
    Node root;
    if (Status status = view.find(kNoNode, "", &root); !status.ok()) return status;
    return view.children(root.id, [](std::string_view, const Node&) { return Status(); });
  });
}

// What a session does, and how many requests each step takes.
std::vector<int> requests_of_a_session(const EtcdOptions& options) {
  RequestWatch watch;
  std::vector<int> requests;
  std::shared_ptr<Store> store;
  const auto step = [&](const std::function<Status()>& action) {
    watch.reset();
    EXPECT_TRUE(done(action()));
    requests.push_back(watch.count());
  };
  std::string text;
  step([&] { return open_etcd_store(options, &store, watch.interceptors()); });
  if (!store) return requests;
  step([&] { return create_key(*store, "a", "value"); });
  step([&] { return write_key(*store, "a", "other"); });
  step([&] { return read_key(*store, "a", &text); });
  step([&] { return open_key(*store, "a"); });
  step([&] { return store->write([](Update& update) { return update.set_security(kRootNode, "a", sec_attr{}); }); });
  step([&] { return list_root(*store); });
  step([&] { return move_key(*store, "a", "b"); });
  EXPECT_TRUE(done(delete_key(*store, "b")));  // what it leaves is removed meanwhile, by requests of their own
  EXPECT_EQ(text, "other");
  return requests;
}

class EtcdAtADistance : public testing::TestWithParam<int> {};

TEST_P(EtcdAtADistance, ASessionNeedsNoMoreRequestsThanNearby) {
  EtcdCluster::Options members;
  members.members = GetParam();
  EtcdCluster cluster(members);
  EtcdOptions patient = cluster.registry();
  patient.attempt_ms = patient.timeout_ms;
  const std::vector<int> nearby = requests_of_a_session(patient);

  std::vector<std::unique_ptr<DelayProxy>> network;
  for (const std::string& endpoint : cluster.endpoints()) {
    network.push_back(std::make_unique<DelayProxy>(endpoint, std::chrono::milliseconds(600)));
  }
  // A busy machine may keep an answer back until its request has been sent again, but not every time.
  std::vector<int> distant;
  EXPECT_TRUE(eventually([&] {
    EtcdOptions options = cluster.registry();
    for (std::size_t i = 0; i < network.size(); ++i) options.endpoints[i] = network[i]->endpoint();
    return (distant = requests_of_a_session(options)) == nearby;
  })) << testing::PrintToString(distant)
      << " requests, nearby " << testing::PrintToString(nearby);
}

INSTANTIATE_TEST_SUITE_P(OfMembers, EtcdAtADistance, testing::Values(1, 3));

// ---- rotation

void replace(const std::string& path, const std::string& content, mode_t mode) {
  const std::string next = path + ".next";
  std::ofstream(next) << content;
  chmod(next.c_str(), mode);
  std::filesystem::rename(next, path);
}

std::string content_of(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The files of one client, which are replaced some time after the members' own.
class ClientFiles {
 public:
  explicit ClientFiles(const Certificates& certificates) : certificates_(certificates) { renew(); }

  void renew() const {
    replace(ca(), content_of(certificates_.pem("ca")), 0644);
    replace(cert(), content_of(certificates_.pem("client")), 0644);
    replace(key(), content_of(certificates_.key("client")), 0600);
  }
  std::string ca() const { return directory_.file("ca.pem"); }
  std::string cert() const { return directory_.file("cert.pem"); }
  std::string key() const { return directory_.file("key.pem"); }
  void configure(EtcdOptions* options) const {
    options->ca = ca();
    options->cert = cert();
    options->key = key();
  }

 private:
  const Certificates& certificates_;
  TemporaryDirectory directory_;
};

TEST(EtcdRotation, AnOpenSessionSurvivesNewCertificates) {
  Certificates certificates;
  const ClientFiles files(certificates);
  EtcdCluster::Options members = secured(certificates);
  const auto issue = members.prepare;
  std::string address;
  members.prepare = [&](const std::string& own) { issue(address = own); };
  EtcdCluster cluster(members);
  EtcdOptions options = cluster.registry();
  files.configure(&options);
  ASSERT_TRUE(done(create_key(*open_when_ready(options), "a", "value")));
  options.timeout_ms = 1500;
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);

  certificates.renew();
  issue(address);
  cluster.restart(0);
  std::string text;
  EXPECT_TRUE(ends_in([&] { return read_key(*store, "a", &text); }, PRTKV_UNREACHABLE, {"certificate is not trusted"}));
  replace(files.ca(), "half a cert", 0644);
  EXPECT_TRUE(ends_in([&] { return read_key(*store, "a", &text); }, PRTKV_UNREACHABLE, {"certificate is not trusted"}));
  files.renew();
  EXPECT_TRUE(eventually([&] { return read_key(*store, "a", &text).ok(); }));
  EXPECT_EQ(text, "value");
}

void add_user(const EtcdCluster& cluster, const std::string& password) {
  cluster.ctl({"user", "add", "registry:" + password});
  cluster.ctl({"user", "grant-role", "registry", "registry"});
}

// From now on, the user "registry" needs the password for what is under the prefix.
void require_login(EtcdCluster* cluster, const std::string& prefix, const std::string& password) {
  cluster->ctl({"user", "add", "root:root"});
  cluster->ctl({"user", "grant-role", "root", "root"});
  cluster->ctl({"role", "add", "registry"});
  cluster->ctl({"role", "grant-permission", "registry", "--prefix=true", "readwrite", prefix});
  add_user(*cluster, password);
  cluster->ctl({"auth", "enable"});
  cluster->set_ctl_flags({"--user=root:root"});
}

TEST(EtcdRotation, AnOpenSessionSurvivesANewPassword) {
  EtcdCluster cluster;
  const TemporaryDirectory directory;
  EtcdOptions options = cluster.registry();
  options.user = "registry";
  options.password_file = directory.file("password");
  replace(options.password_file, "former\n", 0600);
  require_login(&cluster, options.prefix, "former");
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a", "value")));

  cluster.ctl({"user", "delete", "registry"});
  add_user(cluster, "later");
  std::string text;
  EXPECT_TRUE(says(read_key(*store, "a", &text), PRTKV_ACCESS_DENIED, {"refused user or password"}));
  replace(options.password_file, "later\n", 0600);
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  EXPECT_EQ(text, "value");
}

// ---- files that cannot be used

TEST(EtcdFiles, WhatIsNoPemOrDoesNotBelongTogetherIsReportedByName) {
  Certificates certificates;
  certificates.issue_server("DNS:elsewhere.example");
  const ClientFiles files(certificates);
  const RefusingEndpoint refusing;
  EtcdOptions options;
  options.endpoints = {refusing.endpoint()};
  options.timeout_ms = 100;
  files.configure(&options);
  ASSERT_TRUE(open(options).is(PRTKV_UNREACHABLE));
  const auto refused = [&](const std::string& path, const std::string& content, mode_t mode, const char* why) {
    replace(path, content, mode);
    EXPECT_TRUE(says(open(options), PRTKV_INVALID_CONFIGURATION, {path, why}));
    files.renew();
  };
  const std::string key = content_of(certificates.key("client"));
  refused(files.ca(), "garbage", 0644, "holds no certificate");
  refused(files.ca(), "", 0644, "holds no certificate");
  refused(files.ca(), key, 0644, "holds no certificate");
  refused(files.cert(), "garbage", 0644, "holds no certificate");
  refused(files.key(), "garbage", 0600, "holds no private key");
  refused(files.key(), content_of(certificates.pem("client")), 0600, "holds no private key");
  refused(files.key(), content_of(certificates.key("server")), 0600, "does not belong to cert");
  refused(files.key(), key, 0604, "chmod 600");
  EXPECT_TRUE(open(options).is(PRTKV_UNREACHABLE));
  replace(files.key(), key, 0640);
  EXPECT_TRUE(open(options).is(PRTKV_UNREACHABLE)) << "the key's group may read it";
  options.ca = files.ca() + ".none";
  EXPECT_TRUE(says(open(options), PRTKV_CONFIGURATION_UNREADABLE, {options.ca, "No such file"}));
  options.ca = "/tmp";
  EXPECT_TRUE(says(open(options), PRTKV_INVALID_CONFIGURATION, {"/tmp", "not a regular file"}));
}

// ---- secrets

std::string in_hexadecimal(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (const char each : text) {
    result += {kDigits[static_cast<unsigned char>(each) >> 4], kDigits[each & 15], ' '};
  }
  result.pop_back();
  return result;
}

// gRPC's traces show all bytes that are sent.
TEST(EtcdSecrets, ATraceDoesNotShowThePassword) {
  EtcdCluster cluster;
  const TemporaryDirectory directory;
  const std::string password = "correct-horse-battery";
  replace(directory.file("password"), password, 0600);
  const auto traced = [&](std::vector<std::string> login) {
    std::vector<std::string> command{
        "env", "GRPC_TRACE=all", "GRPC_VERBOSITY=debug", TKV_ETCD_VICTIM, cluster.endpoint(0), "/t/", "create", "1000"};
    command.insert(command.end(), login.begin(), login.end());
    std::string output;
    run(command, &output);
    return output;
  };
  const std::string without = traced({});
  EXPECT_NE(without.find("etcdserverpb"), std::string::npos) << "there is no trace to speak of";
  const std::string with = traced({password, directory.file("password")});  // as the user's name, too
  EXPECT_EQ(with.find(password), std::string::npos);
  EXPECT_EQ(with.find(in_hexadecimal(password)), std::string::npos);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what was freed as it was

// Whether a process has a text in the memory that it can write to.
bool has_in_memory(pid_t process, const std::string& text) {
  const std::string directory = "/proc/" + std::to_string(process);
  std::ifstream regions(directory + "/maps");
  for (std::string line; std::getline(regions, line);) {
    std::uintmax_t begin = 0;
    std::uintmax_t end = 0;
    char dash = 0;
    std::string rights;
    std::istringstream(line) >> std::hex >> begin >> dash >> end >> rights;
    if (!rights.starts_with("rw")) continue;
    std::string content(end - begin, '\0');
    std::ifstream memory(directory + "/mem", std::ios::binary);
    memory.seekg(static_cast<std::streamoff>(begin));
    memory.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(memory.gcount()));
    if (content.find(text) != std::string::npos) return true;
  }
  return false;
}

// Neither in what read and sent it, nor in the memory that they gave back.
TEST(EtcdSecrets, ThePasswordDoesNotStayInMemory) {
  EtcdCluster cluster;
  const TemporaryDirectory directory;
  const std::string file = directory.file("password");
  const std::string password = "correct-horse-battery";
  replace(file, password, 0600);
  require_login(&cluster, "/t/", password);
  const Child session({TKV_ETCD_VICTIM, cluster.endpoint(0), "/t/", "create", "-2", "registry", file});
  ASSERT_TRUE(eventually([&] { return session.has_stopped(); })) << "it does not log in and begin to write";
  EXPECT_TRUE(has_in_memory(session.pid(), file)) << "its memory cannot be searched";
  EXPECT_FALSE(has_in_memory(session.pid(), password));
}

#endif

}  // namespace
}  // namespace tkv::store::etcd
