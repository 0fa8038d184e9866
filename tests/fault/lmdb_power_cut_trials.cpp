// Power cuts, replayed: a registry is written to while every write and sync of its file is recorded. Each trial then
// makes the file that a power cut could have left behind, and opens it. What was synced is there; of what was not, each
// write is there, is missing or is torn into units of 512 or 4096 bytes, of which some are there. The registry must be
// sound, and its state must be that of the last acknowledged write, or of the write that was under way.
//
//   lmdb_power_cut_trials [--long] [--trials N] [--seed S]
//
// A short run makes 300 trials, a long one 5,000. Exits with 1 if a promise was broken.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace {

struct Step {
  enum class Kind { kWrite, kSync, kAcknowledged };
  Kind kind;
  std::size_t offset = 0;
  std::string bytes;
};

std::vector<Step>* recording = nullptr;  // null: nothing is recorded
ino_t recorded_file = 0;                 // the registry's data file, whose steps are recorded

// LMDB writes the meta page through a descriptor that syncs each write.
bool syncs_each_write(int file) { return (fcntl(file, F_GETFL) & O_DSYNC) != 0; }

bool is_recorded(int file) {
  struct stat status {};
  return recording != nullptr && fstat(file, &status) == 0 && status.st_ino == recorded_file;
}

void record_write(int file, std::size_t offset, std::string bytes) {
  if (!is_recorded(file)) return;
  recording->push_back({Step::Kind::kWrite, offset, std::move(bytes)});
  if (syncs_each_write(file)) recording->push_back({Step::Kind::kSync, 0, {}});
}

}  // namespace

// A program's symbols take precedence over libc's, for LMDB too.
extern "C" {

[[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  record_write(file, static_cast<std::size_t>(offset), {static_cast<const char*>(bytes), size});
  return syscall(SYS_pwrite64, file, bytes, size, offset);
}

[[gnu::visibility("default")]] ssize_t writev(int file, const struct iovec* parts, int count) {
  if (is_recorded(file)) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    record_write(file, static_cast<std::size_t>(lseek(file, 0, SEEK_CUR)), std::move(bytes));
  }
  return syscall(SYS_writev, file, parts, count);
}

[[gnu::visibility("default")]] int fdatasync(int file) {
  if (is_recorded(file)) recording->push_back({Step::Kind::kSync, 0, {}});
  return static_cast<int>(syscall(SYS_fdatasync, file));
}

}  // extern "C"

