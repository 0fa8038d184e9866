// The options of a benchmark program: pairs of --name and value.
#ifndef TKV_BENCH_OPTIONS_H
#define TKV_BENCH_OPTIONS_H

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tkv::bench {

class Options {
 public:
  Options(int count, char** arguments) {
    for (int i = 1; i < count; i += 2) {
      const std::string_view name = arguments[i];
      if (!name.starts_with("--") || i + 1 == count) {
        throw std::invalid_argument("options come in pairs of --name and value: " + std::string(name));
      }
      values_[std::string(name.substr(2))] = arguments[i + 1];
    }
  }
  const std::string& text(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) throw std::invalid_argument("--" + name + " is missing");
    return found->second;
  }
  int number(const std::string& name) const { return std::stoi(text(name)); }
  // The parts of a value that commas separate.
  std::vector<std::string> list(const std::string& name) const {
    std::vector<std::string> parts;
    const std::string& all = text(name);
    for (std::size_t begin = 0; begin <= all.size();) {
      const std::size_t end = std::min(all.find(',', begin), all.size());
      parts.push_back(all.substr(begin, end - begin));
      begin = end + 1;
    }
    return parts;
  }
  bool has(const std::string& name) const { return values_.contains(name); }

 private:
  std::map<std::string, std::string> values_;
};

// main() of a program: passes its options to `run`, prints a failure after its name, and returns the exit code.
template <typename Run>
int run_program(const char* name, int count, char** arguments, Run run) {
  try {
    run(Options(count, arguments));
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", name, failure.what());
    return 1;
  }
}

}  // namespace tkv::bench

#endif
