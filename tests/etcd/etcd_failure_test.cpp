#include <dlfcn.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "certificates.h"
#include "etcd.grpc.pb.h"
#include "etcd_cluster.h"
#include "failure.h"
#include "loopback.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/module.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

Status open(const EtcdOptions& options) {
  std::shared_ptr<Store> store;
  return open_etcd_store(options, &store);
}

// An endpoint to which the kernel accepts connections, and where nobody ever answers.
class SilentEndpoint {
 public:
  SilentEndpoint() : listener_(listening_socket("127.0.0.1:0")) {}
  ~SilentEndpoint() { close(listener_); }
  std::string endpoint() const { return endpoint_of(listener_); }

 private:
  int listener_;
};

// ---- out of reach

TEST(EtcdOutOfReach, TheMessageGivesEachEndpointsOwnReason) {
  const SilentEndpoint silent;
  const RefusingEndpoint refusing;
  EtcdOptions options;
  options.timeout_ms = 1500;
  options.endpoints = {refusing.endpoint(), silent.endpoint(), "no-such-host.invalid:2379"};
  EXPECT_TRUE(ends_in([&] { return open(options); }, PRTKV_UNREACHABLE,
                      {refusing.endpoint() + ": ", "Connection refused", silent.endpoint() + ": no answer in time",
                       "no-such-host.invalid:2379: DNS resolution failed"}));
}

TEST(EtcdOutOfReach, TheNextCallTriesAgain) {
  EtcdCluster cluster;
  EtcdOptions options = cluster.registry();
  ASSERT_TRUE(done(create_key(*open_when_ready(options), "a", "value")));
  options.timeout_ms = 800;
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  cluster.kill(0);
  std::string text;
  EXPECT_TRUE(ends_in([&] { return read_key(*store, "a", &text); }, PRTKV_UNREACHABLE, {cluster.endpoint(0)}));
  EXPECT_TRUE(ends_in([&] { return write_key(*store, "a", "lost"); }, PRTKV_UNREACHABLE, {cluster.endpoint(0)}));
  const auto read_all = [&] {
    return store->read_all([](View& view) {
      Node node;
      return view.find(kNoNode, "", &node);
    });
  };
  EXPECT_TRUE(ends_in(read_all, PRTKV_UNREACHABLE, {cluster.endpoint(0)}));
  EXPECT_TRUE(ends_in([&] { return open(options); }, PRTKV_UNREACHABLE, {cluster.endpoint(0)}));
  cluster.start(0);
  EXPECT_TRUE(eventually([&] { return read_key(*store, "a", &text).ok(); }));
  EXPECT_EQ(text, "value");
}

TEST(EtcdOutOfReach, AWriteThatWasNeverSentWasNotMade) {
  EtcdCluster cluster;
  EtcdOptions options = cluster.registry();
  ASSERT_TRUE(done(create_key(*open_when_ready(options), "a", "value")));
  options.timeout_ms = 500;
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  cluster.kill(0);
  Status status;
  EXPECT_TRUE(
      ends_in([&] { return status = write_key(*store, "a", "other"); }, PRTKV_UNREACHABLE, {"Connection refused"}));
  EXPECT_EQ(status.text().find("whether the change was made"), std::string::npos) << status.text();
  cluster.restart(0);
  std::string text;
  EXPECT_TRUE(eventually([&] { return read_key(*store, "a", &text).ok(); }));
  EXPECT_EQ(text, "value");
}

TEST(EtcdOutOfReach, AnotherMemberIsAskedWhenOneIsGone) {
  EtcdCluster::Options cluster_options;
  cluster_options.members = 3;
  EtcdCluster cluster(cluster_options);
  const auto store = open_when_ready(cluster.registry());
  ASSERT_TRUE(done(create_key(*store, "a", "value")));
  for (int member = 0; member < 3; ++member) {
    cluster.kill(member);
    std::string text;
    EXPECT_TRUE(done(write_key(*store, "a", std::to_string(member))));
    EXPECT_TRUE(done(read_key(*store, "a", &text)));
    EXPECT_EQ(text, std::to_string(member));
    cluster.restart(member);
  }
}

