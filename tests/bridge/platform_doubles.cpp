/* The platform's functions as recording doubles: each records its line, takes its answer and writes what the answer
 * sets. They have exactly the interface of platform/if, so the bridge links with them as with any platform.
 */
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cls.h"
#include "lpm.h"
#include "lx.h"
#include "managed_side.h"
#include "prsrvut.h"
#include "prtkv.h"
#include "recording.h"
#include "scls.h"

using namespace bridge_test;

namespace {

Recording& recording() { return Recording::instance(); }
ManagedSide& managed() { return ManagedSide::instance(); }

Answer answered(const std::string& function, const std::vector<std::string>& arguments) {
  recording().record(line(function, arguments));
  return recording().answer(function);
}

int32_t finish(const Answer& answer) {
  if (answer.then) answer.then();
  return static_cast<int32_t>(answer.result);
}

// A function of the managed side, with the environment and the result object checked.
std::vector<std::string> managedArguments(JNIEnv* env, const std::vector<std::string>& arguments) {
  std::vector<std::string> shown;
  if (env != managed().environment()) shown.emplace_back("wrong environment");
  shown.insert(shown.end(), arguments.begin(), arguments.end());
  return shown;
}

std::vector<std::string> resultArguments(JNIEnv* env, jobject result, const std::vector<std::string>& arguments) {
  std::vector<std::string> shown = managedArguments(env, {});
  if (result != managed().result()) shown.push_back("on " + managed().describe(result));
  shown.insert(shown.end(), arguments.begin(), arguments.end());
  return shown;
}

// As much of the text as fits, and a NUL where there is room for one.
void writeText(const Answer& answer, char* to, size_t capacity) {
  if (to == nullptr || !answer.bytes) return;
  const size_t length = std::min(answer.bytes->size(), capacity);
  std::memcpy(to, answer.bytes->data(), length);
  if (length < capacity) to[length] = '\0';
}

template <typename Size>
void writeSize(const Answer& answer, Size* size) {
  if (size == nullptr) return;
  if (answer.size) {
    *size = static_cast<Size>(*answer.size);
  } else if (answer.bytes) {
    *size = static_cast<Size>(answer.bytes->size());
  }
}

void writeHandle(const Answer& answer, uint64_t* handle) {
  if (handle != nullptr && answer.handle) *handle = *answer.handle;
}

void writeWord(const std::optional<int32_t>& word, int32_t* to) {
  if (to != nullptr && word) *to = *word;
}

std::string wordIn(const int32_t* word) { return word == nullptr ? "null" : "word " + number(*word); }

template <typename Size>
std::string sizeIn(const Size* size) {
  return size == nullptr ? "null" : number(static_cast<int64_t>(*size));
}

std::string outIn(const uint64_t* handle) { return handle == nullptr ? "null" : out(*handle); }

void noteOpened(const Answer& answer, const prtkv_key* key) {
  if (answer.result == 0 && key != nullptr && *key != 0 && answer.handle) recording().keyOpened(*key);
}

}  // namespace

// prsrvut

void prsrvut_setStatus(JNIEnv* env, jobject result, int status) {
  finish(answered("prsrvut_setStatus", resultArguments(env, result, {number(status)})));
}

void prsrvut_setBooleanResult(JNIEnv* env, jobject result, int given) {
  finish(answered("prsrvut_setBooleanResult", resultArguments(env, result, {number(given)})));
}

int prsrvut_callMethod(JNIEnv* env, jobject result, const char* name, const char* signature, jvalue* args) {
  std::string argument = "no argument";
  if (args != nullptr && std::strcmp(signature, "(I)V") == 0) argument = number(args[0].i);
  if (args != nullptr && std::strcmp(signature, "(Ljava/lang/String;)V") == 0) argument = managed().describe(args[0].l);
  return finish(
      answered("prsrvut_callMethod", resultArguments(env, result, {quote(name), quote(signature), argument})));
}

void prsrvut_trace(JNIEnv* env, jobject result, const char* format, ...) {
  // Filters of traces go by the format: each line has its own.
  if (std::strcmp(format, "%s") == 0) recording().violation("a trace whose whole text is an argument");
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::vector<char> text(static_cast<size_t>(std::max(length, 0)) + 1);
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  finish(
      answered("prsrvut_trace", resultArguments(env, result, {quote(std::string_view(text.data(), text.size() - 1))})));
}

