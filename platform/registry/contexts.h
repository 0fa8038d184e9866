// The process's table of contexts, through which the C functions reach sessions. Any thread may call these.
#ifndef TKV_PLATFORM_REGISTRY_CONTEXTS_H
#define TKV_PLATFORM_REGISTRY_CONTEXTS_H

#include <cstdint>
#include <memory>
#include <new>

#include "base/function_ref.h"
#include "base/status.h"
#include "prtkv.h"
#include "registry/session.h"

namespace tkv::registry {

// Adds a session and returns its context handle in `*ctx`. Returns PRTKV_OUT_OF_MEMORY if there are too many.
Status add_context(std::unique_ptr<Session> session, prtkv_ctx* ctx);

// Ends a session, once the operations that are using it have ended. Returns PRTKV_INVALID_HANDLE if `ctx` is not open.
// An operation must not end its own session.
Status remove_context(prtkv_ctx ctx);

// Runs `operation` on a context's session, records its result as the session's last, and returns its code. Returns
// PRTKV_INVALID_HANDLE if `ctx` is not open. Exceptions end here: std::bad_alloc yields PRTKV_OUT_OF_MEMORY, any other
// PRTKV_UNKNOWN.
std::int32_t with_session(prtkv_ctx ctx, FunctionRef<Status(Session&)> operation) noexcept;

// As with_session, but does not record the result.
std::int32_t inspect_session(prtkv_ctx ctx, FunctionRef<Status(Session&)> operation) noexcept;

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

}  // namespace tkv::registry

#endif
