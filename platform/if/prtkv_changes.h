/* prtkv_changes: the registry's history, batches under conditions, and waiting for changes.
 *
 * The conventions of prtkv.h hold: results, names, values, rights, errors, threads.
 *
 *   Revisions. Every change that is committed has a revision, a number that only grows. 0 is a fresh registry. Numbers
 *              may be skipped. How far back states and changes are retained is configured ([history]). A revision that
 *              is not retained, or does not exist yet, yields PRTKV_INVALID_ARGUMENT; the message says which are.
 *
 *   Past.      Reading the past of a key needs the right that the operation needs in the present, at that revision and,
 *              if the key still exists, today.
 *
 *   Members.   A member of a structure that an operation does not use must be 0 or null.
 */
#ifndef TKV_PLATFORM_PRTKV_CHANGES_H
#define TKV_PLATFORM_PRTKV_CHANGES_H

#include <stdint.h>

#include "prtkv.h"
#include "sec_attr.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* --- Revisions --- */

/* The revision of the latest state. Needs no right. */
int32_t prtkv_get_revision(prtkv_ctx ctx, uint64_t *revision);

/* The revision of the last change of a key or its value; 0 if that was before there were revisions. Needs the read
 * right. */
int32_t prtkv_get_key_revision(prtkv_ctx ctx, prtkv_key key, uint64_t *revision);

/* As prtkv_get_value, on the state right after the change `revision`, of the key that had this name then. */
int32_t prtkv_get_value_at(prtkv_ctx ctx, uint64_t revision, const char *name, int32_t *type, void *buffer,
                           uint32_t *size);

/* Calls `visit` with the name of each subkey in that state, in byte order, until it returns another value than 0,
 * which is returned. Needs the list right. `visit` must not use the context. */
int32_t prtkv_list_at(prtkv_ctx ctx, uint64_t revision, const char *name,
                      int32_t (*visit)(void *data, const char *subkey), void *data);

/* --- Batches --- */

enum {
  PRTKV_IF_ABSENT = 1,   /* there is no key of this name */
  PRTKV_IF_EXISTS = 2,   /* there is one */
  PRTKV_IF_VALUE = 3,    /* it has this type, size and value; type 0, size 0: it has none. Needs the read right */
  PRTKV_IF_REVISION = 4, /* its last change was this revision. Needs the read right */
};

typedef struct prtkv_condition {
  int32_t kind;
  const char *name;
  int32_t type;
  uint32_t size;
  const void *value;
  uint64_t revision;
} prtkv_condition;

enum {
  PRTKV_DO_PUT = 1,      /* write a value; a missing key is created with the security record `sec` */
  PRTKV_DO_CREATE = 2,   /* create a key with a value and the security record `sec` */
  PRTKV_DO_DELETE = 3,   /* delete a key. Flag: PRTKV_WITH_SUBKEYS */
  PRTKV_DO_MOVE = 4,     /* move a key to the name `target`. Flag: PRTKV_REPLACE */
  PRTKV_DO_COPY = 5,     /* copy a key to the name `target`. Flags: PRTKV_WITH_SUBKEYS, PRTKV_REPLACE */
  PRTKV_DO_SECURITY = 6, /* replace the security record by `sec`. Flag: PRTKV_WITH_SUBKEYS */
};

enum {
  PRTKV_WITH_SUBKEYS = 1,   /* the key and everything below it */
  PRTKV_REPLACE = 2,        /* an existing target is deleted with everything below it */
  PRTKV_CREATE_PARENTS = 4, /* of PRTKV_DO_PUT and PRTKV_DO_CREATE: missing ancestors are created too, without values
                               and with the same security record */
};

typedef struct prtkv_operation {
  int32_t kind;
  uint32_t flags;
  const char *name;   /* full name */
  const char *target; /* full name */
  int32_t type;
  uint32_t size;
  const void *value;
  sec_attr sec;
} prtkv_operation;

/* Makes all the changes, or none if a condition does not hold. Conditions are looked at before the first change;
 * each change sees those before it. A condition that does not hold yields PRTKV_CONFLICT, and `*failed` is the index of
 * the first one. Any other failure of a change leaves its index there. `*revision` is that of the change, or of the
 * latest state if nothing was changed. `note` says what the change is for; it may be null, and so may `revision` and
 * `failed`, and the arrays if there is nothing in them. A note of more than 1024 bytes is cut off. */
int32_t prtkv_commit(prtkv_ctx ctx, const prtkv_condition *conditions, uint32_t condition_count,
                     const prtkv_operation *operations, uint32_t operation_count, const char *note, uint64_t *revision,
                     uint32_t *failed);

/* --- Changes --- */

enum {
  PRTKV_CHANGE_CREATED = 1,  /* a key was created, with its first value if it has one */
  PRTKV_CHANGE_VALUE = 2,    /* its value was written or removed */
  PRTKV_CHANGE_SECURITY = 3, /* its security record was changed */
  PRTKV_CHANGE_MOVED = 4,    /* it was moved with everything below it, from the name `from` */
  PRTKV_CHANGE_DELETED = 5,  /* it was deleted with everything below it */
  PRTKV_CHANGE_BELOW = 6,    /* more was changed at this key and below it than a change can list */
  PRTKV_CHANGE_PURGED = 7,   /* the former values of keys of this name were removed from the history */
};

/* What one change did to one key. All pointers are valid during the visit. */
typedef struct prtkv_change {
  uint64_t revision; /* the same for everything that was changed at once */
  int64_t time;      /* microseconds since 1970, UTC, by the clock of whoever made the change */
  const char *author;
  const char *host;
  const char *program;
  uint32_t process;
  int32_t kind;
  const char *note; /* "" if there is none */
  const char *name; /* full name of the key after the change or, if it was deleted, before it */
  const char *from; /* of PRTKV_CHANGE_MOVED, "" otherwise */
} prtkv_change;

/* Calls `visit` with every change after `*revision` at the key `name` and below it ("": everywhere), in order, until it
 * returns another value than 0, which is returned. A name counts only if the session may list its parent, a value or
 * a security record only if it may read the key. On success, `*revision` is where the next call goes on.
 *
 * If changes after `*revision` are no longer retained, nothing is visited, `*lost` is set to 1 and `*revision` to that
 * of the latest state: whoever keeps a picture of the registry reads it anew at that revision. Otherwise `*lost` is 0.
 *
 * `visit` must not use the context. */
int32_t prtkv_changes_since(prtkv_ctx ctx, uint64_t *revision, const char *name,
                            int32_t (*visit)(void *data, const prtkv_change *change), void *data, int32_t *lost);

/* Waits until there is a change after `after`, wherever it is, or `timeout_ms` milliseconds have passed; a negative
 * timeout waits for as long as it takes. Returns PRTKV_DONE in both cases; `*revision` is that of the latest state.
 * Other operations of the context go on meanwhile. prtkv_terminate() and prtkv_stop_waiting() end the wait. */
int32_t prtkv_wait(prtkv_ctx ctx, uint64_t after, int32_t timeout_ms, uint64_t *revision);

/* Ends all waits of the context that are under way, as if their time had passed. */
int32_t prtkv_stop_waiting(prtkv_ctx ctx);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
