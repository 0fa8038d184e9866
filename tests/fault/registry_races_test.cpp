// What happens to a read of a known key between its two looks at the number of the latest state: another process
// commits, the pages of the former state are used again, and the reader copies what it finds there. The reader's
// first access to the pages faults, so that it waits there while the other process writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "prtkv.h"
#include "registry/client.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "two_sessions.h"

namespace {

std::atomic<bool> dies_before_meta_page{false};

}  // namespace

// LMDB's writes: a program's symbols come before libc's. The meta pages are written through a descriptor of their own,
// after the pages of the new state.
extern "C" [[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  if (dies_before_meta_page && (fcntl(file, F_GETFL) & O_DSYNC) == O_DSYNC) kill(getpid(), SIGKILL);
  return syscall(SYS_pwrite64, file, bytes, size, offset);
}

namespace tkv::registry {
namespace {

// All values have the same size, so that they take each other's places in the file.
constexpr std::string_view kKnown = "the known value";
constexpr std::string_view kMeanwhile = "written between";
constexpr std::string_view kNeverCommitted = "never committed";
constexpr std::string_view kSecret = "not for reading";
constexpr int kMostCommits = 8;  // by which a page of the former state has been used again

std::size_t meta_bytes() { return static_cast<std::size_t>(2 * getpagesize()); }

// The pages of a registry's file as LMDB maps them, except for the meta pages.
std::span<char> mapped_pages(const std::string& file) {
  std::ifstream maps("/proc/self/maps");
  std::span<char> largest;
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0;
    unsigned long end = 0;
    if (!line.ends_with(file) || std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) != 2) continue;
    if (end - begin > largest.size()) largest = {reinterpret_cast<char*>(begin), end - begin};
  }
  return largest.size() > meta_bytes() ? largest.subspan(meta_bytes()) : std::span<char>();
}

// Another process that does its work when this one first reads from the pages. One at a time.
class Interruption {
 public:
  Interruption(std::span<char> pages, const std::function<void()>& work) : pages_(pages) {
    current_ = this;
    if (pipe(begins_) != 0 || pipe(ends_) != 0) std::abort();
    process_ = fork();
    if (process_ == 0) {
      char byte = 0;
      close(begins_[1]);
      if (read(begins_[0], &byte, 1) == 1) work();
      _exit(0);
    }
    close(begins_[0]);
    close(ends_[1]);
    struct sigaction action {};
    action.sa_sigaction = &wait_for_the_other;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &former_action_);
    if (mprotect(pages_.data(), pages_.size(), PROT_NONE) != 0) std::abort();
  }
  ~Interruption() {
    mprotect(pages_.data(), pages_.size(), PROT_READ);
    sigaction(SIGSEGV, &former_action_, nullptr);
    close(begins_[1]);
    close(ends_[0]);
    waitpid(process_, nullptr, 0);
  }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  bool happened() const { return happened_; }

 private:
  // Only calls what a signal handler may call. The other process ends its side of the pipe when it exits or dies.
  static void wait_for_the_other(int, siginfo_t* fault, void*) {
    Interruption& self = *current_;
    const auto* const address = static_cast<char*>(fault->si_addr);
    const bool expected = address >= self.pages_.data() && address < self.pages_.data() + self.pages_.size();
    if (!expected || self.happened_) _exit(101);
    self.happened_ = true;
    char byte = 0;
    if (write(self.begins_[1], &byte, 1) != 1) _exit(102);
    if (read(self.ends_[0], &byte, 1) != 0) _exit(103);
    mprotect(self.pages_.data(), self.pages_.size(), PROT_READ);
  }

  static inline Interruption* current_ = nullptr;

  const std::span<char> pages_;
  pid_t process_ = 0;
  int begins_[2] = {-1, -1};
  int ends_[2] = {-1, -1};
  std::atomic<bool> happened_{false};
  struct sigaction former_action_ {};
};

