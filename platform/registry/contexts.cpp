#include "registry/contexts.h"

#include <array>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "base/fair_mutex.h"
#include "registry/handle.h"

namespace tkv::registry {

// A slot lives as long as the process, so that an operation needs no lock to enter its session.
class ContextSlot {
 public:
  void open(std::uint64_t serial, std::unique_ptr<Session> session) {
    session_ = std::move(session);
    serial_ = serial;
  }

  // Ends the session of a handle. Returns false if it was not open.
  bool close(std::uint64_t serial) {
    if (!serial_.compare_exchange_strong(serial, 0)) return false;
    for (std::uint32_t users = users_; users != 0; users = users_) users_.wait(users);
    session_.reset();
    return true;
  }

  // Keeps the session of a handle until leave(). Returns null if it is not open. Either this sees that the slot was
  // closed, or close() sees the user.
  Session* enter(std::uint64_t serial) {
    if (serial_ != serial) return nullptr;
    ++users_;
    if (serial_ == serial) return session_.get();
    leave();
    return nullptr;
  }

  void leave() {
    if (--users_ == 0 && serial_ == 0) users_.notify_all();
  }

 private:
  std::atomic<std::uint64_t> serial_{0};  // of the handle, 0 while the slot is free
  std::atomic<std::uint32_t> users_{0};
  std::unique_ptr<Session> session_;
};

namespace {

constexpr std::size_t kMaxContexts = 65536;

class Contexts {
 public:
  Status add(std::unique_ptr<Session> session, prtkv_ctx* ctx) {
    std::size_t index = 0;
    if (Status status = take_slot(&index); !status.ok()) return status;
    const std::uint64_t serial = next_serial();
    slots_[index].load(std::memory_order_acquire)->open(serial, std::move(session));
    *ctx = encode_handle(HandleKind::kContext, {serial, index});
    return {};
  }

  Status remove(prtkv_ctx ctx) {
    Handle handle{};
    ContextSlot* const slot = find_slot(ctx, &handle);
    if (slot == nullptr || !slot->close(handle.serial)) return PRTKV_INVALID_HANDLE;
    const std::lock_guard lock(mutex_);
    free_.push_back(handle.index);
    return {};
  }

  // Returns null if the handle is none of a context.
  ContextSlot* find_slot(prtkv_ctx ctx, Handle* handle) const {
    if (!decode_handle(HandleKind::kContext, ctx, handle) || handle->index >= kMaxContexts) return nullptr;
    return slots_[handle->index].load(std::memory_order_acquire);
  }

 private:
  Status take_slot(std::size_t* index) {
    const std::lock_guard lock(mutex_);
    if (!free_.empty()) {
      *index = free_.back();
      free_.pop_back();
      return {};
    }
    if (used_ == kMaxContexts) return {PRTKV_OUT_OF_MEMORY, "too many open sessions in one process"};
    free_.reserve(used_ + 1);  // so that freeing a slot never allocates
    slots_[used_].store(new ContextSlot, std::memory_order_release);
    *index = used_++;
    return {};
  }

  std::array<std::atomic<ContextSlot*>, kMaxContexts> slots_{};
  FairMutex mutex_;  // guards what follows
  std::size_t used_ = 0;
  std::vector<std::size_t> free_;
};

// Never destroyed: threads of a JVM may still call while the process ends.
Contexts& contexts() {
  static Contexts* const table = new Contexts;
  return *table;
}

}  // namespace

Status add_context(std::unique_ptr<Session> session, prtkv_ctx* ctx) { return contexts().add(std::move(session), ctx); }

Status remove_context(prtkv_ctx ctx) { return contexts().remove(ctx); }

SessionInUse::SessionInUse(prtkv_ctx ctx) {
  Handle handle{};
  slot_ = contexts().find_slot(ctx, &handle);
  session_ = slot_ == nullptr ? nullptr : slot_->enter(handle.serial);
}

void SessionInUse::leave() { slot_->leave(); }

}  // namespace tkv::registry
