// One run of a native benchmark: measures scenarios on one side and prints one line for each, the scenario and its
// nanoseconds, or "-" if the side has no such operation. bench/run starts a process for each run, on the stores that
// the Java side has filled, and makes tables of the lines. With --iterations, each scenario runs that many times
// without reading the clock, for counting instructions.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bare_lmdb.h"
#include "options.h"
#include "prsrvut.h"
#include "prtkv.h"

namespace tkv::bench {
namespace {

// Takes every operation's result, so that no work can be optimised away.
volatile uint64_t sink;

// The names that the Java side wrote: groups of keys, and an additional group that takes the writes.
class Dataset {
 public:
  Dataset(int groups, int keys) : groups_(groups), keys_(keys) {}

  std::string group(int index) const { return "app.service.group" + padded(index, 4); }
  std::string written_group() const { return group(groups_); }
  std::size_t keys_per_group() const { return static_cast<std::size_t>(keys_); }
  std::vector<std::string> names_of(const std::string& group_name) const {
    std::vector<std::string> names;
    for (int key = 0; key < keys_; ++key) names.push_back(group_name + ".key" + padded(key, 6));
    return names;
  }
  std::vector<std::string> all_names() const {
    std::vector<std::string> names;
    for (int index = 0; index < groups_; ++index) {
      for (auto& name : names_of(group(index))) names.push_back(std::move(name));
    }
    return names;
  }
  static std::string value(const std::string& name) { return name.substr(name.size() - 20); }

 private:
  static std::string padded(int number, std::size_t width) {
    const std::string digits = std::to_string(number);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
  }

  int groups_;
  int keys_;
};

// What is measured. Operations return a number that depends on what they read.
class Side {
 public:
  virtual ~Side() = default;
  virtual uint64_t read(const char* name) = 0;
  virtual uint64_t list(const std::string& name) = 0;  // how many subkeys
  virtual uint64_t write(const char* name, const char* text) = 0;
  virtual void open_store() = 0;
  virtual void close_store() = 0;
  virtual bool reads(const std::string& name, const std::string& expected) = 0;
  virtual bool has(const std::string& scenario) const { return scenario != "open-key" && scenario != "trace-off"; }
  virtual uint64_t open_key(const char*) { throw std::logic_error("no open keys here"); }
  virtual bool is_control() const { return false; }
};

void require(int32_t code, const char* operation) {
  if (code != 0) throw std::runtime_error(std::string(operation) + " gave " + std::to_string(code));
}

class RegistrySide final : public Side {
 public:
  uint64_t read(const char* name) override {
    get(name);
    return static_cast<unsigned char>(buffer_[0]);
  }
  bool reads(const std::string& name, const std::string& expected) override {
    return get(name.c_str()) == expected.size() + 1 && expected == buffer_.data();
  }
  uint64_t open_key(const char* name) override {
    const prtkv_key key = open(name);
    close(key);
    return key;
  }
  uint64_t list(const std::string& name) override {
    const prtkv_key key = open(name.c_str());
    char level[PRTKV_SUBKEY_NAME_SIZE];
    uint64_t count = 0;
    int32_t remaining = 0;
    int32_t code = 0;
    do {
      uint32_t size = sizeof level;
      code = prtkv_enum_subkey(context_, key, level, &size, &remaining);
      if (code == 0) ++count;
    } while (code == 0);
    if (code != PRTKV_NO_MORE_SUBKEYS) require(code, "prtkv_enum_subkey");
    close(key);
    return count;
  }
  uint64_t write(const char* name, const char* text) override {
    const prtkv_key key = open(name);
    const auto size = static_cast<uint32_t>(std::strlen(text) + 1);
    require(prtkv_set_value(context_, key, PRTKV_TYPE_TEXT, text, size), "prtkv_set_value");
    close(key);
    return size;
  }
  void open_store() override {
    char text[PRTKV_ERROR_TEXT_SIZE];
    uint64_t size = sizeof text;
    if (prtkv_init_ext(&context_, 0, text, &size, 0) != 0) throw std::runtime_error(text);
  }
  void close_store() override { require(prtkv_terminate(context_), "prtkv_terminate"); }
  bool has(const std::string&) const override { return true; }

 private:
  prtkv_key open(const char* name) {
    prtkv_key key = 0;
    require(prtkv_open_key(context_, &key, name), "prtkv_open_key");
    return key;
  }
  void close(prtkv_key key) { require(prtkv_close_key(context_, key), "prtkv_close_key"); }
  uint32_t get(const char* name) {
    const prtkv_key key = open(name);
    int32_t type = 0;
    auto size = static_cast<uint32_t>(buffer_.size());
    require(prtkv_get_value(context_, key, &type, buffer_.data(), &size), "prtkv_get_value");
    close(key);
    return size;
  }

  prtkv_ctx context_ = 0;
  std::array<char, 1024> buffer_{};
};

class LmdbSide final : public Side {
 public:
  explicit LmdbSide(std::string directory) : directory_(std::move(directory)) {}
  uint64_t read(const char* name) override {
    return store_->get(name, [](const char* text) -> uint64_t {
      if (text == nullptr) throw std::runtime_error("the name is not in the store");
      return static_cast<unsigned char>(text[0]);
    });
  }
  bool reads(const std::string& name, const std::string& expected) override {
    return store_->get(name.c_str(), [&](const char* text) { return text != nullptr && expected == text; });
  }
  uint64_t list(const std::string& name) override { return store_->subkeys(name).size(); }
  uint64_t write(const char* name, const char* text) override {
    store_->put(name, text);
    return 1;
  }
  void open_store() override { store_ = std::make_unique<BareLmdb>(directory_); }
  void close_store() override { store_.reset(); }

