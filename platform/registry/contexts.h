// The process's table of contexts, through which the C functions reach sessions. Any thread may call these.
#ifndef TKV_PLATFORM_REGISTRY_CONTEXTS_H
#define TKV_PLATFORM_REGISTRY_CONTEXTS_H

#include <cstdint>
#include <memory>
#include <new>

#include "base/status.h"
#include "prtkv.h"
#include "registry/session.h"

namespace tkv::registry {

class ContextSlot;

// Adds a session and returns its context handle in `*ctx`. Returns PRTKV_OUT_OF_MEMORY if there are too many.
Status add_context(std::unique_ptr<Session> session, prtkv_ctx* ctx);

// Ends a session, once the operations that are using it have ended. Returns PRTKV_INVALID_HANDLE if `ctx` is not open.
// An operation must not end its own session.
Status remove_context(prtkv_ctx ctx);

// The session of a context, which does not end before this object does. Null if the context is not open.
class SessionInUse {
 public:
  explicit SessionInUse(prtkv_ctx ctx);
  ~SessionInUse() {
    if (session_ != nullptr) leave();
  }
  SessionInUse(const SessionInUse&) = delete;
  SessionInUse& operator=(const SessionInUse&) = delete;

  Session* get() const { return session_; }

 private:
  void leave();

  Session* session_;
  ContextSlot* slot_;
};

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
// Exceptions end here: std::bad_alloc yields PRTKV_OUT_OF_MEMORY, any other PRTKV_UNKNOWN.
template <typename Operation>
std::int32_t inspect_session(prtkv_ctx ctx, Operation&& operation) noexcept {
  const SessionInUse session(ctx);
  if (session.get() == nullptr) return PRTKV_INVALID_HANDLE;
  return without_session([&]() -> Status { return operation(*session.get()); }).code();
}

// As inspect_session, and records the result as the session's last.
template <typename Operation>
std::int32_t with_session(prtkv_ctx ctx, Operation&& operation) noexcept {
  return inspect_session(ctx, [&](Session& session) {
    Status ended = without_session([&]() -> Status { return operation(session); });
    session.record(ended);
    return ended;
  });
}

}  // namespace tkv::registry

#endif
