// Verbs: the one table that parsing, help, man pages and completion are made from.
#ifndef TKV_TOOLS_TKV_VERBS_H
#define TKV_TOOLS_TKV_VERBS_H

#include <span>

#include "arguments.h"
#include "outcome.h"

namespace tkv::command {

class Context;

// What stands for an argument when a shell completes it.
enum class Kind { kKey, kFile, kUser, kGroup, kVerb, kShell, kReading, kOther };

struct Option {
  const char* names;     // "-r,--recursive"
  const char* argument;  // "NAME", null for a flag
  const char* text;
  bool Arguments::*flag;
  std::optional<std::string> Arguments::*value;
  Kind kind = Kind::kOther;
};

struct Operand {
  const char* name;
  const char* text;
  bool required;
  std::optional<std::string> Arguments::*one;  // or
  std::vector<std::string> Arguments::*many;
  Kind kind = Kind::kKey;
};

struct Verb {
  const char* name;
  const char* summary;
  const char* details;
  const char* examples;  // lines of shell, comments included
  std::span<const Operand> operands;
  std::span<const Option> options;
  Outcome (*run)(Context&, const Arguments&);
  bool hidden = false;
};

std::span<const Verb> all_verbs();
const Verb* find_verb(std::string_view name);

// Options that every verb takes.
std::span<const Option> common_options();

// Texts that the help and the man page share.
struct CommandText {
  const char* summary;
  const char* names;      // how keys are written
  const char* arguments;  // what "-", "@file" and "--" mean
  const char* exits;      // the exit codes, one a line
  const char* environment;
};
const CommandText& command_text();

// The verbs, by what they are about.
Outcome run_get(Context& context, const Arguments& arguments);
Outcome run_set(Context& context, const Arguments& arguments);
Outcome run_create(Context& context, const Arguments& arguments);
Outcome run_ls(Context& context, const Arguments& arguments);
Outcome run_tree(Context& context, const Arguments& arguments);
Outcome run_stat(Context& context, const Arguments& arguments);
Outcome run_rm(Context& context, const Arguments& arguments);
Outcome run_mv(Context& context, const Arguments& arguments);
Outcome run_cp(Context& context, const Arguments& arguments);
Outcome run_chown(Context& context, const Arguments& arguments);
Outcome run_chmod(Context& context, const Arguments& arguments);
Outcome run_access(Context& context, const Arguments& arguments);
Outcome run_conf(Context& context, const Arguments& arguments);
Outcome run_export(Context& context, const Arguments& arguments);
Outcome run_import(Context& context, const Arguments& arguments);
Outcome run_backup(Context& context, const Arguments& arguments);
Outcome run_restore(Context& context, const Arguments& arguments);
Outcome run_verify(Context& context, const Arguments& arguments);
Outcome run_migrate(Context& context, const Arguments& arguments);
Outcome run_help(Context& context, const Arguments& arguments);
Outcome run_completion(Context& context, const Arguments& arguments);
Outcome run_complete(Context& context, const Arguments& arguments);

}  // namespace tkv::command

#endif
