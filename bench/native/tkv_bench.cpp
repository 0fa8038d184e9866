// One run of a native benchmark: measures scenarios on one side and prints a line for each, the scenario and the
// nanoseconds of each window, or "-" if the side has no such operation; then the memory that the process keeps for
// itself, in KiB. bench/run starts a process for each run. With --iterations, each scenario runs that many times
// without reading the clock, for counting instructions. The scenario "fill" writes the dataset; "write-on" writes until
// standard input ends, and prints "ready" when it begins.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dataset.h"
#include "options.h"
#include "prsrvut.h"
#include "side.h"
#include "stopwatch.h"

namespace tkv::bench {
namespace {

// Before it is timed, a scenario checks about this many of its answers.
constexpr std::size_t kChecks = 100'000;

// Names in an endless random order, the same in every process.
class Names {
 public:
  explicit Names(std::vector<std::string> names) : names_(std::move(names)) {}
  const char* next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return names_[static_cast<std::size_t>(((state_ >> 33) * names_.size()) >> 31)].c_str();
  }

 private:
  std::vector<std::string> names_;
  uint64_t state_ = 0x2545F4914F6CDD1D;
};

Operation reads(Side* side, const Dataset& dataset, std::vector<std::string> names) {
  const std::size_t step = 1 + names.size() / kChecks;
  for (std::size_t i = 0; i < names.size(); i += step) {
    if (!side->reads(names[i], dataset.value(names[i]))) throw std::runtime_error("a wrong value of " + names[i]);
  }
  return [side, in_turn = std::make_shared<Names>(std::move(names))] { return side->read(in_turn->next()); };
}

Operation lists(Side* side, const Dataset& dataset) {
  const std::string group = dataset.group(0);
  const uint64_t count = side->list(group);
  if (count != dataset.keys_per_group() && !side->is_control()) {
    throw std::runtime_error("a list of " + std::to_string(count) + " names");
  }
  return [side, group] { return side->list(group); };
}

Operation writes(Side* side, const Dataset& dataset) {
  auto in_turn = std::make_shared<Names>(dataset.names_of(dataset.group(dataset.groups())));
  return [side, in_turn, count = uint64_t{0}]() mutable {
    return side->write(in_turn->next(), std::to_string(count++).c_str());
  };
}

Operation checked_writes(Side* side, const Dataset& dataset) {
  const std::string name = dataset.names_of(dataset.group(dataset.groups())).front();
  side->write(name.c_str(), "checked");
  if (!side->reads(name, "checked")) throw std::runtime_error("a value that is not what was written");
  return writes(side, dataset);
}

Operation opens_store(Side* side, const Dataset& dataset) {
  const std::string name = dataset.names_of(dataset.group(0)).front();
  return [side, name] {
    side->close_store();
    side->open_store();
    return side->read(name.c_str());
  };
}

// Tracing is off in a process without a JVM; the result object is never looked at.
Operation traces(bool is_control) {
  if (is_control) return [] { return uint64_t{0}; };
  return [] {
    static char object;
    prsrvut_trace(nullptr, reinterpret_cast<jobject>(&object), "openKey: prtkv_open_key retval = %d\n", 0);
    return uint64_t{0};
  };
}

Operation operation_of(const std::string& scenario, Side* side, const Dataset& dataset) {
  if (scenario == "read-same") return reads(side, dataset, {dataset.names_of(dataset.group(0)).front()});
  if (scenario == "read-group") return reads(side, dataset, dataset.names_of(dataset.group(0)));
  if (scenario == "read-all" || scenario == "read-two") return reads(side, dataset, dataset.all_names());
  if (scenario == "list") return lists(side, dataset);
  if (scenario == "write") return checked_writes(side, dataset);
  if (scenario == "open-store") return opens_store(side, dataset);
  if (scenario == "trace-off") return traces(side->is_control());
  if (scenario == "open-key") {
    return [side, in_turn = std::make_shared<Names>(dataset.names_of(dataset.group(0)))] {
      return side->open_key(in_turn->next());
    };
  }
  throw std::invalid_argument("there is no scenario '" + scenario + "'");
}

// A second reader, in a thread of its own, for as long as this lives.
class BackgroundReader {
 public:
  BackgroundReader(Side* side, const Dataset& dataset)
      : side_(side->another()), thread_([this, names = Names(dataset.all_names())]() mutable {
          while (!stops_) side_->read(names.next());
        }) {}
  ~BackgroundReader() {
    stops_ = true;
    thread_.join();
  }
  BackgroundReader(const BackgroundReader&) = delete;
  BackgroundReader& operator=(const BackgroundReader&) = delete;

 private:
  std::unique_ptr<Side> side_;
  std::atomic<bool> stops_ = false;
  std::thread thread_;
};

// Writes until standard input ends.
void write_on(Side* side, const Dataset& dataset) {
  const Operation write = checked_writes(side, dataset);
  std::printf("ready\n");
  std::fflush(stdout);
  std::atomic<bool> stops = false;
  std::thread waiter([&stops] {
    while (std::getchar() != EOF) continue;
    stops = true;
  });
  while (!stops) sink = write();
  waiter.join();
}

void time(const std::string& scenario, Side* side, const Dataset& dataset, const Options& options) {
  const Operation operation = operation_of(scenario, side, dataset);
  if (options.has("iterations")) {
    const int iterations = options.number("iterations");
    for (int i = 0; i < iterations; ++i) sink = operation();
    return;
  }
  std::unique_ptr<BackgroundReader> background;
  if (scenario == "read-two") background = std::make_unique<BackgroundReader>(side, dataset);
  const Stopwatch stopwatch(options.number("warm-up-ms"), options.number("window-ms"), options.number("windows"));
  std::printf("%s\t", scenario.c_str());
  for (const double mean : stopwatch.nanoseconds_of(operation)) std::printf("%.2f ", mean);
  std::printf("\n");
}

// The memory of this process that is not a file's, in KiB.
long own_memory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long size = 0;
    if (word == "RssAnon:" && status >> size) return size;
  }
  return 0;
}

void measure(const Options& options) {
  const Dataset dataset(options.number("groups"), options.number("keys"), options.number("depth"),
                        static_cast<std::size_t>(options.number("value-size")));
  const auto side = side_of(options.text("peer"), options.text("directory"));
  const auto scenarios = options.list("scenarios");
  if (scenarios.front() == "fill") return side->fill(dataset);
  side->open_store();
  for (const auto& scenario : scenarios) {
    if (scenario == "write-on") {
      write_on(side.get(), dataset);
    } else if (side->has(scenario)) {
      time(scenario, side.get(), dataset, options);
    } else {
      std::printf("%s\t-\n", scenario.c_str());
    }
  }
  std::printf("memory\t%ld\n", own_memory());
  side->close_store();
}

}  // namespace
}  // namespace tkv::bench

int main(int count, char** arguments) {
  return tkv::bench::run_program("tkv_bench", count, arguments, tkv::bench::measure);
}
