// Watch trials: processes that write, and processes that watch, some of which are killed or stopped at any moment. What
// the watchers tell is compared with each other and with what the writers were told: each watcher has seen every change
// once and in order, from where it began, or has said where changes were lost to it.
//
// Each process is this program in a role of its own, and writes what it sees into a file, line by line:
//
//   w REVISION    a writer's change was acknowledged
//   s REVISION    a watcher begins after this revision
//   c REVISION    a watcher has seen this change
//   p REVISION    a watcher has seen everything up to here
//   r REVISION    changes were lost to a watcher, which goes on after this revision
#ifndef TKV_TESTS_FAULT_WATCH_TRIALS_H
#define TKV_TESTS_FAULT_WATCH_TRIALS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "store/store.h"

namespace tkv {

struct WatchLine {
  char kind = 0;
  Revision revision = 0;
};

// What a process has written; a line that its death has cut off is left out.
inline std::vector<WatchLine> read_watch_lines(const std::string& file) {
  std::ifstream stream(file);
  std::vector<WatchLine> lines;
  for (std::string text; std::getline(stream, text) && !stream.eof();) {
    WatchLine line;
    if (std::istringstream(text) >> line.kind >> line.revision) lines.push_back(line);
  }
  return lines;
}

// The roles of the other processes. They run until they are killed.
class WatchRoles {
 public:
  WatchRoles(std::shared_ptr<store::Store> store, int output) : store_(std::move(store)), output_(output) {}

  [[noreturn]] void write(const std::string& name) {
    store::NodeId id = store::kNoNode;
    for (std::uint64_t i = 0;; ++i) {
      Revision revision = 0;
      const std::string text = std::to_string(i);
      const Status status = store_->write(
          [&](store::Update& update) -> Status {
            if (Status found = find_or_create(update, name, &id); !found.ok()) return found;
            update.describe({.author = name});
            return update.set_value(id, 3, std::as_bytes(std::span(text)));
          },
          &revision);
      if (status.ok()) print('w', revision);
    }
  }

  [[noreturn]] void watch() {
    Revision seen = 0;
    while (!store_->read([&](store::View& view) { return view.revision(&seen); }).ok()) continue;
    print('s', seen);
    while (true) {
      LogPosition position;
      const Status status = store_->changes(
          {.after = seen, .only_complete = true},
          [&](const ChangeRecord& record) {
            print('c', seen = record.revision);
            return Status();
          },
          &position);
      if (status.ok()) print(position.complete ? 'p' : 'r', seen = position.revision);
      Revision latest = 0;
      (void)store_->wait(seen, std::chrono::seconds(5), {}, &latest);
    }
  }

 private:
  static Status find_or_create(store::Update& update, const std::string& name, store::NodeId* id) {
    store::Node node;
    Status status = update.find(store::kRootNode, name, &node);
    if (status.is(PRTKV_NO_SUCH_KEY)) {
      status = update.new_id(&node.id);
      if (status.ok()) status = update.insert(store::kRootNode, name, node);
    }
    *id = node.id;
    return status;
  }

  void print(char kind, Revision revision) const {
    const std::string line = std::string(1, kind) + " " + std::to_string(revision) + "\n";
    (void)!::write(output_, line.data(), line.size());
  }

  const std::shared_ptr<store::Store> store_;
  const int output_;
};

class WatchTrials {
 public:
  // `arguments` of this program make a process open the registry; its role and its file are appended. Files are made in
  // `directory`.
  WatchTrials(std::vector<std::string> arguments, std::string directory, unsigned seed)
      : arguments_(std::move(arguments)), directory_(std::move(directory)), random_(seed) {
    for (std::size_t i = 0; i < 2 * kEach; ++i) start(i);
  }
  ~WatchTrials() {
    for (Process& process : processes_) end(process);
  }
  WatchTrials(const WatchTrials&) = delete;
  WatchTrials& operator=(const WatchTrials&) = delete;

  // Kills a writer or a watcher, which another one replaces.
  void kill_one() {
    const std::size_t chosen = random_() % processes_.size();
    end(processes_[chosen]);
    start(chosen);
    ++kills_;
  }

  // Stops a watcher while `meanwhile` runs.
  void stop_watcher(const std::function<void()>& meanwhile) {
    const pid_t chosen = processes_[kEach + random_() % kEach].id;
    kill(chosen, SIGSTOP);
    meanwhile();
    kill(chosen, SIGCONT);
  }

