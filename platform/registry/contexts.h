// The process's table of contexts, through which the C functions reach sessions. Any thread may call these.
#ifndef TKV_PLATFORM_REGISTRY_CONTEXTS_H
#define TKV_PLATFORM_REGISTRY_CONTEXTS_H

#include <cstdint>
#include <memory>

#include "base/function_ref.h"
#include "base/status.h"
#include "prtkv.h"
#include "registry/session.h"

namespace tkv::registry {

// Takes a session in and gives its context handle. 12 when there are too many.
Status add_context(std::unique_ptr<Session> session, prtkv_ctx* ctx);

// Ends a session. 3 when the handle is none of an open one.
Status remove_context(prtkv_ctx ctx);

// Runs `operation` on a context's session, alone, records how it ended as the session's last failure or success, and
// returns its code. 3 when the handle is none of an open session. Exceptions end here: 12 for want of memory, 14 for
// any other.
std::int32_t with_session(prtkv_ctx ctx, FunctionRef<Status(Session&)> operation) noexcept;

// As with_session, but leaves the last failure in place.
std::int32_t inspect_session(prtkv_ctx ctx, FunctionRef<Status(Session&)> operation) noexcept;

// Runs what needs no session, with the same end to exceptions.
Status without_session(FunctionRef<Status()> operation) noexcept;

}  // namespace tkv::registry

#endif
