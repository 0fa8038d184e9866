/* The result codes of the registry client, each with its name and its text: the one table of the system.
 *
 * STORAGE_FAILED means damage, a failing disk, or a newer format, whose records this release takes for damaged.
 * UNUSABLE: the storage cannot be used as it is configured (missing, replaced under the session, ...); trying again
 * does not help, changing something does. BUSY: somebody else is at work; the same call may succeed later. UNDECIDED:
 * the reply to a change was lost and nobody could be asked before the deadline; look before repeating it.
 * CONFLICT: a condition of a batch does not hold.
 *
 * The numbers are part of the interface: callers test them by value and they are shown to people. Do not change.
 */
#ifndef TKV_PLATFORM_PRTKV_RESULTS_H
#define TKV_PLATFORM_PRTKV_RESULTS_H

#define PRTKV_RESULTS(RESULT)                                       \
  RESULT(DONE, 0, "done")                                           \
  RESULT(ACCESS_DENIED, 2, "access denied")                         \
  RESULT(INVALID_HANDLE, 3, "invalid handle")                       \
  RESULT(NO_SUCH_KEY, 4, "no such key")                             \
  RESULT(INVALID_NAME, 5, "invalid name")                           \
  RESULT(HAS_SUBKEYS, 6, "key has subkeys")                         \
  RESULT(STORAGE_FAILED, 7, "storage failed or damaged")            \
  RESULT(INVALID_ARGUMENT, 8, "invalid argument")                   \
  RESULT(BUFFER_TOO_SMALL, 9, "buffer too small")                   \
  RESULT(VALUE_TOO_LARGE, 10, "value too large")                    \
  RESULT(STORAGE_FULL, 11, "storage full")                          \
  RESULT(OUT_OF_MEMORY, 12, "out of memory")                        \
  RESULT(NULL_ARGUMENT, 13, "null argument")                        \
  RESULT(UNKNOWN, 14, "unknown error")                              \
  RESULT(UNREACHABLE, 15, "registry unreachable")                   \
  RESULT(NO_MORE_SUBKEYS, 16, "no more subkeys")                    \
  RESULT(MOVE_INTO_ITSELF, 17, "a key cannot be moved into itself") \
  RESULT(UNUSABLE, 18, "storage cannot be used as configured")      \
  RESULT(BUSY, 19, "busy, try again")                               \
  RESULT(UNDECIDED, 20, "not known whether the change was made")    \
  RESULT(CONFLICT, 21, "a condition does not hold")                 \
  RESULT(DISTRIBUTED, 37, "the path names a distributed registry")  \
  RESULT(INVALID_CONFIGURATION, 41, "invalid configuration")        \
  RESULT(CONFIGURATION_UNREADABLE, 42, "configuration unreadable")  \
  RESULT(KEY_EXISTS, 55, "key exists")

enum prtkv_result {
#define PRTKV_RESULT_CODE(name, code, text) PRTKV_##name = (code),
  PRTKV_RESULTS(PRTKV_RESULT_CODE)
#undef PRTKV_RESULT_CODE
};

#endif
