#include "calls.h"

namespace bridge_test {

const std::string kAny = "\x01";

Call::Call(std::string function, std::vector<std::string> arguments)
    : function_(std::move(function)), arguments_(std::move(arguments)) {}
Call::Call(const Call& other) = default;
Call::Call(Call&& other) noexcept = default;
Call& Call::operator=(const Call& other) = default;
Call& Call::operator=(Call&& other) noexcept = default;
Call::~Call() = default;

Call&& Call::returns(int64_t result) && {
  answer_.result = result;
  return std::move(*this);
}
Call&& Call::gives(uint64_t handle) && {
  answer_.handle = handle;
  return std::move(*this);
}
Call&& Call::says(std::string bytes) && {
  answer_.bytes = std::move(bytes);
  return std::move(*this);
}
Call&& Call::size(uint64_t size) && {
  answer_.size = size;
  return std::move(*this);
}
Call&& Call::word(int32_t word) && {
  answer_.word = word;
  return std::move(*this);
}
Call&& Call::second_word(int32_t word) && {
  answer_.second_word = word;
  return std::move(*this);
}
Call&& Call::record(const sec_attr& record) && {
  answer_.security = record;
  return std::move(*this);
}
Call&& Call::named(std::string name) && {
  answer_.name = std::move(name);
  return std::move(*this);
}
Call&& Call::gives_null() && {
  answer_.refuse = true;
  return std::move(*this);
}
Call&& Call::then(std::function<void()> action) && {
  answer_.then = std::move(action);
  return std::move(*this);
}
Call&& Call::with_argument(size_t index, std::string text) && {
  arguments_.at(index) = std::move(text);
  return std::move(*this);
}
Call&& Call::without_context() && { return std::move(*this).with_argument(0, context(0)); }

std::string Call::line() const { return bridge_test::line(function_, arguments_); }

Calls::Calls() = default;
Calls::Calls(Call call) { calls_.push_back(std::move(call)); }
Calls::Calls(std::initializer_list<Calls> parts) {
  for (const auto& part : parts) add(part);
}
Calls::Calls(const Calls& other) = default;
Calls::Calls(Calls&& other) noexcept = default;
Calls& Calls::operator=(const Calls& other) = default;
Calls& Calls::operator=(Calls&& other) noexcept = default;
Calls::~Calls() = default;

Calls& Calls::add(const Calls& more) {
  calls_.insert(calls_.end(), more.calls_.begin(), more.calls_.end());
  return *this;
}

Calls Calls::before(const std::string& function) const {
  Calls head;
  for (const auto& call : calls_) {
    if (call.function() == function) break;
    head.calls_.push_back(call);
  }
  return head;
}

Calls Calls::with(const Call& replacement) const {
  Calls changed = *this;
  for (auto& call : changed.calls_) {
    if (call.function() != replacement.function()) continue;
    call = replacement;
    break;
  }
  return changed;
}

Calls when(bool condition, const Calls& calls) { return condition ? calls : Calls(); }

sec_attr owned(int32_t user_perm, int32_t group_perm, int32_t other_perm, const std::string& user,
               const std::string& group) {
  sec_attr record{};
  record.user_perm = user_perm;
  record.group_perm = group_perm;
  record.other_perm = other_perm;
  user.copy(record.user_name, TKV_NAME_SIZE);
  group.copy(record.group_name, TKV_NAME_SIZE);
  return record;
}

Call takes(const std::string& text) { return {"GetStringUTFChars", {quote(text)}}; }
Call releases(const std::string& text) { return {"ReleaseStringUTFChars", {quote(text)}}; }
Call deletes_reference(const std::string& text) { return {"DeleteLocalRef", {"string " + quote(text)}}; }
Call array_length() { return {"GetArrayLength", {"array"}}; }
Call takes_element(int index) { return {"GetObjectArrayElement", {"array", number(index)}}; }
Call stores_element(int index, const std::string& text) {
  return {"SetObjectArrayElement", {"array", number(index), "string " + quote(text)}};
}
Call status(bool status) { return {"prsrvut_setStatus", {number(status ? 1 : 0)}}; }
Call boolean_result(bool answer) { return {"prsrvut_setBooleanResult", {number(answer ? 1 : 0)}}; }
Call error_code(int code) { return {"prsrvut_callMethod", {quote("setTKVErrCode"), quote("(I)V"), number(code)}}; }
Call result_string(const std::string& text) {
  return {"prsrvut_callMethod", {quote("setTKVResultString"), quote("(Ljava/lang/String;)V"), "string " + quote(text)}};
}
Call trace(const std::string& text) { return {"prsrvut_trace", {quote(text)}}; }
Call is_debug_on(bool on) { return Call("prsrvut_isDebugOn", {}).returns(on ? 1 : 0); }
Call new_string(const std::string& text) { return {"prsrvut_NewStringUTF", {quote(text)}}; }
Call new_utf16_string(const std::string& text, const std::string& buffer, int count) {
  return {"prsrvut_NewString", {"string " + quote(text), buffer, number(count)}};
}
Call find_string_class() { return {"prsrvut_FindClass", {quote("java/lang/String")}}; }
Call new_string_array(int length) {
  return {"prsrvut_NewObjectArray", {number(length), "class java/lang/String", "null"}};
}
Call native_string(const std::string& managed, const std::string& native) {
  return Call("prsrvut_getNativeString", {"string " + quote(managed), "own buffer", "64"})
      .says(native)
      .size(native.size() + 1);
}

Call program_manager() { return Call("lpminit", {"null"}).gives(kProgram); }
Call short_program_manager() { return Call("lpmprinit", {}).gives(kShortProgram); }
Call end_short_program_manager() { return {"lpmprterm", {program(kShortProgram)}}; }
Call allocates(uint64_t size, const std::string& name) {
  return Call("prou_allocm", {program(kProgram), number(static_cast<int64_t>(size))}).named(name);
}
Call frees(const std::string& name) { return {"prou_freem", {program(kProgram), name}}; }

Call open_key(const std::string& name) { return {"prtkv_open_key", {context(kRegistry), out(0), quote(name)}}; }
Call close_key(uint64_t closed) { return {"prtkv_close_key", {context(kRegistry), key(closed)}}; }
Call delete_key(uint64_t deleted, int recursive) {
  return {"prtkv_delete_key", {context(kRegistry), key(deleted), number(recursive)}};
}
Call move_key(uint64_t source, uint64_t parent, const std::string& name, int flags) {
  return {"prtkv_move_key", {context(kRegistry), key(source), key(parent), quote(name), out(0), number(flags)}};
}
Call create_key(const std::string& name, const sec_attr& record, uint64_t parent) {
  return {"prtkv_create_key", {context(kRegistry), key(parent), quote(name), out(0), "word 0", security(record)}};
}
Call create_n_set_key(const std::string& name, int type, const sec_attr& record, const std::string& bytes,
                      uint64_t parent) {
  return {"prtkv_create_n_set_key",
          {context(kRegistry), key(parent), quote(name), out(0), "word 0", number(type), security(record),
           value(bytes.data(), bytes.size())}};
}
Call create_n_set_key_ext(const std::string& name, const sec_attr& record, int type, const std::string& bytes,
                          uint64_t parent) {
  return {"prtkv_create_n_set_key_ext",
          {context(kRegistry), "null", key(parent), quote(name), out(0), "word 0", security(record), number(type),
           value(bytes.data(), bytes.size()), "0x80002"}};
}
Call set_value(uint64_t written, int type, const std::string& bytes) {
  return {"prtkv_set_value", {context(kRegistry), key(written), number(type), value(bytes.data(), bytes.size())}};
}
Call get_value(uint64_t read, uint64_t size, const std::string& buffer) {
  return {"prtkv_get_value", {context(kRegistry), key(read), "word 3", buffer, number(static_cast<int64_t>(size))}};
}
Call get_security(uint64_t read) { return {"prtkv_get_key_security", {context(kRegistry), key(read), "own buffer"}}; }
Call set_security(uint64_t written, const sec_attr& record) {
  return {"prtkv_set_key_security", {context(kRegistry), key(written), security(record)}};
}
Call set_security_ext(uint64_t written, const sec_attr& record) {
  return {"prtkv_set_key_security_ext", {context(kRegistry), "null", key(written), "0x80000", security(record)}};
}
Call enum_subkey(uint64_t listed, int remaining) {
  return {"prtkv_enum_subkey", {context(kRegistry), key(listed), "own buffer", "265", "word " + number(remaining)}};
}
Call last_error() { return {"prtkv_get_last_error", {context(kRegistry), "word 0", "own buffer", "1024"}}; }

Calls reports(int code) { return {status(false), last_error().returns(14), error_code(code)}; }
Calls sends_text(const std::string& text) { return {new_string(text), result_string(text), deletes_reference(text)}; }
Calls reports_text(const std::string& text) {
  return {status(false), last_error().says(text).word(77), sends_text(text)};
}
Calls reports_without_context(int code) { return {status(false), error_code(code)}; }
Calls reports_error(const std::string& text) { return {sends_text(text), status(false)}; }

}  // namespace bridge_test
