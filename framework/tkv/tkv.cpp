// The bridge between the managed cluster tool and the cluster registry: the 24 native methods of TKVNative.
//
// Each method is one procedure: check, call the registry, trace the result, report on the managed result object,
// release what was acquired. Callers and readers of traces rely on the exact order of these steps and on the exact
// texts, odd ones included. A comment marks what is odd on purpose.

#define TKV_UNIT
#include "tkv.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cls.h"
#include "prsrvut.h"
#include "scls.h"

// Null until the first initializeTKVLevel. After terminateTKV, it still points to the freed record, which the memory
// context keeps readable and zero-filled, so that late calls find no registry context.
static tkv_session* tkvwrap_ctx = nullptr;

namespace {

constexpr uint32_t kErrorTextSize = PRTKV_ERROR_TEXT_SIZE;
constexpr uint32_t kSingleValueSize = 1024;
constexpr uint32_t kListValueSize = 8192;
constexpr uint32_t kCopiedValueSize = 2048;
constexpr uint32_t kSubkeyNameSize = PRTKV_SUBKEY_NAME_SIZE;
constexpr uint32_t kLocationsSize = PRTKV_LOCATION_SLOTS * PRTKV_LOCATION_SLOT_SIZE;

// A session that was not opened, or not completely, has no registry context and no working key.
prtkv_ctx registry_context() { return tkvwrap_ctx != nullptr ? tkvwrap_ctx->registry_ctx : 0; }
prtkv_key working_key() { return tkvwrap_ctx != nullptr ? tkvwrap_ctx->working_key : 0; }

// Whether there is a record that may be written. The zero-filled record of an ended session may only be read.
bool has_session() { return tkvwrap_ctx != nullptr && (tkvwrap_ctx->mem_ctx != 0 || tkvwrap_ctx->registry_ctx != 0); }

// The modified UTF-8 characters of a managed string, acquired by the constructor; null if they cannot be obtained, as
// for a null string. They are released by release() or else by the destructor, unless keep() leaves them acquired for
// good.
class Utf8Chars {
 public:
  Utf8Chars(JNIEnv* env, jstring string)
      : env_(env), string_(string), chars_(string != nullptr ? env->GetStringUTFChars(string, nullptr) : nullptr) {}
  ~Utf8Chars() { release(); }
  Utf8Chars(const Utf8Chars&) = delete;
  Utf8Chars& operator=(const Utf8Chars&) = delete;

  const char* get() const { return chars_; }

  void release() {
    if (chars_ != nullptr) env_->ReleaseStringUTFChars(string_, chars_);
    chars_ = nullptr;
  }
  void keep() { chars_ = nullptr; }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* chars_;
};

void delete_local(JNIEnv* env, jobject reference) {
  if (reference != nullptr) env->DeleteLocalRef(reference);
}

void set_element(JNIEnv* env, jobjectArray array, jsize index, jobject element) {
  if (array != nullptr) env->SetObjectArrayElement(array, index, element);
}

void send_error_code(JNIEnv* env, jobject result, int32_t code) {
  jvalue argument{};
  argument.i = code;
  prsrvut_callMethod(env, result, "setTKVErrCode", "(I)V", &argument);
}

void send_result_text(JNIEnv* env, jobject result, const char* text) {
  jvalue argument{};
  argument.l = prsrvut_NewStringUTF(env, text);
  prsrvut_callMethod(env, result, "setTKVResultString", "(Ljava/lang/String;)V", &argument);
  delete_local(env, argument.l);
}

// The registry's last error, and the result of asking for it.
struct LastError {
  explicit LastError(prtkv_ctx registry) : answer(prtkv_get_last_error(registry, &code, text, &size)) {}

  int32_t code = 0;
  char text[kErrorTextSize + 1] = {};
  int32_t size = kErrorTextSize;
  int32_t answer;
};

// Reports a failed registry operation: status false, then the registry's own text or, if it has none, the code.
inline void report_tkv_error(JNIEnv* env, jobject result, int32_t code) {
  prsrvut_setStatus(env, result, 0);
  const prtkv_ctx registry = registry_context();
  if (registry != 0) {
    const LastError error(registry);
    if (error.answer == 0) {
      send_result_text(env, result, error.text);
      return;
    }
  }
  send_error_code(env, result, code);
}

// Reports a failure that the bridge itself has detected: the text, then status false.
inline void report_error(JNIEnv* env, jobject result, const char* text) {
  send_result_text(env, result, text);
  prsrvut_setStatus(env, result, 0);
}

// Closes a key if it is open. A failure to close it has no consequences.
void close_held(prtkv_ctx registry, prtkv_key key) {
  if (key != 0) prtkv_close_key(registry, key);
}

// A name ends with a NUL or fills its 64 bytes.
bool same_name(const char (&left)[TKV_NAME_SIZE], const char (&right)[TKV_NAME_SIZE]) {
  return std::strncmp(left, right, TKV_NAME_SIZE) == 0;
}

void copy_name(char (&to)[TKV_NAME_SIZE], const char* from) { memccpy(to, from, '\0', TKV_NAME_SIZE); }

void replace_name(char (&to)[TKV_NAME_SIZE], const char* from) {
  std::memset(to, 0, TKV_NAME_SIZE);
  copy_name(to, from);
}

// A name followed by a NUL, even if it fills its field.
struct NameText {
  explicit NameText(const char (&name)[TKV_NAME_SIZE]) { std::memcpy(text, name, TKV_NAME_SIZE); }
  char text[TKV_NAME_SIZE + 1] = {};
};

bool group_is_session_group(const sec_attr& security) {
  return same_name(tkvwrap_ctx->group_name, security.group_name);
}

// Returns the record with which a key of another group is created: the requested rights, owned by the session. The
// requested record is applied in a second step.
sec_attr session_owned(const sec_attr& security) {
  sec_attr owned{};
  owned.user_perm = security.user_perm;
  owned.group_perm = security.group_perm;
  owned.other_perm = security.other_perm;
  copy_name(owned.user_name, tkvwrap_ctx->user_name);
  copy_name(owned.group_name, tkvwrap_ctx->group_name);
  return owned;
}

// A value as the registry stores it: the type and size for a managed data type, and the bytes of the text.
class StoredValue {
 public:
  StoredValue(jint data_type, const char* text) : bytes_(text) {
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    switch (data_type) {
      case PRTKV_TYPE_WORD32:
        set(PRTKV_TYPE_WORD32, 4);
        break;
      case PRTKV_TYPE_WORD64:
        set(PRTKV_TYPE_WORD64, 8);
        break;
      case PRTKV_TYPE_TEXT:
        set(PRTKV_TYPE_TEXT, static_cast<uint32_t>(length + 1));
        break;
      case PRTKV_TYPE_LIST:  // setKeyValues writes lists; here, no bytes are stored
        set(PRTKV_TYPE_LIST, 0);
        break;
      default:
        set(PRTKV_TYPE_TEXT, 0);
        break;
    }
    if (text != nullptr && length + 1 < size_) {
      std::memcpy(padded_, text, length);
      bytes_ = padded_;
    }
  }
  StoredValue(const StoredValue&) = delete;
  StoredValue& operator=(const StoredValue&) = delete;

  int32_t type() const { return type_; }
  uint32_t size() const { return size_; }
  const void* bytes() const { return bytes_; }

 private:
  void set(int32_t type, uint32_t size) {
    type_ = type;
    size_ = size;
  }

