// What people see besides data: messages, colours, questions and progress.
#ifndef TKV_TOOLS_TKV_TERMINAL_H
#define TKV_TOOLS_TKV_TERMINAL_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "outcome.h"

namespace tkv::command {

// Which of the three standard files are terminals, and what was asked for.
struct Terminal {
  bool input = false;
  bool output = false;
  bool messages = false;
  bool colour = false;  // on standard output
  bool quiet = false;   // errors only

  // Colour is used on a terminal unless `no_colour`, NO_COLOR or TERM=dumb say otherwise.
  static Terminal detect(bool quiet, bool no_colour);

  // The width of the terminal on standard output, or `otherwise` if there is none.
  static std::size_t columns(std::size_t otherwise);
};

enum class Ink { kKey, kValue, kFaint, kAdded, kRemoved };

// Returns the text in that colour if colours are used.
std::string painted(const Terminal& terminal, Ink ink, std::string text);

// Returns a text for standard output: made safe if that is a terminal, unchanged otherwise.
std::string for_output(const Terminal& terminal, std::string_view text);

// Prints one line on standard error. Control characters are shown, not sent.
void say(std::string_view text);

// As say, but nothing if `quiet` was asked for.
void note(const Terminal& terminal, std::string_view text);

// Asks a yes-or-no question. Returns false if the input is not a terminal, or ends.
bool confirm(const Terminal& terminal, const std::string& question);

// A progress bar on standard error, for work that takes longer than a moment. Shows nothing if that is not a terminal.
class Progress {
 public:
  Progress(const Terminal& terminal, std::string label);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `total` 0: not known. `part` names the part of the work that the numbers are about.
  void show(std::uint64_t done, std::uint64_t total, std::string_view part = {});

 private:
  bool enabled_;
  bool drawn_ = false;
  std::string label_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tkv::command

#endif
