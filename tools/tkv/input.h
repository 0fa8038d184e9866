// Input that arguments name: "-" is standard input, "@FILE" a file.
#ifndef TKV_TOOLS_TKV_INPUT_H
#define TKV_TOOLS_TKV_INPUT_H

#include <string>
#include <vector>

#include "arguments.h"
#include "outcome.h"
#include "values.h"

namespace tkv::command {

// Reads a whole file, or standard input for "-". Fails with Exit::kUsage if it has more than `limit` bytes,
// Exit::kNotFound if there is no such file, and Exit::kDenied if it may not be read.
Outcome read_file(const std::string& path, std::size_t limit, std::string* bytes);

// Fails with Exit::kUsage if the command has more rights than its caller (set-user-ID, set-group-ID, file
// capabilities): it must not read or write what only the caller named. `what` is the argument that is refused.
Outcome demand_own_rights(const std::string& what);

// A path for people: "standard input" for "-".
std::string shown_path(const std::string& path);

// Tells whether a word names input instead of being it.
bool names_input(const std::string& word);

// The value that the operands and options of `set` ask for.
Outcome value_from_arguments(const Arguments& arguments, registry::TypedValue* value);

}  // namespace tkv::command

#endif
