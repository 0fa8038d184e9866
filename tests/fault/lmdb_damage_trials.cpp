// Damage trials: bytes of a registry's data file are damaged, before it is opened or while it is open, and then all of
// it is read and parts of it are written. The store may report damage. It must not crash, it must not return wrong
// data, and it must hardly ever say that something is absent that is there.
//
//   lmdb_damage_trials [--long] [--trials N] [--seed S] [--verbose]
//
// A short run makes 150 trials, a long one 3,000. Each trial is a process of its own, made from a number, so that it
// can be repeated: --seed S --trials 1. Exits with 1 if a promise was broken.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/limits.h"
#include "lmdb_files.h"
#include "store/lmdb/layout.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

constexpr std::size_t kPageSize = 4096;

// What a registry holds: enough to recognize any wrong answer.
struct ModelNode {
  NodeId parent = kNoNode;
  std::string name;
  NodeId id = kNoNode;
  std::string value;
};

struct Model {
  std::vector<ModelNode> nodes;
  std::map<NodeId, std::map<std::string, NodeId>> children;  // of every node, also of those without
};

std::string some_text(std::mt19937& random, std::size_t size) {
  std::string text(size, ' ');
  for (char& letter : text) letter = static_cast<char>('a' + random() % 26);
  return text;
}

// Fills a registry with directories of keys, in several writes that leave free pages behind.
class Builder {
 public:
  Builder(const std::string& directory, std::size_t directories, std::size_t keys, std::size_t value_size,
          std::size_t large_values)
      : value_size_(value_size) {
    options_.directory = directory;
    const auto store = open_or_fail(options_);
    for (std::size_t i = 0; i < directories; ++i) fill(*store, i, keys);
    for (std::size_t i = 0; i < large_values; ++i) add_large_value(*store, i);
    remove_directory(*store, directories / 2);
    for (const ModelNode& node : model_.nodes) {
      (void)model_.children[node.id];
      if (node.id != kRootNode) model_.children[node.parent][node.name] = node.id;
    }
  }

  const Model& model() const { return model_; }
  std::string file() const { return read_file(options_.directory + "/data.mdb"); }

 private:
  Status add(Update& update, NodeId parent, const std::string& name, const std::string& value, NodeId* id) {
    Node node;
    node.security.user_perm = static_cast<std::int32_t>(name.size());
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    *id = node.id;
    model_.nodes.push_back({parent, name, node.id, value});
    if (Status status = update.insert(parent, name, node); !status.ok()) return status;
    return value.empty() ? Status() : update.set_value(node.id, 3, std::as_bytes(std::span(value)));
  }

  void fill(Store& store, std::size_t number, std::size_t keys) {
    const Status status = store.write([&](Update& update) -> Status {
      NodeId directory = kNoNode;
      Status added = add(update, kRootNode, "directory" + std::to_string(number), "", &directory);
      for (std::size_t i = 0; i < keys && added.ok(); ++i) {
        NodeId id = kNoNode;
        const std::size_t size = i % 4 == 0 ? 0 : 1 + random_() % value_size_;
        added = add(update, directory, "key-" + some_text(random_, random_() % 12) + std::to_string(i),
                    some_text(random_, size), &id);
      }
      return added;
    });
    if (!status.ok()) throw std::runtime_error(status.text());
  }

