#include <atomic>
#include <mutex>

#include "registry/client.h"
#include "registry/known_keys.h"

namespace tkv::registry {
namespace {

// For threads that do not wait for each other.
class TryMutex {
 public:
  bool try_lock() { return !held_.exchange(true, std::memory_order_acquire); }
  void unlock() { held_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> held_{false};
};

// What is known of keys is kept as by a session.
class KnowingReader final : public LatestReader {
 public:
  explicit KnowingReader(Client& client) : client_(client) {}

  Status read_value(std::string_view name, std::span<std::byte> buffer, LatestValue* found) override;

 private:
  KnownKey recall(std::string_view name, std::size_t hash);
  void note(std::string_view name, std::size_t hash, const KnownKey& known);
  Status read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, LatestValue* found);
  std::uint64_t state_of_absence(std::uint64_t shown_before);

  Client& client_;
  std::atomic<std::uint64_t> shown_{0};  // the number of a state that reading has shown
  TryMutex mutex_;
  KnownKeys keys_;  // guarded by mutex_
};

KnownKey KnowingReader::recall(std::string_view name, std::size_t hash) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return {};
  const KnownKey* const found = keys_.find(name, hash);
  return found == nullptr ? keys_.begin(hash) : *found;
}

void KnowingReader::note(std::string_view name, std::size_t hash, const KnownKey& known) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock()) keys_.note(name, hash, known);
}

Status KnowingReader::read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer,
                                 LatestValue* found) {
  Status status = client_.read_known(name, known, buffer, &found->type, &found->size);
  if (!status.is(PRTKV_NO_SUCH_KEY) || known->id == kAnyKey) return status;
  *known = {.is_kept = known->is_kept};  // another key may have the name by now
  return client_.read_known(name, known, buffer, &found->type, &found->size);
}

// Of a state that reading showed before, and that is still the latest one. Otherwise, finds out for the next time what
// reading shows.
std::uint64_t KnowingReader::state_of_absence(std::uint64_t shown_before) {
  if (shown_before != 0 && client_.latest_state() == shown_before) return shown_before;
  KnownKey root;
  root.state = shown_before;
  if (client_.look_up("", &root).ok()) shown_.store(root.state, std::memory_order_release);
  return 0;
}

Status KnowingReader::read_value(std::string_view name, std::span<std::byte> buffer, LatestValue* found) {
  const std::uint64_t shown = shown_.load(std::memory_order_acquire);
  const std::size_t hash = KnownKeys::hash(name);
  KnownKey known = recall(name, hash);
  const std::uint64_t known_before = known.state;
  *found = {};
  Status status = read_known(name, &known, buffer, found);
  if (status.is(PRTKV_NO_SUCH_KEY)) {
    found->state = state_of_absence(shown);
    return {};
  }
  if (!status.ok()) return status;
  found->exists = true;
  found->state = known.state;
  if (known.state != known_before) note(name, hash, known);
  if (known.state > shown) shown_.store(known.state, std::memory_order_release);
  return {};
}

}  // namespace

std::unique_ptr<LatestReader> make_latest_reader(Client& client) { return std::make_unique<KnowingReader>(client); }

}  // namespace tkv::registry