  int32_t type_ = 0;
  uint32_t size_ = 0;
  const char* bytes_;
  char padded_[8] = {};  // a text shorter than its word, followed by zero bytes
};

// Allocates a block for a value of `size` bytes and a NUL.
char* allocate_for_value(lpm_ctx memory, uint32_t size) {
  return size < UINT32_MAX ? static_cast<char*>(prou_allocm(memory, size + 1)) : nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------
// Session
// ---------------------------------------------------------------------------------------------------------------

// Opens the session step by step. If a step fails, nothing is undone: the record stays as it is for terminateTKV, and
// since it has no registry context, every other method reports a failure.
void Java_velmar_qen_mgmt_nativesystem_TKVNative_initializeTKVLevel(JNIEnv* env, jobject, jint level, jobject result) {
  prtkv_ctx registry = 0;
  uint64_t user_name_length = TKV_NAME_SIZE;
  uint64_t group_name_length = TKV_NAME_SIZE;
  char error_text[kErrorTextSize + 1] = {};
  uint64_t error_size = kErrorTextSize;
  scls_error identity_error{};
  uint32_t lx_error = 0;

  const lpm_ctx memory = lpminit(nullptr);
  auto* const session = static_cast<tkv_session*>(prou_allocm(memory, sizeof(tkv_session)));
  tkvwrap_ctx = session;
  if (session == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel: NOT ENOUGH MEMORY");
    return;
  }
  std::memset(session, 0, sizeof(tkv_session));
  session->mem_ctx = memory;

  session->scls_ctx = prou_allocm(memory, static_cast<uint32_t>(scls_meta_query_size(SCLS_META_VERSION)));
  if (session->scls_ctx == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel: NOT ENOUGH MEMORY");
    return;
  }
  if (scls_meta_ctx_init(session->scls_ctx, &identity_error, 0) != 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel:failed to initialize SCLS context");
    return;
  }
  if (scls_idq_get_user_name(session->scls_ctx, &identity_error, 0, session->user_name, TKV_NAME_SIZE,
                             &user_name_length) != 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel:failed to initialize SCLS context");
    return;
  }
  const int32_t group_answer = scls_idq_get_primary_privgrp_name(
      session->scls_ctx, &identity_error, 0, session->group_name, TKV_NAME_SIZE, &group_name_length);
  if (group_answer == SCLS_NO_PRIMARY_GROUP) {
    prsrvut_trace(env, result, "\n initializeTKVLevel:OS does not support primary group");
  } else if (group_answer != 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel:failed to initialize SCLS context");
    return;
  }

  const int debug = prsrvut_isDebugOn(env, result);
  prsrvut_trace(env, result, "\n initializeTKVLevel: NEW level = %d\n", level);
  const int32_t rc = prtkv_init_ext(&registry, level, error_text, &error_size, 0);
  prsrvut_trace(env, result, "\n initializeTKVLevel: NEW prtkv_init retval = %d\n", rc);
  if (rc != 0) {
    // Sends both code and text, and does not set the status: there is no context yet that could have a last error.
    send_error_code(env, result, rc);
    send_result_text(env, result, error_text);
    prsrvut_trace(env, result, "\n initializeTKVLevel::prtkv_init failed\n");
    return;
  }

  void* const lx_global = lxlinit(nullptr, 1, &lx_error);
  if (lx_global == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "\n initializeTKVLevel::lxlinit failed\n");
    return;
  }
  session->lx_handle = session->lx_handle_area;
  lxinitc(session->lx_handle_area, lx_global, 0, 0);
  session->lang_env = session->lang_env_area;
  session->lang_env = lxhLangEnv(session->lang_env_area, 0, session->lx_handle);
  if (session->lang_env == nullptr) {
    lxlterm(session->lx_handle);
    session->lx_handle = nullptr;
    report_tkv_error(env, result, 0);
    // Names a different function from the one that failed; tools search traces for this text.
    prsrvut_trace(env, result, "\n initializeTKVLevel::lxhcurrlangid failed\n");
    return;
  }
  session->charset_id = static_cast<int16_t>(lxhcsn(session->lang_env, session->lx_handle));

  session->registry_ctx = registry;
  session->debug_on = debug;
  prsrvut_setStatus(env, result, 1);
}

// Always succeeds. The pointer keeps the freed record. The registry client closes the working key along with its
// session.
void Java_velmar_qen_mgmt_nativesystem_TKVNative_terminateTKV(JNIEnv* env, jobject, jobject result) {
  if (tkvwrap_ctx != nullptr) {
    const lpm_ctx memory = tkvwrap_ctx->mem_ctx;
    prtkv_terminate(tkvwrap_ctx->registry_ctx);
    if (tkvwrap_ctx->lx_handle != nullptr) lxlterm(tkvwrap_ctx->lx_handle);
    prou_freem(memory, tkvwrap_ctx);
  }
  prsrvut_setStatus(env, result, 1);
}

// ---------------------------------------------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------------------------------------------

void Java_velmar_qen_mgmt_nativesystem_TKVNative_openKey(JNIEnv* env, jobject, jstring key_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  Utf8Chars name(env, key_name);
  prtkv_key key = 0;
  const int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "openKey: prtkv_open_key retval = %d\n", rc);
  if (rc == 0) {
    // The previous working key is replaced but not closed: the caller may still use its handle.
    if (has_session()) tkvwrap_ctx->working_key = key;
    prsrvut_setStatus(env, result, 1);
  } else {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "openKey: prtkv_open_key failed for TKV key %s\n", name.get());
  }
  // The characters of the working key's name stay acquired for the life of the process.
  name.keep();
}

// The session keeps the closed handle: closing twice calls the registry twice and reports its result.
void Java_velmar_qen_mgmt_nativesystem_TKVNative_closeKey(JNIEnv* env, jobject, jobject result) {
  const prtkv_ctx registry = registry_context();
  const prtkv_key key = working_key();
  if (key == 0) {
    prsrvut_setStatus(env, result, 1);
    return;
  }
  const int32_t rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "closeKey: prtkv_close_key retval = %d\n", rc);
  if (rc == 0) {
    prsrvut_setStatus(env, result, 1);
  } else {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "closeKey: prtkv_close_key failed for TKV root key\n");
  }
}

jboolean Java_velmar_qen_mgmt_nativesystem_TKVNative_keyExists(JNIEnv* env, jobject, jstring key_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "keyExists: NULL context");
    return JNI_FALSE;
  }
  Utf8Chars name(env, key_name);
  prsrvut_trace(env, result, "keyExists: calling prtkv_open_key(%s)\n", name.get());
  prtkv_key key = 0;
  const int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "keyExists: prtkv_open_key retval = %d \n", rc);
  if (rc == PRTKV_NO_SUCH_KEY) {
    name.release();
    prsrvut_setStatus(env, result, 1);
    return JNI_FALSE;
  }
  if (rc != 0) {
    prsrvut_trace(env, result, "keyExists: Failure in opening the handle to the key [%s]\n", name.get());
    name.release();
    report_tkv_error(env, result, rc);
    return JNI_FALSE;
  }
  const int32_t close_rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "keyExists: prtkv_close_key retval = %d \n", close_rc);
  name.release();
  if (close_rc != 0) {
    // The key exists all the same: the failure is reported in addition to the answer.
    report_tkv_error(env, result, close_rc);
    return JNI_TRUE;
  }
  prsrvut_setStatus(env, result, 1);
  return JNI_TRUE;
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_deleteKey(JNIEnv* env, jobject, jstring key_name, jboolean recurse,
                                                           jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "deleteKey: NULL context or KEY_HANDLE PASSED");
    return;
  }
  Utf8Chars name(env, key_name);
  prtkv_key key = 0;
  const int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "deleteKey: prtkv_open_key retval = %d\n", rc);
  if (rc == PRTKV_NO_SUCH_KEY) {
    prsrvut_trace(env, result, "deleteKey: key [%s] does not exist\n", name.get());
    prsrvut_setStatus(env, result, 1);
  } else if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "deleteKey: Failure in getting handle to  the key [%s]\n", name.get());
  } else {
    prsrvut_trace(env, result, "deleteKey: recurse is %d\n", recurse & 0xff);
    const int32_t delete_rc = prtkv_delete_key(registry, key, recurse == JNI_TRUE ? 1 : 0);
    prsrvut_trace(env, result, "deleteKey: prtkv_delete_key retval = %d\n", delete_rc);
    if (delete_rc == 0) {
      prsrvut_setStatus(env, result, 1);  // the deletion has disposed of the handle
    } else {
      report_tkv_error(env, result, delete_rc);
      prsrvut_trace(env, result, "deleteKey: Failure in deleting the  key [%s]\n", name.get());
      prtkv_close_key(registry, key);
    }
  }
  name.release();
}

