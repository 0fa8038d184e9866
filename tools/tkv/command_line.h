// Parsing of the command line into Arguments and a verb.
//
// After the verb, a word that does not begin with "-" is an operand, and so are "-" alone, negative numbers, and every
// word after "--". Options may come anywhere among the operands.
#ifndef TKV_TOOLS_TKV_COMMAND_LINE_H
#define TKV_TOOLS_TKV_COMMAND_LINE_H

#include "arguments.h"
#include "outcome.h"
#include "output.h"
#include "verbs.h"

namespace tkv::command {

// Leaves `*verb` null if there is nothing to run: help or the version was printed (Exit::kDone), or the words make no
// sense (Exit::kUsage with the reason; of the arguments, only `json` is set).
Outcome parse_command_line(int count, char** words, Arguments* arguments, const Verb** verb, Output& output);

// The help of a verb or, for null, of the whole command.
std::string help_text(const Verb* verb);

}  // namespace tkv::command

#endif
