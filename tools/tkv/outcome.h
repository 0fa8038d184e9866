// Outcome: how a verb ended, as the caller's shell sees it: an exit code and a text.
#ifndef TKV_TOOLS_TKV_OUTCOME_H
#define TKV_TOOLS_TKV_OUTCOME_H

#include <string>
#include <utility>

#include "base/status.h"

namespace tkv::command {

// Exit codes are part of the command's interface: scripts test them. Do not change.
enum class Exit {
  kDone = 0,
  kOther = 1,
  kUsage = 2,  // the arguments, or a text that was read, make no sense
  kNotFound = 3,
  kDenied = 4,
  kConflict = 5,  // it exists, it has subkeys, or somebody else changed it
  kWrongType = 6,
  kUnreachable = 7,  // unreachable or timed out
  kDamaged = 8,
  kPartly = 9  // some of what was asked for was done
};

// The exit code for a result of the registry client.
Exit exit_of(prtkv_result result);

// The exit code for the errno of a call on a file.
Exit exit_of_error(int error);

// A short name for programs: "not-found".
const char* name_of(Exit exit);

class [[nodiscard]] Outcome {
 public:
  Outcome() = default;
  Outcome(const Status& status);  // NOLINT(google-explicit-constructor): every Status is an Outcome
  Outcome(Exit exit, std::string text) : exit_(exit), text_(std::move(text)) {}

  bool ok() const { return exit_ == Exit::kDone; }
  Exit exit() const { return exit_; }
  const std::string& text() const { return text_; }

 private:
  Exit exit_ = Exit::kDone;
  std::string text_;
};

// Adds up the outcomes of several arguments that are worked on one after the other.
class Tally {
 public:
  void add(const Outcome& outcome);

  // Done when all were; partly when some were; else the first failure's code. The texts were said by whoever added.
  Outcome sum() const;

 private:
  int done_ = 0;
  int failed_ = 0;
  Exit first_ = Exit::kDone;
};

}  // namespace tkv::command

#endif
