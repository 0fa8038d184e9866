// Stopwatch: measures an operation by repeating it.
#ifndef TKV_BENCH_STOPWATCH_H
#define TKV_BENCH_STOPWATCH_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

namespace tkv::bench {

// Returns a number that depends on what it read.
using Operation = std::function<uint64_t()>;

// Receives the result of every operation, so that no work can be optimised away.
inline volatile uint64_t sink;

// A warm-up, then windows of time, each of which yields one mean.
class Stopwatch {
 public:
  Stopwatch(int warm_up_ms, int window_ms, int windows)
      : warm_up_(std::chrono::milliseconds(warm_up_ms)),
        window_(std::chrono::milliseconds(window_ms)),
        windows_(windows) {}

  // The means of the windows, in nanoseconds for each operation.
  std::vector<double> nanoseconds_of(const Operation& operation) const {
    const double warm = mean_during(operation, warm_up_, 1);
    const auto batch = static_cast<int>(std::clamp(kBatch / std::max(warm, 1.0), 1.0, 1e6));
    std::vector<double> means;
    for (int window = 0; window < windows_; ++window) means.push_back(mean_during(operation, window_, batch));
    return means;
  }

 private:
  using Nanoseconds = std::chrono::duration<double, std::nano>;

  static constexpr double kBatch = 200'000;  // the clock is read about once in this time, in nanoseconds

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
  int windows_;
};

}  // namespace tkv::bench

#endif
