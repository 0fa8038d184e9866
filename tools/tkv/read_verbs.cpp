#include <algorithm>
#include <vector>

#include "characters.h"
#include "context.h"
#include "json.h"
#include "key_by_key.h"
#include "masks.h"
#include "registry/access.h"
#include "verbs.h"

namespace tkv::command {
namespace {

using registry::Reader;

// What a person is told of one key: everything but the bytes of its value.
struct Description {
  registry::Stat stat;
  StoredValue value;
};

void add_security(const sec_attr& security, JsonObject* object) {
  object->text("owner", registry::user_of(security))
      .text("group", registry::group_of(security))
      .raw("mode", json_string(mode_of(security)))
      .raw("masks", json_array({std::to_string(security.user_perm), std::to_string(security.group_perm),
                                std::to_string(security.other_perm)}));
}

// The second reading of a number, for programs.
void add_other_reading(const StoredValue& value, JsonObject* object) {
  if (const auto text = text_in_number(value)) object->raw("text", json_string(*text));
}

// get

struct Reading {
  std::string name;  // of --as
  char end;          // of lines
  bool ends;         // the value's last line has an end
};

Outcome no_such_reading(const std::string& name, const StoredValue& value, const std::string& reading) {
  return {Exit::kWrongType, registry::describe(name) + " holds no " + reading + " but " + type_name(value.type) + ", " +
                                counted(value.bytes.size(), "byte")};
}

// A text as people mean it: of type 3, or what a JVM stored under type 1 or 2.
std::optional<std::string> any_text(const StoredValue& value) {
  if (auto text = exact_text(value)) return text;
  if (auto text = text_in_number(value)) return text;
  const bool typed = value.type == kTypeText || value.type == kTypeBytes;
  if (typed && is_utf8(value.bytes)) return value.bytes;
  return std::nullopt;
}

void print_text(Context& context, const std::string& text, const Reading& reading) {
  context.output().write(for_output(context.terminal(), text));
  if (reading.ends) context.output().write(std::string_view(&reading.end, 1));
}

Outcome print_list(Context& context, const std::string& name, const std::vector<std::string>& elements,
                   const Reading& reading) {
  const auto holds_end = [](const std::string& element) { return element.find('\n') != std::string::npos; };
  if (reading.end == '\n' && std::any_of(elements.begin(), elements.end(), holds_end)) {
    note(context.terminal(), "tkv: note: an element of " + registry::describe(name) +
                                 " holds a line end; --null or --json tell elements apart");
  }
  for (std::size_t at = 0; at < elements.size(); ++at) {
    print_text(context, elements[at], {reading.name, reading.end, reading.ends || at + 1 < elements.size()});
  }
  return {};
}

void mention_text(Context& context, const StoredValue& value) {
  const auto text = text_in_number(value);
  if (!text || text->size() < 2 || !context.terminal().messages) return;
  note(context.terminal(), "tkv: note: the bytes also read as the text \"" + *text + "\"; --as text prints it");
}

Outcome print_by_itself(Context& context, const std::string& name, const StoredValue& value, const Reading& reading) {
  if (value.bytes.empty()) return {};
  if (const auto elements = exact_list(value)) return print_list(context, name, *elements, reading);
  if (const auto number = exact_number(value)) {
    mention_text(context, value);
    print_text(context, std::to_string(*number), reading);
    return {};
  }
  const bool printable = is_utf8(value.bytes) && safe(value.bytes) == value.bytes;
  if (const auto text = exact_text(value)) {
    print_text(context, *text, reading);
  } else if (value.type == kTypeText) {
    print_text(context, utf8_for_people(value.bytes), reading);
  } else {
    print_text(context, printable ? value.bytes : hex_from(value.bytes), reading);
  }
  return {};
}

Outcome print_value(Context& context, const std::string& name, const StoredValue& value, const Reading& reading) {
  if (reading.name == "raw") {
    context.output().write(value.bytes);
    return {};
  }
  if (reading.name == "hex") {
    print_text(context, hex_from(value.bytes), reading);
    return {};
  }
  if (reading.name == "text") {
    const auto text = any_text(value);
    if (!text) return no_such_reading(name, value, "text");
    print_text(context, *text, reading);
    return {};
  }
  if (reading.name == "list") {
    const auto elements = exact_list(value);
    return elements ? print_list(context, name, *elements, reading) : no_such_reading(name, value, "list");
  }
  if (reading.name == "number") {
    const auto number = exact_number(value);
    if (!number) return no_such_reading(name, value, "number");
    print_text(context, std::to_string(*number), reading);
    return {};
  }
  return print_by_itself(context, name, value, reading);
}

Outcome read_value(Context& context, const std::string& name, StoredValue* value) {
  return context.registry().read([&](Reader& reader) {
    store::Value found;
    Status status = reader.value(name, &found);
    if (status.ok()) *value = copied(found);
    return status;
  });
}

std::string value_json(const std::string& name, const StoredValue& value) {
  JsonObject object;
  object.text("name", name);
  add_value(value, &object);
  add_other_reading(value, &object);
  return object.str();
}

// ls

struct Subkey {
  std::string level;
  sec_attr security{};
  bool readable = false;
  registry::Stat stat;
};

Outcome read_subkeys(Context& context, const std::string& name, bool described, std::vector<Subkey>* subkeys) {
  return context.registry().read_all([&](Reader& reader) -> Status {
    subkeys->clear();
    Status status = reader.list(name, [&](std::string_view level, const store::Node& node) {
      const registry::Rights rights = registry::rights_of(reader.identity(), node.security);
      subkeys->push_back({std::string(level), node.security, (rights & TKV_RIGHT_READ) != 0, {}});
      return Status();
    });
    for (Subkey& subkey : *subkeys) {
      if (!status.ok() || !described || !subkey.readable) continue;
      status = reader.stat(child_name(name, subkey.level), &subkey.stat);
    }
    return status;
  });
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string padded_left(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// The columns before the name. What the session may not read is not told.
std::string described(const Subkey& subkey, std::size_t owner_width, std::size_t group_width) {
  const sec_attr& security = subkey.security;
  const auto told = [&](std::string_view text) { return subkey.readable ? std::string(text) : "?"; };
  const std::string rights =
      columns_of(security.user_perm) + " " + columns_of(security.group_perm) + " " + columns_of(security.other_perm);
  return padded(told(rights), rights.size()) + " " + padded(told(registry::user_of(security)), owner_width) + " " +
         padded(told(registry::group_of(security)), group_width) + " " + padded(told(type_name(subkey.stat.type)), 5) +
         " " + padded_left(told(std::to_string(subkey.stat.size)), 7) + " ";
}

void print_name(Context& context, std::string_view name) {
  context.output().write(painted(context.terminal(), Ink::kKey, for_output(context.terminal(), utf8_for_people(name))));
}

void print_subkeys(Context& context, const std::string& parent, const std::vector<Subkey>& subkeys,
                   const Arguments& arguments) {
  std::size_t owner_width = 0;
  std::size_t group_width = 0;
  for (const Subkey& subkey : subkeys) {
    owner_width = std::max(owner_width, registry::user_of(subkey.security).size());
    group_width = std::max(group_width, registry::group_of(subkey.security).size());
  }
  for (const Subkey& subkey : subkeys) {
    if (arguments.long_lines) {
      context.output().write(for_output(context.terminal(), described(subkey, owner_width, group_width)));
    }
    print_name(context, arguments.full_names ? child_name(parent, subkey.level) : subkey.level);
    if (arguments.long_lines && subkey.stat.has_subkeys) context.output().write(".");
    context.output().write(arguments.null_ends ? std::string_view("\0", 1) : "\n");
  }
}

std::string subkey_json(const std::string& parent, const Subkey& subkey, bool described) {
  JsonObject object;
  object.text("level", subkey.level).text("name", child_name(parent, subkey.level));
  if (!described || !subkey.readable) return object.str();
  add_security(subkey.security, &object);
  object.raw("type", json_string(type_name(subkey.stat.type)))
      .number("size", subkey.stat.size)
      .flag("subkeys", subkey.stat.has_subkeys);
  return object.str();
}

// stat

std::string stat_json(const std::string& name, const Description& key) {
  JsonObject object;
  object.text("name", name);
  add_security(key.stat.security, &object);
  object.number("id", key.stat.id).number("size", key.stat.size).flag("subkeys", key.stat.has_subkeys);
  add_value(key.value, &object);
  add_other_reading(key.value, &object);
  return object.str();
}

void print_stat(Context& context, const std::string& name, const Description& key) {
  const sec_attr& security = key.stat.security;
  const auto field = [&](const char* label, const std::string& text) { context.print(padded(label, 9) + text); };
  const std::string number = std::to_string(key.value.type);
  const std::string type = type_name(key.value.type);
  field("key", shown_name(name));
  field("type", type == number ? number : type + " (" + number + ")");
  field("size", counted(key.value.bytes.size(), "byte"));
  if (!key.value.bytes.empty()) field("value", one_line(key.value, 200));
  if (const auto text = text_in_number(key.value)) field("as text", '"' + *text + '"');
  field("owner", columns_of(security.user_perm) + "  " + std::string(registry::user_of(security)));
  field("group", columns_of(security.group_perm) + "  " + std::string(registry::group_of(security)));
  field("other", columns_of(security.other_perm));
  field("mode", mode_of(security) + "  " + numbers_of(security));
  field("subkeys", key.stat.has_subkeys ? "yes" : "no");
}

}  // namespace

Outcome run_get(Context& context, const Arguments& arguments) {
  const Reading reading{arguments.reading.value_or("auto"), arguments.null_ends ? '\0' : '\n', !arguments.no_newline};
  constexpr std::string_view kReadings[] = {"auto", "text", "list", "number", "hex", "raw"};
  if (std::find(std::begin(kReadings), std::end(kReadings), reading.name) == std::end(kReadings)) {
    return {Exit::kUsage, "--as " + reading.name + ": a reading is auto, text, list, number, hex or raw"};
  }
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    StoredValue value;
    if (Outcome read = read_value(context, name, &value); !read.ok()) return read;
    if (!context.json()) return print_value(context, name, value, reading);
    *json = value_json(name, value);
    return {};
  });
}

Outcome run_ls(Context& context, const Arguments& arguments) {
  std::string name;
  std::vector<Subkey> subkeys;
  if (Outcome named = key_name(arguments.key.value_or("."), &name); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Outcome read = read_subkeys(context, name, arguments.long_lines, &subkeys); !read.ok()) return read;
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(subkeys.size());
    for (const Subkey& subkey : subkeys) objects.push_back(subkey_json(name, subkey, arguments.long_lines));
    context.output().line(json_lines(objects));
  } else {
    print_subkeys(context, name, subkeys, arguments);
  }
  return {};
}

Outcome run_stat(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  bool first = true;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    Description key;
    const Status read = context.registry().read([&](Reader& reader) -> Status {
      store::Value value;
      Status status = reader.stat(name, &key.stat);
      if (status.ok()) status = reader.value(name, &value);
      if (status.ok()) key.value = copied(value);
      return status;
    });
    if (!read.ok()) return read;
    *json = stat_json(name, key);
    if (context.json()) return {};
    if (!std::exchange(first, false)) context.output().line("");
    print_stat(context, name, key);
    return {};
  });
}

}  // namespace tkv::command
