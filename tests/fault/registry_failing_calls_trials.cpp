// Every verb that changes a registry, while the n-th system call or allocation fails: what is reported as failed has
// not happened, what is reported as done has, and the registry stays sound.
//
//   registry_failing_calls_trials [--long]
//
// A short run makes one change of each kind, a long one four. In a long run each of the first hundred calls fails in
// turn, and then one of more and more; in a short run, less often. Exits with 1 if a promise was broken.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "failing_calls.h"
#include "lmdb_files.h"
#include "registry_operations.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

using fault::Call;

struct Kind {
  const char* name;
  Call call;
};

constexpr Kind kKinds[] = {{"open", Call::kOpen},
                           {"map", Call::kMap},
                           {"write", Call::kWrite},
                           {"sync", Call::kSync},
                           {"allocation", Call::kAllocate}};

// A registry to begin with, as a file, and as the model has it.
class Ground {
 public:
  Ground() {
    options_.directory = directory_ / "registry";
    options_.root_security.user_perm = 0x3f;
    const auto client = client_of(store::open_or_fail(options_));
    fill(*client);
    former_ = contents_of(*client);
  }

  const std::vector<std::string>& former() const { return former_; }

  // Copies the registry into an empty directory.
  void copy_to(const std::string& directory) const {
    std::filesystem::create_directory(directory);
    std::filesystem::copy_file(options_.directory + "/data.mdb", directory + "/data.mdb");
  }

  // What a change makes of it. Empty if the change fails.
  std::vector<std::string> contents_after(unsigned verb, unsigned number) const {
    const auto model = client_of(std::make_shared<store::MemoryStore>(options_.root_security));
    fill(*model);
    return TrialOperation(number, verb).run(*model).ok() ? contents_of(*model) : std::vector<std::string>();
  }

  static std::shared_ptr<Client> client_of(std::shared_ptr<store::Store> store) {
    return std::make_shared<LocalClient>(Configuration(), superuser(), std::move(store));
  }

 private:
  static void fill(Client& client) {
    for (unsigned number = 0; number < 12; ++number) (void)TrialOperation(number, kRestore).run(client).code();
  }

  static constexpr unsigned kRestore = 9;

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  store::LmdbOptions options_;
  std::vector<std::string> former_;
};

class FailingCallTrials {
 public:
  // Each of the first `every` calls fails in turn, then every second one for as many calls, and so on.
  FailingCallTrials(unsigned changes, int every) : changes_(changes), every_(every) {}

  void run() {
    std::printf("%-18s", "failures while");
    for (const Kind& kind : kKinds) std::printf(" %10s", kind.name);
    std::printf("\n");
    for (unsigned verb = 0; verb < kVerbCount; ++verb) {
      std::printf("%-18s", kVerbs[verb]);
      for (const Kind& kind : kKinds) std::printf(" %10d", fail_calls(kind, verb));
      std::printf("\n");
    }
    std::printf("%d failing calls, %d promises broken\n", failed_, broken_);
  }

  bool kept_promises() const { return broken_ == 0; }

 private:
  // Returns the number of calls that failed.
  int fail_calls(const Kind& kind, unsigned verb) {
    const int before = failed_;
    unsigned changes = 0;
    for (unsigned number = 0; changes < changes_ && number < 1000; ++number) {
      const std::vector<std::string> after = ground_.contents_after(verb, number);
      if (after.empty()) continue;
      ++changes;
      for (int nth = 1; try_with(kind, verb, number, nth, after); nth += 1 + nth / every_) ++failed_;
    }
    return failed_ - before;
  }

  // Opens a registry and changes it while the n-th call fails. Returns false if there were not as many calls.
  bool try_with(const Kind& kind, unsigned verb, unsigned number, int nth, const std::vector<std::string>& after) {
    const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
    store::LmdbOptions options;
    options.directory = directory / "registry";
    ground_.copy_to(options.directory);
    const Status status = fault::with_failure(kind.call, nth, [&]() -> Status {
      std::shared_ptr<store::Store> opened;
      if (Status open = store::open_lmdb_store(options, &opened); !open.ok()) return open;
      return TrialOperation(number, verb).run(*Ground::client_of(std::move(opened)));
    });
    const bool has_failed = fault::has_failed;
    const auto client = Ground::client_of(store::open_or_fail(options));
    const std::string damage = damage_in(*client);
    const bool is_as_reported = contents_of(*client) == (status.ok() ? after : ground_.former());
    if (is_as_reported && damage.empty()) return has_failed;
    ++broken_;
    std::printf("\n%s %u, %s %d: reported %d (%s)%s %s\n", kVerbs[verb], number, kind.name, nth, status.code(),
                status.text().c_str(), is_as_reported ? "" : ", and the registry tells otherwise", damage.c_str());
    return has_failed;
  }

  const Ground ground_;
  const unsigned changes_;
  const int every_;
  int failed_ = 0;
  int broken_ = 0;
};

int run(int argc, char** argv) {
  const bool is_long = argc == 2 && std::string_view(argv[1]) == "--long";
  if (argc > 1 && !is_long) {
    std::fprintf(stderr, "usage: %s [--long]\n", argv[0]);
    return 2;
  }
  FailingCallTrials trials(is_long ? 4 : 1, is_long ? 100 : 5);
  trials.run();
  return trials.kept_promises() ? 0 : 1;
}

}  // namespace
}  // namespace tkv::registry

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return tkv::registry::run(argc, argv);
}