jobjectArray Java_velmar_qen_mgmt_nativesystem_TKVNative_listSubKeys(JNIEnv* env, jobject, jstring key_name,
                                                                     jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "keyExists: NULL context or  KEY_HANDLE PASSED");  // the existence test's text
    return nullptr;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    prsrvut_trace(env, result, "listSubKeys: NULL key name passed");
    prsrvut_setStatus(env, result, 0);
    return nullptr;
  }
  prsrvut_trace(env, result, "listSubKeys: key_name=[%s]\n", name.get());
  prtkv_key key = 0;
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "listSubKeys: open key retval = %d\n", rc);
  if (rc == PRTKV_NO_SUCH_KEY) {
    prsrvut_trace(env, result, "listSubKeys: key [%s] does not exist\n", name.get());
    prsrvut_setStatus(env, result, 1);
    name.release();
    return nullptr;
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "listSubKeys: Failure in opening the  handle to the  key [%s]\n", name.get());
    name.release();
    return nullptr;
  }

  int32_t remaining = -1;
  prsrvut_trace(env, result, "listSubKeys: setting num_remaining_subkey to %d\n", remaining);
  char subkey[kSubkeyNameSize + 1] = {};
  uint32_t subkey_size = kSubkeyNameSize;
  rc = prtkv_enum_subkey(registry, key, subkey, &subkey_size, &remaining);
  prsrvut_trace(env, result, "listSubKeys: prtkv_enum_subkey retval = %d\n", rc);
  prsrvut_trace(env, result, "listSubKeys: num of remaining subkeys is %d\n", remaining);
  if (rc == PRTKV_NO_MORE_SUBKEYS) {
    prsrvut_setStatus(env, result, 1);
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "listSubKeys: Failure in opening the handle  to the key [%s]\n", name.get());
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;
  }

  // The first answer determines the length. If the registry reports no count, -1 remains and the array is empty.
  const uint32_t count = static_cast<uint32_t>(remaining) + 1;
  const jclass string_class = prsrvut_FindClass(env, "java/lang/String");
  const jobjectArray names = prsrvut_NewObjectArray(env, static_cast<jsize>(count), string_class, nullptr);
  jstring element = prsrvut_NewStringUTF(env, subkey);
  set_element(env, names, 0, element);
  delete_local(env, element);

  int32_t remaining_unread = -1;
  for (uint32_t i = 1; i < count; ++i) {
    std::memset(subkey, 0, sizeof(subkey));
    subkey_size = kSubkeyNameSize;
    rc = prtkv_enum_subkey(registry, key, subkey, &subkey_size, &remaining_unread);
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      prsrvut_trace(env, result, "listSubKeys: Failure in enum..tkv ret code = %d", rc);
      prtkv_close_key(registry, key);
      name.release();
      return nullptr;
    }
    prsrvut_trace(env, result, "listSubKeys: subkey[%d] = [%s]\n", static_cast<int>(i), subkey);
    element = prsrvut_NewStringUTF(env, subkey);
    set_element(env, names, static_cast<jsize>(i), element);
    delete_local(env, element);
    prsrvut_trace(env, result, "listSubKeys: after setobjectarrayelement\n");
  }
  prtkv_close_key(registry, key);
  name.release();
  prsrvut_setStatus(env, result, 1);
  return names;
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_moveKey(JNIEnv* env, jobject, jstring source_key,
                                                         jstring target_parent_key, jstring target_key, jint flags,
                                                         jobject result) {
  prtkv_key source = 0;
  prtkv_key parent = 0;
  prtkv_key moved = 0;
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "moveKey: TKV context is NULL");
    return;
  }
  const auto close_keys = [&] {
    close_held(registry, source);
    close_held(registry, parent);
    close_held(registry, moved);
  };

  Utf8Chars source_name(env, source_key);
  if (source_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "moveKey:NULL source key");
    return;
  }
  Utf8Chars parent_name(env, target_parent_key);
  if (parent_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "moveKey:NULL parent tgt key");
    close_keys();
    source_name.release();
    return;
  }
  Utf8Chars target_name(env, target_key);
  const auto finish = [&] {
    close_keys();
    source_name.release();
    parent_name.release();
    target_name.release();
  };
  if (target_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "moveKey:NULL tgt key");
    return finish();
  }

  prsrvut_trace(env, result, "moveKey: flags =%d\n", flags);
  prsrvut_trace(env, result, "moveKey: calling prtkv_open_key(%s)\n", source_name.get());
  int32_t rc = prtkv_open_key(registry, &source, source_name.get());
  prsrvut_trace(env, result, "moveKey: prtkv_open_key retval = %d \n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "moveKey: Failure in opening the handle to the key [%s]\n", source_name.get());
    return finish();
  }
  prsrvut_trace(env, result, "moveKey: calling prtkv_open_key(%s)\n", parent_name.get());
  rc = prtkv_open_key(registry, &parent, parent_name.get());
  prsrvut_trace(env, result, "moveKey: prtkv_open_key retval = %d \n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "moveKey: Failure in opening the handle to the key [%s]\n", parent_name.get());
    return finish();
  }
  rc = prtkv_move_key(registry, source, parent, target_name.get(), &moved, flags);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "moveKey: Failure in prtkv_move_key[%d]\n", rc);
    return finish();
  }
  prsrvut_setStatus(env, result, 1);
  finish();
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_createKey(JNIEnv* env, jobject, jstring key_name, jint security_type,
                                                           jstring parent_key_name, jstring user_name,
                                                           jstring group_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  const prtkv_key parent = working_key();
  prsrvut_trace(env, result, "createKey: inside native function for createkey\n");
  if (registry == 0 || parent == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "createKey: NULL context or KEY_HANDLE PASSED\n");
    return;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr || name.get()[0] == '\0') {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "createKey: NULL or 0 length KEY NAME passed\n");
    name.keep();  // the characters of a refused name stay acquired
    return;
  }
  int32_t created = 0;
  prsrvut_trace(env, result, "createKey: prtkv_create_key([%s], %d)\n", name.get(), created);

  sec_attr security{};
  const int32_t filled =
      prsrvtkv_fill_sec_attr(env, result, security_type, parent_key_name, user_name, group_name, &security);
  if (filled != 1) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "failed to fill sec attr retval=%d", filled);
    name.keep();  // as do those of a key whose security cannot be determined
    return;
  }

  const bool one_step = group_is_session_group(security);
  prtkv_key key = 0;
  int32_t rc =
      prtkv_create_key(registry, parent, name.get(), &key, &created, one_step ? security : session_owned(security));
  prsrvut_trace(env, result, "createKey: prtkv_create_key retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "createKey: prtkv_create_key failed for key [%s]\n", name.get());
    name.release();
    return;
  }
  if (!one_step) {
    rc = prtkv_set_key_security(registry, key, security);
    prsrvut_trace(env, result, "createKey: prtkv_set_key_security for key [%s], rc=%d\n", name.get(), rc);
    if (rc != 0) {
      // The key stays, owned by the session: nothing is undone.
      report_tkv_error(env, result, rc);
      prsrvut_trace(env, result, "createKey: prtkv_set_key_security failed for key [%s]\n", name.get());
      prtkv_close_key(registry, key);
      name.release();
      return;
    }
  }
  rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "createKey: prtkv_close_key retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "createKey: prtkv_close_key failed \n");
    name.keep();  // and those of a key that could not be closed
    return;
  }
  prsrvut_setStatus(env, result, 1);
  name.release();
}

// ---------------------------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------------------------

jstring Java_velmar_qen_mgmt_nativesystem_TKVNative_getKeyValue(JNIEnv* env, jobject, jstring key_name,
                                                                jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getKeyValue: NULL context PASSED");
    return nullptr;
  }
  const lpm_ctx memory = tkvwrap_ctx->mem_ctx;
  char first_buffer[kSingleValueSize + 1] = {};
  Utf8Chars name(env, key_name);
  prtkv_key key = 0;
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "getKeyValue: prtkv_open_key retval = %d\n", rc);
  if (rc == PRTKV_NO_SUCH_KEY) {
    prsrvut_setStatus(env, result, 1);
    name.release();
    return nullptr;
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getKeyValue: prtkv_open_key faild for key [%s]\n", name.get());
    name.release();
    return nullptr;
  }

  char* enlarged_buffer = nullptr;
  uint32_t capacity = kSingleValueSize;
  uint32_t size = capacity;
  int32_t type = PRTKV_TYPE_TEXT;
  rc = prtkv_get_value(registry, key, &type, first_buffer, &size);
  prsrvut_trace(env, result, "getKeyValue: prtkv_get_value retval = %d, size = %d\n", rc, size);
  if (rc == PRTKV_BUFFER_TOO_SMALL) {
    enlarged_buffer = allocate_for_value(memory, size);
    if (enlarged_buffer == nullptr) {
      prsrvut_trace(env, result, "getKeyValue: memory allocation failed");
    } else {
      capacity = size;
      rc = prtkv_get_value(registry, key, &type, enlarged_buffer, &size);
      prsrvut_trace(env, result, "getKeyValue: prtkv_get_value retval = %d, size = %d\n", rc, size);
    }
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getKeyValue: prtkv_get_value failed for the key [%s]\n", name.get());
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;  // an enlarged buffer stays with the session's memory context
  }

  jstring value = nullptr;
  if (size > 1) {  // a single byte is the terminator of an empty text
    char* const buffer = enlarged_buffer != nullptr ? enlarged_buffer : first_buffer;
    buffer[std::min(size, capacity)] = '\0';
    prsrvut_trace(env, result, "getKeyValue: value is [%s] dtype = %d\n", buffer, type);
    value = prsrvut_NewStringUTF(env, buffer);
  }
  if (enlarged_buffer != nullptr) prou_freem(memory, enlarged_buffer);
  prtkv_close_key(registry, key);
  name.release();
  prsrvut_setStatus(env, result, 1);
  return value;
}

// A list is stored as its texts, each followed by a NUL, and one more NUL. `value` has a NUL after its `size` bytes, so
// that each of its texts can be printed.
namespace {

// Two consecutive NULs end a list. The first byte has none before it.
bool list_ends_at(const char* value, uint32_t position) {
  return value[position] == '\0' && position > 0 && value[position - 1] == '\0';
}

const char* text_at(const char* value, uint32_t size, uint32_t position) {
  return position <= size ? value + position : "";
}

// Counts the terminators plus one, so that a list of n texts has n + 1 slots, of which the last stays null.
int32_t count_elements(JNIEnv* env, jobject result, const char* value, uint32_t size) {
  int32_t count = 1;
  for (uint32_t j = 0; j < size - 1; ++j) {
    prsrvut_trace(env, result, "getKeyValues: before j=%d elemcount=%d itmp=%s\n", j, count, value + j);
    if (list_ends_at(value, j)) break;
    if (value[j] == '\0') ++count;
    prsrvut_trace(env, result, "getKeyValues: after j=%d elemcount=%d itmp=%s\n", j + 1, count, value + j + 1);
  }
  return count;
}

// If the character set has characters of several bytes, the character-set services measure the text.
uint32_t source_length(const char* text) {
  uint32_t flags = 0;
  std::memcpy(&flags, static_cast<const char*>(tkvwrap_ctx->lang_env) + offsetof(lx_lang_env, flags), sizeof(flags));
  return (flags & LX_LANG_ENV_MULTIBYTE) != 0 ? lxsulen(text) : static_cast<uint32_t>(std::strlen(text));
}

}  // namespace