TEST(EtcdOutOfReach, WithoutAMajorityNothingIsAnswered) {
  EtcdCluster::Options cluster_options;
  cluster_options.members = 3;
  EtcdCluster cluster(cluster_options);
  EtcdOptions options = cluster.registry();
  ASSERT_TRUE(done(create_key(*open_when_ready(options), "a", "value")));
  options.timeout_ms = 1500;
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  cluster.kill(1);
  cluster.kill(2);
  std::string text;
  EXPECT_TRUE(ends_in([&] { return read_key(*store, "a", &text); }, PRTKV_UNREACHABLE,
                      {cluster.endpoint(0), cluster.endpoint(1)}));
  cluster.start(1);
  EXPECT_TRUE(eventually([&] { return read_key(*store, "a", &text).ok(); }));
}

TEST(EtcdOutOfReach, EndpointsOfTwoClustersAreNotTakenForOne) {
  EtcdCluster first;
  EtcdCluster second;
  EtcdOptions options = first.registry();
  options.endpoints.push_back(second.endpoint(0));
  const auto store = open_when_ready(options);
  ASSERT_TRUE(done(create_key(*store, "a")));
  first.kill(0);
  EXPECT_TRUE(says(open_key(*store, "a"), PRTKV_UNUSABLE, {second.endpoint(0), "another etcd cluster"}));
}

// ---- options

TEST(EtcdOptions, WhatCannotBeUsedIsRefused) {
  const TemporaryDirectory directory;
  const std::string open_file = directory.file("open");
  const std::string empty_file = directory.file("empty");
  std::ofstream(open_file) << "secret\n";
  std::ofstream(empty_file) << "\n";
  chmod(empty_file.c_str(), 0600);
  chmod(open_file.c_str(), 0640);
  EtcdOptions good;
  good.endpoints = {"127.0.0.1:1"};
  good.timeout_ms = 300;
  const auto with = [&](const std::function<void(EtcdOptions&)>& change) {
    EtcdOptions options = good;
    change(options);
    return open(options);
  };
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.endpoints.clear(); }), PRTKV_INVALID_CONFIGURATION, {"endpoints"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.endpoints.assign(6, "h:1"); }), PRTKV_INVALID_CONFIGURATION, {"five"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.prefix.clear(); }), PRTKV_INVALID_CONFIGURATION, {"prefix"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.timeout_ms = 0; }), PRTKV_INVALID_CONFIGURATION, {"timeout_ms"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.cert = "c"; }), PRTKV_INVALID_CONFIGURATION, {"cert", "key"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.cert = o.key = "c"; }), PRTKV_INVALID_CONFIGURATION, {"ca"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.ca = "/none/ca.pem"; }), PRTKV_CONFIGURATION_UNREADABLE,
                   {"/none/ca.pem", "No such file"}));
  EXPECT_TRUE(says(with([](EtcdOptions& o) { o.user = "u"; }), PRTKV_INVALID_CONFIGURATION, {"password_file"}));
  const auto with_password = [&](const std::string& file) {
    return with([&](EtcdOptions& o) {
      o.user = "u";
      o.password_file = file;
    });
  };
  EXPECT_TRUE(
      says(with_password("/none/password"), PRTKV_CONFIGURATION_UNREADABLE, {"/none/password", "No such file"}));
  EXPECT_TRUE(says(with_password(open_file), PRTKV_INVALID_CONFIGURATION, {open_file, "chmod 600"}));
  EXPECT_TRUE(says(with_password(empty_file), PRTKV_INVALID_CONFIGURATION, {empty_file, "no password"}));
}

// ---- TLS

TEST(EtcdOverTls, OnlyTheRightCertificatesConnect) {
  Certificates certificates;
  EtcdCluster cluster(secured(certificates));
  EtcdOptions right = cluster.registry();
  right.ca = certificates.pem("ca");
  right.cert = certificates.pem("client");
  right.key = certificates.key("client");
  const auto store = open_when_ready(right);
  ASSERT_TRUE(store);
  EXPECT_TRUE(done(create_key(*store, "a", "value")));

  EtcdOptions wrong = right;
  wrong.timeout_ms = 1500;
  wrong.ca = certificates.pem("other-ca");
  EXPECT_TRUE(
      ends_in([&] { return open(wrong); }, PRTKV_UNREACHABLE, {cluster.endpoint(0), "certificate is not trusted"}));
  wrong.ca = right.ca;
  wrong.cert.clear();
  wrong.key.clear();
  EXPECT_TRUE(ends_in([&] { return open(wrong); }, PRTKV_UNREACHABLE,
                      {cluster.endpoint(0), "does not accept this side's certificate"}));
  wrong.ca.clear();
  EXPECT_TRUE(
      ends_in([&] { return open(wrong); }, PRTKV_UNREACHABLE, {cluster.endpoint(0), "a ca must be configured"}));
}

