/* prtkv: the registry client.
 *
 * Conventions
 *   Results.   Every operation returns a code of prtkv_results.h, PRTKV_DONE for success. On any other code, the output
 *              parameters are unchanged unless the operation says otherwise.
 *   Handles.   Contexts and keys are 64-bit values, never addresses; 0 is the null handle. A closed, foreign or forged
 *              handle yields PRTKV_INVALID_HANDLE. The handle of a key that was deleted or moved, by itself or with an
 *              ancestor, yields PRTKV_NO_SUCH_KEY until it is closed.
 *   Names.     NUL-terminated modified UTF-8: levels joined by "."; "" is the root. A level has 1 to 264 bytes, a
 *              full name at most 1023 bytes and 64 levels; anything else yields PRTKV_INVALID_NAME. An operation that
 *              creates or moves a key takes a name relative to the parent handle; all its levels but the last must
 *              exist.
 *   Values.    A type word, which is stored but not interpreted, and 0 to 1 MiB of bytes; more yields
 *              PRTKV_VALUE_TOO_LARGE. A null value with a size above 0 yields PRTKV_NULL_ARGUMENT. A key whose value
 *              was never set reads as type 0, size 0.
 *   Rights.    A session acts as the process's effective user with all its groups. A key grants the union of the masks
 *              of every class (owner, group, other) that the session falls into; uid 0 may do anything. A missing right
 *              yields PRTKV_ACCESS_DENIED. Opening a key requires no rights.
 *   Arguments. A null pointer where one is required yields PRTKV_NULL_ARGUMENT. A flag word must be 0 or the constant
 *              named with the operation, and an argument named `reserved` must be null; anything else yields
 *              PRTKV_INVALID_ARGUMENT.
 *   Errors.    A context keeps the message of its last failure ("TKV-0004: key 'a.b' does not exist"). Every failing
 *              operation sets it and every successful one clears it. Messages contain neither "%" nor control
 *              characters (both are shown as "?"), so that a caller may use one as a format.
 *   Threads.   Any thread may call; operations of one context run one at a time.
 *   Durability. Once an operation that changes the registry has returned PRTKV_DONE, the change survives a crash of the
 *              process and of the machine. One that failed has changed nothing, unless it returned PRTKV_UNDECIDED: the
 *              answer to the change was lost, and nobody could be asked in time.
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
  PRTKV_TYPE_NONE = 0,   /* the value was never set */
  PRTKV_TYPE_WORD32 = 1, /* 4 bytes */
  PRTKV_TYPE_WORD64 = 2, /* 8 bytes */
  PRTKV_TYPE_TEXT = 3,   /* a text and its NUL */
  PRTKV_TYPE_LIST = 5    /* texts, each followed by a NUL, and one NUL more */
};

/* Storage modes, each with the services that the high-availability daemon has to wait for when it starts. */
enum {
  PRTKV_ZUVED_STORAGE_NONE = 0,  /* no storage management: "membership" */
  PRTKV_ZUVED_STORAGE_LOCAL = 1, /* storage managed on this node: "membership", "storage" */
  PRTKV_ZUVED_STORAGE_REMOTE = 2 /* storage managed by other nodes: "membership", "network", "storage-client" */
};

/* Opens a session on the configured registry, creating the registry if it does not exist yet. `level` must be 0 or more
 * and is only recorded. On failure, `error_text` holds the reason, NUL-terminated within the `*error_size` bytes of the
 * buffer, and `*error_size` the length of the text without its NUL. `flags` must be 0. */
int32_t prtkv_init_ext(prtkv_ctx *out, int32_t level, char *error_text, uint64_t *error_size, uint32_t flags);

/* Closes the session and every key still open in it. */
int32_t prtkv_terminate(prtkv_ctx ctx);

/* Opens a key by its full name. On failure, `*out` is 0. */
int32_t prtkv_open_key(prtkv_ctx ctx, prtkv_key *out, const char *name);

int32_t prtkv_close_key(prtkv_ctx ctx, prtkv_key key);

/* Creates a key without a value. Requires the create right on the parent. If the key exists, returns PRTKV_KEY_EXISTS.
 * Sets `*word` to 1. On failure, `*out` is 0. */
int32_t prtkv_create_key(prtkv_ctx ctx, prtkv_key parent, const char *name, prtkv_key *out, int32_t *word,
                         sec_attr sec);

/* As prtkv_create_key, but also sets the value, in one change. */
int32_t prtkv_create_n_set_key(prtkv_ctx ctx, prtkv_key parent, const char *name, prtkv_key *out, int32_t *word,
                               int32_t type, sec_attr sec, const void *value, uint32_t size);

/* As prtkv_create_n_set_key. `flags`: PRTKV_CREATE_EXT_FLAGS or 0. */
int32_t prtkv_create_n_set_key_ext(prtkv_ctx ctx, void *reserved, prtkv_key parent, const char *name, prtkv_key *out,
                                   int32_t *word, sec_attr sec, int32_t type, const void *value, uint32_t size,
                                   uint32_t flags);

/* Deletes the key. The handle is closed on success and stays open otherwise. If `recursive` is 0, a key with subkeys
 * yields PRTKV_HAS_SUBKEYS; if it is 1, the whole subtree is deleted, all or nothing, which requires the delete right
 * on every key of it. Any other `recursive`, and the root, yield PRTKV_INVALID_ARGUMENT. */
