#include "lpm.h"

#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "lpm/memory_context.h"

namespace tkv::lpm {
namespace {

// All contexts of the process. Ids are never reused, so a stale id is recognized.
class MemoryContexts {
 public:
  static MemoryContexts& instance() {
    // Never destroyed: other threads may still read blocks of the process's context while the process exits.
    static MemoryContexts& contexts = *new MemoryContexts;
    return contexts;
  }

  lpm_ctx process_context() {
    const std::lock_guard lock(mutex_);
    if (process_context_ == 0) process_context_ = add();
    return process_context_;
  }

  lpm_ctx open() {
    const std::lock_guard lock(mutex_);
    return add();
  }

  void end(lpm_ctx id) {
    const std::lock_guard lock(mutex_);
    if (id != process_context_) contexts_.erase(id);
  }

  void* take(lpm_ctx id, std::size_t size) {
    const std::lock_guard lock(mutex_);
    MemoryContext* context = find(id);
    return context == nullptr ? nullptr : context->take(size);
  }

  void give_back(lpm_ctx id, void* block) {
    const std::lock_guard lock(mutex_);
    MemoryContext* context = find(id);
    if (context != nullptr) context->give_back(block);
  }

 private:
  lpm_ctx add() {
    contexts_.emplace(last_id_ + 1, std::make_unique<MemoryContext>());
    return ++last_id_;
  }

  MemoryContext* find(lpm_ctx id) {
    const auto found = contexts_.find(id);
    return found == contexts_.end() ? nullptr : found->second.get();
  }

  std::mutex mutex_;
  lpm_ctx last_id_ = 0;
  lpm_ctx process_context_ = 0;
  std::unordered_map<lpm_ctx, std::unique_ptr<MemoryContext>> contexts_;
};

}  // namespace
}  // namespace tkv::lpm

using tkv::lpm::MemoryContexts;

extern "C" lpm_ctx lpminit(void* /*parameters*/) {
  try {
    return MemoryContexts::instance().process_context();
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

extern "C" lpm_ctx lpmprinit(void) {
  try {
    return MemoryContexts::instance().open();
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

extern "C" void lpmprterm(lpm_ctx pm) {
  try {
    MemoryContexts::instance().end(pm);
  } catch (const std::bad_alloc&) {
    // The table could not be created, so there is no context to end.
  }
}

extern "C" void* prou_allocm(lpm_ctx pm, uint32_t size) {
  try {
    return MemoryContexts::instance().take(pm, size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" void prou_freem(lpm_ctx pm, void* block) {
  try {
    MemoryContexts::instance().give_back(pm, block);
  } catch (const std::bad_alloc&) {
    // The block has been cleared; it is only not reused.
  }
}