  void add_large_value(Store& store, std::size_t number) {
    const Status status = store.write([&](Update& update) {
      NodeId id = kNoNode;
      return add(update, kRootNode, "large" + std::to_string(number), some_text(random_, 5000 + random_() % 200'000),
                 &id);
    });
    if (!status.ok()) throw std::runtime_error(status.text());
  }

  void remove_directory(Store& store, std::size_t number) {
    const std::string name = "directory" + std::to_string(number);
    const auto found = std::find_if(model_.nodes.begin(), model_.nodes.end(),
                                    [&](const ModelNode& node) { return node.name == name; });
    const NodeId id = found->id;
    const Status status = store.write([&](Update& update) -> Status {
      if (Status unlinked = update.unlink(kRootNode, name); !unlinked.ok()) return unlinked;
      return update.discard(id);
    });
    if (!status.ok()) throw std::runtime_error(status.text());
    std::erase_if(model_.nodes, [&](const ModelNode& node) { return node.id == id || node.parent == id; });
  }

  const std::size_t value_size_;  // of most values, at most
  LmdbOptions options_;
  std::mt19937 random_{4711};
  Model model_{{{kNoNode, "", kRootNode, ""}}, {}};
};

enum class Kind { kFlip, kZero, kSwap, kDuplicate, kTruncate };
constexpr std::array kKindNames = {"flip", "zero", "swap", "duplicate", "truncate"};
constexpr std::size_t kKinds = kKindNames.size();

// Damages a file that other processes may have open.
class Damager {
 public:
  Damager(std::string path, const std::string& sound, std::mt19937& random)
      : path_(std::move(path)), sound_(sound), random_(random) {}

  void damage(Kind kind) {
    const int file = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    const std::size_t unit = random_() % 2 == 0 ? kPageSize : 512;
    const std::size_t at = some_page() * kPageSize + (unit == 512 ? 512 * (random_() % 8) : 0);
    const std::size_t other = some_page() * kPageSize + at % kPageSize;
    switch (kind) {
      case Kind::kFlip:
        for (std::size_t i = 1 + random_() % 4; i > 0; --i)
          flip(file, at / kPageSize * kPageSize + random_() % kPageSize);
        break;
      case Kind::kZero:
        write(file, at + random_() % 64, std::string(random_() % 2 == 0 ? unit : 8 + random_() % 120, '\0'));
        break;
      case Kind::kSwap:
        write(file, other, sound_.substr(at, unit));
        [[fallthrough]];
      case Kind::kDuplicate:
        write(file, at, sound_.substr(other, unit));
        break;
      case Kind::kTruncate:
        if (ftruncate(file, static_cast<off_t>(at)) != 0) std::abort();
        break;
    }
    close(file);
  }

 private:
  // Any page, or in every other case one of those on which most depends: meta pages, branch pages, the free list.
  std::size_t some_page() {
    for (;;) {
      const std::size_t page = random_() % (sound_.size() / kPageSize);
      if (random_() % 2 == 0) return page;
      for (std::size_t i = page; i < page + 500 && i < sound_.size() / kPageSize; ++i) {
        PageHeader header;
        std::memcpy(&header, sound_.data() + i * kPageSize, sizeof header);
        if (header.number == i && (header.flags == kBranchPage || header.flags == kMetaPage)) return i;
      }
    }
  }

  void flip(int file, std::size_t at) {
    const char byte = static_cast<char>(sound_[at] ^ (1 << random_() % 8));
    write(file, at, std::string_view(&byte, 1));
  }

  static void write(int file, std::size_t at, std::string_view bytes) {
    if (pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(bytes.size())) {
      std::abort();
    }
  }

  const std::string path_;
  const std::string& sound_;
  std::mt19937& random_;
};

// What happened in a trial, in memory that the trial's process shares with this one.
struct Answers {
  bool opened = false;
  std::uint64_t right = 0;
  std::uint64_t damaged = 0;  // reported as such
  std::uint64_t absent = 0;   // reported as absent, and there
  std::uint64_t wrong = 0;
  std::uint64_t other = 0;  // any other failure
  bool missed = false;      // a check finds nothing wrong where reading does
  bool finished = false;
  char first[400] = "";  // of what should not have happened
};

class Trial {
 public:
  Trial(Store& store, const Model& model, Answers& answers, std::mt19937& random)
      : store_(store), model_(model), answers_(answers), random_(random) {}

  // Reads all values, and notes where they are.
  void learn_values() {
    const Status status = store_.read([&](View& view) {
      state_ = view.state();
      for (const ModelNode& node : model_.nodes) {
        Value value;
        std::size_t size = 0;
        const Status read = view.value_up_to(node.id, kMaxValueSize, &value, &size, &places_[node.id]);
        if (!read.ok()) return read;
      }
      return Status();
    });
    if (!status.ok()) throw std::runtime_error(status.text());
  }