// Creates a managed string from a text in the session's character set. Returns null if it cannot be converted.
static jstring prsrvtkv_stringMultiByteToJava(JNIEnv* env, const char* text) {
  void* const handle = tkvwrap_ctx->lx_handle;
  const lpm_ctx memory = tkvwrap_ctx->mem_ctx;

  void* charset = lxhci2h(tkvwrap_ctx->charset_id, handle);
  uint32_t length = source_length(text);
  const int32_t needed = lxgt2u(nullptr, 0, text, charset, length, 0, handle);
  if (needed < 1) return nullptr;
  const auto capacity = static_cast<uint32_t>(needed) + 1;
  auto* const units = static_cast<jchar*>(prou_allocm(memory, capacity * sizeof(jchar)));
  if (units == nullptr) return nullptr;

  charset = lxhci2h(tkvwrap_ctx->charset_id, handle);
  length = source_length(text);
  const int32_t converted = std::min(needed, lxgt2u(units, capacity, text, charset, length, 0, handle));
  if (converted < 1) {
    prou_freem(memory, units);
    return nullptr;
  }
  units[converted] = 0;
  const jstring string = prsrvut_NewString(env, units, converted);
  prou_freem(memory, units);
  return string;
}

jobjectArray Java_velmar_qen_mgmt_nativesystem_TKVNative_getKeyValues(JNIEnv* env, jobject, jstring key_name,
                                                                      jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getKeyValues: NULL context PASSED");
    return nullptr;
  }
  const lpm_ctx memory = tkvwrap_ctx->mem_ctx;
  char first_buffer[kListValueSize + 1] = {};
  Utf8Chars name(env, key_name);
  prtkv_key key = 0;
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "getKeyValues: open_key retval = %d\n", rc);
  if (rc == PRTKV_NO_SUCH_KEY) {
    prsrvut_trace(env, result, "getKeyValues: key [%s] does not exist\n", name.get());
    prsrvut_setStatus(env, result, 1);
    name.release();
    return nullptr;
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getKeyValues: Failure in getting handle to the  key [%s] \n", name.get());
    name.release();
    return nullptr;
  }

  char* enlarged_buffer = nullptr;
  uint32_t capacity = kListValueSize;
  uint32_t size = capacity;
  int32_t type = PRTKV_TYPE_TEXT;
  rc = prtkv_get_value(registry, key, &type, first_buffer, &size);
  prsrvut_trace(env, result, "getKeyValues: prtkv_get_value retval = %d, dtype is %d size = %d\n", rc, type, size);
  if (rc == PRTKV_BUFFER_TOO_SMALL) {
    enlarged_buffer = allocate_for_value(memory, size);
    if (enlarged_buffer == nullptr) {
      prsrvut_trace(env, result, "getKeyValues: memory allocation failed");
    } else {
      capacity = size;
      rc = prtkv_get_value(registry, key, &type, enlarged_buffer, &size);
      prsrvut_trace(env, result, "getKeyValues: prtkv_get_value retval = %d, size = %d\n", rc, size);
    }
  }
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getKeyValues: Failure in getting the value for the key [%s]\n", name.get());
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;  // an enlarged buffer stays with the session's memory context
  }
  size = std::min(size, capacity);
  if (size == 0) {
    prsrvut_trace(env, result, "getKeyValues: key [%s] has NULL value\n", name.get());
    prsrvut_setStatus(env, result, 1);
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;
  }

  prsrvut_trace(env, result, "getKeyValues: returned dtype is %d\n", type);
  const jclass string_class = prsrvut_FindClass(env, "java/lang/String");
  char* const value = enlarged_buffer != nullptr ? enlarged_buffer : first_buffer;
  value[size] = '\0';
  const int32_t count = count_elements(env, result, value, size);
  const jobjectArray texts = prsrvut_NewObjectArray(env, count, string_class, nullptr);

  int32_t index = 0;
  for (uint32_t i = 0; index < count && i < size - 1; ++index) {
    if (list_ends_at(value, i)) break;
    const char* const text = value + i;
    const auto length = static_cast<uint32_t>(std::strlen(text));
    auto* const element = static_cast<char*>(prou_allocm(memory, length + 1));
    if (element == nullptr) {
      // Out of memory, the method returns at once: the key stays open, and the characters of its name stay acquired.
      prsrvut_trace(env, result, "getKeyValues: memory allocation failed");
      name.keep();
      return nullptr;
    }
    std::memcpy(element, text, length + 1);
    prsrvut_trace(env, result, "getKeyValues: before i=%d tmp=%s\n", i, text);
    i += length + 1;
    prsrvut_trace(env, result, "getKeyValues: after i=%d tmp=%s value[%d]=[%s] value_len=%d\n", i,
                  text_at(value, size, i), index, element, length);
    const jstring string = prsrvtkv_stringMultiByteToJava(env, element);
    if (string == nullptr) {
      // A text that cannot be converted makes the list unreadable, which is not a failure of the registry.
      prsrvut_trace(env, result, "getKeyValues: failure during java string conversion for value[%d]=[%s]\n", index,
                    element);
      prsrvut_setStatus(env, result, 1);
      prtkv_close_key(registry, key);
      name.release();
      return nullptr;
    }
    set_element(env, texts, index, string);
    prou_freem(memory, element);
  }
  prsrvut_trace(env, result, "getKeyValues: count=%d\n", index);
  if (enlarged_buffer != nullptr) prou_freem(memory, enlarged_buffer);
  rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "getKeyValues: prtkv_close_key retval = %d\n", rc);
  name.release();
  prsrvut_setStatus(env, result, 1);
  return texts;
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_setKeyValue(JNIEnv* env, jobject self, jstring key_name, jstring value,
                                                             jint security_type, jstring parent_key_name,
                                                             jstring user_name, jstring group_name, jobject result) {
  Java_velmar_qen_mgmt_nativesystem_TKVNative_setTypeKeyValue(
      env, self, key_name, value, PRTKV_TYPE_TEXT, security_type, parent_key_name, user_name, group_name, result);
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_setTypeKeyValue(JNIEnv* env, jobject, jstring key_name, jstring value,
                                                                 jint data_type, jint security_type,
                                                                 jstring parent_key_name, jstring user_name,
                                                                 jstring group_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  const prtkv_key parent = working_key();
  if (registry == 0 || parent == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "setTypeKeyValue: NULL context detected");
    return;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "setTypeKeyValue: NULL KEY NAME PASSED");
    return;
  }
  Utf8Chars text(env, value);
  prtkv_key key = 0;
  const auto finish_failed = [&] {
    close_held(registry, key);
    name.release();
    text.release();
  };
  const auto finish = [&] {
    const int32_t close_rc = key != 0 ? prtkv_close_key(registry, key) : 0;
    name.release();
    text.release();
    if (close_rc != 0) return report_tkv_error(env, result, close_rc);
    prsrvut_setStatus(env, result, 1);
  };

  int32_t created = 0;
  prsrvut_trace(env, result, "setTypeKeyValue: ([%s], %d)\n", name.get(), created);
  const StoredValue stored(data_type, text.get());
  prsrvut_trace(env, result, "setTypeKeyValue: (%d, %s, %d)\n", stored.type(), text.get(), stored.size());
  prsrvut_trace(env, result, "setTypeKeyValue: key_name = %s\n", name.get());

  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "setTypeKeyValue: prtkv_open_key retval= %d\n", rc);
  if (rc == 0) {
    rc = prtkv_set_value(registry, key, stored.type(), stored.bytes(), stored.size());
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      prsrvut_trace(env, result, "setKeyValue: prtkv_set_value retval = %d\n", rc);
      return finish_failed();
    }
    return finish();
  }

  // If the key cannot be opened, for whatever reason, it is created.
  sec_attr security{};
  const int32_t filled =
      prsrvtkv_fill_sec_attr(env, result, security_type, parent_key_name, user_name, group_name, &security);
  if (filled != 1) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "failed to fill sec attr retval=%d", filled);
    // A name that cannot be converted has been reported; the status becomes true all the same.
    return filled == 0 ? finish() : finish_failed();
  }
  const bool one_step = group_is_session_group(security);
  rc = prtkv_create_n_set_key(registry, parent, name.get(), &key, &created, stored.type(),
                              one_step ? security : session_owned(security), stored.bytes(), stored.size());
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "setTypeKeyValue: Failure in creating the key [%s] \n", name.get());
    return finish_failed();
  }
  if (!one_step) {
    rc = prtkv_set_key_security(registry, key, security);
    prsrvut_trace(env, result, "setTypeKeyValue: prtkv_set_key_security for key [%s], rc=%d\n", name.get(), rc);
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      return finish_failed();
    }
  }
  finish();
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_setKeyValues(JNIEnv* env, jobject, jstring key_name,
                                                              jobjectArray values, jint security_type,
                                                              jstring parent_key_name, jstring user_name,
                                                              jstring group_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  const prtkv_key parent = working_key();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "setKeyValues: NULL context");
    return;
  }
  char value_list[kListValueSize] = {};
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "setKeyValues: NULL key name passed");
    return;
  }
  if (values == nullptr) {
    report_error(env, result, "TKV_VALUE_LIST_INVALID");
    name.release();
    return;
  }
  const jsize count = env->GetArrayLength(values);
  prsrvut_trace(env, result, "setKeyValues: input number of values = %d\n", count);
  // Both lines show the list while it is still empty.
  char* cursor = value_list;
  prsrvut_trace(env, result, "setKeyValues: value_list = [%s]\n", value_list);
  prsrvut_trace(env, result, "setKeyValues: tmp = [%s]\n", cursor);

  int32_t total = 0;
  for (jsize i = 0; i < count; ++i) {
    Utf8Chars text(env, static_cast<jstring>(env->GetObjectArrayElement(values, i)));
    if (text.get() == nullptr) {
      report_error(env, result, "TKV_VALUE_LIST_INVALID");
      name.release();
      return;
    }
    const std::size_t length = std::strlen(text.get());
    prsrvut_trace(env, result, "setKeyValues: input key_value[%d] = [%s],  length = %d\n", i, text.get(),
                  static_cast<int>(length));
    // Room for the text, its NUL and the NUL that ends the list.
    if (length + 2 > kListValueSize - static_cast<uint32_t>(total)) {
      text.release();
      report_error(env, result, "TKV_VALUE_LIST_TOO_LONG");
      name.release();
      return;
    }
    std::memcpy(cursor, text.get(), length);
    text.release();
    cursor[length] = '\0';
    cursor += length + 1;
    total += static_cast<int32_t>(length + 1);
  }
  if (count > 0) {
    *cursor = '\0';
    total += 1;
  }

  int32_t created = 0;
  prsrvut_trace(env, result, "setKeyValues: prtkv_set_values(%d, %d)\n", PRTKV_TYPE_LIST, total);
  prsrvut_trace(env, result, "setKeyValues: prtkv_create_n_set_key(%s, %d)\n", name.get(), created);
  prsrvut_trace(env, result, "setKeyValues: key_name = %s\n", name.get());
  prtkv_key key = 0;
  const auto finish_failed = [&] {
    close_held(registry, key);
    name.release();
  };
  const auto finish = [&] {
    const int32_t close_rc = key != 0 ? prtkv_close_key(registry, key) : 0;
    name.release();
    if (close_rc != 0) return report_tkv_error(env, result, close_rc);
    prsrvut_setStatus(env, result, 1);
  };

  const auto size = static_cast<uint32_t>(total);
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "setTypeKeyValues: prtkv_open_key retval= %d\n", rc);
  if (rc == 0) {
    rc = prtkv_set_value(registry, key, PRTKV_TYPE_LIST, value_list, size);
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      prsrvut_trace(env, result, "setKeyValue: prtkv_set_value retval = %d\n", rc);
      return finish_failed();
    }
    return finish();
  }

  sec_attr security{};
  const int32_t filled =
      prsrvtkv_fill_sec_attr(env, result, security_type, parent_key_name, user_name, group_name, &security);
  if (filled != 1) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "failed to fill sec attr retval=%d", filled);
    return filled == 0 ? finish() : finish_failed();  // as setTypeKeyValue: true after a name without conversion
  }
  const bool one_step = group_is_session_group(security);
  rc = prtkv_create_n_set_key(registry, parent, name.get(), &key, &created, PRTKV_TYPE_LIST,
                              one_step ? security : session_owned(security), value_list, size);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "setKeyValues: prtkv_create_n_set_key failed in creating the key [%s], retval=%d\n",
                  name.get(), rc);
    return finish_failed();
  }
  if (!one_step) {
    rc = prtkv_set_key_security(registry, key, security);
    prsrvut_trace(env, result, "setKeyValues: prtkv_set_key_security for key [%s], rc=%d\n", name.get(), rc);
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      return finish_failed();
    }
  }
  finish();
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_createAndSetKeyValue(JNIEnv* env, jobject, jstring key_name,
                                                                      jstring value, jint data_type, jint security_type,
                                                                      jstring parent_key_name, jstring user_name,
                                                                      jstring group_name, jobject result) {
  const prtkv_ctx registry = registry_context();
  const prtkv_key parent = working_key();
  if (registry == 0 || parent == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "createAndSetKeyValue: NULL context detected");
    return;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "createAndSetKeyValue: NULL key name passed");
    return;
  }
  Utf8Chars text(env, value);
  prtkv_key key = 0;
  int32_t rc = -1;
  const auto finish_failed = [&] {
    prsrvut_trace(env, result, "createAndSetKeyValue: cleanup, rc=%d\n", rc);
    close_held(registry, key);
    name.release();
    text.release();
    if (rc == PRTKV_KEY_EXISTS) report_error(env, result, "TKV_KEY_ALREADY_EXISTS");
  };
  const auto finish = [&] {
    prsrvut_trace(env, result, "createAndSetKeyValue: cleanup, rc=%d\n", rc);
    const int32_t close_rc = key != 0 ? prtkv_close_key(registry, key) : 0;
    name.release();
    text.release();
    if (close_rc != 0) return report_tkv_error(env, result, close_rc);
    prsrvut_setStatus(env, result, 1);
  };

  prsrvut_trace(env, result, "createAndSetKeyValue: ([%s], %s)\n", name.get(), text.get());
  const StoredValue stored(data_type, text.get());
  prsrvut_trace(env, result, "createAndSetKeyValue: (%d, %d)\n", stored.type(), stored.size());

  sec_attr security{};
  const int32_t filled =
      prsrvtkv_fill_sec_attr(env, result, security_type, parent_key_name, user_name, group_name, &security);
  if (filled != 1) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "Failed to fill sec attr retval=%d", filled);
    return finish_failed();
  }

  int32_t created = 0;
  const bool one_step = group_is_session_group(security);
  if (one_step) prsrvut_trace(env, result, "prsr_group_name same as sec_attr.group_name\n");
  rc = prtkv_create_n_set_key_ext(registry, nullptr, parent, name.get(), &key, &created,
                                  one_step ? security : session_owned(security), stored.type(), stored.bytes(),
                                  stored.size(), PRTKV_CREATE_EXT_FLAGS);
  prsrvut_trace(env, result, "createAndSetKeyValue: prtkv_create_n_set_key_ext, rc=%d\n", rc);
  if (rc == PRTKV_KEY_EXISTS) return finish_failed();  // reports it with a text of its own
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    return finish_failed();
  }
  if (!one_step) {
    // The requested record is applied to the working key, not to the new one: the extended call secures the place where
    // keys are created.
    rc = prtkv_set_key_security_ext(registry, nullptr, parent, PRTKV_SECURITY_EXT_FLAGS, security);
    prsrvut_trace(env, result, "createAndSetKeyValue: prtkv_set_key_security_ext for key [%s], rc=%d\n", name.get(),
                  rc);
    if (rc != 0) {
      report_tkv_error(env, result, rc);
      return finish_failed();
    }
  }
  finish();
}

