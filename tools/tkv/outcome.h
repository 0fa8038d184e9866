// Outcome: how a verb ended: an exit code for the caller's shell and a message for people.
#ifndef TKV_TOOLS_TKV_OUTCOME_H
#define TKV_TOOLS_TKV_OUTCOME_H

#include <string>
#include <utility>

#include "base/status.h"

namespace tkv::command {

// Exit codes, each with its name for programs and its meaning for people: the one table of the command. The numbers are
// part of its interface, since scripts test them: do not change.
#define TKV_EXIT_CODES(EXIT)                                                                                      \
  EXIT(kDone, 0, "done", "done")                                                                                  \
  EXIT(kOther, 1, "other", "other failures: no space, no memory, unreadable configuration, unwritable output")    \
  EXIT(kUsage, 2, "usage", "usage: the arguments, a name or a text that was read make no sense")                  \
  EXIT(kNotFound, 3, "not-found", "not found")                                                                    \
  EXIT(kDenied, 4, "denied", "access denied")                                                                     \
  EXIT(kConflict, 5, "conflict", "conflict: the key exists or has subkeys, or the answer was no")                 \
  EXIT(kWrongType, 6, "wrong-type", "wrong type: the value has no such reading")                                  \
  EXIT(kUnreachable, 7, "unreachable", "unreachable, busy or the time is up; the same command may succeed later") \
  EXIT(kDamaged, 8, "damaged", "damaged")                                                                         \
  EXIT(kPartly, 9, "partly-done", "partly done: some of what was asked for")                                      \
  EXIT(kUnusable, 10, "unusable", "the registry cannot be used as configured")                                    \
  EXIT(kUndecided, 11, "undecided", "not known whether the change was made; look before you repeat it")

enum class Exit {
#define TKV_EXIT(identifier, number, name, meaning) identifier = (number),
  TKV_EXIT_CODES(TKV_EXIT)
#undef TKV_EXIT
};

// The exit code for a result of the registry client.
Exit exit_of(prtkv_result result);

// The exit code for the errno of a call on a file.
Exit exit_of_error(int error);

// A short name for programs: "not-found".
const char* name_of(Exit exit);

// All exit codes with their meanings, one a line, for help and manual.
std::string exit_code_text();

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

// Adds up the outcomes of several arguments that are processed one after the other.
class Tally {
 public:
  void add(const Outcome& outcome);

  // Exit::kDone if all succeeded, Exit::kPartly if some did, otherwise the first failure's code. Has no text: whoever
  // added the failures has reported them.
  Outcome sum() const;

 private:
  int done_ = 0;
  int failed_ = 0;
  Exit first_ = Exit::kDone;
};

}  // namespace tkv::command

#endif