int prsrvut_isDebugOn(JNIEnv* env, jobject result) {
  return finish(answered("prsrvut_isDebugOn", resultArguments(env, result, {})));
}

jstring prsrvut_NewStringUTF(JNIEnv* env, const char* text) {
  const Answer answer = answered("prsrvut_NewStringUTF", managedArguments(env, {quote(text)}));
  jstring made = answer.refuse || text == nullptr ? nullptr : managed().string(text);
  finish(answer);
  return made;
}

jstring prsrvut_NewString(JNIEnv* env, const jchar* units, jsize count) {
  jstring shown = units == nullptr ? nullptr : managed().stringOfUnits(units, count);
  std::string ended = units != nullptr && units[count] != 0 ? " not ended" : "";
  const Answer answer =
      answered("prsrvut_NewString",
               managedArguments(env, {managed().describe(shown) + ended, recording().describe(units), number(count)}));
  finish(answer);
  return answer.refuse ? nullptr : shown;
}

jclass prsrvut_FindClass(JNIEnv* env, const char* name) {
  const Answer answer = answered("prsrvut_FindClass", managedArguments(env, {quote(name)}));
  finish(answer);
  return answer.refuse ? nullptr : managed().classNamed(std::string("class ") + name);
}

jobjectArray prsrvut_NewObjectArray(JNIEnv* env, jsize length, jclass element, jobject initial) {
  const Answer answer =
      answered("prsrvut_NewObjectArray",
               managedArguments(env, {number(length), managed().describe(element), managed().describe(initial)}));
  finish(answer);
  if (answer.refuse || length < 0) return nullptr;
  return managed().emptyArray(static_cast<size_t>(length));
}

int prsrvut_getNativeString(JNIEnv* env, jstring text, char* to, int* size) {
  const Answer answer =
      answered("prsrvut_getNativeString",
               managedArguments(env, {managed().describe(text), buffer(to, TKV_NAME_SIZE), sizeIn(size)}));
  writeText(answer, to, TKV_NAME_SIZE);
  writeSize(answer, size);
  return finish(answer);
}

// lpm

lpm_ctx lpminit(void* parameters) {
  const Answer answer = answered("lpminit", {recording().describe(parameters)});
  finish(answer);
  return answer.handle.value_or(0);
}

lpm_ctx lpmprinit(void) {
  const Answer answer = answered("lpmprinit", {});
  finish(answer);
  return answer.handle.value_or(0);
}

void lpmprterm(lpm_ctx pm) { finish(answered("lpmprterm", {program(pm)})); }

void* prou_allocm(lpm_ctx pm, uint32_t size) {
  const Answer answer = answered("prou_allocm", {program(pm), number(size)});
  finish(answer);
  return answer.refuse ? nullptr : recording().allocate(pm, size, answer.name);
}

void prou_freem(lpm_ctx pm, void* block) {
  const Answer answer = answered("prou_freem", {program(pm), recording().describe(block)});
  recording().free(pm, block);
  finish(answer);
}

// cls

int32_t clsugetconf(lpm_ctx pm, uint32_t flags, int32_t* configuration) {
  const Answer answer = answered("clsugetconf", {program(pm), hex(flags), wordIn(configuration)});
  writeWord(answer.word, configuration);
  return finish(answer);
}

int32_t clsvswpatch(prtkv_ctx ctx, uint32_t flags, int32_t* patch_level, uint32_t reserved) {
  const Answer answer =
      answered("clsvswpatch", {context(ctx), hex(flags), patch_level == nullptr ? "null" : "word", hex(reserved)});
  writeWord(answer.word, patch_level);
  return finish(answer);
}

// scls

uint64_t scls_meta_query_size(int32_t version) {
  const Answer answer = answered("scls_meta_query_size", {number(version)});
  finish(answer);
  return answer.size.value_or(0);
}

int32_t scls_meta_ctx_init(void* meta, void* error, uint32_t flags) {
  const Answer answer =
      answered("scls_meta_ctx_init", {recording().describe(meta), recording().describe(error), hex(flags)});
  if (error != nullptr) std::memset(error, 'e', sizeof(scls_error));
  return finish(answer);
}