// ---------------------------------------------------------------------------------------------------------------
// Security
// ---------------------------------------------------------------------------------------------------------------

namespace {

// The results of prsrvtkv_fill_sec_attr. Its callers go on only after kFilled.
enum : int32_t {
  kNameNotConverted = 0,
  kFilled = 1,
  kParentNotRead = 2,
  kNameMissing = 4,
  kNameTooLong = 5,
  kUnknownSecurityType = 6
};

constexpr int32_t kAllRights = TKV_RIGHT_ALL;                                            // 0x3f
constexpr int32_t kGroupRights = TKV_RIGHT_WRITE | TKV_RIGHT_CREATE | TKV_RIGHT_DELETE;  // 0x34
constexpr int32_t kOtherRights = TKV_RIGHT_READ | TKV_RIGHT_LIST;                        // 0x3

void set_rights(sec_attr* security, int32_t user, int32_t group, int32_t other) {
  security->user_perm = user;
  security->group_perm = group;
  security->other_perm = other;
}

}  // namespace

// Determines the owner, the group and the rights of a key from a security type and its arguments. `security` must be
// zero-filled, since some types leave a name unset. Every failure except an unknown type has been reported on return,
// and the caller reports it once more.
static int32_t prsrvtkv_fill_sec_attr(JNIEnv* env, jobject result, jint security_type, jstring parent_keyname,
                                      jstring velmar_user, jstring group_name, sec_attr* security) {
  const prtkv_ctx registry = registry_context();
  prsrvut_trace(env, result, "fill_sec_attr: secType = %d", security_type);
  const bool known = security_type >= 1 && security_type <= 6;
  if (!known) return kUnknownSecurityType;
  const bool parent_required = security_type != 1 && security_type != 5;
  Utf8Chars parent_name(env, parent_required ? parent_keyname : nullptr);
  if (parent_required && parent_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "fill_sec_attr: parent key name null");
    return kNameMissing;
  }
  prtkv_key parent = 0;
  const auto finish = [&](int32_t outcome) {
    close_held(registry, parent);
    parent_name.release();
    return outcome;
  };

  switch (security_type) {
    case 1:
      set_rights(security, kAllRights, kGroupRights, kOtherRights);
      break;
    case 2: {
      prsrvut_trace(env, result, "fill_sec_attr: secType = %d, parent_keyname = [%s]", security_type,
                    parent_name.get());
      int32_t rc = prtkv_open_key(registry, &parent, parent_name.get());
      if (rc != 0) {
        report_tkv_error(env, result, rc);
        prsrvut_trace(env, result, "fill_sec_attr: could not open key=[%s], rc=[%d]", parent_name.get(), rc);
        return finish(kParentNotRead);
      }
      rc = prtkv_get_key_security(registry, parent, security);
      if (rc != 0) {
        report_tkv_error(env, result, rc);
        prsrvut_trace(env, result, "fill_sec_attr: could not get security, retval=%d", rc);
        return finish(kParentNotRead);
      }
      replace_name(security->user_name, tkvwrap_ctx->user_name);
      if (security->other_perm == kAllRights) security->other_perm = kOtherRights;
      break;
    }
    case 5:
      set_rights(security, kAllRights, kAllRights, kAllRights);
      break;
    default:  // 3, 4 and 6 differ only for the copy
      copy_name(security->user_name, tkvwrap_ctx->user_name);
      copy_name(security->group_name, tkvwrap_ctx->group_name);
      set_rights(security, kAllRights, kAllRights, kOtherRights);
      break;
  }

  // The length that the conversion returns is compared with the width of the name fields. The buffers have room for a
  // NUL after a name that fills its field.
  char native_user[TKV_NAME_SIZE + 1] = {};
  char native_group[TKV_NAME_SIZE + 1] = {};
  int length = TKV_NAME_SIZE;
  if (velmar_user != nullptr) {
    const int rc = prsrvut_getNativeString(env, velmar_user, native_user, &length);
    prsrvut_trace(env, result, "fill_sec_attr: native user name=%s rc=%d", native_user, rc);
    if (rc < 0) {
      report_tkv_error(env, result, 0);
      return finish(kNameNotConverted);
    }
  }
  if (native_user[0] == '\0') {
    if (security_type == 1) {
      report_tkv_error(env, result, 0);
      prsrvut_trace(env, result, "fill_sec_attr: velmar user name found was null");
      return finish(kNameMissing);
    }
  } else {
    prsrvut_trace(env, result, "fill_sec_attr: secType = %d, velmar_user = [%s]", security_type, native_user);
    if (length > TKV_NAME_SIZE) {
      report_tkv_error(env, result, 0);
      return finish(kNameTooLong);
    }
    replace_name(security->user_name, native_user);
  }

  length = TKV_NAME_SIZE;
  if (group_name != nullptr) {
    const int rc = prsrvut_getNativeString(env, group_name, native_group, &length);
    prsrvut_trace(env, result, "fill_sec_attr: native group name=%s rc=%d", native_group, rc);
    if (rc < 0) {
      report_tkv_error(env, result, 0);
      return finish(kNameNotConverted);
    }
  }
  if (native_group[0] == '\0') {
    prsrvut_trace(env, result, "fill_sec_attr: group name passed was null");
  } else {
    prsrvut_trace(env, result, "fill_sec_attr: secType = %d, group_name = [%s]", security_type, native_group);
    if (length > TKV_NAME_SIZE) {
      report_tkv_error(env, result, 0);
      return finish(kNameTooLong);
    }
    replace_name(security->group_name, native_group);
  }
  return finish(kFilled);
}

