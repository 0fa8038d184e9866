#include "characters.h"
#include "json.h"
#include "masks.h"
#include "registry/access.h"
#include "values.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

std::string base64_object(std::string_view bytes) { return R"({"base64":")" + base64_from(bytes) + "\"}"; }

std::string list_json(const std::vector<std::string>& elements) {
  std::vector<std::string> texts;
  texts.reserve(elements.size());
  for (const std::string& element : elements) texts.push_back(json_string(element));
  return json_array(texts);
}

// The value of an exact reading and its type's name.
bool add_exact(const TypedValue& value, JsonObject* object) {
  std::string json;
  if (const auto text = exact_text(value)) {
    json = json_string(*text);
  } else if (const auto elements = exact_list(value)) {
    json = list_json(*elements);
  } else if (const auto number = exact_number(value)) {
    // Readers of JSON may keep numbers as floating point, which holds 53 bits.
    json = value.type == kTypeInt32 ? std::to_string(*number) : json_string(std::to_string(*number));
  } else {
    return false;
  }
  object->raw("type", json_string(type_name(value.type))).raw("value", json);
  return true;
}

}  // namespace

std::string json_string(std::string_view utf8) { return '"' + escaped_for_json(utf8) + '"'; }

std::string json_text(std::string_view stored) {
  const auto text = utf8_from_stored(stored);
  return text ? json_string(*text) : base64_object(stored);
}

std::string json_utf8(std::string_view text) { return is_utf8(text) ? json_string(text) : base64_object(text); }

JsonObject& JsonObject::utf8(std::string_view name, std::string_view text) { return raw(name, json_utf8(text)); }

JsonObject& JsonObject::text(std::string_view name, std::string_view stored) { return raw(name, json_text(stored)); }

JsonObject& JsonObject::number(std::string_view name, std::uint64_t number) {
  return raw(name, std::to_string(number));
}

JsonObject& JsonObject::flag(std::string_view name, bool flag) { return raw(name, flag ? "true" : "false"); }

JsonObject& JsonObject::raw(std::string_view name, std::string_view json) {
  if (!members_.empty()) members_ += ',';
  members_ += json_string(name);
  members_ += ':';
  members_ += json;
  return *this;
}

std::string json_lines(const std::vector<std::string>& elements) {
  std::string json = "[";
  for (const std::string& element : elements) {
    json += json.size() > 1 ? ",\n  " : "\n  ";
    json += element;
  }
  return json + (elements.empty() ? "]" : "\n]");
}

std::string json_array(const std::vector<std::string>& elements) {
  std::string json = "[";
  for (const std::string& element : elements) {
    if (json.size() > 1) json += ',';
    json += element;
  }
  return json + ']';
}

void add_value(const TypedValue& value, JsonObject* object) {
  if (value.type == kTypeNone && value.bytes.empty()) {
    object->raw("type", "\"none\"");
    return;
  }
  if (add_exact(value, object)) return;
  if (value.type == kTypeBytes) {
    object->raw("type", "\"bytes\"");
  } else {
    object->raw("type", std::to_string(value.type));
  }
  object->raw("value",
              is_utf8(value.bytes) ? R"({"utf8":)" + json_string(value.bytes) + "}" : base64_object(value.bytes));
}

std::string record_line(const registry::KeyRecord& record) {
  JsonObject object;
  object.text("name", record.name);
  if (record.has_owner) object.text("owner", registry::user_of(record.security));
  if (record.has_group) object.text("group", registry::group_of(record.security));
  if (record.has_mode) object.raw("mode", json_string(mode_of(record.security)));
  if (record.has_value) add_value(record.value, &object);
  return object.str();
}

std::string export_head(std::string_view top) { return "{\"tkv\":1,\n\"top\":" + json_text(top) + ",\n\"keys\":[\n"; }

std::string export_tail(const std::vector<std::string>& left_out) {
  if (left_out.empty()) return "\n]}\n";
  std::string names;
  for (const std::string& name : left_out) names += (names.empty() ? "" : ",\n") + json_text(name);
  return "\n],\n\"left_out\":[\n" + names + "\n]}\n";
}

}  // namespace tkv::command
