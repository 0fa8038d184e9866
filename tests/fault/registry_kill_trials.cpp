// Kill trials: a process makes changes as tkv does (moves and copies of subtrees, imports, restores, deletions), and is
// killed at any moment. What it acknowledged must be there; the change under way must be there as a whole or not at
// all; and the registry must be sound.
//
//   registry_kill_trials [--long] [--trials N] [--seed S]
//
// A short run makes 60 kills, a long one 2,500. They are shared out among registries that are worked on at once. Half
// of these are in memory, where a process dies more often while it computes, and half on disk, where it dies more often
// while it waits for the disk. Half of each keep a short log, so that changes are dropped from it all the time. Exits
// with 1 if a promise was broken.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lmdb_files.h"
#include "registry_operations.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

constexpr unsigned kMostOperations = 100'000;  // in one process
constexpr int kRegistries = 8;
constexpr std::uint64_t kShortLog = 50;  // changes

struct Acknowledged {
  unsigned number;
  prtkv_result result;
};

struct Row {
  int acknowledged = 0;
  int under_way = 0;       // when the process was killed
  int under_way_made = 0;  // of these, are there
};

// What trials have found.
struct Findings {
  std::map<std::string, Row> rows;  // by verb
  int broken = 0;

  void add(const Findings& other) {
    broken += other.broken;
    for (const auto& [verb, row] : other.rows) {
      rows[verb].acknowledged += row.acknowledged;
      rows[verb].under_way += row.under_way;
      rows[verb].under_way_made += row.under_way_made;
    }
  }

  // Lines for another process.
  void write_to(std::FILE* file) const {
    for (const auto& [verb, row] : rows) {
      std::fprintf(file, "%d %d %d %s\n", row.acknowledged, row.under_way, row.under_way_made, verb.c_str());
    }
    std::fprintf(file, "broken %d\n", broken);
  }

  // Returns false if the writer did not come to its end.
  static bool read_from(std::FILE* file, Findings* findings) {
    char line[100];
    while (std::fgets(line, sizeof line, file) != nullptr) {
      Row row;
      int verb = 0;
      if (std::sscanf(line, "broken %d", &findings->broken) == 1) return true;
      if (std::sscanf(line, "%d %d %d %n", &row.acknowledged, &row.under_way, &row.under_way_made, &verb) != 3) break;
      findings->rows[std::string(line + verb, std::strcspn(line + verb, "\n"))] = row;
    }
    return false;
  }

  void print(int trials) const {
    std::printf("%-16s %13s %22s %16s\n", "change", "acknowledged", "under way when killed", "of these, made");
    Row total;
    for (const auto& [verb, row] : rows) {
      std::printf("%-16s %13d %22d %16d\n", verb.c_str(), row.acknowledged, row.under_way, row.under_way_made);
      total.acknowledged += row.acknowledged;
      total.under_way_made += row.under_way_made;
    }
    std::printf("%d kills: %d acknowledged changes, %d changes under way were made, %d promises broken\n", trials,
                total.acknowledged, total.under_way_made, broken);
  }
};

// Kills of processes that work on one registry, the `number`th.
class KillTrials {
 public:
  KillTrials(unsigned seed, int number)
      : random_(seed * kRegistries + static_cast<unsigned>(number)),
        next_(static_cast<unsigned>(random_() % kMostOperations)),
        directory_(number % 2 == 0 ? TemporaryDirectory::Where::kOnDisk : TemporaryDirectory::Where::kInMemory) {
    options_.directory = directory_ / "registry";
    if (number / 2 % 2 == 0) options_.retention.changes = kShortLog;
    options_.root_security.user_perm = 0x3f;
    model_ = std::make_shared<LocalClient>(Configuration(), superuser(),
                                           std::make_shared<store::MemoryStore>(options_.root_security));
    store::open_or_fail(options_);
  }

  void run() {
    const std::vector<Acknowledged> made = write_and_kill();
    for (const Acknowledged& each : made) {
      TrialOperation operation(each.number);
      ++findings_.rows[operation.verb()].acknowledged;
      const prtkv_result expected = operation.run(*model_).code();
      if (each.result != expected) broken(operation.verb(), "gave " + std::to_string(each.result));
    }
    next_ = made.empty() ? next_ : made.back().number + 1;
    compare();
    ++next_;
  }

  const Findings& findings() const { return findings_; }

 private:
  void broken(const char* verb, const std::string& what) {
    ++findings_.broken;
    std::printf("change %u (%s): %s\n", next_, verb, what.c_str());
  }