jstring Java_velmar_qen_mgmt_nativesystem_TKVNative_getUserName(JNIEnv* env, jobject, jstring key_name,
                                                                jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getUserName: NULL context");
    return nullptr;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getUserName: KEY PASSED is NULL");
    return nullptr;
  }
  prtkv_key key = 0;
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "getUseName: prtkv_open_key retval = %d\n",
                rc);  // spelled like this here and at the close
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getUserName: prtkv_open_key faild for the key [%s] \n", name.get());
    name.release();
    return nullptr;
  }
  sec_attr security{};
  rc = prtkv_get_key_security(registry, key, &security);
  prsrvut_trace(env, result, "getUserName: prtkv_get_key_security retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getUserName: prtkv_get_key_security failed for the key [%s]\n", name.get());
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;
  }
  jstring owner = nullptr;
  if (security.user_name[0] != '\0') {
    const NameText user(security.user_name);
    prsrvut_trace(env, result, "getUserName: username = [%s]\n", user.text);
    owner = prsrvut_NewStringUTF(env, user.text);
  }
  rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "getUseName: prtkv_close_key retval = %d\n", rc);
  name.release();
  prsrvut_setStatus(env, result, 1);
  return owner;
}

jstring Java_velmar_qen_mgmt_nativesystem_TKVNative_getGroupName(JNIEnv* env, jobject, jstring key_name,
                                                                 jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getGroupName: NULL context");
    return nullptr;
  }
  Utf8Chars name(env, key_name);
  if (name.get() == nullptr) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getGroupName: KEY PASSED is NULL");
    return nullptr;
  }
  prtkv_key key = 0;
  int32_t rc = prtkv_open_key(registry, &key, name.get());
  prsrvut_trace(env, result, "getGroupName: prtkv_open_key retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getGroupName: prtkv_open_key faild for the key [%s] \n", name.get());
    name.release();
    return nullptr;
  }
  sec_attr security{};
  rc = prtkv_get_key_security(registry, key, &security);
  prsrvut_trace(env, result, "getGroupName: prtkv_get_key_security retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "getGroupName: prtkv_get_key_security failed for the key [%s]\n", name.get());
    prtkv_close_key(registry, key);
    name.release();
    return nullptr;
  }
  jstring owner = nullptr;
  if (security.group_name[0] != '\0') {
    const NameText group(security.group_name);
    prsrvut_trace(env, result, "getGroupName: groupname = [%s]\n", group.text);
    owner = prsrvut_NewStringUTF(env, group.text);
  }
  rc = prtkv_close_key(registry, key);
  prsrvut_trace(env, result, "getGroupName: prtkv_close_key retval = %d\n", rc);
  name.release();
  prsrvut_setStatus(env, result, 1);
  return owner;
}

// ---------------------------------------------------------------------------------------------------------------
// Subtree copy
// ---------------------------------------------------------------------------------------------------------------

// Adjusts the record for the top key of a copy. Types 3 and 4 set the session's user and group, type 2 the session's
// user; any other type leaves those of the source. The rights are always those of the source.
static inline void prsrvtkv_recurse_fill_sec_attr(JNIEnv* env, jobject result, jint security_type, sec_attr* security) {
  prsrvut_trace(env, result, "recurse_fill_sec_attr: secType = %d", security_type);
  if (security_type == 3 || security_type == 4) {
    replace_name(security->user_name, tkvwrap_ctx->user_name);
    replace_name(security->group_name, tkvwrap_ctx->group_name);
  } else if (security_type == 2) {
    replace_name(security->user_name, tkvwrap_ctx->user_name);
  }
}

namespace {

// Room for the longest full name that can be opened and one more level.
constexpr size_t kDestinationNameSize = PRTKV_FULL_NAME_SIZE + PRTKV_SUBKEY_NAME_SIZE;

// The buffers of one level of a copy. They take more than 3 KB, so they are on the heap: a thread with a small stack
// can copy a tree of the registry's full depth.
struct CopyLevel {
  char subkey[kSubkeyNameSize + 1];
  char child_source_name[kSubkeyNameSize + 1];
  char child_destination_name[kDestinationNameSize];
  char value[kCopiedValueSize + 1];
  sec_attr security;
};

struct Free {
  void operator()(void* block) const { std::free(block); }
};

// report_tkv_error with its buffer in a stack frame of its own, which is gone before the copy descends.
[[gnu::noinline]] void report_copy_failure(JNIEnv* env, jobject result, int32_t code) {
  report_tkv_error(env, result, code);
}

// Creates the copy of one key. The records that it passes by value are in a stack frame of its own, too.
[[gnu::noinline]] int32_t create_copied_key(prtkv_ctx registry, prtkv_key destination, const CopyLevel& level,
                                            bool one_step, int32_t type, uint32_t value_size, prtkv_key* copy) {
  int32_t created = 0;
  return prtkv_create_n_set_key(registry, destination, level.subkey, copy, &created, type,
                                one_step ? level.security : session_owned(level.security), level.value, value_size);
}

// Writes "parent.name", truncated to fit.
void join_names(char* to, size_t capacity, const char* parent, const char* name) {
  const size_t parent_length = std::min(std::strlen(parent), capacity - 1);
  char* const separator = std::copy_n(parent, parent_length, to);
  static_cast<void>(std::snprintf(separator, capacity - parent_length, ".%s", name));
}

}  // namespace