  // Reads the values from their places, without a transaction, as sessions do with keys that they know.
  void read_known_values() {
    for (const ModelNode& node : model_.nodes) {
      const ValuePlace& place = places_[node.id];
      std::vector<std::byte> buffer(place.value_size);
      std::int32_t type = 0;
      std::size_t size = 0;
      if (!store_.copy_value(state_, node.id, place, buffer, &type, &size)) continue;  // to be read through a view
      const std::string question = "known value of " + std::to_string(node.id);
      const std::string text(reinterpret_cast<const char*>(buffer.data()), size);
      if (text.empty() && !node.value.empty()) {
        note(answers_.absent, question);
      } else {
        judge(text == node.value, question);
      }
    }
  }

  void read_everything() {
    for (const ModelNode& node : model_.nodes) {
      if (gone_.count(node.id) != 0) continue;
      read_node(node);
      read_value(node);
    }
    for (const auto& [id, names] : model_.children) read_children(id, names);
  }

  void check() {
    bool found = false;
    Totals totals;
    const Status status = store_.check(
        false, [&](const Finding&) { found = true; }, &totals);
    answers_.missed = answers_.damaged > 0 && status.ok() && !found;
  }

  // A few changes of each kind, whose results are then expected.
  void write_something() {
    has_written_ = true;
    for (int i = 0; i < 12; ++i) {
      const ModelNode& node = model_.nodes[random_() % model_.nodes.size()];
      if (gone_.count(node.id) != 0) continue;
      if (i % 3 == 0 && node.value.size() > 0 && node.parent != kRootNode) {
        remove(node);
      } else {
        set(node);
      }
    }
  }

 private:
  void note(std::uint64_t& counter, const std::string& what) {
    if (&counter != &answers_.damaged && answers_.first[0] == '\0') {
      std::snprintf(answers_.first, sizeof answers_.first, "%s%s", what.c_str(), has_written_ ? ", after writing" : "");
    }
    ++counter;
  }

  // Returns whether the answer has to be examined.
  bool answered(const Status& status, const std::string& question) {
    if (status.ok()) return true;
    if (status.is(PRTKV_NO_SUCH_KEY)) {
      note(answers_.absent, question);
    } else if (status.is(PRTKV_STORAGE_FAILED)) {
      note(answers_.damaged, question + ": " + status.text());
    } else {
      note(answers_.other, question + ": " + status.text());
    }
    return false;
  }

  void judge(bool right, const std::string& question) {
    right ? void(++answers_.right) : note(answers_.wrong, question);
  }

  void read_node(const ModelNode& expected) {
    Node node;
    Node none;
    const std::string question = "find '" + expected.name + "' below " + std::to_string(expected.parent);
    const Status status = store_.read([&](View& view) { return view.find(expected.parent, expected.name, &node); });
    if (answered(status, question)) {
      judge(node.id == expected.id && (expected.id == kRootNode ||
                                       node.security.user_perm == static_cast<std::int32_t>(expected.name.size())),
            question);
    }
    const Status absent =
        store_.read([&](View& view) { return view.find(expected.parent, expected.name + "!", &none); });
    if (absent.ok()) note(answers_.wrong, question + " with '!'");
  }

  void read_value(const ModelNode& expected) {
    std::string text;
    const std::string question = "value of " + std::to_string(expected.id);
    if (!answered(get_text(store_, expected.id, &text), question)) return;
    const auto changed = changed_.find(expected.id);
    const std::string& right = changed == changed_.end() ? expected.value : changed->second;
    if (text.empty() && !right.empty()) {
      note(answers_.absent, question);
    } else {
      judge(text == right, question);
    }
  }

