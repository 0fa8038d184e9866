/* The bridge between the managed class velmar.qen.mgmt.nativesystem.TKVNative and the cluster registry.
 *
 * Conventions
 *   Session.  A process has one session. initializeTKVLevel opens it before anything else, and terminateTKV closes it.
 *             Without an open session, every method reports that there is no registry context.
 *   Names.    Full names: levels joined by ".", starting from the registry's root. Only the methods that create keys
 *             take names relative to the working key, which is the key that openKey opened last.
 *   Result.   The last argument of every method. On success, its status becomes true. On failure, it becomes false,
 *             and the object receives either the registry's text or a numeric code. Nothing is thrown.
 *   Security. `security_type` from 1 to 6, with an optional parent key, user and group, determines the owner and the
 *             rights of a key that is created.
 *   Threads.  Calls must not overlap. The bridge has no threads and no locks.
 */
#ifndef TKV_FRAMEWORK_TKV_H
#define TKV_FRAMEWORK_TKV_H

#include <assert.h>
#include <jni.h>
#include <stddef.h>
#include <stdint.h>

#include "lpm.h"
#include "lx.h"
#include "prtkv.h"
#include "sec_attr.h"

/* The session record, which every method uses. It is zero-filled at first, so that every handle reads as null until it
 * is set. */
typedef struct tkv_session {
  prtkv_ctx registry_ctx;              /* written last in a successful initialisation */
  prtkv_key working_key;               /* opened by openKey; the parent of the keys that are created */
  int32_t debug_on;                    /* whether tracing was on at initialisation; recorded only */
  lpm_ctx mem_ctx;                     /* owns this record and every block of the bridge */
  void *scls_ctx;                      /* meta context of the identity services */
  char user_name[TKV_NAME_SIZE];       /* user of this process, owner of the keys it creates */
  char group_name[TKV_NAME_SIZE];      /* primary group of this process; empty when it has none */
  char lx_handle_area[LX_HANDLE_SIZE]; /* storage of the handle below */
  void *lx_handle;                     /* null when there is no language environment */
  char lang_env_area[LX_LANG_ENV_SIZE];
  void *lang_env;     /* points into the area above */
  int16_t charset_id; /* character set of the language environment */
} tkv_session;

static_assert(offsetof(tkv_session, registry_ctx) == 0, "registry_ctx");
static_assert(offsetof(tkv_session, working_key) == 8, "working_key");
static_assert(offsetof(tkv_session, debug_on) == 16, "debug_on");
static_assert(offsetof(tkv_session, mem_ctx) == 24, "mem_ctx");
static_assert(offsetof(tkv_session, scls_ctx) == 32, "scls_ctx");
static_assert(offsetof(tkv_session, user_name) == 40, "user_name");
static_assert(offsetof(tkv_session, group_name) == 104, "group_name");
static_assert(offsetof(tkv_session, lx_handle_area) == 168, "lx_handle_area");
static_assert(offsetof(tkv_session, lx_handle) == 296, "lx_handle");
static_assert(offsetof(tkv_session, lang_env_area) == 304, "lang_env_area");
static_assert(offsetof(tkv_session, lang_env) == 872, "lang_env");
static_assert(offsetof(tkv_session, charset_id) == 880, "charset_id");
static_assert(sizeof(tkv_session) == 888, "the session record");

