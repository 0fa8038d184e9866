// Output: the data that a verb prints, on standard output.
//
// Writes are buffered. Nothing is lost silently: finish() writes the rest and reports failures. Once the reader has
// closed its end, everything more is dropped, and closed_early() returns true.
#ifndef TKV_TOOLS_TKV_OUTPUT_H
#define TKV_TOOLS_TKV_OUTPUT_H

#include <string>
#include <string_view>

#include "outcome.h"

namespace tkv::command {

class Output {
 public:
  explicit Output(int descriptor) : descriptor_(descriptor) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(std::string_view text);
  void line(std::string_view text);

  bool closed_early() const;

  // Finds out whether the reader has closed its end, without writing anything.
  void notice_reader();

  // Writes what is buffered now. finish() reports failures.
  void flush();

  // Writes what is buffered. Fails with Exit::kOther if anything could not be written, except because the reader closed
  // its end.
  Outcome finish();

 private:
  int descriptor_;
  int error_ = 0;
  std::string gathered_;
};

}  // namespace tkv::command

#endif