 private:
  std::string directory_;
  std::unique_ptr<BareLmdb> store_;
};

// Does nothing: its times are the overhead of the measurement.
class ControlSide final : public Side {
 public:
  uint64_t read(const char* name) override { return static_cast<unsigned char>(name[0]); }
  bool reads(const std::string&, const std::string&) override { return true; }
  uint64_t list(const std::string& name) override { return name.size(); }
  uint64_t write(const char* name, const char*) override { return read(name); }
  uint64_t open_key(const char* name) override { return read(name); }
  void open_store() override {}
  void close_store() override {}
  bool has(const std::string&) const override { return true; }
  bool is_control() const override { return true; }
};

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

using Operation = std::function<uint64_t()>;

Operation reads(Side* side, std::vector<std::string> names) {
  for (const auto& name : names) {
    if (!side->reads(name, Dataset::value(name))) throw std::runtime_error("a wrong value of " + name);
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
  auto in_turn = std::make_shared<Names>(dataset.names_of(dataset.written_group()));
  const char* const name = in_turn->next();
  side->write(name, "checked");
  if (!side->reads(name, "checked")) throw std::runtime_error("a value that is not what was written");
  return [side, in_turn, count = uint64_t{0}]() mutable {
    return side->write(in_turn->next(), std::to_string(count++).c_str());
  };
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
  if (scenario == "read-same") return reads(side, {dataset.names_of(dataset.group(0)).front()});
  if (scenario == "read-group") return reads(side, dataset.names_of(dataset.group(0)));
  if (scenario == "read-all") return reads(side, dataset.all_names());
  if (scenario == "list") return lists(side, dataset);
  if (scenario == "write") return writes(side, dataset);
  if (scenario == "open-store") return opens_store(side, dataset);
  if (scenario == "trace-off") return traces(side->is_control());
  if (scenario == "open-key") {
    return [side, in_turn = std::make_shared<Names>(dataset.names_of(dataset.group(0)))] {
      return side->open_key(in_turn->next());
    };
  }
  throw std::invalid_argument("there is no scenario '" + scenario + "'");
}

std::unique_ptr<Side> side_of(const std::string& name, const std::string& directory) {
  if (name == "tkv") return std::make_unique<RegistrySide>();
  if (name == "lmdb") return std::make_unique<LmdbSide>(directory);
  if (name == "control") return std::make_unique<ControlSide>();
  throw std::invalid_argument("there is no side '" + name + "'");
}

// A warm-up, then windows of time, each of which yields one mean.
class Stopwatch {
 public:
  using Nanoseconds = std::chrono::duration<double, std::nano>;

  Stopwatch(int warm_up_ms, int window_ms, int windows)
      : warm_up_(std::chrono::milliseconds(warm_up_ms)),
        window_(std::chrono::milliseconds(window_ms)),
        means_(static_cast<std::size_t>(windows)) {}

  // The median of the windows' means.
  double nanoseconds_of(const Operation& operation) {
    const double warm = mean_during(operation, warm_up_, 1);
    const auto batch = static_cast<int>(std::clamp(kBatch / std::max(warm, 1.0), 1.0, 1e6));
    for (auto& mean : means_) mean = mean_during(operation, window_, batch);
    std::sort(means_.begin(), means_.end());
    return (means_[(means_.size() - 1) / 2] + means_[means_.size() / 2]) / 2;
  }

 private:
  static constexpr double kBatch = 200'000;  // the clock is read once in about this time

  static double mean_during(const Operation& operation, Nanoseconds time, int batch) {
    uint64_t count = 0;
    const auto start = std::chrono::steady_clock::now();
    Nanoseconds elapsed{};
    do {
      for (int i = 0; i < batch; ++i) sink = operation();
      count += static_cast<uint64_t>(batch);
      elapsed = std::chrono::steady_clock::now() - start;
    } while (elapsed < time);
    return elapsed.count() / static_cast<double>(count);
  }

  Nanoseconds warm_up_;
  Nanoseconds window_;
  std::vector<double> means_;
};

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t comma = 0; comma != std::string::npos; start = comma + 1) {
    comma = list.find(',', start);
    parts.push_back(list.substr(start, comma == std::string::npos ? comma : comma - start));
  }
  return parts;
}

void count_only(const Operation& operation, int iterations) {
  for (int i = 0; i < iterations; ++i) sink = operation();
}

void measure(const Options& options) {
  const Dataset dataset(options.number("groups"), options.number("keys"));
  const auto side = side_of(options.text("peer"), options.text("directory"));
  side->open_store();
  for (const auto& scenario : split(options.text("scenarios"))) {
    if (!side->has(scenario)) {
      std::printf("%s\t-\n", scenario.c_str());
      continue;
    }
    const Operation operation = operation_of(scenario, side.get(), dataset);
    if (options.has("iterations")) {
      count_only(operation, options.number("iterations"));
      continue;
    }
    Stopwatch stopwatch(options.number("warm-up-ms"), options.number("window-ms"), options.number("windows"));
    std::printf("%s\t%.2f\n", scenario.c_str(), stopwatch.nanoseconds_of(operation));
  }
  side->close_store();
}

}  // namespace
}  // namespace tkv::bench

int main(int count, char** arguments) {
  return tkv::bench::run_program("tkv_bench", count, arguments, tkv::bench::measure);
}
