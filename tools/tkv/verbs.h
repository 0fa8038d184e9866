// Verbs: what `tkv` can do. Each verb is a value that stands next to the function that runs it; parsing, help, manual
// pages and completion are all derived from these values.
//
// To add a verb: define its value in a *_verb.cpp file, declare it below, and list it in verbs.cpp.
#ifndef TKV_TOOLS_TKV_VERBS_H
#define TKV_TOOLS_TKV_VERBS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "arguments.h"
#include "outcome.h"

namespace tkv::command {

class Context;

// What a shell offers in place of an argument.
enum class Candidates { kNone, kKeys, kFiles, kUsers, kGroups, kVerbs, kShells, kReadings, kHistoryActions };

// A flag or, with `argument`, an option that takes one. Exactly one of the two members is set.
struct Option {
  const char* names;     // "-r,--recursive"
  const char* argument;  // "NAME", or null for a flag
  const char* text;
  bool Arguments::*flag;
  std::optional<std::string> Arguments::*value;
  Candidates candidates = Candidates::kNone;
};

// A word that is not an option. Exactly one of the two members is set.
struct Operand {
  const char* name;
  const char* text;
  bool required;
  std::optional<std::string> Arguments::*one;
  std::vector<std::string> Arguments::*many;
  Candidates candidates = Candidates::kNone;
};

struct Verb {
  const char* name;
  const char* summary;
  const char* details;   // paragraphs, in lines of at most 80 columns
  const char* examples;  // lines of shell, indented by two blanks
  std::span<const Operand> operands;
  std::span<const Option> options;
  Outcome (*run)(Context&, const Arguments&);
  bool hidden = false;         // neither listed nor offered
  bool exits_as_diff = false;  // 0: nothing differs; 1: something does; otherwise a failure
};

// All verbs, in the order in which help lists them.
std::span<const Verb* const> all_verbs();

// Returns null if there is no such verb.
const Verb* find_verb(std::string_view name);

// Options that every verb takes.
std::span<const Option> common_options();

// Texts that the help and the manual page share.
struct CommandText {
  const char* summary;
  const char* names;      // how keys are written
  const char* arguments;  // what "-", "@FILE" and "--" mean
  const char* environment;
};
const CommandText& command_text();

extern const Verb kGetVerb;
extern const Verb kSetVerb;
extern const Verb kCreateVerb;
extern const Verb kLsVerb;
extern const Verb kTreeVerb;
extern const Verb kFindVerb;
extern const Verb kWaitVerb;
extern const Verb kStatVerb;
extern const Verb kRmVerb;
extern const Verb kMvVerb;
extern const Verb kCpVerb;
extern const Verb kChownVerb;
extern const Verb kChmodVerb;
extern const Verb kAccessVerb;
extern const Verb kConfVerb;
extern const Verb kStatusVerb;
extern const Verb kEditVerb;
extern const Verb kDiffVerb;
extern const Verb kExportVerb;
extern const Verb kImportVerb;
extern const Verb kBackupVerb;
extern const Verb kRestoreVerb;
extern const Verb kVerifyVerb;
extern const Verb kMigrateVerb;
extern const Verb kLogVerb;
extern const Verb kWatchVerb;
extern const Verb kUndoVerb;
extern const Verb kHistoryVerb;
extern const Verb kHelpVerb;
extern const Verb kCompletionVerb;
extern const Verb kCompleteVerb;

}  // namespace tkv::command

#endif
