/* scls: the identity of this process in the operating system.
 *
 * Conventions
 *   Meta context. A block of scls_meta_query_size() bytes that the caller provides. It holds no resources and needs no
 *                 release.
 *   Errors.       Functions return SCLS_DONE, or another code with the reason in the caller's 256-byte error record.
 *                 The error record may be null.
 *   Names.        Users and groups are identified by name; one that has no name is identified by its decimal number,
 *                 "54321". A name is written NUL-terminated if it fits in `capacity` bytes, and `*length` receives its
 *                 length without the NUL. If it does not fit, the result is SCLS_NAME_TOO_LONG, and `*length` is still
 *                 set.
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
  SCLS_INVALID_ARGUMENT = 1, /* null argument, unknown version or flags, or not a meta context */
  SCLS_SYSTEM_FAILED = 2,    /* the name service failed; the record holds its errno */
  SCLS_NO_PRIMARY_GROUP = 3, /* for systems whose processes have no primary group; never returned on this one */
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

/* Returns the size of a meta context in bytes, or 0 if `version` is not SCLS_META_VERSION. */
uint64_t scls_meta_query_size(int32_t version);

/* Initialises a meta context. `flags` must be 0. */
int32_t scls_meta_ctx_init(void *meta, void *error, uint32_t flags);

/* Reads the name of the process's effective user. `flags` must be 0. */
int32_t scls_idq_get_user_name(void *meta, void *error, uint32_t flags, char *name, uint64_t capacity,
                               uint64_t *length);

/* Reads the name of the process's effective group. `flags` must be 0. */
int32_t scls_idq_get_primary_privgrp_name(void *meta, void *error, uint32_t flags, char *name, uint64_t capacity,
                                          uint64_t *length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
