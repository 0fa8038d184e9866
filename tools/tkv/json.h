// JSON: what verbs print with --json, and the text that export writes and import reads.
//
// A text in the registry's bytes is a JSON string where it is well-formed, else {"base64": "..."}; reading gives back
// the same bytes. An entry is one line:
//
//   {"name":"a.b","owner":"root","group":"root","mode":"u=rlwscd,g=wcd,o=rl","type":"text","value":"hello"}
//
// By type, "value" is a string (text), an array of strings (list), a number (int32), a number as a string (int64), and
// {"utf8": "..."} or {"base64": "..."} for the bytes of any other type, which "type" names by its number; it is
// missing for "none".
#ifndef TKV_TOOLS_TKV_JSON_H
#define TKV_TOOLS_TKV_JSON_H

#include <string>
#include <string_view>
#include <vector>

#include "entry.h"
#include "outcome.h"

namespace tkv::command {

// A string for text in UTF-8; the caller has made sure that it is.
std::string json_string(std::string_view utf8);

// A string, or the marked base64, for a text in the registry's bytes.
std::string json_text(std::string_view stored);

// The same for a text that should be UTF-8, such as the name of a file.
std::string json_utf8(std::string_view text);

// Members of an object, in the order of the calls.
class JsonObject {
 public:
  JsonObject& text(std::string_view name, std::string_view stored);  // as json_text
  JsonObject& utf8(std::string_view name, std::string_view text);    // as json_utf8
  JsonObject& number(std::string_view name, std::uint64_t number);
  JsonObject& flag(std::string_view name, bool flag);
  JsonObject& raw(std::string_view name, std::string_view json);
  std::string str() const { return "{" + members_ + "}"; }

 private:
  std::string members_;
};

// An array over several lines, one element each.
std::string json_lines(const std::vector<std::string>& elements);

std::string json_array(const std::vector<std::string>& elements);

// Adds "type" and "value".
void add_value(const StoredValue& value, JsonObject* object);

std::string entry_line(const Entry& entry);

// What stands around the lines of an export.
std::string export_head(std::string_view top);
std::string export_tail();

// Reads an export. Entries come back in the order of names, checked: names, parents, no name twice, nothing outside
// the top. 2 with the place of what is wrong.
Outcome parse_export(std::string_view text, Snapshot* snapshot);

}  // namespace tkv::command

#endif
