// The C functions of the registry client, declared in platform/if/prtkv.h.
#include "prtkv.h"

#include <string.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/limits.h"
#include "registry/c_arguments.h"
#include "registry/configuration.h"
#include "registry/contexts.h"
#include "registry/error_text.h"
#include "registry/name.h"
#include "registry/open_client.h"
#include "registry/session.h"
#include "registry/zuved.h"

namespace {

using tkv::Status;
using tkv::registry::bytes;
using tkv::registry::check_value;
using tkv::registry::Client;
using tkv::registry::Configuration;
using tkv::registry::demand;
using tkv::registry::inspect_session;
using tkv::registry::Session;
using tkv::registry::SessionGate;
using tkv::registry::text;
using tkv::registry::visit_session;
using tkv::registry::with_session;
using tkv::registry::without_session;

Status check_flags(std::uint32_t flags, std::uint32_t allowed) {
  if (flags == 0 || flags == allowed) return {};
  return {PRTKV_INVALID_ARGUMENT, "invalid argument: flags " + std::to_string(flags)};
}

Status check_reserved(const void* reserved) {
  return reserved == nullptr ? Status()
                             : Status(PRTKV_INVALID_ARGUMENT, "invalid argument: a reserved one is not null");
}

// Writes the text of a failure without a session, and returns its code.
template <typename Size>
int32_t finish(const Status& status, char* error_text, Size* error_size) {
  if (status.ok() || error_text == nullptr || error_size == nullptr || *error_size <= 0) return status.code();
  *error_size =
      static_cast<Size>(tkv::registry::write_error_text(status, error_text, static_cast<std::size_t>(*error_size)));
  return status.code();
}

int32_t create(prtkv_ctx ctx, prtkv_key parent, const char* name, prtkv_key* out, int32_t* word, const sec_attr& sec,
               int32_t type, const void* value, uint32_t size, uint32_t flags, const void* reserved) {
  if (out != nullptr) *out = 0;
  return with_session(ctx, [&](Session& session) {
    if (Status status = demand({{out, "out"}, {name, "name"}, {word, "word"}}); !status.ok()) return status;
    if (Status status = check_reserved(reserved); !status.ok()) return status;
    if (Status status = check_flags(flags, PRTKV_CREATE_EXT_FLAGS); !status.ok()) return status;
    if (Status status = check_value(value, size); !status.ok()) return status;
    Status status = session.create_key(parent, text(name), sec, type, bytes(value, size), out);
    if (status.ok()) *word = 1;
    return status;
  });
}

}  // namespace

int32_t prtkv_init_ext(prtkv_ctx* out, int32_t level, char* error_text, uint64_t* error_size, uint32_t flags) {
  const Status status = without_session([&]() -> Status {
    Status wanted = demand({{out, "out"}, {error_text, "error_text"}, {error_size, "error_size"}});
    if (!wanted.ok()) return wanted;
    if (wanted = check_flags(flags, 0); !wanted.ok()) return wanted;
    if (level < 0) return {PRTKV_INVALID_ARGUMENT, "invalid argument: level " + std::to_string(level)};
    std::shared_ptr<Client> client;
    if (wanted = tkv::registry::open_client({}, &client); !wanted.ok()) return wanted;
    return tkv::registry::add_context(std::move(client), out);
  });
  return finish(status, error_text, error_size);
}

int32_t prtkv_terminate(prtkv_ctx ctx) {
  return without_session([&] { return tkv::registry::remove_context(ctx); }).code();
}

int32_t prtkv_open_key(prtkv_ctx ctx, prtkv_key* out, const char* name) {
  if (out != nullptr) *out = 0;
  return visit_session(ctx, true, [&](Session& session, SessionGate::Visit& visit) {
    Status status = demand({{out, "out"}, {name, "name"}});
    return status.ok() ? session.open_key(visit, text(name), out) : status;
  });
}