#ifdef __cplusplus
extern "C" {
#endif

/* clang-format off */
#define TKV_NATIVE(type, method) JNIEXPORT type JNICALL Java_velmar_qen_mgmt_nativesystem_TKVNative_##method

/* Session. */

TKV_NATIVE(void, initializeTKVLevel)(JNIEnv *env, jobject self, jint level, jobject result);
TKV_NATIVE(void, terminateTKV)(JNIEnv *env, jobject self, jobject result);

/* Keys. */

/* Opens a key as the working key. The previous one stays open and can no longer be reached. */
TKV_NATIVE(void, openKey)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* Closes the working key. The session keeps the closed handle until the next openKey. */
TKV_NATIVE(void, closeKey)(JNIEnv *env, jobject self, jobject result);

TKV_NATIVE(jboolean, keyExists)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* Deleting a key that does not exist succeeds. Subkeys are deleted only if `recurse` is JNI_TRUE. */
TKV_NATIVE(void, deleteKey)(JNIEnv *env, jobject self, jstring key_name, jboolean recurse, jobject result);

/* Returns the names of the children, or null with status true if there are none or if there is no such key. */
TKV_NATIVE(jobjectArray, listSubKeys)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* `flags`: 0 to refuse an existing target, 1 to replace it. */
TKV_NATIVE(void, moveKey)(JNIEnv *env, jobject self, jstring source_key, jstring target_parent_key,
                          jstring target_key, jint flags, jobject result);

/* Creates a key without a value below the working key. */
TKV_NATIVE(void, createKey)(JNIEnv *env, jobject self, jstring key_name, jint security_type,
                            jstring parent_key_name, jstring user_name, jstring group_name, jobject result);

/* Values. */

/* Returns the value's bytes as a text, up to the first NUL, or null with status true if the value has at most one byte
 * or if there is no such key. */
TKV_NATIVE(jstring, getKeyValue)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* Returns the texts of a list, followed by a null. Returns null with status true if there is no value or no such key,
 * or if an element cannot be converted from the session's character set. */
TKV_NATIVE(jobjectArray, getKeyValues)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* As setTypeKeyValue with data type 3. */
TKV_NATIVE(void, setKeyValue)(JNIEnv *env, jobject self, jstring key_name, jstring value, jint security_type,
                              jstring parent_key_name, jstring user_name, jstring group_name, jobject result);

/* Writes the value of a key, which is created below the working key if it cannot be opened. `data_type` 1 stores the
 * first 4 bytes of the text, 2 the first 8, 3 the text and its NUL, any other nothing. */
TKV_NATIVE(void, setTypeKeyValue)(JNIEnv *env, jobject self, jstring key_name, jstring value, jint data_type,
                                  jint security_type, jstring parent_key_name, jstring user_name,
                                  jstring group_name, jobject result);

/* Writes a list as one value of at most 8192 bytes, including separators. */
TKV_NATIVE(void, setKeyValues)(JNIEnv *env, jobject self, jstring key_name, jobjectArray values, jint security_type,
                               jstring parent_key_name, jstring user_name, jstring group_name, jobject result);

/* Creates a key below the working key with a value and security. Reports an existing key as TKV_KEY_ALREADY_EXISTS. */
TKV_NATIVE(void, createAndSetKeyValue)(JNIEnv *env, jobject self, jstring key_name, jstring value, jint data_type,
                                       jint security_type, jstring parent_key_name, jstring user_name,
                                       jstring group_name, jobject result);

/* Security. Null with status true means that the key has no owner of that kind. */

TKV_NATIVE(jstring, getUserName)(JNIEnv *env, jobject self, jstring key_name, jobject result);
TKV_NATIVE(jstring, getGroupName)(JNIEnv *env, jobject self, jstring key_name, jobject result);

/* Copies value, subtree and security onto an existing key. A status of true alone does not mean success: after a
 * failure within the subtree, the object also holds a code or a text. */
TKV_NATIVE(void, copyRecurse)(JNIEnv *env, jobject self, jstring source_key, jstring destination_key,
                              jint security_type, jobject result);

/* Cluster. */

/* Sets the result's boolean. Needs no session. */
TKV_NATIVE(void, isCluster)(JNIEnv *env, jobject self, jobject result);

/* Returns the storage locations, and sets the result's boolean to whether the registry is shared. Needs no session. */
TKV_NATIVE(jobjectArray, getTKVLocations)(JNIEnv *env, jobject self, jobject result);

/* Returns 0 if the path can hold a registry, 2 if it names a distributed one, otherwise 1. Needs no session. */
TKV_NATIVE(jint, checkTKVStorageType)(JNIEnv *env, jobject self, jstring path, jobject result);

TKV_NATIVE(jstring, getTKVBackupLocation)(JNIEnv *env, jobject self, jobject result);

/* Returns 0 without a session and -1 on failure; the status distinguishes both from a level. */
TKV_NATIVE(jint, getPatchLevel)(JNIEnv *env, jobject self, jobject result);

TKV_NATIVE(void, setZUVEDDependencies)(JNIEnv *env, jobject self, jint mode, jobject result);

/* clang-format on */

#ifdef __cplusplus
}
#endif

/* The unit's own routines. */
#ifdef TKV_UNIT
static int32_t prsrvtkv_fill_sec_attr(JNIEnv *env, jobject result, jint security_type, jstring parent_keyname,
                                      jstring velmar_user, jstring group_name, sec_attr *security);
static jstring prsrvtkv_stringMultiByteToJava(JNIEnv *env, const char *text);
static int prsrvtkv_copy_recurse(JNIEnv *env, const char *source_name, const char *destination_name, int security_type,
                                 jobject result);
static inline void prsrvtkv_recurse_fill_sec_attr(JNIEnv *env, jobject result, jint security_type, sec_attr *security);
#endif

#endif
