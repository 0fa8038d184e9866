// Processes that are hidden, stopped or killed while they own unfinished work, on a real cluster.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "etcd_store_fixture.h"

namespace tkv::store::etcd {
namespace {

// A child process, which is killed if it has not ended by itself.
class Child {
 public:
  explicit Child(std::vector<std::string> command) {
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    if (posix_spawnp(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) pid_ = -1;
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(SIGKILL);
    (void)wait();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void kill(int signal) const { ::kill(pid_, signal); }

  bool has_stopped() const {
    int status = 0;
    return waitpid(pid_, &status, WUNTRACED | WNOHANG) == pid_ && WIFSTOPPED(status);
  }

  // The exit code, or -1 if a signal ended it.
  int wait() {
    int status = 0;
    const pid_t ended = waitpid(pid_, &status, 0);
    pid_ = -1;
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

class EtcdOwnership : public EtcdStore {
 protected:
  // Requests of a build of 350 keys: two for the session, one for ids, and the batches from then on.
  static constexpr int kInTheMiddle = 6;

  std::vector<std::string> victim(const std::string& action, int last) const {
    return {TKV_ETCD_VICTIM, cluster_->endpoint(0), options_.prefix, action, std::to_string(last)};
  }

  void sweep() {
    Totals totals;
    EXPECT_TRUE(done(store_->check(
        true, [](const Finding& finding) { ADD_FAILURE() << finding.name << ": " << finding.detail; }, &totals)));
  }

  bool is_swept() {
    return count_raw(keys().all_staging()) == 0 && count_raw(keys().all_claims()) == 0 &&
           count_raw(keys().all_plans()) == 0;
  }

  // When the one build was begun; 0 if there is none.
  std::int64_t begin_of_build() {
    RangeResponse found;
    EXPECT_TRUE(raw().range(get_all(keys().all_staging()), &found, patience()).ok());
    return found.kvs_size() == 0 ? 0 : found.kvs(0).create_revision();
  }

  // Waits as long as a lease takes to run out that nobody keeps alive.
  void wait_for_a_lease_of_a_second() {
    Lease lease;
    ASSERT_TRUE(raw().grant_lease(1, &lease, patience()).ok());
    TxnRequest request;
    put(request.add_success(), "/probe", "", lease.id);
    TxnResponse response;
    ASSERT_TRUE(raw().txn(request, &response, patience()).ok());
    EXPECT_TRUE(eventually([&] { return count_raw({"/probe", "/probf"}) == 0; }));
  }

  // Waits for the end of every session under the prefix.
  void expect_sessions_to_end() {
    EXPECT_TRUE(eventually([&] { return count_raw(keys().all_sessions()) == 0; }));
  }

  void expect_whole(std::uint64_t nodes) {
    EXPECT_TRUE(eventually([&] { return is_swept(); }));
    EXPECT_EQ(totals_of(*store_).nodes, nodes);
    EXPECT_EQ(count_raw(keys().all_nodes()), static_cast<std::int64_t>(nodes));
  }
};

TEST_F(EtcdOwnership, AnOwnerStoppedForLongerThanItsLeaseCannotDecide) {
  Child owner(victim("build", -kInTheMiddle));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  ASSERT_EQ(count_raw(keys().all_staging()), 1);
  expect_sessions_to_end();
  sweep();
  EXPECT_TRUE(is_swept());
  EXPECT_EQ(count_raw(keys().all_nodes()), 1) << "only the root";
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0) << "it begins again, in another session";
  EXPECT_TRUE(done(open_key(*store_, "built.k349")));
  expect_whole(352);
}

TEST_F(EtcdOwnership, AnOwnerStoppedForLessGoesOn) {
  Child owner(victim("build", -kInTheMiddle));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0);
  expect_whole(352);
}

TEST_F(EtcdOwnership, AClaimantStoppedForLongerThanItsLeaseCannotDecide) {
  ASSERT_TRUE(done(build_keys(*store_, "many", 150)));
  store_.reset();  // so that the only session left is the owner's
  Child owner(victim("change", -7));
  ASSERT_TRUE(eventually([&] { return owner.has_stopped(); }));
  store_ = open_watched(&watch_);
  ASSERT_EQ(count_raw(keys().all_claims()), 1);
  expect_sessions_to_end();
  sweep();
  EXPECT_TRUE(is_swept());
  ASSERT_TRUE(done(write_key(*store_, "many.k3", "meanwhile")));
  owner.kill(SIGCONT);
  EXPECT_EQ(owner.wait(), 0);
  std::string text;
  ASSERT_TRUE(done(read_key(*store_, "many.k3", &text)));
  EXPECT_EQ(text, "changed");
  expect_whole(152);
}

TEST_F(EtcdOwnership, TheWorkOfAKilledOwnerIsSweptOnceItsLeaseHasRunOut) {
  Child owner(victim("build", kInTheMiddle));
  EXPECT_EQ(owner.wait(), -1);
  ASSERT_EQ(count_raw(keys().all_staging()), 1);
  expect_sessions_to_end();
  const std::shared_ptr<Store> next = open_watched(&watch_);
  expect_whole(1);
}

// In a process namespace of its own its number means nothing here, and /proc does not show it there.
TEST_F(EtcdOwnership, AnOwnerThatCannotBeSeenIsNotTakenForDead) {
  std::vector<std::string> command = {"unshare", "--pid", "--fork", "--mount-proc", "--kill-child"};
  if (run({"unshare", "--pid", "--fork", "--mount-proc", "true"}) != 0) {
    command.insert(command.begin() + 1, {"--user", "--map-root-user"});
    if (run({"unshare", "--user", "--map-root-user", "--pid", "--fork", "--mount-proc", "true"}) != 0) {
      GTEST_SKIP() << "this machine permits no process namespaces";
    }
  }
  const std::vector<std::string> linger = victim("linger", 1000);
  command.insert(command.end(), linger.begin(), linger.end());
  Child owner(command);
  ASSERT_TRUE(eventually([&] { return count_raw(keys().all_staging()) == 1; }));
  const std::int64_t begun = begin_of_build();
  wait_for_a_lease_of_a_second();
  sweep();
  const std::shared_ptr<Store> other = open_watched(&watch_);
  EXPECT_EQ(begin_of_build(), begun) << "another session has given it up";
  ASSERT_TRUE(done(create_key(*other, "go")));
  EXPECT_EQ(owner.wait(), 0);
  EXPECT_TRUE(done(open_key(*store_, "built.k349")));
}

}  // namespace
}  // namespace tkv::store::etcd
