/* prtkv: the registry client.
 *
 * Conventions
 *   Results.   Every operation returns a code of prtkv_results.h, 0 for success. On any other code the out
 *              parameters are left as they were, except where an operation says otherwise.
 *   Handles.   Contexts and keys are 64-bit values, never addresses; 0 is the null handle. A closed, foreign or
 *              made-up handle gives 3. A key handle whose key was deleted, or moved away (also with an ancestor),
 *              gives 4 until it is closed.
 *   Names.     NUL-terminated modified UTF-8; levels joined by ".", "" is the root. A level is 1 to 264 bytes, a
 *              full name at most 1023 bytes and 64 levels; else 5. A creating or moving operation takes a name
 *              relative to its parent handle; all its levels but the last must exist.
 *   Values.    A type word, stored and never interpreted, and 0 to 1 MiB of bytes; more gives 10. A null value
 *              with a size above 0 gives 13. A key that never got a value reads as type 0, size 0.
 *   Rights.    The session acts as the process's effective user with all its groups. A key grants the union of
 *              the masks of every class (owner, group, other) the session falls in; user 0 may do everything. A
 *              missing right gives 2. Opening a key needs none.
 *   Arguments. A null pointer where one is needed gives 13. A flag word must be 0 or the constant named beside
 *              the operation, else 8. Arguments named `reserved` must be null, else 8.
 *   Errors.    A context keeps one text of its last failure ("TKV-0004: key 'a.b' does not exist"): set by each
 *              operation that fails, cleared by each that succeeds. Texts hold no "%" and no control character
 *              (each shown as "?"), so that a text may be used as a format.
 *   Threads.   Any thread may call; operations of one context run one at a time.
 *   Durability. When an operation that changes the registry has returned 0, the change survives the death of the
 *              process and of the machine.
 */
#ifndef TKV_PLATFORM_PRTKV_H
#define TKV_PLATFORM_PRTKV_H

#include <stdint.h>

#include "lpm.h"
#include "prtkv_results.h"
#include "sec_attr.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint64_t prtkv_ctx; /* an open session with the registry */
typedef uint64_t prtkv_key; /* an open key of a session */

enum {
  PRTKV_ERROR_TEXT_SIZE = 1024,       /* bytes of an error text buffer */
  PRTKV_SUBKEY_NAME_SIZE = 265,       /* longest level and its NUL */
  PRTKV_FULL_NAME_SIZE = 1024,        /* longest full name and its NUL */
  PRTKV_MAX_LEVELS = 64,              /* levels of a full name */
  PRTKV_MAX_VALUE_SIZE = 1024 * 1024, /* bytes of a value */
  PRTKV_LOCATION_SLOTS = 5,           /* storage locations of a registry */
  PRTKV_LOCATION_SLOT_SIZE = 4097,    /* longest location and its NUL */
  PRTKV_BACKUP_LOCATION_SIZE = 4096   /* longest backup location and its NUL */
};

enum {
  PRTKV_CREATE_EXT_FLAGS = 0x80002,
  PRTKV_SECURITY_EXT_FLAGS = 0x80000,
  PRTKV_GET_CONF_FLAGS = 0x20004,
  PRTKV_CHECK_STORAGE_FLAGS = 0x20000,
  PRTKV_BACKUP_LOC_FLAGS = 0x20000
};

/* Value types that callers of this library write. */
enum {
  PRTKV_TYPE_NONE = 0,   /* no value was ever written */
  PRTKV_TYPE_WORD32 = 1, /* 4 bytes */
  PRTKV_TYPE_WORD64 = 2, /* 8 bytes */
  PRTKV_TYPE_TEXT = 3,   /* a text and its NUL */
  PRTKV_TYPE_LIST = 5    /* texts, each followed by a NUL, and one NUL more */
};

/* Storage modes, each with the services that the high-availability daemon must wait for when it starts. */
enum {
  PRTKV_ZUVED_STORAGE_NONE = 0,  /* no storage management: "membership" */
  PRTKV_ZUVED_STORAGE_LOCAL = 1, /* storage managed on this node: "membership", "storage" */
  PRTKV_ZUVED_STORAGE_REMOTE = 2 /* storage managed by other nodes: "membership", "network", "storage-client" */
};

/* Opens a session on the configured registry, which is created when it does not exist yet. `level` is 0 or more
 * and only recorded. On failure `error_text` holds the reason, NUL-terminated within the `*error_size` bytes that
 * the buffer has, and `*error_size` the text's length without its NUL. `flags` is 0. */
int32_t prtkv_init_ext(prtkv_ctx *out, int32_t level, char *error_text, uint64_t *error_size, uint32_t flags);

/* Closes the session and every key still open in it. */
int32_t prtkv_terminate(prtkv_ctx ctx);

/* Opens the key of a full name. On failure `*out` is 0. */
int32_t prtkv_open_key(prtkv_ctx ctx, prtkv_key *out, const char *name);

int32_t prtkv_close_key(prtkv_ctx ctx, prtkv_key key);

/* Creates a key without a value; an existing key gives 55. Needs the create right on the parent. `*word` becomes 1.
 * On failure `*out` is 0. */
int32_t prtkv_create_key(prtkv_ctx ctx, prtkv_key parent, const char *name, prtkv_key *out, int32_t *word,
                         sec_attr sec);

