// Watch trials on the embedded store (see watch_trials.h): writers and watchers are killed, and the log is so short
// that a watcher that is stopped falls behind it.
//
//   lmdb_watch_trials [--long]
#include <string_view>

#include "lmdb_files.h"
#include "temporary_directory.h"
#include "watch_trials.h"

namespace tkv {
namespace {

constexpr Revision kLogged = 500;

std::shared_ptr<store::Store> open(const std::string& directory) {
  store::LmdbOptions options;
  options.directory = directory;
  options.retention.changes = kLogged;
  return store::open_or_fail(options);
}

bool run(int kills) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  const std::string registry = directory / "registry";
  const std::shared_ptr<store::Store> store = open(registry);
  WatchTrials trials({registry}, directory.path(), 17);
  const auto outrun_the_log = [&] {
    Revision begin = 0;
    Revision latest = 0;
    const auto read = [&](Revision* revision) {
      return store->read([&](store::View& view) { return view.revision(revision); });
    };
    if (!read(&begin).ok()) throw std::runtime_error("the registry cannot be read");
    while (read(&latest).ok() && latest < begin + 2 * kLogged) {
      (void)store->wait(latest, std::chrono::seconds(1), {}, &latest);
    }
  };
  for (int i = 0; i < kills; ++i) {
    trials.progress(10);
    trials.kill_one();
    if (i % 10 == 9) trials.stop_watcher(outrun_the_log);
  }
  trials.progress(10);
  const bool sound = trials.finish(*store);
  if (trials.losses() == 0) std::puts("no watcher fell behind the log: nothing was shown about that");
  return sound && trials.losses() > 0;
}

}  // namespace
}  // namespace tkv

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 3) tkv::run_watch_role(words[1], words[2], [&] { return tkv::open(words[0]); });
  const bool is_long = !words.empty() && words[0] == "--long";
  return tkv::run(is_long ? 300 : 20) ? 0 : 1;
}