TEST(EtcdOverTls, TheCertificateOfAnotherHostIsRefused) {
  Certificates certificates;
  EtcdCluster cluster(secured(certificates, "DNS:elsewhere.example"));
  EtcdOptions options = cluster.registry();
  options.timeout_ms = 1500;
  options.ca = certificates.pem("ca");
  options.cert = certificates.pem("client");
  options.key = certificates.key("client");
  EXPECT_TRUE(ends_in([&] { return open(options); }, PRTKV_UNREACHABLE,
                      {cluster.endpoint(0), "certificate is for another host"}));
}

TEST(EtcdOverTls, AServerWithoutTlsIsNotSpokenToInPlainText) {
  const Certificates certificates;
  EtcdCluster cluster;
  EtcdOptions options = cluster.registry();
  options.timeout_ms = 1500;
  options.ca = certificates.pem("ca");
  EXPECT_TRUE(ends_in([&] { return open(options); }, PRTKV_UNREACHABLE, {cluster.endpoint(0), "does not speak TLS"}));
}

// ---- users

TEST(EtcdUsers, TheRightPasswordOpensAndOnlyThePrefix) {
  EtcdCluster cluster;
  const TemporaryDirectory directory;
  const std::string file = directory.file("password");
  const auto write_password = [&](const std::string& password) {
    std::ofstream(file) << password << "\n";
    chmod(file.c_str(), 0600);
  };
  EtcdOptions options = cluster.registry();
  options.user = "registry";
  options.password_file = file;
  write_password("right");
  EXPECT_TRUE(says(open(options), PRTKV_INVALID_CONFIGURATION, {"authentication switched off"}));

  cluster.ctl({"user", "add", "root:root"});
  cluster.ctl({"user", "grant-role", "root", "root"});
  cluster.ctl({"user", "add", "registry:right"});
  cluster.ctl({"role", "add", "registry"});
  cluster.ctl({"role", "grant-permission", "registry", "--prefix=true", "readwrite", options.prefix});
  cluster.ctl({"user", "grant-role", "registry", "registry"});
  cluster.ctl({"auth", "enable"});
  cluster.set_ctl_flags({"--user=root:root"});

  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a", "value")));
  totals_of(*store);

  EtcdOptions elsewhere = options;
  elsewhere.prefix = "/elsewhere/";
  EXPECT_TRUE(says(open(elsewhere), PRTKV_ACCESS_DENIED, {"permission denied"}));
  EtcdOptions nobody = options;
  nobody.user.clear();
  nobody.password_file.clear();
  EXPECT_TRUE(says(open(nobody), PRTKV_ACCESS_DENIED, {"none is configured"}));
  write_password("wrong");
  EXPECT_TRUE(says(open(options), PRTKV_ACCESS_DENIED, {"refused user or password"}));
  write_password("right");

  // A member forgets its logins when it starts: the session logs in again.
  cluster.restart(0);
  std::string text;
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  EXPECT_EQ(text, "value");
  EXPECT_TRUE(done(write_key(*store, "a", "later")));

  // It does so too after a change of rights.
  cluster.ctl({"role", "add", "unrelated"});
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  cluster.ctl({"role", "revoke-permission", "registry", "--prefix=true", options.prefix});
  EXPECT_TRUE(says(read_key(*store, "a", &text), PRTKV_ACCESS_DENIED, {"permission denied"}));
}

// ---- limits

// As the message tells an operator to.
void free_space(EtcdCluster& cluster) {
  const std::string status = cluster.ctl({"endpoint", "status", "--write-out=fields"});
  const std::string field = "\"Revision\" : ";
  const auto at = status.find(field);
  ASSERT_NE(at, std::string::npos) << status;
  cluster.ctl({"compaction", std::to_string(std::stoll(status.substr(at + field.size())))});
  cluster.ctl({"defrag"});
  cluster.ctl({"alarm", "disarm"});
}