int32_t prtkv_close_key(prtkv_ctx ctx, prtkv_key key) {
  return visit_session(ctx, true, [&](Session& session, SessionGate::Visit&) { return session.close_key(key); });
}

int32_t prtkv_create_key(prtkv_ctx ctx, prtkv_key parent, const char* name, prtkv_key* out, int32_t* word,
                         sec_attr sec) {
  return create(ctx, parent, name, out, word, sec, PRTKV_TYPE_NONE, nullptr, 0, 0, nullptr);
}

int32_t prtkv_create_n_set_key(prtkv_ctx ctx, prtkv_key parent, const char* name, prtkv_key* out, int32_t* word,
                               int32_t type, sec_attr sec, const void* value, uint32_t size) {
  return create(ctx, parent, name, out, word, sec, type, value, size, 0, nullptr);
}

int32_t prtkv_create_n_set_key_ext(prtkv_ctx ctx, void* reserved, prtkv_key parent, const char* name, prtkv_key* out,
                                   int32_t* word, sec_attr sec, int32_t type, const void* value, uint32_t size,
                                   uint32_t flags) {
  return create(ctx, parent, name, out, word, sec, type, value, size, flags, reserved);
}

int32_t prtkv_delete_key(prtkv_ctx ctx, prtkv_key key, int32_t recursive) {
  return with_session(ctx, [&](Session& session) -> Status {
    if (recursive == 0 || recursive == 1) return session.delete_key(key, recursive == 1);
    return {PRTKV_INVALID_ARGUMENT, "invalid argument: recursive " + std::to_string(recursive)};
  });
}

int32_t prtkv_move_key(prtkv_ctx ctx, prtkv_key source, prtkv_key parent, const char* name, prtkv_key* moved,
                       int32_t flags) {
  return with_session(ctx, [&](Session& session) -> Status {
    if (Status status = demand({{name, "name"}, {moved, "moved"}}); !status.ok()) return status;
    if (flags == 0 || flags == 1) return session.move_key(source, parent, text(name), flags == 1, moved);
    return {PRTKV_INVALID_ARGUMENT, "invalid argument: flags " + std::to_string(flags)};
  });
}

int32_t prtkv_enum_subkey(prtkv_ctx ctx, prtkv_key key, char* name, uint32_t* size, int32_t* remaining) {
  return visit_session(ctx, true, [&](Session& session, SessionGate::Visit& visit) {
    Status status = demand({{name, "name"}, {size, "size"}, {remaining, "remaining"}});
    return status.ok() ? session.next_subkey(visit, key, name, size, remaining) : status;
  });
}

int32_t prtkv_get_value(prtkv_ctx ctx, prtkv_key key, int32_t* type, void* buffer, uint32_t* size) {
  return visit_session(ctx, true, [&](Session& session, SessionGate::Visit& visit) {
    if (Status status = demand({{type, "type"}, {size, "size"}}); !status.ok()) return status;
    if (buffer == nullptr && *size > 0) return demand({{buffer, "buffer"}});
    return session.get_value(visit, key, type, buffer, size);
  });
}

int32_t prtkv_set_value(prtkv_ctx ctx, prtkv_key key, int32_t type, const void* value, uint32_t size) {
  return with_session(ctx, [&](Session& session) {
    Status status = check_value(value, size);
    return status.ok() ? session.set_value(key, type, bytes(value, size)) : status;
  });
}

int32_t prtkv_get_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr* sec) {
  return with_session(ctx, [&](Session& session) {
    Status status = demand({{sec, "sec"}});
    return status.ok() ? session.get_security(key, sec) : status;
  });
}

int32_t prtkv_set_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr sec) {
  return prtkv_set_key_security_ext(ctx, nullptr, key, 0, sec);
}