/* Creates a key with its value, both or neither. As prtkv_create_key. */
int32_t prtkv_create_n_set_key(prtkv_ctx ctx, prtkv_key parent, const char *name, prtkv_key *out, int32_t *word,
                               int32_t type, sec_attr sec, const void *value, uint32_t size);

/* As prtkv_create_n_set_key. `flags`: PRTKV_CREATE_EXT_FLAGS or 0. */
int32_t prtkv_create_n_set_key_ext(prtkv_ctx ctx, void *reserved, prtkv_key parent, const char *name, prtkv_key *out,
                                   int32_t *word, sec_attr sec, int32_t type, const void *value, uint32_t size,
                                   uint32_t flags);

/* Deletes the key; its handle is closed when that succeeded, and stays open otherwise. With `recursive` 0 a key that
 * has subkeys gives 6; with 1 (others give 8) the whole subtree is deleted, all or nothing, which needs the delete
 * right on every key of it. The root cannot be deleted (8). */
int32_t prtkv_delete_key(prtkv_ctx ctx, prtkv_key key, int32_t recursive);

/* Moves the key with its subtree to `name` under `parent`, atomically. Needs the delete right on the key and the
 * create right on the parent. `flags` 0 refuses an existing target with 55, 1 replaces it with its subtree, which
 * needs the delete right on all of that; others give 8. A target within the moved subtree gives 17. `*moved`
 * receives a handle of the moved key, `source` stays open and answers 4. */
int32_t prtkv_move_key(prtkv_ctx ctx, prtkv_key source, prtkv_key parent, const char *name, prtkv_key *moved,
                       int32_t flags);

/* Gives the next subkey's name, in byte order, from the list as it was at the handle's first enumeration. `*size` is
 * the buffer's size going in and the name's length without its NUL coming out; a buffer that is too small gives 9,
 * the size needed with the NUL, and the same subkey next time. `*remaining` receives how many follow. 16 at the end
 * and ever after. */
int32_t prtkv_enum_subkey(prtkv_ctx ctx, prtkv_key key, char *name, uint32_t *size, int32_t *remaining);

/* Reads the value. `*size` is the buffer's size going in and the value's size coming out; a buffer that is too small
 * gives 9, leaves it untouched and sets `*size` to the size needed. */
int32_t prtkv_get_value(prtkv_ctx ctx, prtkv_key key, int32_t *type, void *buffer, uint32_t *size);

int32_t prtkv_set_value(prtkv_ctx ctx, prtkv_key key, int32_t type, const void *value, uint32_t size);

int32_t prtkv_get_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr *sec);

/* Needs the security right, which covers the whole record, owner and group included: whoever may change the masks could
 * grant himself everything. Masks with bits outside TKV_RIGHT_ALL give 8, here and in records of new keys. */
int32_t prtkv_set_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr sec);

/* `flags`: PRTKV_SECURITY_EXT_FLAGS or 0. */
int32_t prtkv_set_key_security_ext(prtkv_ctx ctx, void *reserved, prtkv_key key, uint32_t flags, sec_attr sec);

/* Gives the text of the context's last failure, cut to fit the `*size` bytes of the buffer and always NUL-terminated,
 * its code, and in `*size` its length without the NUL. Returns 0 only when there is a text, 14 when there is none;
 * leaves the text in place. */
int32_t prtkv_get_last_error(prtkv_ctx ctx, int32_t *code, char *text, int32_t *size);

/* Reads the configuration: whether it names a location (0: the default one is in force), whether the registry is local
 * to this node, and its locations, in order, in PRTKV_LOCATION_SLOTS slots of PRTKV_LOCATION_SLOT_SIZE bytes (unused
 * slots are empty). Error text and size as prtkv_init_ext. `flags`: PRTKV_GET_CONF_FLAGS or 0. */
int32_t prtkv_get_conf(lpm_ctx pm, int32_t *configured, int32_t *local_only, void *reserved, char *locations,
                       char *error_text, uint64_t *error_size, uint32_t flags);

/* Tells what `path` can hold: 0, a directory fit for an embedded registry; 37, a well-formed address of a distributed
 * one, with a text that says so; otherwise the reason as code and text. Changes nothing. `flags`:
 * PRTKV_CHECK_STORAGE_FLAGS or 0. */
int32_t prtkv_check_storage(lpm_ctx pm, const char *path, char *error_text, int32_t *error_size, uint32_t flags);

/* Gives the configured backup location in a buffer of PRTKV_BACKUP_LOCATION_SIZE bytes (empty when none is
 * configured) and the backup's size limit in bytes, 0 for none; none can be configured. `flags`: PRTKV_BACKUP_LOC_FLAGS
 * or 0. */
int32_t prtkv_get_backup_loc(prtkv_ctx ctx, char *location, uint64_t *size_limit, uint32_t flags);

/* Records the start dependencies of the high-availability daemon for a storage mode: the mode's number as a decimal
 * text (PRTKV_TYPE_TEXT) at the key SYSTEM.ZUVED.mode and its services as a list (PRTKV_TYPE_LIST) at
 * SYSTEM.ZUVED.dependencies, both or neither; keys that are missing are created. Another mode than those above gives
 * 8. `flags` is 0. */
int32_t prtkv_set_zuved_dependencies(prtkv_ctx ctx, int32_t mode, uint32_t flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