int32_t scls_idq_get_user_name(void* meta, void* error, uint32_t flags, char* name, uint64_t capacity,
                               uint64_t* length) {
  const Answer answer = answered("scls_idq_get_user_name",
                                 {recording().describe(meta), recording().describe(error), hex(flags),
                                  recording().describe(name), number(static_cast<int64_t>(capacity)), sizeIn(length)});
  if (error != nullptr) std::memset(error, 'e', sizeof(scls_error));
  writeText(answer, name, capacity);
  writeSize(answer, length);
  return finish(answer);
}

int32_t scls_idq_get_primary_privgrp_name(void* meta, void* error, uint32_t flags, char* name, uint64_t capacity,
                                          uint64_t* length) {
  const Answer answer = answered("scls_idq_get_primary_privgrp_name",
                                 {recording().describe(meta), recording().describe(error), hex(flags),
                                  recording().describe(name), number(static_cast<int64_t>(capacity)), sizeIn(length)});
  if (error != nullptr) std::memset(error, 'e', sizeof(scls_error));
  writeText(answer, name, capacity);
  writeSize(answer, length);
  return finish(answer);
}

// lx

namespace {
char lx_global;
char lx_charset;
}  // namespace

void* lxlinit(void* parameters, int32_t version, uint32_t* error) {
  recording().name(&lx_global, "lx global");
  const Answer answer = answered(
      "lxlinit", {recording().describe(parameters), number(version), error == nullptr ? "null" : "error word"});
  if (error != nullptr) *error = 1;
  finish(answer);
  return answer.refuse ? nullptr : &lx_global;
}

void* lxinitc(void* handle_area, void* global, int32_t reserved1, int32_t reserved2) {
  const Answer answer = answered("lxinitc", {recording().describe(handle_area), recording().describe(global),
                                             number(reserved1), number(reserved2)});
  std::memset(handle_area, 'h', LX_HANDLE_SIZE);
  finish(answer);
  return answer.refuse ? nullptr : handle_area;
}

void* lxhLangEnv(void* lang_env_area, int32_t reserved, void* handle) {
  const Answer answer =
      answered("lxhLangEnv", {recording().describe(lang_env_area), number(reserved), recording().describe(handle)});
  finish(answer);
  if (answer.refuse) return nullptr;
  auto* environment = static_cast<lx_lang_env*>(lang_env_area);
  std::memset(lang_env_area, 'l', LX_LANG_ENV_SIZE);
  environment->flags = static_cast<uint32_t>(answer.word.value_or(0));
  return environment;
}

uint16_t lxhcsn(void* lang_env, void* handle) {
  const Answer answer = answered("lxhcsn", {recording().describe(lang_env), recording().describe(handle)});
  return static_cast<uint16_t>(finish(answer));
}

void lxlterm(void* handle) { finish(answered("lxlterm", {recording().describe(handle)})); }

void* lxhci2h(int32_t charset_id, void* handle) {
  recording().name(&lx_charset, "charset");
  const Answer answer = answered("lxhci2h", {number(charset_id), recording().describe(handle)});
  finish(answer);
  return answer.refuse ? nullptr : &lx_charset;
}

uint32_t lxsulen(const char* text) { return static_cast<uint32_t>(finish(answered("lxsulen", {quote(text)}))); }

int32_t lxgt2u(uint16_t* to, uint32_t capacity, const char* from, void* charset, uint32_t length, uint32_t flags,
               void* handle) {
  const Answer answer =
      answered("lxgt2u", {recording().describe(to), number(capacity), quote(from), recording().describe(charset),
                          number(length), hex(flags), recording().describe(handle)});
  if (to != nullptr && answer.bytes) {
    const size_t count = std::min<size_t>(answer.bytes->size(), capacity);
    for (size_t i = 0; i < count; ++i) to[i] = static_cast<unsigned char>((*answer.bytes)[i]);
  }
  return finish(answer);
}

// prtkv