  void read_children(NodeId id, const std::map<std::string, NodeId>& names) {
    if (gone_.count(id) != 0) return;
    std::map<std::string, NodeId> found;
    bool any = false;
    const std::string question = "children of " + std::to_string(id);
    const Status status = store_.read([&](View& view) -> Status {
      if (Status asked = view.has_children(id, &any); !asked.ok()) return asked;
      return view.children(id, [&](std::string_view name, const Node& node) -> Status {
        found.emplace(name, node.id);
        return {};
      });
    });
    if (!answered(status, question)) return;
    std::map<std::string, NodeId> expected = names;
    std::erase_if(expected, [&](const auto& child) { return gone_.count(child.second) != 0; });
    const bool is_part = std::includes(expected.begin(), expected.end(), found.begin(), found.end());
    if (is_part && found.size() < expected.size()) {
      note(answers_.absent, question);
    } else {
      judge(found == expected && any == !expected.empty(), question);
    }
  }

  void set(const ModelNode& node) {
    const std::string text = some_text(random_, 1 + random_() % 3000);
    if (answered(set_text(store_, node.id, text), "set the value of " + std::to_string(node.id))) {
      changed_[node.id] = text;
    }
  }

  void remove(const ModelNode& node) {
    const Status status = store_.write([&](Update& update) -> Status {
      if (Status unlinked = update.unlink(node.parent, node.name); !unlinked.ok()) return unlinked;
      return update.discard(node.id);
    });
    if (answered(status, "remove '" + node.name + "'")) gone_.emplace(node.id, true);
  }

