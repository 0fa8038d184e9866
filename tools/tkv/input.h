// Input: what arguments name instead of holding it: "-" is standard input, "@FILE" a file.
#ifndef TKV_TOOLS_TKV_INPUT_H
#define TKV_TOOLS_TKV_INPUT_H

#include <string>
#include <vector>

#include "arguments.h"
#include "outcome.h"
#include "values.h"

namespace tkv::command {

// The whole of a file, or of standard input for "-". 2 when that is more than `limit` bytes, 3 when there is no such
// file, 4 when it may not be read.
Outcome read_file(const std::string& path, std::size_t limit, std::string* bytes);

// A path for people: "standard input" for "-".
std::string shown_path(const std::string& path);

// Tells whether a word names input rather than being it.
bool names_input(const std::string& word);

// The value that the operands and options of `set` ask for.
Outcome value_from_arguments(const Arguments& arguments, registry::TypedValue* value);

}  // namespace tkv::command

#endif