int32_t prtkv_init_ext(prtkv_ctx* out, int32_t level, char* error_text, uint64_t* error_size, uint32_t flags) {
  const Answer answer = answered(
      "prtkv_init_ext", {outIn(out), number(level), recording().describe(error_text), sizeIn(error_size), hex(flags)});
  writeHandle(answer, out);
  writeText(answer, error_text, PRTKV_ERROR_TEXT_SIZE);
  writeSize(answer, error_size);
  return finish(answer);
}

int32_t prtkv_terminate(prtkv_ctx ctx) { return finish(answered("prtkv_terminate", {context(ctx)})); }

int32_t prtkv_open_key(prtkv_ctx ctx, prtkv_key* out, const char* name) {
  const Answer answer = answered("prtkv_open_key", {context(ctx), outIn(out), quote(name)});
  writeHandle(answer, out);
  noteOpened(answer, out);
  return finish(answer);
}

int32_t prtkv_close_key(prtkv_ctx ctx, prtkv_key closed) {
  const Answer answer = answered("prtkv_close_key", {context(ctx), key(closed)});
  recording().keyClosed(closed);
  return finish(answer);
}

int32_t prtkv_create_key(prtkv_ctx ctx, prtkv_key parent, const char* name, prtkv_key* out, int32_t* word,
                         sec_attr sec) {
  const Answer answer =
      answered("prtkv_create_key", {context(ctx), key(parent), quote(name), outIn(out), wordIn(word), security(sec)});
  writeHandle(answer, out);
  writeWord(answer.word, word);
  noteOpened(answer, out);
  return finish(answer);
}

int32_t prtkv_create_n_set_key(prtkv_ctx ctx, prtkv_key parent, const char* name, prtkv_key* out, int32_t* word,
                               int32_t type, sec_attr sec, const void* bytes, uint32_t size) {
  const Answer answer =
      answered("prtkv_create_n_set_key", {context(ctx), key(parent), quote(name), outIn(out), wordIn(word),
                                          number(type), security(sec), value(bytes, size)});
  writeHandle(answer, out);
  writeWord(answer.word, word);
  noteOpened(answer, out);
  return finish(answer);
}

int32_t prtkv_create_n_set_key_ext(prtkv_ctx ctx, void* reserved, prtkv_key parent, const char* name, prtkv_key* out,
                                   int32_t* word, sec_attr sec, int32_t type, const void* bytes, uint32_t size,
                                   uint32_t flags) {
  const Answer answer = answered("prtkv_create_n_set_key_ext",
                                 {context(ctx), recording().describe(reserved), key(parent), quote(name), outIn(out),
                                  wordIn(word), security(sec), number(type), value(bytes, size), hex(flags)});
  writeHandle(answer, out);
  writeWord(answer.word, word);
  noteOpened(answer, out);
  return finish(answer);
}

int32_t prtkv_delete_key(prtkv_ctx ctx, prtkv_key deleted, int32_t recursive) {
  const Answer answer = answered("prtkv_delete_key", {context(ctx), key(deleted), number(recursive)});
  if (answer.result == 0) recording().keyClosed(deleted);
  return finish(answer);
}

int32_t prtkv_move_key(prtkv_ctx ctx, prtkv_key source, prtkv_key parent, const char* name, prtkv_key* moved,
                       int32_t flags) {
  const Answer answer =
      answered("prtkv_move_key", {context(ctx), key(source), key(parent), quote(name), outIn(moved), number(flags)});
  writeHandle(answer, moved);
  noteOpened(answer, moved);
  return finish(answer);
}

int32_t prtkv_enum_subkey(prtkv_ctx ctx, prtkv_key listed, char* name, uint32_t* size, int32_t* remaining) {
  const Answer answer = answered("prtkv_enum_subkey", {context(ctx), key(listed), buffer(name, PRTKV_SUBKEY_NAME_SIZE),
                                                       sizeIn(size), wordIn(remaining)});
  writeText(answer, name, PRTKV_SUBKEY_NAME_SIZE);
  writeSize(answer, size);
  writeWord(answer.word, remaining);
  return finish(answer);
}