int32_t prtkv_set_key_security_ext(prtkv_ctx ctx, void* reserved, prtkv_key key, uint32_t flags, sec_attr sec) {
  return with_session(ctx, [&](Session& session) {
    if (Status status = check_reserved(reserved); !status.ok()) return status;
    if (Status status = check_flags(flags, PRTKV_SECURITY_EXT_FLAGS); !status.ok()) return status;
    return session.set_security(key, sec);
  });
}

int32_t prtkv_get_last_error(prtkv_ctx ctx, int32_t* code, char* text, int32_t* size) {
  return inspect_session(ctx, [&](Session& session) -> Status {
    if (Status status = demand({{code, "code"}, {text, "text"}, {size, "size"}}); !status.ok()) return status;
    if (*size <= 0) return PRTKV_INVALID_ARGUMENT;
    return session.last_error(code, text, size);
  });
}

int32_t prtkv_get_conf(lpm_ctx, int32_t* configured, int32_t* local_only, void* reserved, char* locations,
                       char* error_text, uint64_t* error_size, uint32_t flags) {
  const Status status = without_session([&]() -> Status {
    Configuration configuration;
    Status wanted = demand({{configured, "configured"},
                            {local_only, "local_only"},
                            {locations, "locations"},
                            {error_text, "error_text"},
                            {error_size, "error_size"}});
    if (!wanted.ok()) return wanted;
    if (wanted = check_reserved(reserved); !wanted.ok()) return wanted;
    if (wanted = check_flags(flags, PRTKV_GET_CONF_FLAGS); !wanted.ok()) return wanted;
    if (wanted = Configuration::read(&configuration); !wanted.ok()) return wanted;
    ::memset(locations, 0, static_cast<std::size_t>(PRTKV_LOCATION_SLOTS) * PRTKV_LOCATION_SLOT_SIZE);
    for (std::size_t slot = 0; slot < configuration.locations.size(); ++slot) {
      const std::string& location = configuration.locations[slot];
      location.copy(locations + slot * PRTKV_LOCATION_SLOT_SIZE, PRTKV_LOCATION_SLOT_SIZE - 1);
    }
    *configured = configuration.location_configured ? 1 : 0;
    *local_only = configuration.local_only ? 1 : 0;
    return {};
  });
  return finish(status, error_text, error_size);
}

int32_t prtkv_check_storage(lpm_ctx, const char* path, char* error_text, int32_t* error_size, uint32_t flags) {
  const Status status = without_session([&]() -> Status {
    Status wanted = demand({{path, "path"}, {error_text, "error_text"}, {error_size, "error_size"}});
    if (!wanted.ok()) return wanted;
    if (*error_size <= 0) return {PRTKV_INVALID_ARGUMENT, "invalid argument: error_size"};
    if (wanted = check_flags(flags, PRTKV_CHECK_STORAGE_FLAGS); !wanted.ok()) return wanted;
    return tkv::registry::check_location(std::string(path));
  });
  return finish(status, error_text, error_size);
}

int32_t prtkv_get_backup_loc(prtkv_ctx ctx, char* location, uint64_t* size_limit, uint32_t flags) {
  return with_session(ctx, [&](Session& session) {
    if (Status status = demand({{location, "location"}, {size_limit, "size_limit"}}); !status.ok()) return status;
    if (Status status = check_flags(flags, PRTKV_BACKUP_LOC_FLAGS); !status.ok()) return status;
    const std::string& configured = session.client().configuration().backup_location;
    ::memset(location, 0, PRTKV_BACKUP_LOCATION_SIZE);
    configured.copy(location, PRTKV_BACKUP_LOCATION_SIZE - 1);
    *size_limit = 0;
    return Status();
  });
}

int32_t prtkv_set_zuved_dependencies(prtkv_ctx ctx, int32_t mode, uint32_t flags) {
  return with_session(ctx, [&](Session& session) {
    Status status = check_flags(flags, 0);
    return status.ok() ? tkv::registry::record_zuved_dependencies(session.client(), mode) : status;
  });
}
