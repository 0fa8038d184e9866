#include "scls.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "scls/meta_context.h"

namespace tkv::scls {
namespace {

struct MetaContext {
  std::uint64_t mark;
  std::int32_t version;
  const NameService* service;
};

constexpr std::uint64_t kMetaMark = 0x73636c735f6d6574U;

const MetaContext* meta_context_at(const void* meta) {
  const auto* context = static_cast<const MetaContext*>(meta);
  return context != nullptr && context->mark == kMetaMark && context->version == SCLS_META_VERSION ? context : nullptr;
}

// Fills the caller's record if there is one. Returns `code`.
__attribute__((format(printf, 4, 5))) std::int32_t report(void* error, std::int32_t code, int system_errno,
                                                          const char* format, ...) {
  if (error == nullptr) return code;
  auto* record = static_cast<scls_error*>(error);
  std::memset(record, 0, sizeof(*record));
  record->code = code;
  record->system_errno = system_errno;
  va_list arguments;
  va_start(arguments, format);
  // A reason that is too long is truncated. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
  static_cast<void>(std::vsnprintf(record->text, sizeof(record->text), format, arguments));
  va_end(arguments);
  return code;
}

std::int32_t succeed(void* error) {
  if (error != nullptr) std::memset(error, 0, sizeof(scls_error));
  return SCLS_DONE;
}

std::int32_t hand_over(void* error, std::string_view found, char* name, std::uint64_t capacity, std::uint64_t* length) {
  *length = found.size();
  if (found.size() >= capacity) {
    return report(error, SCLS_NAME_TOO_LONG, 0, "the name has %zu bytes, which the buffer cannot hold", found.size());
  }
  std::memcpy(name, found.data(), found.size());
  name[found.size()] = '\0';
  return succeed(error);
}

std::string reason(int system_errno) {
  char text[128];
  return strerror_r(system_errno, text, sizeof(text));
}

std::int32_t user_name(const NameService& service, void* error, char* name, std::uint64_t capacity,
                       std::uint64_t* length) {
  const uid_t id = service.effective_user();
  std::string found;
  if (const int failure = find_user_name(service, id, &found); failure != 0) {
    return report(error, SCLS_SYSTEM_FAILED, failure, "user %u cannot be looked up: %s", id, reason(failure).c_str());
  }
  return hand_over(error, found, name, capacity, length);
}

std::int32_t group_name(const NameService& service, void* error, char* name, std::uint64_t capacity,
                        std::uint64_t* length) {
  const gid_t id = service.effective_group();
  std::string found;
  if (const int failure = find_group_name(service, id, &found); failure != 0) {
    return report(error, SCLS_SYSTEM_FAILED, failure, "group %u cannot be looked up: %s", id, reason(failure).c_str());
  }
  return hand_over(error, found, name, capacity, length);
}

using Query = std::int32_t (*)(const NameService&, void*, char*, std::uint64_t, std::uint64_t*);

std::int32_t ask(Query query, const void* meta, void* error, std::uint32_t flags, char* name, std::uint64_t capacity,
                 std::uint64_t* length) {
  const MetaContext* context = meta_context_at(meta);
  if (context == nullptr) return report(error, SCLS_INVALID_ARGUMENT, 0, "no meta context");
  if (flags != 0) return report(error, SCLS_INVALID_ARGUMENT, 0, "unknown flags 0x%x", flags);
  if (name == nullptr || length == nullptr) return report(error, SCLS_INVALID_ARGUMENT, 0, "no buffer for the name");
  try {
    return query(*context->service, error, name, capacity, length);
  } catch (const std::bad_alloc&) {
    return report(error, SCLS_SYSTEM_FAILED, ENOMEM, "out of memory");
  }
}

}  // namespace

void prepare_meta_context(void* meta, const NameService& service) {
  *static_cast<MetaContext*>(meta) = {kMetaMark, SCLS_META_VERSION, &service};
}

}  // namespace tkv::scls

extern "C" uint64_t scls_meta_query_size(int32_t version) {
  return version == SCLS_META_VERSION ? sizeof(tkv::scls::MetaContext) : 0;
}

extern "C" int32_t scls_meta_ctx_init(void* meta, void* error, uint32_t flags) {
  if (meta == nullptr) return tkv::scls::report(error, SCLS_INVALID_ARGUMENT, 0, "no block for a meta context");
  if (flags != 0) return tkv::scls::report(error, SCLS_INVALID_ARGUMENT, 0, "unknown flags 0x%x", flags);
  tkv::scls::prepare_meta_context(meta, tkv::NameService::system());
  return tkv::scls::succeed(error);
}

extern "C" int32_t scls_idq_get_user_name(void* meta, void* error, uint32_t flags, char* name, uint64_t capacity,
                                          uint64_t* length) {
  return tkv::scls::ask(tkv::scls::user_name, meta, error, flags, name, capacity, length);
}

extern "C" int32_t scls_idq_get_primary_privgrp_name(void* meta, void* error, uint32_t flags, char* name,
                                                     uint64_t capacity, uint64_t* length) {
  return tkv::scls::ask(tkv::scls::group_name, meta, error, flags, name, capacity, length);
}
