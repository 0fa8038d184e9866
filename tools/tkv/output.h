// Output: the data that a verb prints, on standard output.
//
// Writes are gathered; nothing is lost silently: finish() writes the rest and reports what failed. When the reader has
// closed its end, everything after that is dropped and closed_early() is true, so that long work can stop.
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

  // No one reads any more, or nothing can be written.
  bool broken() const { return error_ != 0; }
  bool closed_early() const;

  // Writes what is gathered. 1 when something could not be written, but for a reader that closed its end.
  Outcome finish();

 private:
  void flush();

  int descriptor_;
  int error_ = 0;
  std::string gathered_;
};

}  // namespace tkv::command

#endif