  Store& store_;
  const Model& model_;
  Answers& answers_;
  std::mt19937& random_;
  bool has_written_ = false;
  std::uint64_t state_ = 0;  // whose values are at `places_`
  std::map<NodeId, ValuePlace> places_;
  std::map<NodeId, std::string> changed_;
  std::map<NodeId, bool> gone_;
};

struct Registry {
  std::string name;
  Model model;
  std::string file;
};

struct Row {
  int trials = 0;
  int crashes = 0;
  int wrong = 0;
  int absent = 0;
  int other = 0;
  int missed = 0;
  int reported = 0;
  int unharmed = 0;
};

class Trials {
 public:
  explicit Trials(bool verbose) : verbose_(verbose) {
    options_.directory = directory_ / "registry";
    open_or_fail(options_);
    answers_ = static_cast<Answers*>(
        mmap(nullptr, sizeof(Answers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    add_registry("small", 12, 40, 500, 3);
    add_registry("large", 100, 100, 1900, 25);
  }

  void run(unsigned seed) {
    std::mt19937 random(seed);
    const auto kind = static_cast<Kind>(seed % kKinds);
    const bool while_open = seed / kKinds % 2 == 1;
    const Registry& registry = registries_[seed / (2 * kKinds) % 7 == 6 ? 1 : 0];
    write_file(data_file(), registry.file);
    *answers_ = Answers{};
    const int ended = in_child([&] { return try_it(registry, kind, while_open, random); });
    count(rows_[{registry.name, while_open, static_cast<int>(kind)}], kind, ended, seed);
  }

  // Prints the table. Returns whether all promises were kept.
  bool report() const {
    Row total;
    int truncated_crashes = 0;
    std::printf("%-6s %-15s %-10s %7s %8s %6s %7s %6s %7s %9s %9s\n", "size", "damaged", "how", "trials", "crashes",
                "wrong", "absent", "other", "missed", "reported", "unharmed");
    for (const auto& [at, row] : rows_) {
      const auto& [size, while_open, kind] = at;
      std::printf("%-6s %-15s %-10s %7d %8d %6d %7d %6d %7d %9d %9d\n", size.c_str(),
                  while_open ? "while open" : "before opening", kKindNames[static_cast<std::size_t>(kind)], row.trials,
                  row.crashes, row.wrong, row.absent, row.other, row.missed, row.reported, row.unharmed);
      if (static_cast<Kind>(kind) == Kind::kTruncate && while_open) {
        truncated_crashes += row.crashes;
      } else {
        total.crashes += row.crashes;
      }
      total.trials += row.trials;
      total.wrong += row.wrong;
      total.absent += row.absent;
      total.other += row.other;
      total.missed += row.missed;
    }
    std::printf(
        "%d trials: %d crashes (and %d by truncation while open), %d with a wrong answer, %d with a silent absence, %d "
        "with another failure, %d with damage that a check missed\n",
        total.trials, total.crashes, truncated_crashes, total.wrong, total.absent, total.other, total.missed);
    return total.crashes == 0 && total.wrong == 0 && total.other == 0 &&
           total.absent * 1000 <= std::max(total.trials, 1000);
  }

 private:
  std::string data_file() const { return options_.directory + "/data.mdb"; }

  void add_registry(const std::string& name, std::size_t directories, std::size_t keys, std::size_t value_size,
                    std::size_t large_values) {
    const TemporaryDirectory place(TemporaryDirectory::Where::kInMemory);
    const Builder builder(place / "registry", directories, keys, value_size, large_values);
    registries_.push_back({name, builder.model(), builder.file()});
    std::printf("%s registry: %zu keys, %zu bytes\n", name.c_str(), builder.model().nodes.size(),
                registries_.back().file.size());
  }

  int try_it(const Registry& registry, Kind kind, bool while_open, std::mt19937& random) {
    Damager damager(data_file(), registry.file, random);
    if (!while_open) damager.damage(kind);
    std::shared_ptr<Store> store;
    if (const Status status = open_lmdb_store(options_, &store); !status.ok()) {
      ++(status.is(PRTKV_STORAGE_FAILED) ? answers_->damaged : answers_->other);
      if (!status.is(PRTKV_STORAGE_FAILED)) std::snprintf(answers_->first, 400, "open: %s", status.text().c_str());
      answers_->finished = true;
      return 0;
    }
    answers_->opened = true;
    Trial trial(*store, registry.model, *answers_, random);
    if (while_open) {
      trial.learn_values();
      damager.damage(kind);
      trial.read_known_values();
    }
    trial.read_everything();
    trial.check();
    trial.write_something();
    trial.read_everything();
    answers_->finished = true;
    return 0;
  }

  void count(Row& row, Kind kind, int ended, unsigned seed) {
    ++row.trials;
    const bool crashed = ended != 0 || !answers_->finished;
    row.crashes += crashed;
    row.wrong += answers_->wrong > 0;
    row.absent += answers_->absent > 0;
    row.other += answers_->other > 0;
    row.missed += answers_->missed;
    row.reported += !crashed && answers_->damaged > 0;
    row.unharmed += !crashed && answers_->damaged == 0;
    const bool expected = !crashed || kind == Kind::kTruncate;
    const bool silent = answers_->wrong + answers_->absent + answers_->other > 0;
    if (!expected || silent || (verbose_ && answers_->missed)) {
      std::printf("seed %u: %s, ended with %d%s: %s\n", seed, kKindNames[static_cast<std::size_t>(kind)], ended,
                  answers_->missed ? ", missed by the check" : "", answers_->first);
    }
  }

  const bool verbose_;
  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
  std::vector<Registry> registries_;
  Answers* answers_ = nullptr;
  std::map<std::tuple<std::string, bool, int>, Row> rows_;
};

int run(int argc, char** argv) {
  unsigned trials = 150;
  unsigned seed = 0;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool has_number = i + 1 < argc;
    if (argument == "--long") {
      trials = 3000;
    } else if (argument == "--verbose") {
      verbose = true;
    } else if (argument == "--trials" && has_number) {
      trials = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else if (argument == "--seed" && has_number) {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      std::fprintf(stderr, "usage: %s [--long] [--trials N] [--seed S] [--verbose]\n", argv[0]);
      return 2;
    }
  }
  Trials all(verbose);
  for (unsigned i = 0; i < trials; ++i) all.run(seed + i);
  return all.report() ? 0 : 1;
}

}  // namespace
}  // namespace tkv::store

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return tkv::store::run(argc, argv);
}