int32_t prtkv_delete_key(prtkv_ctx ctx, prtkv_key key, int32_t recursive);

/* Moves the key and its subtree to `name` under `parent`, atomically. Requires the delete right on the key and the
 * create right on the parent. If `flags` is 0, an existing target yields PRTKV_KEY_EXISTS; if it is 1, the target and
 * its subtree are replaced, which requires the delete right on every key of them; any other yields
 * PRTKV_INVALID_ARGUMENT. A target within the moved subtree yields PRTKV_MOVE_INTO_ITSELF, and so does replacing
 * an ancestor of the key. `*moved` receives a handle of the moved key; `source` stays open and yields
 * PRTKV_NO_SUCH_KEY. */
int32_t prtkv_move_key(prtkv_ctx ctx, prtkv_key source, prtkv_key parent, const char *name, prtkv_key *moved,
                       int32_t flags);

/* Reads the name of the next subkey, in byte order, from the list as it stood at the handle's first enumeration. On
 * entry, `*size` is the size of the buffer; on return, the length of the name without its NUL. A buffer that is too
 * small yields PRTKV_BUFFER_TOO_SMALL and the required size, including the NUL; the next call reads the same subkey.
 * `*remaining` receives the number of subkeys that follow. Returns PRTKV_NO_MORE_SUBKEYS at the end and from then on.
 */
int32_t prtkv_enum_subkey(prtkv_ctx ctx, prtkv_key key, char *name, uint32_t *size, int32_t *remaining);

/* Reads the value. On entry, `*size` is the size of the buffer; on return, the size of the value. A buffer that is too
 * small yields PRTKV_BUFFER_TOO_SMALL; it is left unchanged, and `*size` is set to the required size. */
int32_t prtkv_get_value(prtkv_ctx ctx, prtkv_key key, int32_t *type, void *buffer, uint32_t *size);

int32_t prtkv_set_value(prtkv_ctx ctx, prtkv_key key, int32_t type, const void *value, uint32_t size);

int32_t prtkv_get_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr *sec);

/* Requires the security right. It covers the whole record, owner and group included, because those who can change the
 * masks could grant themselves everything anyway. Masks with bits outside TKV_RIGHT_ALL yield PRTKV_INVALID_ARGUMENT,
 * here and in the records of new keys. */
int32_t prtkv_set_key_security(prtkv_ctx ctx, prtkv_key key, sec_attr sec);

/* `flags`: PRTKV_SECURITY_EXT_FLAGS or 0. */
int32_t prtkv_set_key_security_ext(prtkv_ctx ctx, void *reserved, prtkv_key key, uint32_t flags, sec_attr sec);

/* Reads the message of the context's last failure, truncated to the `*size` bytes of the buffer and always
 * NUL-terminated, its code, and in `*size` its length without the NUL. Returns PRTKV_DONE only if there is a message,
 * otherwise PRTKV_UNKNOWN. Does not clear the message. */
int32_t prtkv_get_last_error(prtkv_ctx ctx, int32_t *code, char *text, int32_t *size);

/* Reads the configuration: whether it names a location (0 if the default applies), whether the registry is local to
 * this node, and its locations, in order, in PRTKV_LOCATION_SLOTS slots of PRTKV_LOCATION_SLOT_SIZE bytes, of which
 * unused ones are empty. Error text and size are as for prtkv_init_ext. `flags`: PRTKV_GET_CONF_FLAGS or 0. */
int32_t prtkv_get_conf(lpm_ctx pm, int32_t *configured, int32_t *local_only, void *reserved, char *locations,
                       char *error_text, uint64_t *error_size, uint32_t flags);

/* Checks what kind of registry can be stored at `path`. Returns PRTKV_DONE for a directory that can hold an embedded
 * registry, PRTKV_DISTRIBUTED with a text for a well-formed address of a distributed one, and otherwise the reason as
 * code and text. Changes nothing. `flags`: PRTKV_CHECK_STORAGE_FLAGS or 0. */
int32_t prtkv_check_storage(lpm_ctx pm, const char *path, char *error_text, int32_t *error_size, uint32_t flags);

/* Reads the configured backup location into a buffer of PRTKV_BACKUP_LOCATION_SIZE bytes (empty if none is configured),
 * and the size limit of the backup in bytes, which is always 0 for none. `flags`: PRTKV_BACKUP_LOC_FLAGS or 0. */
int32_t prtkv_get_backup_loc(prtkv_ctx ctx, char *location, uint64_t *size_limit, uint32_t flags);

/* Records the start dependencies of the high-availability daemon for a storage mode: the number of the mode as a
 * decimal text (PRTKV_TYPE_TEXT) at the key SYSTEM.ZUVED.mode, and its services as a list (PRTKV_TYPE_LIST) at
 * SYSTEM.ZUVED.dependencies. Either both are written or neither; missing keys are created. A mode that is not listed
 * above yields PRTKV_INVALID_ARGUMENT. `flags` must be 0. */
int32_t prtkv_set_zuved_dependencies(prtkv_ctx ctx, int32_t mode, uint32_t flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