  // Runs changes in another process, kills it after a few of them, and returns those that it acknowledged.
  std::vector<Acknowledged> write_and_kill() {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    const pid_t writer = fork();
    if (writer == 0) write_on(ends[1]);
    close(ends[1]);
    std::vector<Acknowledged> made;
    const std::size_t wanted = random_() % 8;
    while (made.size() < wanted && take(ends[0], &made)) continue;
    usleep(static_cast<useconds_t>(random_() % 3000));  // any moment will do
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    while (take(ends[0], &made)) continue;
    close(ends[0]);
    return made;
  }

  [[noreturn]] void write_on(int acknowledgements) const {
    std::shared_ptr<store::Store> opened;
    if (!store::open_lmdb_store(options_, &opened).ok()) _exit(2);
    LocalClient client(Configuration(), superuser(), opened);
    for (unsigned number = next_; number < next_ + kMostOperations; ++number) {
      const Acknowledged done{number, TrialOperation(number).run(client).code()};
      (void)!write(acknowledgements, &done, sizeof done);
    }
    _exit(0);
  }

  static bool take(int acknowledgements, std::vector<Acknowledged>* made) {
    Acknowledged next{};
    if (read(acknowledgements, &next, sizeof next) != sizeof next) return false;
    made->push_back(next);
    return true;
  }

  // The registry must be in the model's state, or in that after the change under way.
  void compare() {
    TrialOperation under_way(next_);
    std::shared_ptr<store::Store> opened;
    if (const Status status = store::open_lmdb_store(options_, &opened); !status.ok()) {
      return broken(under_way.verb(), "opening: " + status.text());
    }
    LocalClient client(Configuration(), superuser(), opened);
    if (const std::string damage = damage_in(client); !damage.empty()) broken(under_way.verb(), damage);
    const std::vector<std::string> found = contents_of(client);
    Row& row = findings_.rows[under_way.verb()];
    ++row.under_way;
    if (found == contents_of(*model_)) {
      // It may have been made without any effect; making it again has none either.
      (void)under_way.run(client).code();
      (void)TrialOperation(next_).run(*model_).code();
      return;
    }
    (void)under_way.run(*model_).code();
    if (found != contents_of(*model_)) return broken(under_way.verb(), "the registry is in neither of two states");
    ++row.under_way_made;
  }

  std::mt19937 random_;
  unsigned next_;  // the change that comes next
  TemporaryDirectory directory_;
  store::LmdbOptions options_;
  std::shared_ptr<Client> model_;
  Findings findings_;
};

// The trials with one registry, in a process of their own.
class Share {
 public:
  Share(unsigned seed, int number, int trials) {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    process_ = fork();
    if (process_ == 0) make(seed, number, trials, fdopen(ends[1], "w"));
    close(ends[1]);
    findings_ = fdopen(ends[0], "r");
  }

  // Waits for their end and adds what they have found. A share that does not come to its end has broken a promise.
  void add_to(Findings* all) {
    Findings found;
    if (!Findings::read_from(findings_, &found)) {
      std::printf("the process %d ended early\n", static_cast<int>(process_));
      ++found.broken;
    }
    all->add(found);
    std::fclose(findings_);
    waitpid(process_, nullptr, 0);
  }

 private:
  [[noreturn]] static void make(unsigned seed, int number, int trials, std::FILE* findings) {
    {
      KillTrials share(seed, number);
      for (int i = 0; i < trials; ++i) share.run();
      share.findings().write_to(findings);
    }
    std::fclose(findings);
    std::fflush(stdout);
    _exit(0);
  }

  pid_t process_ = -1;
  std::FILE* findings_ = nullptr;
};

// Returns whether every promise was kept.
bool make_trials(unsigned seed, int trials) {
  std::vector<Share> shares;
  for (int i = 0; i < kRegistries; ++i) shares.emplace_back(seed, i, (trials + i) / kRegistries);
  Findings findings;
  for (Share& share : shares) share.add_to(&findings);
  findings.print(trials);
  return findings.broken == 0;
}

int run(int argc, char** argv) {
  int trials = 60;
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool has_number = i + 1 < argc;
    if (argument == "--long") {
      trials = 2500;
    } else if (argument == "--trials" && has_number) {
      trials = std::atoi(argv[++i]);
    } else if (argument == "--seed" && has_number) {
      seed = static_cast<unsigned>(std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: %s [--long] [--trials N] [--seed S]\n", argv[0]);
      return 2;
    }
  }
  return make_trials(seed, trials) ? 0 : 1;
}

}  // namespace
}  // namespace tkv::registry

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return tkv::registry::run(argc, argv);
}
