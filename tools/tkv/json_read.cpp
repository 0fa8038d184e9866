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

namespace tkv::command {
namespace {

using Json = nlohmann::json;

Outcome wrong(std::string text) { return {Exit::kUsage, std::move(text)}; }

// Finds the objects that name a member twice, the second of which would hide the first, and what is not JSON at all.
class MemberCheck final : public nlohmann::json_sax<Json> {
 public:
  Outcome outcome() const { return outcome_; }

  bool key(string_t& name) override {
    if (open_.back().insert(name).second) return true;
    outcome_ = wrong("the member \"" + name + "\" stands twice in one object");
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
  static constexpr std::size_t kDeepest = 16;  // an export has four

  bool open() {
    open_.emplace_back();
    if (open_.size() <= kDeepest) return true;
    outcome_ = wrong("arrays and objects are in each other too deeply");
    return false;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  std::vector<std::set<std::string>> open_;  // the members so far; none of arrays
  Outcome outcome_;
};

Outcome parse(std::string_view text, Json* json) {
  MemberCheck check;
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

Outcome read_list(const Json& json, StoredValue* value) {
  std::vector<std::string> elements;
  if (!json.is_array()) return wrong("the value of a list is an array of strings");
  for (const Json& element : json) {
    if (!element.is_string()) return wrong("the value of a list is an array of strings");
    elements.push_back(element.get<std::string>());
  }
  return list_value(elements, value);
}

Outcome read_int32(const Json& json, StoredValue* value) {
  if (!json.is_number_integer()) return wrong("the value of an int32 is a whole number");
  return parse_int32(json.dump(), value);
}

// The value for a type by name, or for any type as marked bytes.
Outcome read_named_value(const std::string& type, const Json& json, StoredValue* value) {
  const auto known = type_from_name(type);
  if (!known || *known == kTypeNone || !std::isalpha(static_cast<unsigned char>(type.front()))) {
    return wrong("unknown type \"" + type + "\"");
  }
  if (*known == kTypeBytes || json.is_object()) {
    value->type = *known;
    if (read_marked(json, true, &value->bytes)) return {};
    return wrong("the value of bytes is {\"utf8\": \"...\"} or {\"base64\": \"...\"}");
  }
  if (*known == kTypeList) return read_list(json, value);
  if (*known == kTypeInt32) return read_int32(json, value);
  if (!json.is_string()) return wrong("the value of this type is a string");
  if (*known == kTypeInt64) return parse_int64(json.get<std::string>(), value);
  *value = text_value(json.get<std::string>());
  return {};
}

Outcome read_value(const Json& object, Entry* entry) {
  entry->has_value = object.contains("type");
  const bool given = object.contains("value");
  if (!entry->has_value) return given ? wrong("a \"value\" without its \"type\"") : Outcome();
  const Json& type = object["type"];
  entry->value = {};
  if (type == "none") return given ? wrong("the type \"none\" has no \"value\"") : Outcome();
  if (!given) return wrong("a \"type\" without a \"value\"");
  if (type.is_string()) return read_named_value(type.get<std::string>(), object["value"], &entry->value);
  if (!type.is_number_integer() || type < std::numeric_limits<std::int32_t>::min() ||
      type > std::numeric_limits<std::int32_t>::max()) {
    return wrong("\"type\" is a name or a number of 32 bits");
  }
  entry->value.type = type.get<std::int32_t>();
  if (read_marked(object["value"], true, &entry->value.bytes)) return {};
  return wrong("the value of a numbered type is {\"utf8\": \"...\"} or {\"base64\": \"...\"}");
}

// A mode that says all three masks, whatever stood before.
Outcome read_mode(const Json& json, sec_attr* security) {
  if (!json.is_string()) return wrong("\"mode\" is a string");
  Mode mode;
  if (Outcome parsed = Mode::parse(json.get<std::string>(), &mode); !parsed.ok()) return parsed;
  sec_attr from_none{};
  sec_attr from_all{TKV_RIGHT_ALL, TKV_RIGHT_ALL, TKV_RIGHT_ALL, {}, {}};
  mode.apply_to(&from_none);
  mode.apply_to(&from_all);
  if (mode_of(from_none) != mode_of(from_all)) return wrong("\"mode\" has to set u, g and o");
  security->user_perm = from_none.user_perm;
  security->group_perm = from_none.group_perm;
  security->other_perm = from_none.other_perm;
  return {};
}

Outcome read_security(const Json& object, Entry* entry) {
  entry->has_owner = object.contains("owner");
  entry->has_group = object.contains("group");
  entry->has_mode = object.contains("mode");
  std::string name;
  if (entry->has_owner) {
    if (!read_text(object["owner"], &name)) return wrong("\"owner\" is a string");
    if (Status set = registry::set_user(&entry->security, name); !set.ok()) return set;
  }
  if (entry->has_group) {
    if (!read_text(object["group"], &name)) return wrong("\"group\" is a string");
    if (Status set = registry::set_group(&entry->security, name); !set.ok()) return set;
  }
  return entry->has_mode ? read_mode(object["mode"], &entry->security) : Outcome();
}

Outcome read_entry(const Json& json, Entry* entry) {
  if (!json.is_object() || !json.contains("name")) return wrong("a key is an object with a \"name\"");
  std::string other;
  if (!read_text(json["name"], &entry->name)) return wrong("\"name\" is a string");
  if (!has_only(json, {"name", "owner", "group", "mode", "type", "value"}, &other)) {
    return wrong("a key has no member \"" + other + "\"");
  }
  if (Status named = registry::check_name(entry->name); !named.ok()) return named;
  if (Outcome secured = read_security(json, entry); !secured.ok()) return secured;
  return read_value(json, entry);
}

// Names once, all within the top, each with its parent.
Outcome check_order(const Snapshot& snapshot) {
  if (snapshot.entries.front().name != snapshot.top) {
    return wrong("the top, " + registry::describe(snapshot.top) + ", is not among the keys");
  }
  std::set<std::string_view> seen;
  for (const Entry& entry : snapshot.entries) {
    const std::string shown = registry::describe(entry.name);
    if (!registry::is_within(entry.name, snapshot.top)) return wrong(shown + " lies outside the top");
    if (!seen.insert(entry.name).second) return wrong(shown + " stands twice");
    if (entry.name != snapshot.top && !seen.contains(registry::parent_of(entry.name))) {
      return wrong("the parent of " + shown + " is not among the keys");
    }
  }
  return {};
}

Outcome read_snapshot(const Json& json, Snapshot* snapshot) {
  std::string other;
  if (!json.is_object() || json.value("tkv", Json()) != 1) {
    return wrong("not an export: the object has no \"tkv\":1");
  }
  if (!has_only(json, {"tkv", "top", "keys"}, &other)) return wrong("an export has no member \"" + other + "\"");
  if (!json.contains("top") || !read_text(json["top"], &snapshot->top)) return wrong("\"top\" is a string");
  if (!json.contains("keys") || !json["keys"].is_array() || json["keys"].empty()) {
    return wrong("\"keys\" is an array of at least the top");
  }
  for (const Json& each : json["keys"]) {
    Entry entry;
    if (Outcome read = read_entry(each, &entry); !read.ok()) {
      const std::size_t at = snapshot->entries.size() + 1;
      return {read.exit(), "key " + std::to_string(at) +
                               (entry.name.empty() ? "" : " (" + registry::describe(entry.name) + ")") + ": " +
                               read.text()};
    }
    snapshot->entries.push_back(std::move(entry));
  }
  std::stable_sort(snapshot->entries.begin(), snapshot->entries.end(),
                   [](const Entry& left, const Entry& right) { return name_before(left.name, right.name); });
  return check_order(*snapshot);
}

}  // namespace

Outcome parse_export(std::string_view text, Snapshot* snapshot) {
  *snapshot = {};
  Json json;
  if (Outcome parsed = parse(text, &json); !parsed.ok()) return parsed;
  return read_snapshot(json, snapshot);
}

}  // namespace tkv::command
