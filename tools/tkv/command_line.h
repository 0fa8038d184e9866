// The command line: words into Arguments and a verb.
//
// A word after the verb that does not begin with "-" is an operand, and so are "-" alone, negative numbers, and every
// word after "--". Options may stand anywhere among the operands.
#ifndef TKV_TOOLS_TKV_COMMAND_LINE_H
#define TKV_TOOLS_TKV_COMMAND_LINE_H

#include "arguments.h"
#include "outcome.h"
#include "output.h"
#include "verbs.h"

namespace tkv::command {

// `*verb` stays null when there is nothing to run: help or the version was printed (done), or the words make no sense
// (2 with the reason; of the arguments only `json` is set).
Outcome parse_command_line(int count, char** words, Arguments* arguments, const Verb** verb, Output& output);

// The help of one verb, or of the whole command for null.
std::string help_text(const Verb* verb);

}  // namespace tkv::command

#endif
