#include "registry/contexts.h"

#include <array>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "base/fair_mutex.h"
#include "registry/handle.h"

namespace tkv::registry {

void ContextSlot::open(std::uint64_t serial, std::shared_ptr<Client> client) {
  auto session = std::make_unique<Session>(std::move(client), gate_);
  const std::lock_guard lock(gate_);
  session_ = std::move(session);
  serial_ = serial;
}

bool ContextSlot::close(std::uint64_t serial) {
  {
    const std::lock_guard lock(gate_);
    if (session(serial) == nullptr) return false;
    serial_ = 0;
  }
  gate_.wait_until_empty();
  session_.reset();
  return true;
}

constinit std::array<std::atomic<ContextSlot*>, kMaxContexts> context_slots{};

namespace {

class Contexts {
 public:
  Status add(std::shared_ptr<Client> client, prtkv_ctx* ctx) {
    const std::lock_guard lock(mutex_);
    if (Status status = have_free_slot(); !status.ok()) return status;
    const Handle handle{serials_.next(), free_.back()};
    context_slots[handle.index].load(std::memory_order_relaxed)->open(handle.serial, std::move(client));
    free_.pop_back();
    *ctx = encode_handle(HandleKind::kContext, handle);
    return {};
  }

  Status remove(prtkv_ctx ctx) {
    std::uint64_t serial = 0;
    ContextSlot* const slot = find_slot(ctx, &serial);
    if (slot == nullptr || !slot->close(serial)) return PRTKV_INVALID_HANDLE;
    const std::lock_guard lock(mutex_);
    free_.push_back(index_of(ctx));
    return {};
  }

 private:
  Status have_free_slot() {
    if (!free_.empty()) return {};
    if (used_ == kMaxContexts) return {PRTKV_OUT_OF_MEMORY, "too many open sessions in one process"};
    free_.reserve(used_ + 1);  // so that freeing a slot never allocates
    context_slots[used_].store(new ContextSlot, std::memory_order_release);
    free_.push_back(used_++);
    return {};
  }

  FairMutex mutex_;  // guards what follows
  Serials serials_;
  std::size_t used_ = 0;
  std::vector<std::size_t> free_;
};

// Never destroyed: threads of a JVM may still call while the process ends.
Contexts& contexts() {
  static Contexts* const table = new Contexts;
  return *table;
}

}  // namespace

Status add_context(std::shared_ptr<Client> client, prtkv_ctx* ctx) { return contexts().add(std::move(client), ctx); }

Status remove_context(prtkv_ctx ctx) { return contexts().remove(ctx); }

}  // namespace tkv::registry
