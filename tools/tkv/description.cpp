#include "description.h"

#include <algorithm>

#include "masks.h"
#include "registry/access.h"

namespace tkv::command {

void add_security(const sec_attr& security, JsonObject* object) {
  object->text("owner", registry::user_of(security))
      .text("group", registry::group_of(security))
      .raw("mode", json_string(mode_of(security)))
      .raw("masks", json_array({std::to_string(security.user_perm), std::to_string(security.group_perm),
                                std::to_string(security.other_perm)}));
}

void add_other_reading(const registry::TypedValue& value, JsonObject* object) {
  if (const auto text = text_in_number(value)) object->raw("text", json_string(*text));
}

JsonObject done(const char* verb, std::string_view name) {
  JsonObject object;
  object.raw("done", json_string(verb)).text("name", name);
  return object;
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

}  // namespace tkv::command
