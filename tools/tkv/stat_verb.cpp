#include <utility>
#include <vector>

#include "characters.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "key_by_key.h"
#include "masks.h"
#include "registry/access.h"
#include "state_argument.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::KeyInfo;
using registry::TypedValue;

std::string stat_json(const std::string& name, const KeyInfo& info, const TypedValue& value) {
  JsonObject object;
  object.text("name", name);
  add_security(info.security, &object);
  object.number("id", info.id).number("size", info.size).flag("subkeys", info.has_subkeys);
  object.number("revision", info.revision);
  if (info.changed_at != 0) object.raw("changed_at", json_string(exact_time(info.changed_at)));
  if (!info.changed_by.empty()) object.utf8("changed_by", info.changed_by);
  add_value(value, &object);
  add_other_reading(value, &object);
  return object.str();
}

// Time and author are known only as long as the change is retained.
std::string change_text(const KeyInfo& info) {
  std::string text = "revision " + std::to_string(info.revision);
  if (info.changed_at != 0) text += ", " + shown_time(info.changed_at);
  if (!info.changed_by.empty()) text += ", by " + utf8_for_people(info.changed_by);
  return text;
}

void print_stat(Context& context, const std::string& name, const KeyInfo& info, const TypedValue& value) {
  const sec_attr& security = info.security;
  const auto field = [&](const char* label, const std::string& text) { context.print(padded(label, 9) + text); };
  const std::string number = std::to_string(value.type);
  const std::string type = type_name(value.type);
  field("key", shown_name(name));
  field("type", type == number ? number : type + " (" + number + ")");
  field("size", counted(value.bytes.size(), "byte"));
  if (!value.bytes.empty()) field("value", one_line(value, 200));
  if (const auto text = text_in_number(value)) field("as text", '"' + *text + '"');
  field("owner", columns_of(security.user_perm) + "  " + std::string(registry::user_of(security)));
  field("group", columns_of(security.group_perm) + "  " + std::string(registry::group_of(security)));
  field("other", columns_of(security.other_perm));
  field("mode", mode_of(security) + "  " + numbers_of(security));
  field("subkeys", info.has_subkeys ? "yes" : "no");
  if (info.revision != 0) field("changed", change_text(info));
}

Outcome run_stat(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  bool first = true;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    KeyInfo info;
    TypedValue value;
    if (Status read = context.reader().read_key(name, &info, &value); !read.ok()) return read;
    *json = stat_json(name, info, value);
    if (context.json()) return {};
    if (!std::exchange(first, false)) context.output().line("");
    print_stat(context, name, info, value);
    return {};
  });
}

constexpr std::array kOptions{kAt};

}  // namespace

constinit const Verb kStatVerb{
    .name = "stat",
    .summary = "Show type, size, owner, group, rights and last change of keys",
    .details = R"(Rights are shown in six columns for owner, group and others: r read, l list,
w write, s change security, c create subkeys, d delete or move. The line "mode"
repeats them in the form that chmod takes, and as numbers. The line "changed" is
about the last change of the key or its value; time and author are shown as long
as the log has that change.
)",
    .examples = R"(  tkv stat app.hosts
  tkv stat --json app.hosts
)",
    .operands = kKeys,
    .options = kOptions,
    .run = run_stat};

}  // namespace tkv::command
