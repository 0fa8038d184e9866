// The process's table of contexts, through which the C functions reach sessions. Any thread may call these.
#ifndef TKV_PLATFORM_REGISTRY_CONTEXTS_H
#define TKV_PLATFORM_REGISTRY_CONTEXTS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "base/status.h"
#include "prtkv.h"
#include "registry/handle.h"
#include "registry/session.h"
#include "registry/session_gate.h"

namespace tkv::registry {

// A place for a session. It lives as long as the process, so that its gate can be entered with any handle.
class alignas(64) ContextSlot {
 public:
  SessionGate& gate() { return gate_; }

  // The session of the handle with this serial number, or null if that is not open. For a thread that holds the lock.
  Session* session(std::uint64_t serial) const { return serial_ == serial ? session_.get() : nullptr; }

  void open(std::uint64_t serial, std::shared_ptr<Client> client);

  // Ends the session of a handle, once the operations that are using it have ended. Returns false if it was not open.
  bool close(std::uint64_t serial);

 private:
  SessionGate gate_;
  std::uint64_t serial_ = 0;  // of the handle, 0 while the slot is free
  std::unique_ptr<Session> session_;
};

// Adds a session of a client and returns its context handle in `*ctx`. Returns PRTKV_OUT_OF_MEMORY if there are too
// many.
Status add_context(std::shared_ptr<Client> client, prtkv_ctx* ctx);

// Ends a session, once the operations that are using it have ended. Returns PRTKV_INVALID_HANDLE if `ctx` is not open.
// An operation must not end its own session.
Status remove_context(prtkv_ctx ctx);

constexpr std::size_t kMaxContexts = 65536;

// By the index in a context handle; null where there was no context yet.
extern constinit std::array<std::atomic<ContextSlot*>, kMaxContexts> context_slots;

// The slot that a context handle names, and the handle's serial number. Null if it names none.
inline ContextSlot* find_slot(prtkv_ctx ctx, std::uint64_t* serial) {
  Handle handle{};
  if (!decode_handle(HandleKind::kContext, ctx, &handle) || handle.index >= kMaxContexts) return nullptr;
  *serial = handle.serial;
  return context_slots[handle.index].load(std::memory_order_acquire);
}

// Runs an operation that needs no session. Handles exceptions likewise.
template <typename Operation>
Status without_session(Operation&& operation) noexcept {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return PRTKV_OUT_OF_MEMORY;
  } catch (...) {
    return PRTKV_UNKNOWN;
  }
}

// Runs `operation` on a context's session and returns its code. Returns PRTKV_INVALID_HANDLE if `ctx` is not open.
// Exceptions end here: std::bad_alloc yields PRTKV_OUT_OF_MEMORY, any other PRTKV_UNKNOWN. The operation begins with
// the session's lock and may end without it. `record`: the result is recorded as the session's last.
template <typename Operation>
std::int32_t visit_session(prtkv_ctx ctx, bool record, Operation&& operation) noexcept {
  std::uint64_t serial = 0;
  ContextSlot* const slot = find_slot(ctx, &serial);
  if (slot == nullptr) return PRTKV_INVALID_HANDLE;
  SessionGate::Visit visit(slot->gate());
  Session* const session = slot->session(serial);
  if (session == nullptr) return PRTKV_INVALID_HANDLE;
  const Status ended = without_session([&]() -> Status { return operation(*session, visit); });
  if (record) session->record(visit, ended);
  return ended.code();
}

// As visit_session, for operations that take the lock themselves where they need it. Records nothing.
template <typename Operation>
std::int32_t inspect_session(prtkv_ctx ctx, Operation&& operation) noexcept {
  return visit_session(ctx, false, [&](Session& session, SessionGate::Visit& visit) -> Status {
    visit.unlock();
    return operation(session);
  });
}

// As inspect_session, and records the result as the session's last.
template <typename Operation>
std::int32_t with_session(prtkv_ctx ctx, Operation&& operation) noexcept {
  return visit_session(ctx, true, [&](Session& session, SessionGate::Visit& visit) -> Status {
    visit.unlock();
    return operation(session);
  });
}

}  // namespace tkv::registry

#endif
