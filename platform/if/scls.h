/* scls: the operating system's identity of this process.
 *
 * Conventions
 *   Meta context. A block of scls_meta_query_size() bytes that the caller provides; it holds no resources, so it
 *                 needs no release.
 *   Errors.       0 for success; otherwise the code, and the caller's 256-byte error record says why. A null
 *                 error record is allowed.
 *   Names.        NUL-terminated within `capacity`; `*length` receives the length without the NUL. A name that does
 *                 not fit gives SCLS_NAME_TOO_LONG, and `*length` the length that it has.
 *   Threads.      Any thread may call.
 */
#ifndef TKV_PLATFORM_SCLS_H
#define TKV_PLATFORM_SCLS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
  SCLS_DONE = 0,
  SCLS_INVALID_ARGUMENT = 1, /* null argument, unknown version or flags, a block that is no meta context */
  SCLS_SYSTEM_FAILED = 2,    /* the name service failed or knows no such user; the record has errno */
  SCLS_NO_PRIMARY_GROUP = 3, /* the process's group has no name */
  SCLS_NAME_TOO_LONG = 4
};

enum { SCLS_META_VERSION = 1 };

typedef struct scls_error {
  int32_t code;         /* the code that was returned */
  int32_t system_errno; /* errno of the failing call, or 0 */
  char text[248];       /* the reason, NUL-terminated */
} scls_error;

static_assert(sizeof(scls_error) == 256, "the error record is 256 bytes");
static_assert(offsetof(scls_error, text) == 8, "text");

/* Bytes of a meta context; 0 for a version other than SCLS_META_VERSION. */
uint64_t scls_meta_query_size(int32_t version);

/* Prepares a meta context. `flags` is 0. */
int32_t scls_meta_ctx_init(void *meta, void *error, uint32_t flags);

/* Gives the name of the process's effective user. `flags` is 0. */
int32_t scls_idq_get_user_name(void *meta, void *error, uint32_t flags, char *name, uint64_t capacity,
                               uint64_t *length);

/* Gives the name of the process's effective group. `flags` is 0. */
int32_t scls_idq_get_primary_privgrp_name(void *meta, void *error, uint32_t flags, char *name, uint64_t capacity,
                                          uint64_t *length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