class RegistryRaces : public TwoSessions {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(TwoSessions::SetUp());
    make("key", kKnown);
    client_ = client_on(store_, person("bob", {"users"}));
    latest_ = make_latest_reader(*client_);
  }

  static void set(const Context& session, std::string_view text) {
    if (TwoSessions::set(session, session.open("key"), text) != PRTKV_DONE) std::abort();
  }

  static void allow(const Context& session, const sec_attr& security) {
    if (prtkv_set_key_security(session, session.open("key"), security) != PRTKV_DONE) std::abort();
  }

  using Read = std::function<std::string()>;

  // Brings the key into its first state, and has the reader read it until its session knows it.
  Read know() const {
    allow(*writer_, open_to_all());
    set(*writer_, kKnown);
    const prtkv_key key = TwoSessions::know("key", kKnown);
    return [this, key] { return value(key); };
  }

  // The same with a reader of the latest state.
  Read know_latest() {
    allow(*writer_, open_to_all());
    set(*writer_, kKnown);
    const Read read = [this] {
      std::array<char, 64> buffer{};
      LatestValue found;
      const Status status = latest_->read_value("key", std::as_writable_bytes(std::span(buffer)), &found);
      return status.ok() ? std::string(buffer.data(), found.size) : "code " + std::to_string(status.code());
    };
    for (int times = 0; times < 3; ++times) EXPECT_EQ(read(), kKnown);
    return read;
  }

  // Reads the key, which is known, while another process writes with a session of its own. `*replaced` tells whether
  // `replacement` is then where the known value was.
  std::string read_while(const Read& read_known, const std::function<void(const Context&)>& work,
                         std::string_view replacement, bool* replaced) const {
    const std::span<char> pages = mapped_pages(data_file());
    const std::string before(pages.data(), std::filesystem::file_size(data_file()) - meta_bytes());
    Interruption interruption(pages, [&] {
      std::shared_ptr<store::Store> fresh;
      if (!store::open_lmdb_store(options_, &fresh).ok()) std::abort();
      work(Context(client_on(fresh, superuser())));
    });
    std::string read = read_known();
    EXPECT_TRUE(interruption.happened());
    *replaced = false;
    for (std::size_t at = 0; (at = before.find(kKnown, at)) != std::string::npos; ++at) {
      *replaced = *replaced || std::string_view(pages.data() + at, replacement.size()) == replacement;
    }
    return read;
  }

  // Has the other process do its work with every number of commits by which pages are used again, and expects that the
  // reader gets `expected` each time.
  void expect_to_read(std::string_view expected, std::string_view replacement, const std::function<Read()>& know,
                      const std::function<void(const Context&, int commits)>& work) const {
    int replacements = 0;
    for (int commits = 1; commits <= kMostCommits; ++commits) {
      SCOPED_TRACE(commits);
      bool replaced = false;
      const auto interrupt = [&](const Context& session) { work(session, commits); };
      EXPECT_EQ(read_while(know(), interrupt, replacement, &replaced), expected);
      replacements += replaced ? 1 : 0;
    }
    EXPECT_GT(replacements, 0) << "no value has taken the place of the known one";
  }

  static void set_without_committing(const Context& session, int commits) {
    for (int n = 0; n < commits; ++n) set(session, kMeanwhile);
    dies_before_meta_page = true;
    set(session, kNeverCommitted);
  }

  std::string data_file() const { return options_.directory + "/data.mdb"; }

 private:
  std::shared_ptr<Client> client_;
  std::unique_ptr<LatestReader> latest_;
};

TEST_F(RegistryRaces, AValueThatIsNotCommittedIsNotRead) {
  expect_to_read(
      kMeanwhile, kNeverCommitted, [&] { return know(); }, &set_without_committing);
}

TEST_F(RegistryRaces, AValueThatIsNotCommittedIsNotReadByAReaderOfTheLatestState) {
  expect_to_read(
      kMeanwhile, kNeverCommitted, [&] { return know_latest(); }, &set_without_committing);
}

TEST_F(RegistryRaces, AValueThatWasWrittenAfterTheRightWasTakenAwayIsNotRead) {
  const std::string denied = "code " + std::to_string(PRTKV_ACCESS_DENIED);
  expect_to_read(
      denied, kSecret, [&] { return know(); },
      [](const Context& session, int commits) {
        allow(session, owned_by("alice", "staff", 0x3f, 0, 0));
        for (int n = 0; n < commits; ++n) set(session, kSecret);
      });
}

}  // namespace
}  // namespace tkv::registry
