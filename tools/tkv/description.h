// Describing keys in JSON, as several verbs do.
#ifndef TKV_TOOLS_TKV_DESCRIPTION_H
#define TKV_TOOLS_TKV_DESCRIPTION_H

#include "json.h"
#include "sec_attr.h"
#include "values.h"

namespace tkv::command {

// Adds "owner", "group", "mode" and "masks".
void add_security(const sec_attr& security, JsonObject* object);

// Adds "text" for a value of a numeric type that also reads as text.
void add_other_reading(const registry::TypedValue& value, JsonObject* object);

// What verbs that change something print with --json: {"done": "rm", "name": ...}.
JsonObject done(const char* verb, std::string_view name);

// Fills a text with blanks on the right up to `width` bytes.
std::string padded(std::string text, std::size_t width);

}  // namespace tkv::command

#endif
