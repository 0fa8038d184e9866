// Status: how an operation inside the platform ended, with a code of the registry's table and a text for people.
#ifndef TKV_PLATFORM_BASE_STATUS_H
#define TKV_PLATFORM_BASE_STATUS_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "prtkv_results.h"

namespace tkv {

// Success carries no text and allocates nothing; nor does copying a status. A failure without a text of its own has the
// text of the result table. A caller that knows more, such as the key's full name, adds it with `about`.
class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(prtkv_result code) : code_(code) {}  // NOLINT(google-explicit-constructor): a bare code is a Status
  Status(prtkv_result code, std::string text)
      : code_(code), text_(text.empty() ? nullptr : std::make_shared<const std::string>(std::move(text))) {}

  bool ok() const { return code_ == PRTKV_DONE; }
  prtkv_result code() const { return code_; }
  bool is(prtkv_result code) const { return code_ == code; }

  // The reason, or the text of the result table if none was given.
  std::string text() const { return text_ == nullptr ? result_text(code_) : *text_; }
  bool has_text() const { return text_ != nullptr; }

  // The same failure with `subject` before its text: "key 'a.b': <text>".
  Status about(const std::string& subject) const { return ok() ? *this : Status(code_, subject + ": " + text()); }

  static const char* result_text(int32_t code) {
    switch (code) {
#define TKV_RESULT_TEXT(name, number, words) \
  case number:                               \
    return words;
      PRTKV_RESULTS(TKV_RESULT_TEXT)
#undef TKV_RESULT_TEXT
      default:
        return "unknown result";
    }
  }

 private:
  prtkv_result code_ = PRTKV_DONE;
  std::shared_ptr<const std::string> text_;  // null if there is none, as on nearly every path
};

}  // namespace tkv

#endif