// Copies everything below `source_name` to below `destination_name`, depth first. Returns 1 if everything was copied,
// or 0 after a failure, which has been reported; what was copied by then stays. The keys that a pass of the loop opens
// are not closed when the next one begins; they stay open until the session ends.
static int prsrvtkv_copy_recurse(JNIEnv* env, const char* source_name, const char* destination_name, int security_type,
                                 jobject result) {
  prtkv_key source = 0;
  prtkv_key destination = 0;
  prtkv_key child_source = 0;
  prtkv_key child = 0;
  int32_t remaining = -1;
  int32_t remaining_unread = 0;
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_copy_failure(env, result, 0);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse: NULL context passed");
    return 0;
  }
  int32_t rc = prtkv_open_key(registry, &source, source_name);
  if (rc != 0) {
    report_copy_failure(env, result, rc);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse: source key does not exist");
    return 0;
  }
  rc = prtkv_open_key(registry, &destination, destination_name);
  if (rc != 0) {
    report_copy_failure(env, result, rc);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse: dest key does not exist");
    prtkv_close_key(registry, source);
    return 0;
  }
  const auto close_level = [&] {
    prtkv_close_key(registry, source);
    prtkv_close_key(registry, destination);
  };

  prsrvut_trace(env, result, "\nprsrvtkv_copy_recurse: srckeyname = %s", source_name);
  const std::unique_ptr<CopyLevel, Free> level(static_cast<CopyLevel*>(std::calloc(1, sizeof(CopyLevel))));
  if (level == nullptr) {
    report_copy_failure(env, result, 0);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse: NOT ENOUGH MEMORY");
    close_level();
    return 0;
  }
  char(&subkey)[kSubkeyNameSize + 1] = level->subkey;
  const char* const child_source_name = level->child_source_name;
  uint32_t subkey_size = kSubkeyNameSize;
  rc = prtkv_enum_subkey(registry, source, subkey, &subkey_size, &remaining);
  if (rc == PRTKV_NO_MORE_SUBKEYS) {
    prsrvut_setStatus(env, result, 1);
    close_level();
    return 1;
  }
  if (rc != 0) {
    report_copy_failure(env, result, rc);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse:prtkv_enum_subkey, retval=%d", rc);
    close_level();
    return 0;
  }
  prsrvut_trace(env, result, "\nprsrvtkv_copy_recurse: srckeyname = %s out_subkey = %s, total_remaining_subkey = %d",
                source_name, subkey, remaining);
  if (remaining < 0) return 1;  // the registry reports no counts: nothing is copied, and both keys stay open

  for (uint32_t i = 0; i <= static_cast<uint32_t>(remaining); ++i) {
    // The buffer can hold any name that passes: 264 bytes of names, the "." between them and the NUL.
    if (std::strlen(source_name) + std::strlen(subkey) >= kSubkeyNameSize) {
      report_copy_failure(env, result, 0);
      prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse: SUBKEY NAME TOO BIG");
      close_level();
      return 0;
    }
    join_names(level->child_source_name, sizeof(level->child_source_name), source_name, subkey);
    prsrvut_trace(env, result, "prsrvtkv_copy_recurse: SUBKEY NAME = %s", child_source_name);
    rc = prtkv_open_key(registry, &child_source, child_source_name);
    if (rc != 0) {
      report_copy_failure(env, result, rc);
      prsrvut_trace(env, result, "prsrvtkv_copy_recurse: : i = %d %s %d", static_cast<int>(i), subkey, rc);
      close_level();
      return 0;
    }
    std::memset(&level->security, 0, sizeof(level->security));
    rc = prtkv_get_key_security(registry, child_source, &level->security);
    if (rc != 0) {
      report_copy_failure(env, result, rc);
      prtkv_close_key(registry, child_source);
      close_level();
      return 0;
    }
    uint32_t value_size = kCopiedValueSize;
    int32_t type = PRTKV_TYPE_NONE;
    rc = prtkv_get_value(registry, child_source, &type, level->value, &value_size);
    if (rc != 0) {
      report_copy_failure(env, result, rc);
      prtkv_close_key(registry, child_source);
      close_level();
      return 0;
    }
    prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse:value of the src key %s is %s", child_source_name,
                  level->value);
    prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse:trying to create and set new key %s", subkey);

    const bool one_step = group_is_session_group(level->security);
    rc = create_copied_key(registry, destination, *level, one_step, type, value_size, &child);
    if (rc != 0) {
      report_copy_failure(env, result, rc);
      prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse:failed to create  and set new key %s %d", subkey, rc);
      close_level();
      return 0;
    }
    if (!one_step) {
      rc = prtkv_set_key_security(registry, child, level->security);
      prsrvut_trace(env, result, "prsrvtkv_copy_recurse: prtkv_set_key_security for key [%s], rc=%d\n", subkey, rc);
      if (rc != 0) {
        report_copy_failure(env, result, rc);
        prsrvut_trace(env, result, "prsrvtkv_copy_recurse: prtkv_set_key_security failed for key [%s]\n", subkey);
        prtkv_close_key(registry, child);
        prtkv_close_key(registry, destination);
        prtkv_close_key(registry, source);
        return 0;
      }
    }

    join_names(level->child_destination_name, sizeof(level->child_destination_name), destination_name, subkey);
    prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse: Making recursive CALL");
    if (prsrvtkv_copy_recurse(env, child_source_name, level->child_destination_name, security_type, result) == 0) {
      report_copy_failure(env, result, 0);
      return 0;
    }

    std::memset(subkey, 0, sizeof(subkey));
    std::memset(level->value, 0, sizeof(level->value));
    subkey_size = kSubkeyNameSize;
    rc = prtkv_enum_subkey(registry, source, subkey, &subkey_size, &remaining_unread);
    if (rc == PRTKV_NO_MORE_SUBKEYS) break;
    if (rc != 0) {
      report_copy_failure(env, result, rc);
      prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse:ERROR in enum call %d", rc);
      close_level();
      prtkv_close_key(registry, child);
      return 0;
    }
  }
  close_level();
  prtkv_close_key(registry, child);
  prsrvut_trace(env, result, "\n prsrvtkv_copy_recurse: Closed handles..returning srckey = %s", source_name);
  return 1;
}

void Java_velmar_qen_mgmt_nativesystem_TKVNative_copyRecurse(JNIEnv* env, jobject, jstring source_key,
                                                             jstring destination_key, jint security_type,
                                                             jobject result) {
  prtkv_key source = 0;
  prtkv_key destination = 0;
  uint32_t value_size = kCopiedValueSize;
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "copyRecurse: NULL context");
    return;
  }
  Utf8Chars source_name(env, source_key);
  if (source_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "copyRecurse:NULL source key");
    return;
  }
  prsrvut_trace(env, result, "copyRecurse: calling prtkv_open_key(%s)\n", source_name.get());
  int32_t rc = prtkv_open_key(registry, &source, source_name.get());
  prsrvut_trace(env, result, "copyRecurse: prtkv_open_key retval = %d \n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "copyRecurse: Failure in opening the handle to the key [%s]\n", source_name.get());
    close_held(registry, source);
    source_name.release();
    return;
  }

  Utf8Chars destination_name(env, destination_key);
  // An outcome of 0 sets the status to true, even if a failure has been reported before: callers recognize that by the
  // code or text that they also received.
  const auto finish = [&](int32_t outcome) {
    close_held(registry, source);
    close_held(registry, destination);
    source_name.release();
    destination_name.release();
    if (outcome == 0) prsrvut_setStatus(env, result, 1);
  };
  if (destination_name.get() == nullptr) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "copyRecurse:NULL destkey");
    return finish(0);
  }
  prsrvut_trace(env, result, "copyRecurse: calling prtkv_open_key(%s)\n", destination_name.get());
  rc = prtkv_open_key(registry, &destination, destination_name.get());
  prsrvut_trace(env, result, "copyRecurse: prtkv_open_key retval = %d \n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "copyRecurse: Failure in opening the handle to the key [%s]\n", destination_name.get());
    return finish(rc);
  }

  char value[kCopiedValueSize + 1] = {};
  int32_t type = PRTKV_TYPE_NONE;
  rc = prtkv_get_value(registry, source, &type, value, &value_size);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    return finish(rc);
  }
  prsrvut_trace(env, result, "copyRecurse: The value for the key srckey= %s val= %s dtype = %d\n", source_name.get(),
                value, type);
  rc = prtkv_set_value(registry, destination, type, value, value_size);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    return finish(rc);
  }
  prsrvut_trace(env, result,
                "copyRecurse: successfully set the value for the dest  key: %s = %s val_size = %d, retval = %d",
                destination_name.get(), value, value_size, rc);
  sec_attr security{};
  rc = prtkv_get_key_security(registry, source, &security);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    return finish(rc);
  }

  if (prsrvtkv_copy_recurse(env, source_name.get(), destination_name.get(), security_type, result) == 0) {
    report_tkv_error(env, result, 0);
    prsrvut_trace(env, result, "copyRecurse: Failure in copying");
    return finish(0);
  }
  prsrvtkv_recurse_fill_sec_attr(env, result, security_type, &security);
  rc = prtkv_set_key_security(registry, destination, security);
  prsrvut_trace(env, result, "copyRecurse: prtkv_set_key_security for key [%s], rc=%d\n", destination_name.get(), rc);
  finish(rc);  // a failure of this last step appears only in the trace
}

