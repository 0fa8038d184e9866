// Terminal: what people see beside the data: messages, colours, questions, progress.
#ifndef TKV_TOOLS_TKV_TERMINAL_H
#define TKV_TOOLS_TKV_TERMINAL_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "outcome.h"

namespace tkv::command {

// Which of the three standard files is a terminal, and what was asked for.
struct Terminal {
  bool input = false;
  bool output = false;
  bool messages = false;
  bool colour = false;  // on standard output
  bool quiet = false;   // only errors

  // Colour is used on a terminal unless `no_colour`, NO_COLOR or TERM=dumb say otherwise.
  static Terminal detect(bool quiet, bool no_colour);

  // Columns of the terminal behind standard output, `otherwise` when there is none.
  static std::size_t columns(std::size_t otherwise);
};

enum class Ink { kKey, kValue, kFaint, kAdded, kRemoved };

// The text in that colour, or as it is.
std::string painted(const Terminal& terminal, Ink ink, std::string text);

// A text for standard output: safe for a terminal when it is one, as it stands else.
std::string for_output(const Terminal& terminal, std::string_view text);

// One line on standard error. Control characters are shown, not sent.
void say(std::string_view text);

// As say, unless quiet.
void note(const Terminal& terminal, std::string_view text);

// Asks for a yes. No when the input is no terminal or ends.
bool confirm(const Terminal& terminal, const std::string& question);

// A bar on standard error for work that takes longer than a moment; nothing when standard error is no terminal.
class Progress {
 public:
  Progress(const Terminal& terminal, std::string label);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `total` 0: not known. `part` says what of the work this is about.
  void show(std::uint64_t done, std::uint64_t total, std::string_view part = {});

 private:
  bool enabled_;
  bool drawn_ = false;
  std::string label_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tkv::command

#endif