// Deletes a key after having looked at everything below it, as is done on behalf of users who are not root.
Status delete_after_looking(Store& store, std::string_view name) {
  return store.write([&](Update& update) -> Status {
    Node top;
    if (Status status = follow(update, name, &top); !status.ok()) return status;
    const auto look = [](std::string_view, const Node&) { return Status(); };
    Status status = update.before().children(top.id, look);
    return status.ok() ? delete_key(update, name) : status;
  });
}

TEST(EtcdLimits, TheSpaceAlarmIsStorageFull) {
  EtcdCluster::Options cluster_options;
  cluster_options.flags = {"--quota-backend-bytes=4194304"};
  EtcdCluster cluster(cluster_options);
  const EtcdOptions options = cluster.registry();
  const auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "a", "value")));
  ASSERT_TRUE(done(create_key(*store, "b")));
  ASSERT_TRUE(done(build_keys(*store, "parent", 20)));
  const std::string large(512 * 1024, 'x');
  Status status;
  for (int i = 0; i < 40 && status.ok(); ++i) status = write_key(*store, "b", large);
  EXPECT_TRUE(says(status, PRTKV_STORAGE_FULL, {"space alarm"}));
  std::string text;
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  EXPECT_EQ(text, "value");
  EXPECT_TRUE(says(create_key(*store, "c"), PRTKV_STORAGE_FULL, {"space alarm"}));
  EXPECT_TRUE(done(open_key(*store, "b")));
  for (const char* command : {"tkv rm", "etcdctl compaction", "etcdctl defrag", "etcdctl alarm disarm"}) {
    EXPECT_NE(status.text().find(command), std::string::npos) << status.text();
  }

  // Deleting works, in this session and in one that has not written before.
  EXPECT_TRUE(done(delete_key(*store, "b")));
  EXPECT_TRUE(open_key(*store, "b").is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(done(delete_key(*open_when_ready(options), "parent")));

  free_space(cluster);
  EXPECT_TRUE(done(create_key(*store, "c")));
  EXPECT_EQ(totals_of(*store).nodes, 3u) << "the root, a and c";
}

// What a watcher that goes on after `*seen` gets.
struct Told {
  std::size_t changes = 0;
  bool complete = true;
};
Told changes_after(Store& store, Revision* seen) {
  Told told;
  LogPosition position;
  const auto count = [&](const ChangeRecord&) { return ++told.changes, Status(); };
  EXPECT_TRUE(done(store.changes({.after = *seen, .only_complete = true}, count, &position)));
  told.complete = position.complete;
  *seen = position.revision;
  return told;
}

TEST(EtcdLimits, AWatcherIsToldOfDeletionsThatTheSpaceAlarmKeptOutOfTheLog) {
  EtcdCluster::Options cluster_options;
  cluster_options.flags = {"--quota-backend-bytes=4194304"};
  EtcdCluster cluster(cluster_options);
  const EtcdOptions options = cluster.registry();
  const auto store = open_when_ready(options);
  const auto watcher = open_when_ready(options);
  ASSERT_TRUE(store && watcher);
  for (const char* name : {"a", "b", "c"}) ASSERT_TRUE(done(create_key(*store, name)));
  Status status;
  for (int i = 0; i < 40 && status.ok(); ++i) status = write_key(*store, "a", std::string(512 * 1024, 'x'));
  ASSERT_TRUE(says(status, PRTKV_STORAGE_FULL, {"space alarm"}));
  Revision seen = 0;
  ASSERT_TRUE(done(watcher->read([&](View& view) { return view.revision(&seen); })));
  const Revision before = seen;

  std::jthread deletion([&] { EXPECT_TRUE(done(delete_key(*store, "b"))); });
  Revision latest = 0;
  EXPECT_TRUE(done(watcher->wait(seen, patience().left(), {}, &latest)));
  deletion.join();
  EXPECT_GT(latest, seen);
  Told told = changes_after(*watcher, &seen);
  EXPECT_FALSE(told.complete);
  EXPECT_EQ(seen, latest);
  told = changes_after(*watcher, &seen);
  EXPECT_TRUE(told.complete) << "told once";
  const auto newcomer = open_when_ready(options);
  Revision found = 0;
  EXPECT_TRUE(done(newcomer->read_all([&](View& view) { return view.revision(&found); })));
  EXPECT_EQ(found, seen);
  EXPECT_TRUE(done(newcomer->read([&](View& view) { return view.revision(&found); })));
  EXPECT_EQ(found, seen);
  ASSERT_TRUE(done(newcomer->read_at(before, [](View& view) {
    Node node;
    return follow(view, "b", &node);
  })));

  // There is no key of the log left to remove: this shows with the next change.
  EXPECT_TRUE(done(delete_key(*store, "c")));
  cluster.ctl({"compaction", std::to_string(before)});
  cluster.ctl({"defrag"});
  cluster.ctl({"alarm", "disarm"});
  EXPECT_TRUE(done(create_key(*store, "d")));
  EXPECT_TRUE(done(watcher->wait(seen, patience().left(), {}, &latest)));
  EXPECT_FALSE(changes_after(*watcher, &seen).complete);
  EXPECT_EQ(seen, latest);
  EXPECT_TRUE(done(create_key(*store, "e")));
  told = changes_after(*watcher, &seen);
  EXPECT_TRUE(told.complete);
  EXPECT_EQ(told.changes, 1u);
}

