#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "base/identity.h"
#include "characters.h"
#include "json.h"
#include "masks.h"
#include "registry/name.h"
#include "values.h"

namespace tkv::command {
namespace {

using Json = nlohmann::json;
using registry::KeyProgress;
using registry::KeyRecord;
using registry::Subtree;
using registry::TypedValue;

Outcome wrong(std::string text) { return {Exit::kUsage, std::move(text)}; }

// Finds text that is not JSON, and objects that name a member twice: the second would hide the first.
class MemberCheck final : public nlohmann::json_sax<Json> {
 public:
  explicit MemberCheck(KeyProgress progress) : progress_(progress) {}

  Outcome outcome() const { return outcome_; }

  bool key(string_t& name) override {
    if (open_.back().insert(name).second) return true;
    outcome_ = wrong("the member \"" + name + "\" is given twice in one object");
    return false;
  }

  bool start_object(std::size_t) override { return open(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
  bool parse_error(std::size_t, const std::string&, const Json::exception& failure) override {
    const std::string reason = failure.what();
    const std::size_t end = reason.find("] ");
    outcome_ = wrong("not JSON: " + (end == std::string::npos ? reason : reason.substr(end + 2)));
    return false;
  }

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }

 private:
  static constexpr std::size_t kKeyDepth = 3;  // the export, its array of keys, a key
  static constexpr std::size_t kDeepest = 16;  // an export has four

  bool open() {
    open_.emplace_back();
    if (open_.size() == kKeyDepth) progress_(++keys_);
    if (open_.size() <= kDeepest) return true;
    outcome_ = wrong("arrays and objects are nested too deeply");
    return false;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  std::vector<std::set<std::string>> open_;  // of each open object, the members so far; arrays have none
  Outcome outcome_;
  KeyProgress progress_;
  std::uint64_t keys_ = 0;
};

Outcome parse(std::string_view text, KeyProgress progress, Json* json) {
  MemberCheck check(progress);
  if (!Json::sax_parse(text, &check)) return check.outcome();
  *json = Json::parse(text);
  return {};
}

bool has_only(const Json& object, std::initializer_list<const char*> names, std::string* other) {
  for (const auto& [name, value] : object.items()) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      *other = name;
      return false;
    }
  }
  return true;
}

// {"base64": "..."} or, with `utf8` set, {"utf8": "..."} too.
bool read_marked(const Json& json, bool utf8, std::string* bytes) {
  if (!json.is_object() || json.size() != 1) return false;
  const auto only = json.begin();
  const std::string& mark = only.key();
  const Json& text = only.value();
  if (!text.is_string()) return false;
  if (utf8 && mark == "utf8") {
    *bytes = text.get<std::string>();
    return true;
  }
  const auto decoded = mark == "base64" ? bytes_from_base64(text.get<std::string>()) : std::nullopt;
  if (decoded) *bytes = *decoded;
  return decoded.has_value();
}

bool read_text(const Json& json, std::string* stored) {
  if (!json.is_string()) return read_marked(json, false, stored);
  *stored = stored_from_utf8(json.get<std::string>());
  return true;
}

Outcome read_list(const Json& json, TypedValue* value) {
  std::vector<std::string> elements;
  if (!json.is_array()) return wrong("the value of a list must be an array of strings");
  for (const Json& element : json) {
    if (!element.is_string()) return wrong("the value of a list must be an array of strings");
    elements.push_back(element.get<std::string>());
  }
  return list_value(elements, value);
}

Outcome read_int32(const Json& json, TypedValue* value) {
  if (!json.is_number_integer()) return wrong("the value of an int32 must be a whole number");
  return parse_int32(json.dump(), value);
}

// Reads the value of a type that is given by name; marked bytes are allowed for any type.
Outcome read_named_value(const std::string& type, const Json& json, TypedValue* value) {
  const auto known = type_from_name(type);
  if (!known || *known == kTypeNone || !std::isalpha(static_cast<unsigned char>(type.front()))) {
    return wrong("unknown type \"" + type + "\"");
  }
  if (*known == kTypeBytes || json.is_object()) {
    value->type = *known;
    if (read_marked(json, true, &value->bytes)) return {};
    return wrong("the value of bytes must be {\"utf8\": \"...\"} or {\"base64\": \"...\"}");
  }
  if (*known == kTypeList) return read_list(json, value);
  if (*known == kTypeInt32) return read_int32(json, value);
  if (!json.is_string()) return wrong("the value of this type must be a string");
  if (*known == kTypeInt64) return parse_int64(json.get<std::string>(), value);
  *value = text_value(json.get<std::string>());
  return {};
}

Outcome read_value(const Json& object, KeyRecord* record) {
  record->has_value = object.contains("type");
  const bool given = object.contains("value");
  if (!record->has_value) return given ? wrong("there is a \"value\" without a \"type\"") : Outcome();
  const Json& type = object["type"];
  record->value = {};
  if (type == "none") return given ? wrong("a key of type \"none\" must not have a \"value\"") : Outcome();
  if (!given) return wrong("there is a \"type\" without a \"value\"");
  if (type.is_string()) return read_named_value(type.get<std::string>(), object["value"], &record->value);
  if (!type.is_number_integer() || type < std::numeric_limits<std::int32_t>::min() ||
      type > std::numeric_limits<std::int32_t>::max()) {
    return wrong("\"type\" must be a name or a number of 32 bits");
  }
  record->value.type = type.get<std::int32_t>();
  if (read_marked(object["value"], true, &record->value.bytes)) return {};
  return wrong("the value of a numbered type must be {\"utf8\": \"...\"} or {\"base64\": \"...\"}");
}

// Reads a mode that gives all three masks, whatever they were before.
Outcome read_mode(const Json& json, sec_attr* security) {
  if (!json.is_string()) return wrong("\"mode\" must be a string");
  registry::SecurityChange change;
  if (Outcome parsed = parse_mode(json.get<std::string>(), &change); !parsed.ok()) return parsed;
  if (!sets_all_masks(change)) return wrong("\"mode\" must set u, g and o");
  return change.apply(security);
}

Outcome read_security(const Json& object, KeyRecord* record) {
  record->has_owner = object.contains("owner");
  record->has_group = object.contains("group");
  record->has_mode = object.contains("mode");
  std::string name;
  if (record->has_owner) {
    if (!read_text(object["owner"], &name)) return wrong("\"owner\" must be a string");
    if (Status set = registry::set_user(&record->security, name); !set.ok()) return set;
  }
  if (record->has_group) {
    if (!read_text(object["group"], &name)) return wrong("\"group\" must be a string");
    if (Status set = registry::set_group(&record->security, name); !set.ok()) return set;
  }
  return record->has_mode ? read_mode(object["mode"], &record->security) : Outcome();
}

Outcome read_record(const Json& json, KeyRecord* record) {
  if (!json.is_object() || !json.contains("name")) return wrong("a key must be an object with a \"name\"");
  std::string other;
  if (!read_text(json["name"], &record->name)) return wrong("\"name\" must be a string");
  if (!has_only(json, {"name", "owner", "group", "mode", "type", "value"}, &other)) {
    return wrong("a key has no member \"" + other + "\"");
  }
  if (Status named = registry::check_name(record->name); !named.ok()) return named;
  if (Outcome secured = read_security(json, record); !secured.ok()) return secured;
  return read_value(json, record);
}

// Checks that all keys lie within the top, each once, and each with its parent. Nothing can be wrong with no keys.
Outcome check_order(const Subtree& subtree) {
  if (subtree.keys.empty()) return {};
  if (subtree.keys.front().name != subtree.top) {
    return wrong("the top, " + registry::describe(subtree.top) + ", is not among the keys");
  }
  std::set<std::string_view> seen;
  for (const KeyRecord& record : subtree.keys) {
    const std::string shown = registry::describe(record.name);
    if (!registry::is_within(record.name, subtree.top)) return wrong(shown + " is outside the top");
    if (!seen.insert(record.name).second) return wrong(shown + " is given twice");
    if (record.name != subtree.top && !seen.contains(registry::parent_of(record.name))) {
      return wrong("the parent of " + shown + " is not among the keys");
    }
  }
  for (const std::string& name : subtree.left_out) {
    if (name == subtree.top || (registry::is_within(name, subtree.top) && seen.contains(registry::parent_of(name)))) {
      continue;
    }
    return wrong("the parent of " + registry::describe(name) + ", which was left out, is not among the keys");
  }
  return {};
}

Outcome read_left_out(const Json& json, Subtree* subtree) {
  if (!json.contains("left_out")) return {};
  if (!json["left_out"].is_array()) return wrong("\"left_out\" must be an array");
  for (const Json& each : json["left_out"]) {
    std::string name;
    if (!read_text(each, &name)) return wrong("\"left_out\" must hold names");
    if (Status named = registry::check_name(name); !named.ok()) return named;
    subtree->left_out.push_back(std::move(name));
  }
  return {};
}

Outcome read_subtree(const Json& json, KeyProgress progress, Subtree* subtree) {
  std::string other;
  if (!json.is_object() || json.value("tkv", Json()) != 1) return wrong("not an export: the object has no \"tkv\":1");
  if (!has_only(json, {"tkv", "top", "keys", "left_out"}, &other)) {
    return wrong("an export has no member \"" + other + "\"");
  }
  if (!json.contains("top") || !read_text(json["top"], &subtree->top)) return wrong("\"top\" must be a string");
  if (!json.contains("keys") || !json["keys"].is_array()) return wrong("\"keys\" must be an array");
  for (const Json& each : json["keys"]) {
    KeyRecord record;
    if (Outcome read = read_record(each, &record); !read.ok()) {
      const std::size_t at = subtree->keys.size() + 1;
      return {read.exit(), "key " + std::to_string(at) +
                               (record.name.empty() ? "" : " (" + registry::describe(record.name) + ")") + ": " +
                               read.text()};
    }
    subtree->keys.push_back(std::move(record));
    progress(subtree->keys.size());
  }
  std::stable_sort(subtree->keys.begin(), subtree->keys.end(), [](const KeyRecord& left, const KeyRecord& right) {
    return registry::name_before(left.name, right.name);
  });
  if (Outcome read = read_left_out(json, subtree); !read.ok()) return read;
  return check_order(*subtree);
}

}  // namespace

Outcome parse_export(std::string_view text, KeyProgress progress, Subtree* subtree) {
  *subtree = {};
  Json json;
  if (Outcome parsed = parse(text, progress, &json); !parsed.ok()) return parsed;
  return read_subtree(json, progress, subtree);
}

}  // namespace tkv::command
