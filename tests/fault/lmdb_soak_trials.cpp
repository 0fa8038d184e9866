// Soak: very many changes of an embedded registry, whose log and past must stay within their limits however long it
// lives, while every state that is retained stays readable.
//
//   lmdb_soak_trials [--long]
//
// A short run makes 20,000 changes, a long one 1,000,000. Exits with 1 if a promise was broken.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

constexpr std::size_t kKeys = 500;
constexpr Revision kLogged = 2000;
constexpr std::uint64_t kHistoryBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t kInterval = 2000;  // changes between two looks at everything

class Soak {
 public:
  Soak() {
    LmdbOptions options;
    options.directory = directory_ / "registry";
    options.retention.changes = kLogged;
    options.retention.bytes = kHistoryBytes;
    store_ = open_or_fail(options);
    for (std::size_t i = 0; i < kKeys; ++i) {
      NodeId id = kNoNode;
      demand(add_node(*store_, kRootNode, std::to_string(i), &id), "adding a key");
      ids_.push_back(id);
    }
    values_.resize(kKeys);
  }

  bool run(std::uint64_t changes) {
    for (std::uint64_t done = 0; done < changes && broken_ == 0; ++done) {
      change();
      if (done % kInterval == kInterval - 1) look();
    }
    look();
    Totals totals;
    const auto found = [&](const Finding& finding) { demand({PRTKV_STORAGE_FAILED, finding.detail}, "the check"); };
    demand(store_->check(false, found, &totals), "the check");
    std::printf("%llu changes: at most %llu bytes of history and %llu of the file, %llu states compared\n",
                static_cast<unsigned long long>(changes), static_cast<unsigned long long>(most_history_),
                static_cast<unsigned long long>(most_bytes_), static_cast<unsigned long long>(compared_));
    return broken_ == 0;
  }

 private:
  // What a key's value was before a change.
  struct Former {
    Revision revision;
    std::size_t key;
    std::string value;
  };

  void demand(const Status& status, const char* what) {
    if (status.ok()) return;
    ++broken_;
    std::printf("%s: %s\n", what, status.text().c_str());
  }

  void change() {
    const std::size_t key = random_() % kKeys;
    const std::string text(random_() % 1000, static_cast<char>('a' + random_() % 26));
    Revision revision = 0;
    demand(store_->write([&](Update& update) { return update.set_value(ids_[key], 3, std::as_bytes(std::span(text))); },
                         &revision),
           "a write");
    formers_.push_back({revision, key, std::exchange(values_[key], text)});
    if (formers_.size() > kLogged) formers_.pop_front();
  }

  // The log and its size, and one of the states that are retained.
  void look() {
    StoreStatus status;
    demand(store_->status(&status), "the status");
    most_history_ = std::max(most_history_, status.history_bytes);
    most_bytes_ = std::max(most_bytes_, status.bytes);
    if (status.history_bytes > 2 * kHistoryBytes) demand({PRTKV_STORAGE_FULL, "is beyond its limit"}, "the history");
    if (first_bytes_ == 0) first_bytes_ = status.bytes;
    if (status.bytes > 4 * first_bytes_) demand({PRTKV_STORAGE_FULL, "grows"}, "the file");
    std::uint64_t logged = 0;
    LogPosition position;
    demand(store_->changes(
               {.after = status.log_after}, [&](const ChangeRecord&) { return ++logged, Status(); }, &position),
           "the log");
    if (logged != status.revision - status.log_after) demand({PRTKV_STORAGE_FAILED, "has gaps"}, "the log");
    compare(status.oldest_state + random_() % (status.revision - status.oldest_state + 1));
  }

  void compare(Revision revision) {
    std::vector<std::string> then = values_;
    for (auto former = formers_.rbegin(); former != formers_.rend() && former->revision > revision; ++former) {
      then[former->key] = former->value;
    }
    demand(store_->read_at(revision,
                           [&](View& view) -> Status {
                             for (std::size_t key = 0; key < kKeys; ++key) {
                               Value value;
                               if (Status found = view.value(ids_[key], &value); !found.ok()) return found;
                               const auto* bytes = reinterpret_cast<const char*>(value.bytes.data());
                               if (std::string_view(bytes, value.bytes.size()) != then[key]) {
                                 return {PRTKV_STORAGE_FAILED, "is not what it was"};
                               }
                             }
                             return {};
                           }),
           "a former state");
    ++compared_;
  }

  const TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  std::shared_ptr<Store> store_;
  std::minstd_rand random_{4711};
  std::vector<NodeId> ids_;
  std::vector<std::string> values_;
  std::deque<Former> formers_;
  int broken_ = 0;
  std::uint64_t most_history_ = 0;
  std::uint64_t most_bytes_ = 0;
  std::uint64_t first_bytes_ = 0;
  std::uint64_t compared_ = 0;
};

}  // namespace
}  // namespace tkv::store

int main(int argc, char** argv) {
  const bool is_long = argc > 1 && std::string_view(argv[1]) == "--long";
  return tkv::store::Soak().run(is_long ? 1'000'000 : 20'000) ? 0 : 1;
}