int32_t prtkv_get_value(prtkv_ctx ctx, prtkv_key read, int32_t* type, void* to, uint32_t* size) {
  const Answer answer = answered("prtkv_get_value", {context(ctx), key(read), wordIn(type),
                                                     buffer(to, size == nullptr ? 0 : *size), sizeIn(size)});
  writeWord(answer.word, type);
  if (to != nullptr && size != nullptr && answer.bytes) {
    if (answer.result == 0 && answer.bytes->size() > *size) {
      *size = static_cast<uint32_t>(answer.bytes->size());
      finish(answer);
      return PRTKV_BUFFER_TOO_SMALL;
    }
    std::memcpy(to, answer.bytes->data(), std::min<size_t>(answer.bytes->size(), *size));
  }
  writeSize(answer, size);
  return finish(answer);
}

int32_t prtkv_set_value(prtkv_ctx ctx, prtkv_key written, int32_t type, const void* bytes, uint32_t size) {
  return finish(answered("prtkv_set_value", {context(ctx), key(written), number(type), value(bytes, size)}));
}

int32_t prtkv_get_key_security(prtkv_ctx ctx, prtkv_key read, sec_attr* sec) {
  const Answer answer = answered("prtkv_get_key_security", {context(ctx), key(read), buffer(sec, sizeof *sec)});
  if (sec != nullptr && answer.security) *sec = *answer.security;
  return finish(answer);
}

int32_t prtkv_set_key_security(prtkv_ctx ctx, prtkv_key written, sec_attr sec) {
  return finish(answered("prtkv_set_key_security", {context(ctx), key(written), security(sec)}));
}

int32_t prtkv_set_key_security_ext(prtkv_ctx ctx, void* reserved, prtkv_key written, uint32_t flags, sec_attr sec) {
  return finish(answered("prtkv_set_key_security_ext",
                         {context(ctx), recording().describe(reserved), key(written), hex(flags), security(sec)}));
}

int32_t prtkv_get_last_error(prtkv_ctx ctx, int32_t* code, char* text, int32_t* size) {
  const Answer answer =
      answered("prtkv_get_last_error", {context(ctx), wordIn(code), recording().describe(text), sizeIn(size)});
  writeWord(answer.word, code);
  writeText(answer, text, PRTKV_ERROR_TEXT_SIZE);
  writeSize(answer, size);
  return finish(answer);
}

int32_t prtkv_get_conf(lpm_ctx pm, int32_t* configured, int32_t* local_only, void* reserved, char* locations,
                       char* error_text, uint64_t* error_size, uint32_t flags) {
  const Answer answer = answered("prtkv_get_conf", {program(pm), wordIn(configured), wordIn(local_only),
                                                    recording().describe(reserved), recording().describe(locations),
                                                    recording().describe(error_text), sizeIn(error_size), hex(flags)});
  writeWord(answer.word, configured);
  writeWord(answer.second_word, local_only);
  if (answer.result != 0) {
    writeText(answer, error_text, PRTKV_ERROR_TEXT_SIZE);
    writeSize(answer, error_size);
  } else if (answer.bytes) {
    std::memcpy(locations, answer.bytes->data(), answer.bytes->size());
  }
  return finish(answer);
}

int32_t prtkv_check_storage(lpm_ctx pm, const char* path, char* error_text, int32_t* error_size, uint32_t flags) {
  const Answer answer = answered("prtkv_check_storage", {program(pm), quote(path), recording().describe(error_text),
                                                         sizeIn(error_size), hex(flags)});
  writeText(answer, error_text, PRTKV_ERROR_TEXT_SIZE);
  writeSize(answer, error_size);
  return finish(answer);
}

int32_t prtkv_get_backup_loc(prtkv_ctx ctx, char* location, uint64_t* size_limit, uint32_t flags) {
  const Answer answer = answered("prtkv_get_backup_loc", {context(ctx), recording().describe(location),
                                                          size_limit == nullptr ? "null" : "word", hex(flags)});
  writeText(answer, location, PRTKV_BACKUP_LOCATION_SIZE);
  if (size_limit != nullptr) *size_limit = answer.size.value_or(0);
  return finish(answer);
}

int32_t prtkv_set_zuved_dependencies(prtkv_ctx ctx, int32_t mode, uint32_t flags) {
  return finish(answered("prtkv_set_zuved_dependencies", {context(ctx), number(mode), hex(flags)}));
}