namespace tkv::store {
namespace {

constexpr int kWrites = 80;

// Returns the whole contents of a store as one text.
std::string contents(Store& store) {
  std::string text;
  const std::function<Status(View&, NodeId)> walk = [&](View& view, NodeId parent) {
    return view.children(parent, [&](std::string_view name, const Node& node) -> Status {
      Value value;
      if (Status status = view.value(node.id, &value); !status.ok()) return status;
      text.append(name).append(" ").append(std::to_string(node.id)).append(" ");
      text.append(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()).append("(");
      Status status = walk(view, node.id);
      text.append(")");
      return status;
    });
  };
  const Status status = store.read_all([&](View& view) { return walk(view, kNoNode); });
  return status.ok() ? text : "cannot be read: " + status.text();
}

// One write of several changes: keys and values of all sizes, removals and moves.
Status change(Update& update, int number, std::mt19937& random) {
  Node made;
  const std::string name = "key" + std::to_string(number);
  const std::string text(random() % 8 == 0 ? 20'000 : random() % 600, static_cast<char>('a' + number % 26));
  if (Status status = update.new_id(&made.id); !status.ok()) return status;
  if (Status status = update.insert(kRootNode, name, made); !status.ok()) return status;
  if (Status status = update.set_value(made.id, 3, std::as_bytes(std::span(text))); !status.ok()) return status;
  Node other;
  const std::string chosen = "key" + std::to_string(random() % static_cast<unsigned>(number + 1));
  if (chosen != name && update.find(kRootNode, chosen, &other).ok()) {
    if (Status status = update.unlink(kRootNode, chosen); !status.ok()) return status;
    const Status status = random() % 2 == 0 ? update.discard(other.id) : update.insert(made.id, "moved", other);
    if (!status.ok()) return status;
  }
  const std::string count = std::to_string(number);
  return update.set_value(kRootNode, 3, std::as_bytes(std::span(count)));
}

class PowerCuts {
 public:
  PowerCuts() {
    options_.directory = directory_ / "registry";
    const auto store = open_or_fail(options_);
    first_ = read_file(data_file());
    struct stat file {};
    if (stat(data_file().c_str(), &file) != 0) throw std::runtime_error("no data file");
    recorded_file = file.st_ino;
    states_.push_back(contents(*store));
    std::mt19937 random(4711);
    recording = &steps_;
    for (int number = 1; number <= kWrites; ++number) {
      const Status status = store->write([&](Update& update) { return change(update, number, random); });
      if (!status.ok()) throw std::runtime_error(status.text());
      steps_.push_back({Step::Kind::kAcknowledged, 0, {}});
      recording = nullptr;
      states_.push_back(contents(*store));
      recording = &steps_;
    }
    recording = nullptr;
    std::printf("%d writes: %zu steps recorded\n", kWrites, steps_.size());
  }

  // Returns whether the registry survived.
  bool run(unsigned seed) {
    std::mt19937 random(seed);
    const std::size_t cut = random() % (steps_.size() + 1);
    std::size_t acknowledged = 0;
    write_file(data_file(), file_after(cut, random, &acknowledged));
    std::filesystem::remove(options_.directory + "/lock.mdb");
    std::shared_ptr<Store> store;
    if (const Status status = open_lmdb_store(options_, &store); !status.ok()) return fail(seed, cut, status.text());
    std::string damage;
    Totals totals;
    const Status checked = store->check(
        false, [&](const Finding& finding) { damage = finding.detail; }, &totals);
    if (!checked.ok() || !damage.empty()) return fail(seed, cut, checked.ok() ? damage : checked.text());
    const std::string found = contents(*store);
    if (found == states_[acknowledged]) return true;
    if (acknowledged < kWrites && found == states_[acknowledged + 1]) {
      ++under_way_;
      return true;
    }
    return fail(seed, cut, "the state is neither that of write " + std::to_string(acknowledged) + " nor the next");
  }

  bool report(unsigned trials) const {
    std::printf("%u power cuts: %u failed; the write under way was there in %u, %zu writes torn, %zu lost\n", trials,
                failed_, under_way_, torn_, lost_);
    return failed_ == 0;
  }

 private:
  std::string data_file() const { return options_.directory + "/data.mdb"; }

  bool fail(unsigned seed, std::size_t cut, const std::string& why) {
    ++failed_;
    std::printf("seed %u, cut after step %zu: %s\n", seed, cut, why.c_str());
    return false;
  }

  static void apply(std::string* file, std::size_t offset, std::string_view bytes) {
    if (file->size() < offset + bytes.size()) file->resize(offset + bytes.size());
    file->replace(offset, bytes.size(), bytes);
  }

  // A write that was not synced.
  void apply_perhaps(std::string* file, const Step& step, std::mt19937& random) {
    const unsigned fate = random() % 4;
    if (fate == 0) return apply(file, step.offset, step.bytes);
    if (fate == 1) {
      ++lost_;
      return;
    }
    ++torn_;
    const std::size_t unit = fate == 2 ? 512 : 4096;
    // Units begin where the disk's do, not where the write does.
    for (std::size_t at = 0; at < step.bytes.size();) {
      const std::size_t size = std::min(unit - (step.offset + at) % unit, step.bytes.size() - at);
      if (random() % 2 == 0) apply(file, step.offset + at, std::string_view(step.bytes).substr(at, size));
      at += size;
    }
  }

  std::string file_after(std::size_t cut, std::mt19937& random, std::size_t* acknowledged) {
    std::size_t synced = 0;
    for (std::size_t i = 0; i < cut; ++i) {
      if (steps_[i].kind == Step::Kind::kSync) synced = i;
      if (steps_[i].kind == Step::Kind::kAcknowledged) ++*acknowledged;
    }
    std::string file = first_;
    for (std::size_t i = 0; i < cut; ++i) {
      if (steps_[i].kind != Step::Kind::kWrite) continue;
      if (i < synced) {
        apply(&file, steps_[i].offset, steps_[i].bytes);
      } else {
        apply_perhaps(&file, steps_[i], random);
      }
    }
    return file;
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
  std::string first_;  // the file before the first write
  std::vector<Step> steps_;
  std::vector<std::string> states_;  // after each write, and before the first
  unsigned failed_ = 0;
  unsigned under_way_ = 0;
  std::size_t torn_ = 0;
  std::size_t lost_ = 0;
};

int run(int argc, char** argv) {
  unsigned trials = 300;
  unsigned seed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool has_number = i + 1 < argc;
    if (argument == "--long") {
      trials = 5000;
    } else if (argument == "--trials" && has_number) {
      trials = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else if (argument == "--seed" && has_number) {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      std::fprintf(stderr, "usage: %s [--long] [--trials N] [--seed S]\n", argv[0]);
      return 2;
    }
  }
  PowerCuts cuts;
  for (unsigned i = 0; i < trials; ++i) (void)cuts.run(seed + i);
  return cuts.report(trials) ? 0 : 1;
}

}  // namespace
}  // namespace tkv::store

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return tkv::store::run(argc, argv);
}