  // Waits until every process that is not stopped has told this many more lines.
  void progress(std::size_t lines, std::size_t but = 0) {
    std::vector<std::size_t> before;
    for (const Process& process : processes_) before.push_back(read_watch_lines(process.file).size());
    until([&] {
      std::size_t behind = 0;
      for (std::size_t i = 0; i < processes_.size(); ++i) {
        behind += read_watch_lines(processes_[i].file).size() < before[i] + lines ? 1 : 0;
      }
      return behind <= but;
    });
  }

  // Ends the writers, waits until the watchers have seen all that there is, and compares. Returns whether all is well.
  bool finish(store::Store& store) {
    for (std::size_t i = 0; i < kEach; ++i) end(processes_[i]);
    Revision latest = 0;
    until([&] { return store.read([&](store::View& view) { return view.revision(&latest); }).ok(); });
    for (std::size_t i = kEach; i < 2 * kEach; ++i) {
      until([&] {
        const std::vector<WatchLine> lines = read_watch_lines(processes_[i].file);
        return !lines.empty() && lines.back().kind != 'c' && lines.back().revision >= latest;
      });
    }
    std::set<Revision> changes;
    for (const std::string& file : files_) {
      for (const WatchLine& line : read_watch_lines(file)) {
        if (line.kind == 'w' || line.kind == 'c') changes.insert(line.revision);
      }
    }
    for (const std::string& file : files_) check(file, changes);
    std::printf("%zu changes, %d processes killed, %zu watchers, %d times changes were lost and told, %d mistakes\n",
                changes.size(), kills_, watchers_, losses_, mistakes_);
    return mistakes_ == 0;
  }

  int losses() const { return losses_; }

 private:
  static constexpr std::size_t kEach = 4;  // writers, and watchers

  struct Process {
    pid_t id = 0;
    std::string file;
  };

  static void until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the processes make no progress");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  void start(std::size_t at) {
    processes_.resize(std::max(processes_.size(), at + 1));
    Process& process = processes_[at];
    process.file = directory_ + "/" + std::to_string(files_.size());
    files_.push_back(process.file);
    std::vector<std::string> words{"/proc/self/exe"};
    words.insert(words.end(), arguments_.begin(), arguments_.end());
    words.push_back(at < kEach ? "writer" + std::to_string(at) : "watcher");
    words.push_back(process.file);
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    process.id = fork();
    if (process.id == 0) {
      execv(pointers[0], pointers.data());
      _exit(127);
    }
  }

  static void end(Process& process) {
    if (process.id <= 0) return;
    kill(process.id, SIGKILL);
    waitpid(process.id, nullptr, 0);
    process.id = 0;
  }

  void check(const std::string& file, const std::set<Revision>& changes) {
    Revision seen = 0;
    const auto mistake = [&](const WatchLine& line, const char* what) {
      ++mistakes_;
      std::printf("%s: %c %llu after %llu: %s\n", file.c_str(), line.kind,
                  static_cast<unsigned long long>(line.revision), static_cast<unsigned long long>(seen), what);
    };
    for (const WatchLine& line : read_watch_lines(file)) {
      if (line.kind == 'w') return;  // a writer
      const auto next = changes.upper_bound(seen);
      if (line.kind == 's') {
        ++watchers_;
      } else if (line.kind == 'r') {
        ++losses_;
      } else if (line.kind == 'c') {
        if (line.revision <= seen) mistake(line, "a change came twice, or too late");
        if (next != changes.end() && *next < line.revision) mistake(line, "a change is missing");
      } else if (next != changes.end() && *next <= line.revision) {
        mistake(line, "a change is missing");
      }
      seen = std::max(seen, line.revision);
    }
  }

  const std::vector<std::string> arguments_;
  const std::string directory_;
  std::minstd_rand random_;
  std::vector<Process> processes_;  // writers, then watchers
  std::vector<std::string> files_;  // of all processes that there have been
  int kills_ = 0;
  std::size_t watchers_ = 0;
  int losses_ = 0;
  int mistakes_ = 0;
};

// Runs the role that the last two arguments name, on a registry that `open` opens.
[[noreturn]] inline void run_watch_role(const std::string& role, const std::string& file,
                                        const std::function<std::shared_ptr<store::Store>()>& open) {
  const int output = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (output < 0) std::exit(1);
  WatchRoles roles(open(), output);
  if (role == "watcher") roles.watch();
  roles.write(role);
}

}  // namespace tkv

#endif
