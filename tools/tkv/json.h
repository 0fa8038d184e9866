// JSON: what verbs print with --json, and the text that export writes and import reads.
//
// A text that the registry stores is a JSON string if it is well-formed, else {"base64": "..."}; reading it gives the
// same bytes. A key is one line:
//
//   {"name":"a.b","owner":"root","group":"root","mode":"u=rlwscd,g=wcd,o=rl","type":"text","value":"hello"}
//
// Depending on the type, "value" is a string (text), an array of strings (list), a number (int32), a number as a string
// (int64), or {"utf8": "..."} or {"base64": "..."} for the bytes of any other type, for which "type" is a number. A key
// of type "none" has no "value".
#ifndef TKV_TOOLS_TKV_JSON_H
#define TKV_TOOLS_TKV_JSON_H

#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

// A string. The text is well-formed UTF-8.
std::string json_string(std::string_view utf8);

// A string or an object with base64, for a text that the registry stores.
std::string json_text(std::string_view stored);

// The same for a text that should be UTF-8, such as a file name.
std::string json_utf8(std::string_view text);

// Builds an object, with its members in the order of the calls.
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
void add_value(const registry::TypedValue& value, JsonObject* object);

std::string record_line(const registry::KeyRecord& record);

// What comes before and after the lines of an export. `left_out` is as in Subtree.
std::string export_head(std::string_view top);
std::string export_tail(const std::vector<std::string>& left_out = {});

// Parses an export. The keys come back in the order of names. Fails with Exit::kUsage and the place of the mistake:
// malformed JSON, unknown or repeated members, bad names, a name given twice, a key without its parent or outside the
// top, also among those that were left out. An export of a damaged top holds no key. `progress` is called with the
// number of keys parsed so far; parsing takes two passes.
Outcome parse_export(std::string_view text, registry::KeyProgress progress, registry::Subtree* subtree);

}  // namespace tkv::command

#endif