// Looking at more keys than one transaction compares takes a claim, which is a put.
TEST(EtcdLimits, ADeletionTooLargeForTheSpaceAlarmIsMadeInPartsOrAfterwards) {
  EtcdCluster::Options cluster_options;
  cluster_options.flags = {"--quota-backend-bytes=4194304"};
  EtcdCluster cluster(cluster_options);
  const auto store = open_when_ready(cluster.registry());
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(build_keys(*store, "part", 100)));
  ASSERT_TRUE(done(build_keys(*store, "whole", 150)));
  ASSERT_TRUE(done(create_key(*store, "filler")));
  const std::string large(512 * 1024, 'x');
  Status status;
  for (int i = 0; i < 40 && status.ok(); ++i) status = write_key(*store, "filler", large);
  EXPECT_TRUE(says(status, PRTKV_STORAGE_FULL, {"space alarm"}));
  EXPECT_TRUE(says(delete_after_looking(*store, "whole"), PRTKV_STORAGE_FULL,
                   {"'tkv rm', as root or in parts of up to a hundred keys", "'etcdctl endpoint status",
                    "'etcdctl "
                    "compaction REVISION'",
                    "'etcdctl defrag'", "'etcdctl alarm disarm'"}));
  EXPECT_TRUE(done(open_key(*store, "whole.k149"))) << "nothing has been deleted";

  EXPECT_TRUE(done(delete_after_looking(*store, "part")));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(done(delete_key(*store, "whole.k" + std::to_string(i))));
  EXPECT_TRUE(done(delete_after_looking(*store, "whole")));
  EXPECT_TRUE(open_key(*store, "whole").is(PRTKV_NO_SUCH_KEY));

  free_space(cluster);
  ASSERT_TRUE(done(build_keys(*store, "whole", 150)));
  EXPECT_TRUE(done(delete_after_looking(*store, "whole")));
  EXPECT_TRUE(eventually([&] { return totals_of(*store).nodes == 2; })) << "the root and the filler";
}

TEST(EtcdLimits, AValueOverWhatEtcdTakesIsTooLarge) {
  EtcdCluster::Options cluster_options;
  cluster_options.flags = {"--max-request-bytes=65536"};
  EtcdCluster cluster(cluster_options);
  const auto store = open_when_ready(cluster.registry());
  ASSERT_TRUE(done(create_key(*store, "a", "value")));
  EXPECT_TRUE(says(write_key(*store, "a", std::string(100000, 'x')), PRTKV_VALUE_TOO_LARGE, {"size of the request"}));
  std::string text;
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  EXPECT_EQ(text, "value");
}

// A server that only answers with a version.
class ServerOfVersion final : public etcdserverpb::Maintenance::Service {
 public:
  explicit ServerOfVersion(std::string version) : version_(std::move(version)) {
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
    endpoint_ = "127.0.0.1:" + std::to_string(port);
  }
  const std::string& endpoint() const { return endpoint_; }

 private:
  grpc::Status Status(grpc::ServerContext*, const etcdserverpb::StatusRequest*,
                      etcdserverpb::StatusResponse* response) override {
    response->set_version(version_);
    return grpc::Status::OK;
  }

  std::string version_;
  std::string endpoint_;
  std::unique_ptr<grpc::Server> server_;
};

