/* The language in which a test writes down what the bridge must do: one call after another, each with its arguments
 * and, where the double is to answer something other than plain success, with its answer.
 *
 *   expect({
 *       takes("a.b"),
 *       open_key("a.b").gives(7),
 *       trace("openKey: prtkv_open_key retval = 0\n"),
 *       status(true),
 *   });
 *
 * What stands for several calls (`reports`, `sends_text`) can be written anywhere in the list.
 */
#ifndef TKV_TESTS_BRIDGE_CALLS_H
#define TKV_TESTS_BRIDGE_CALLS_H

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "prtkv.h"
#include "recording.h"

namespace bridge_test {

/* The handles of the tests' platform. */
inline constexpr uint64_t kProgram = 20;      /* what lpminit gives */
inline constexpr uint64_t kShortProgram = 40; /* what lpmprinit gives */
inline constexpr uint64_t kRegistry = 1000;   /* what prtkv_init_ext gives */
inline constexpr uint64_t kWorkingKey = 500;  /* what openKey left in the session */

/* An argument that is left open: any text will do. */
extern const std::string kAny;

/* A call that the bridge must make, with the double's answer. Its members are out of line, since every test is a long
 * list of calls. */
class Call {
 public:
  Call(std::string function, std::vector<std::string> arguments);
  Call(const Call& other);
  Call(Call&& other) noexcept;
  Call& operator=(const Call& other);
  Call& operator=(Call&& other) noexcept;
  ~Call();

  /* What the double answers. */
  Call&& returns(int64_t result) &&;
  Call&& gives(uint64_t handle) &&;
  Call&& says(std::string bytes) &&;
  Call&& size(uint64_t size) &&;
  Call&& word(int32_t word) &&;
  Call&& second_word(int32_t word) &&;
  Call&& record(const sec_attr& record) &&;
  Call&& named(std::string name) &&;
  Call&& gives_null() &&;
  Call&& then(std::function<void()> action) &&;

  /* What differs from the usual arguments. */
  Call&& with_argument(size_t index, std::string text) &&;
  Call&& without_context() &&;

  const std::string& function() const { return function_; }
  std::string line() const;
  const Answer& answer() const { return answer_; }

 private:
  std::string function_;
  std::vector<std::string> arguments_;
  Answer answer_;
};

/* A list of calls that is written as calls and lists of calls. */
class Calls {
 public:
  Calls();
  Calls(Call call);  // NOLINT: a call is a list of one
  Calls(std::initializer_list<Calls> parts);
  Calls(const Calls& other);
  Calls(Calls&& other) noexcept;
  Calls& operator=(const Calls& other);
  Calls& operator=(Calls&& other) noexcept;
  ~Calls();

  Calls& add(const Calls& more);
  const std::vector<Call>& all() const { return calls_; }

  /* The calls before the first one of `function`. */
  Calls before(const std::string& function) const;
  /* The same calls with the first one of the replacement's function replaced. */
  Calls with(const Call& replacement) const;

 private:
  std::vector<Call> calls_;
};

/* `calls` when the condition holds, else nothing. */
Calls when(bool condition, const Calls& calls);

/* A security record. */
sec_attr owned(int32_t user_perm, int32_t group_perm, int32_t other_perm, const std::string& user,
               const std::string& group);

/* The managed side. */

Call takes(const std::string& text);
Call releases(const std::string& text);
Call deletes_reference(const std::string& text);
Call array_length();
Call takes_element(int index);
Call stores_element(int index, const std::string& text);
Call status(bool status);
Call boolean_result(bool answer);
Call error_code(int code);
Call result_string(const std::string& text);
Call trace(const std::string& text);
Call is_debug_on(bool on);
Call new_string(const std::string& text);
Call new_utf16_string(const std::string& text, const std::string& buffer, int count);
Call find_string_class();
Call new_string_array(int length);
/* The name of a user or a group in the native character set, with a length that counts its NUL. */
Call native_string(const std::string& managed, const std::string& native);

/* Memory. */

Call program_manager();
Call short_program_manager();
Call end_short_program_manager();
Call allocates(uint64_t size, const std::string& name);
Call frees(const std::string& name);

/* Keys. */

Call open_key(const std::string& name);
Call close_key(uint64_t closed);
Call delete_key(uint64_t deleted, int recursive);
Call move_key(uint64_t source, uint64_t parent, const std::string& name, int flags);
Call create_key(const std::string& name, const sec_attr& record, uint64_t parent = kWorkingKey);
Call create_n_set_key(const std::string& name, int type, const sec_attr& record, const std::string& bytes,
                      uint64_t parent = kWorkingKey);
Call create_n_set_key_ext(const std::string& name, const sec_attr& record, int type, const std::string& bytes,
                          uint64_t parent = kWorkingKey);
Call set_value(uint64_t written, int type, const std::string& bytes);
/* A read into a buffer of `size` bytes, all of them zero when it is no block. */
Call get_value(uint64_t read, uint64_t size, const std::string& buffer = "own buffer");
/* Into a record of zeros. */
Call get_security(uint64_t read);
Call set_security(uint64_t written, const sec_attr& record);
Call set_security_ext(uint64_t written, const sec_attr& record);
/* An enumeration into a buffer of zeros, with what the count holds before it. */
Call enum_subkey(uint64_t listed, int remaining);
Call last_error();

/* Reports. */

/* A failed operation of which the registry has no text: its code. */
Calls reports(int code);

/* A text for the result object. */
Calls sends_text(const std::string& text);

/* A failed operation of which the registry has a text. */
Calls reports_text(const std::string& text);

/* A failure without a registry context. */
Calls reports_without_context(int code);

/* A failure that the bridge itself decided. */
Calls reports_error(const std::string& text);

}  // namespace bridge_test

#endif