// ---------------------------------------------------------------------------------------------------------------
// Cluster
// ---------------------------------------------------------------------------------------------------------------

void Java_velmar_qen_mgmt_nativesystem_TKVNative_isCluster(JNIEnv* env, jobject, jobject result) {
  int32_t configuration = CLS_CONFIGURATION_SINGLE;
  const lpm_ctx manager = lpmprinit();
  const int32_t rc = clsugetconf(manager, 0, &configuration);
  lpmprterm(manager);
  if (prsrvut_isDebugOn(env, result)) prsrvut_trace(env, result, "JNI: clsugetconf retValue = %d", rc);
  if (rc != 0) {
    // Sends only the text. Without a status and an answer, callers treat the membership as unknown.
    if (prsrvut_isDebugOn(env, result)) {
      prsrvut_trace(env, result, "JNI: clsugetconf failed with error code = %d\n", rc);
    }
    send_result_text(env, result, "JNI: clsugetconf failed");
    return;
  }
  prsrvut_setStatus(env, result, 1);
  if (configuration != CLS_CONFIGURATION_CLUSTER) {
    prsrvut_setBooleanResult(env, result, 0);
    return;
  }
  if (prsrvut_isDebugOn(env, result)) prsrvut_trace(env, result, "Velmar Cluster is configured");
  prsrvut_setBooleanResult(env, result, 1);
}

namespace {

void trace_get_conf_failure(JNIEnv* env, jobject result, int32_t rc) {
  switch (rc) {
    case PRTKV_INVALID_ARGUMENT:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed, invalid parameters\n");
    case PRTKV_OUT_OF_MEMORY:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed to allocate memory\n");
    case PRTKV_NULL_ARGUMENT:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed, null parameter\n");
    case PRTKV_UNKNOWN:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed: unknown error\n");
    case PRTKV_INVALID_CONFIGURATION:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed: invalid configuration\n");
    case PRTKV_CONFIGURATION_UNREADABLE:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed to access registry config\n");
    default:
      return prsrvut_trace(env, result, "getConf: prtkv_get_conf failed: unknown return code\n");
  }
}

}  // namespace

jobjectArray Java_velmar_qen_mgmt_nativesystem_TKVNative_getTKVLocations(JNIEnv* env, jobject, jobject result) {
  int32_t configured = 0;
  int32_t local_only = 0;
  // Never released: the locations do not change during the life of the process.
  auto* const locations = static_cast<char*>(prou_allocm(lpminit(nullptr), kLocationsSize));
  if (locations == nullptr) {
    prsrvut_trace(env, result, "\nMemory allocation failure\n");
    return nullptr;
  }
  std::memset(locations, 0, kLocationsSize);
  char error_text[kErrorTextSize + 1] = {};
  uint64_t error_size = kErrorTextSize;
  const lpm_ctx manager = lpminit(nullptr);
  if (prsrvut_isDebugOn(env, result)) {
    prsrvut_trace(env, result,
                  "JNI: isCluster() Successfully initialized meta context");  // the text of the other query
  }
  const int32_t rc = prtkv_get_conf(manager, &configured, &local_only, nullptr, locations, error_text, &error_size,
                                    PRTKV_GET_CONF_FLAGS);
  if (prsrvut_isDebugOn(env, result)) prsrvut_trace(env, result, "JNI: prtkv_get_conf() retValue = %d", rc);
  if (rc != 0) {
    if (prsrvut_isDebugOn(env, result)) {
      prsrvut_trace(env, result, "JNI: prtkv_get_config failed with error code = %d\n", rc);
      prsrvut_trace(env, result, "JNI: error = %s\n", error_text);
    }
    send_result_text(env, result, error_text);
    if (prsrvut_isDebugOn(env, result)) trace_get_conf_failure(env, result, rc);
    return nullptr;
  }

  prsrvut_setStatus(env, result, 1);
  if (configured == 0) {
    if (prsrvut_isDebugOn(env, result)) prsrvut_trace(env, result, "The TKV file is not configured \n");
    prsrvut_setBooleanResult(env, result, 0);
  } else if (local_only != 0) {
    if (prsrvut_isDebugOn(env, result)) {
      prsrvut_trace(env, result, "The TKV file is configured & local_only=true\n");
    }
    prsrvut_setBooleanResult(env, result, 0);
  } else {
    if (prsrvut_isDebugOn(env, result)) {
      prsrvut_trace(env, result, "The TKV file is configured  & local_only=false\n");
    }
    prsrvut_setBooleanResult(env, result, 1);
  }

  // All slots in use are counted, but the locations are read from the first slots.
  const auto location = [locations](jsize slot) {
    return locations + static_cast<size_t>(slot) * PRTKV_LOCATION_SLOT_SIZE;
  };
  jsize count = 0;
  for (jsize slot = 0; slot < PRTKV_LOCATION_SLOTS; ++slot) {
    location(slot)[PRTKV_LOCATION_SLOT_SIZE - 1] = '\0';
    if (location(slot)[0] != '\0') ++count;
  }
  prsrvut_trace(env, result, "\nNumber of TKV Locations = %d\n", count);
  const jclass string_class = prsrvut_FindClass(env, "java/lang/String");
  const jobjectArray texts = prsrvut_NewObjectArray(env, count, string_class, nullptr);
  for (jsize i = 0; i < count; ++i) {
    prsrvut_trace(env, result, "TKV location %d = %s\n", i, location(i));
    const jstring text = prsrvut_NewStringUTF(env, location(i));
    set_element(env, texts, i, text);
    delete_local(env, text);
  }
  return texts;
}

jint Java_velmar_qen_mgmt_nativesystem_TKVNative_checkTKVStorageType(JNIEnv* env, jobject, jstring path,
                                                                     jobject result) {
  enum : jint { kUsable = 0, kFailed = 1, kDistributed = 2 };
  char error_text[kErrorTextSize + 1] = {};
  int32_t error_size = kErrorTextSize;
  const lpm_ctx manager = lpminit(nullptr);
  Utf8Chars path_text(env, path);
  const int32_t rc = prtkv_check_storage(manager, path_text.get(), error_text, &error_size, PRTKV_CHECK_STORAGE_FLAGS);
  prsrvut_trace(env, result, "checkTKVStorageType: Path(%s)\n", path_text.get());
  path_text.keep();  // the characters of the path stay acquired, as those of the working key's name do
  jint answer = kUsable;
  if (rc != 0) {
    answer = rc == PRTKV_DISTRIBUTED ? kDistributed : kFailed;
    // The registry's texts contain no "%", so they can be used as formats.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    prsrvut_trace(env, result, error_text);
#pragma GCC diagnostic pop
    send_result_text(env, result, error_text);
  }
  prsrvut_setStatus(env, result, answer == kFailed ? 0 : 1);
  return answer;
}

jstring Java_velmar_qen_mgmt_nativesystem_TKVNative_getTKVBackupLocation(JNIEnv* env, jobject, jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getTKVBackupLocation: NULL context");
    return nullptr;
  }
  char location[PRTKV_BACKUP_LOCATION_SIZE + 1] = {};
  uint64_t size_limit = 0;
  const int32_t rc = prtkv_get_backup_loc(registry, location, &size_limit, PRTKV_BACKUP_LOC_FLAGS);
  prsrvut_trace(env, result, "getTKVBackupLocation: prtkv_get_backup_loc retval = %d\n", rc);
  if (rc != 0) {
    const LastError error(registry);
    send_result_text(env, result, error.text);
    prsrvut_setStatus(env, result, 0);
    return nullptr;
  }
  const jstring text = prsrvut_NewStringUTF(env, location);
  prsrvut_setStatus(env, result, 1);
  return text;
}

jint Java_velmar_qen_mgmt_nativesystem_TKVNative_getPatchLevel(JNIEnv* env, jobject, jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "getPatchLevel: NULL context");
    return 0;
  }
  int32_t patch_level = 0;
  const int32_t rc = clsvswpatch(registry, 0, &patch_level, 0);
  if (rc != 0) {
    const LastError error(registry);
    send_result_text(env, result, error.text);
    prsrvut_setStatus(env, result, 0);
    return -1;
  }
  prsrvut_setStatus(env, result, 1);
  return patch_level;
}

// Its trace lines spell the method's name with one D.
void Java_velmar_qen_mgmt_nativesystem_TKVNative_setZUVEDDependencies(JNIEnv* env, jobject, jint mode, jobject result) {
  const prtkv_ctx registry = registry_context();
  if (registry == 0) {
    report_tkv_error(env, result, 1);
    prsrvut_trace(env, result, "setZUVEDependencies: NULL context");
    return;
  }
  const int32_t rc = prtkv_set_zuved_dependencies(registry, mode, 0);
  prsrvut_trace(env, result, "setZUVEDependencies: prtkv_set_zuved_dependencies retval = %d\n", rc);
  if (rc != 0) {
    report_tkv_error(env, result, rc);
    prsrvut_trace(env, result, "setZUVEDependencies: failed to set dependencies when the PEV mode [%d] \n", mode);
    return;
  }
  prsrvut_setStatus(env, result, 1);
}