TEST(EtcdLimits, AServerThatMustNotBeUsedIsNotUsed) {
  const auto open_at = [](const ServerOfVersion& server) {
    EtcdOptions options;
    options.endpoints = {server.endpoint()};
    options.timeout_ms = 60000;
    return open(options);
  };
  const ServerOfVersion old("3.2.18");
  EXPECT_TRUE(says(open_at(old), PRTKV_UNUSABLE, {old.endpoint(), "etcd 3.2.18 is too old", "3.4"}));
  const ServerOfVersion corrupting("3.5.1");
  EXPECT_TRUE(says(open_at(corrupting), PRTKV_UNUSABLE, {corrupting.endpoint(), "etcd 3.5.1 can lose data", "3.5.3"}));
}

// ---- threads

int threads_of_this_process() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

// The kernel still lists a thread for a moment after it has been joined.
testing::AssertionResult threads_fall_to(int count) {
  if (eventually([&] { return threads_of_this_process() <= count; })) return testing::AssertionSuccess();
  return testing::AssertionFailure() << threads_of_this_process() << " threads, " << count << " before";
}

TEST(EtcdThreads, NoneRemainsAfterTheLastStoreIsClosed) {
  EtcdCluster cluster;
  const EtcdOptions options = cluster.registry();
  const int before = threads_of_this_process();
  for (int round = 0; round < 50; ++round) {
    std::shared_ptr<Store> first;
    std::shared_ptr<Store> second;
    ASSERT_TRUE(done(open_etcd_store(options, &first)));
    ASSERT_TRUE(done(open_etcd_store(options, &second)));
    ASSERT_TRUE(done(create_key(*first, "a" + std::to_string(round))));
    first.reset();
    ASSERT_TRUE(done(open_key(*second, "a" + std::to_string(round))));
    ASSERT_GT(threads_of_this_process(), before);
    second.reset();
    ASSERT_TRUE(threads_fall_to(before)) << "in round " << round;
  }
}

TEST(EtcdThreads, NoneRemainsAfterAnOpeningThatFailed) {
  const RefusingEndpoint refusing;
  EtcdOptions options;
  options.endpoints = {refusing.endpoint(), "no-such-host.invalid:2379"};
  options.timeout_ms = 100;
  const int before = threads_of_this_process();
  for (int round = 0; round < 10; ++round) {
    ASSERT_FALSE(open(options).ok());
    ASSERT_TRUE(threads_fall_to(before)) << "in round " << round;
  }
}

TEST(EtcdThreads, TheyEndOnTheirOwnAfterASilentEndpoint) {
  const SilentEndpoint silent;
  EtcdOptions options;
  options.endpoints = {silent.endpoint()};
  options.timeout_ms = 100;
  const int before = threads_of_this_process();
  ASSERT_FALSE(open(options).ok());
  EXPECT_TRUE(threads_fall_to(before));
}

TEST(EtcdThreads, NoneRemainsAfterAStoreWhoseMemberWasKilled) {
  EtcdCluster cluster;
  EtcdOptions options = cluster.registry();
  options.timeout_ms = 500;
  const int before = threads_of_this_process();
  auto store = open_when_ready(options);
  cluster.kill(0);
  EXPECT_FALSE(open_key(*store, "a").ok());
  store.reset();
  EXPECT_TRUE(threads_fall_to(before));
}

// ---- the module

TEST(EtcdModule, OpensAStoreForALibraryOfItsOwnRelease) {
  EtcdCluster cluster;
  void* const module = dlopen(TKV_ETCD_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  const auto open_store = reinterpret_cast<OpenEtcdStore>(dlsym(module, kEtcdModuleSymbol));
  ASSERT_NE(open_store, nullptr);
  std::shared_ptr<Store> store;
  ASSERT_TRUE(done(open_store(cluster.registry(), &store)));
  EXPECT_STREQ(store->kind(), "etcd");
  EXPECT_TRUE(done(create_key(*store, "a", "value")));
  std::string text;
  EXPECT_TRUE(done(read_key(*store, "a", &text)));
  EXPECT_EQ(text, "value");
  store.reset();
  dlclose(module);
}

TEST(EtcdModule, ExportsItsOneSymbol) {
  std::string output;
  ASSERT_EQ(run({"nm", "-D", "--defined-only", TKV_ETCD_MODULE}, &output), 0) << output;
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
  EXPECT_NE(output.find(std::string(" T ") + kEtcdModuleSymbol), std::string::npos) << output;
}

}  // namespace
}  // namespace tkv::store::etcd
