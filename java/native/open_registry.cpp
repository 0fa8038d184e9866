#include "open_registry.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace tkv::java {

// Where a registry can be open. Its use is counted here: a call changes this count and nothing else that threads share.
class alignas(64) RegistryPlace {
 public:
  // Returns null if the registry of the handle is not, or no longer, open here. Each enter() is followed by leave().
  OpenRegistry* enter(jlong handle) {
    ++users_;
    return handle_ == handle ? registry_.get() : nullptr;
  }

  void leave() {
    if (--users_ == 0 && handle_ == kNone) users_.notify_all();
  }

  void open(jlong handle, std::unique_ptr<OpenRegistry> registry) {
    registry_ = std::move(registry);
    handle_ = handle;
  }

  // Waits until nobody uses the registry. Returns false if the registry of the handle is not open here.
  bool close(jlong handle) {
    if (!handle_.compare_exchange_strong(handle, kNone)) return false;
    registry_->end_waiting();
    for (std::uint32_t users = users_; users != 0; users = users_) users_.wait(users);
    registry_.reset();
    return true;
  }

 private:
  static constexpr jlong kNone = 0;

  // Sequentially consistent, both: either a user sees that the registry was closed, or its closer sees the user.
  std::atomic<jlong> handle_{kNone};
  std::atomic<std::uint32_t> users_{0};
  std::unique_ptr<OpenRegistry> registry_;
};

namespace {

// The places of all registries. A handle is made of the number of the opening, so that it was never given out before,
// and of the number of the place. Places are never moved or removed, so that a lookup needs no lock. They are used
// again.
class RegistryTable {
 public:
  jlong open(std::unique_ptr<OpenRegistry> registry) {
    const std::scoped_lock lock(mutex_);
    if (free_.empty()) add_row();
    const std::size_t number = free_.back();
    free_.pop_back();
    const jlong handle = ++openings_ << kNumberBits | static_cast<jlong>(number);
    find(handle)->open(handle, std::move(registry));
    return handle;
  }

  // Returns null if no handle that was given out has this place.
  RegistryPlace* find(jlong handle) const {
    const std::size_t at = number_in(handle) + kFirstRow;
    const std::size_t length = std::bit_floor(at);
    RegistryPlace* const places = handle > 0 ? rows_[row_of(length)].load(std::memory_order_acquire) : nullptr;
    return places == nullptr ? nullptr : places + (at - length);
  }

  bool close(jlong handle) {
    RegistryPlace* const place = find(handle);
    if (place == nullptr || !place->close(handle)) return false;
    const std::scoped_lock lock(mutex_);
    free_.push_back(number_in(handle));  // for which there is room
    return true;
  }

 private:
  static constexpr int kNumberBits = 20;
  // Each row is twice as long as the one before.
  static constexpr std::size_t kFirstRow = 16;
  static constexpr std::size_t kRows = 16;

  static std::size_t number_in(jlong handle) {
    return static_cast<std::size_t>(handle) & ((std::size_t{1} << kNumberBits) - 1);
  }

  static std::size_t row_of(std::size_t length) {
    return static_cast<std::size_t>(std::countr_zero(length) - std::countr_zero(kFirstRow));
  }

  void add_row() {
    if (count_ == kRows) throw std::bad_alloc();
    const std::size_t length = kFirstRow << count_;
    free_.reserve(2 * length);
    auto places = std::make_unique<RegistryPlace[]>(length);
    for (std::size_t at = length; at-- > 0;) free_.push_back(length - kFirstRow + at);
    rows_[count_++].store(places.release(), std::memory_order_release);
  }

  std::array<std::atomic<RegistryPlace*>, kRows + 1> rows_{};
  std::mutex mutex_;
  // Guarded by mutex_:
  std::size_t count_ = 0;          // of rows
  std::vector<std::size_t> free_;  // numbers of places, with room for all there are
  jlong openings_ = 0;
};

// Never destroyed: while the process exits, other threads may still be calling.
RegistryTable& registries() {
  alignas(RegistryTable) static unsigned char place[sizeof(RegistryTable)];
  static auto* const table = new (place) RegistryTable();
  return *table;
}

}  // namespace

Status OpenRegistry::check_writable() const {
  if (!read_only_) return {};
  return {PRTKV_ACCESS_DENIED, "access denied: the registry was opened for reading only"};
}

RegistryUse::RegistryUse(jlong handle)
    : place_(registries().find(handle)), registry_(place_ == nullptr ? nullptr : place_->enter(handle)) {}

RegistryUse::~RegistryUse() {
  if (place_ != nullptr) place_->leave();
}

Status closed_registry() { return {PRTKV_INVALID_HANDLE, "the registry is closed"}; }

jlong add_registry(std::shared_ptr<registry::Client> client, bool read_only) {
  return registries().open(std::make_unique<OpenRegistry>(std::move(client), read_only));
}

Status close_registry(jlong handle) { return registries().close(handle) ? Status() : closed_registry(); }

}  // namespace tkv::java
