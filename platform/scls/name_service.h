// The identity queries of scls against a name service of the caller's choice.
#ifndef TKV_PLATFORM_SCLS_NAME_SERVICE_H
#define TKV_PLATFORM_SCLS_NAME_SERVICE_H

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstddef>

namespace tkv::scls {

// The calls of the C library's that name the process's user and group, each as its manual describes it.
struct NameService {
  uid_t (*effective_user)();
  gid_t (*effective_group)();
  int (*user_entry)(uid_t id, passwd* entry, char* buffer, std::size_t size, passwd** result);
  int (*group_entry)(gid_t id, group* entry, char* buffer, std::size_t size, group** result);
};

// This system's own.
extern const NameService system_name_service;

// Prepares a meta context that asks `service`, which must outlive it. As scls_meta_ctx_init otherwise.
void prepare_meta_context(void* meta, const NameService& service);

}  // namespace tkv::scls

#endif
