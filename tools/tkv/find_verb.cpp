#include <algorithm>
#include <string>
#include <vector>

#include "characters.h"
#include "context.h"
#include "denied_parts.h"
#include "json.h"
#include "pattern.h"
#include "registry/access.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

struct Match {
  std::string name;
  bool by_name = false;
  bool by_value = false;
  TypedValue value;  // if values are searched and it may be read
  bool readable = false;
};

// The texts that people would look for in a value.
std::vector<std::string> texts_of(const TypedValue& value) {
  if (value.bytes.empty()) return {};
  if (auto text = exact_text(value)) return {std::move(*text)};
  if (auto elements = exact_list(value)) return std::move(*elements);
  if (const auto number = exact_number(value)) {
    std::vector<std::string> texts{std::to_string(*number)};
    if (auto text = text_in_number(value)) texts.push_back(std::move(*text));
    return texts;
  }
  if (is_utf8(value.bytes)) return {value.bytes};
  return {};
}

bool matches_value(const Pattern& pattern, const TypedValue& value) {
  const std::vector<std::string> texts = texts_of(value);
  return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) { return pattern.matches_text(text); });
}

Status find_matches(registry::KeyReader& reader, const std::string& top, const Pattern& pattern, bool values,
                    std::vector<Match>* matches, DeniedParts* denied) {
  registry::WalkOptions options;
  options.denied = registry::WalkOptions::Denied::kSkip;
  options.values = values;
  return reader.walk(top, options, [&](const registry::WalkEntry& entry) {
    Match match;
    match.readable = values && (entry.rights & TKV_RIGHT_READ) != 0;
    if (entry.subkeys_hidden) denied->add_subkeys(entry.name);
    if (values && !match.readable) denied->add_value(entry.name);
    if (match.readable) {
      match.value = {entry.type, std::string(reinterpret_cast<const char*>(entry.value.data()), entry.value.size())};
      match.by_value = matches_value(pattern, match.value);
    }
    match.by_name = pattern.matches_name(utf8_for_people(entry.name));
    if (!match.by_name && !match.by_value) return Status();
    match.name = entry.name;
    matches->push_back(std::move(match));
    return Status();
  });
}

std::string match_json(const Match& match, bool values) {
  JsonObject object;
  object.text("name", match.name);
  if (!values) return object.str();
  std::vector<std::string> matched;
  if (match.by_name) matched.emplace_back("\"name\"");
  if (match.by_value) matched.emplace_back("\"value\"");
  object.raw("matched", json_array(matched));
  if (match.readable) add_value(match.value, &object);
  return object.str();
}

void print_matches(Context& context, const std::vector<Match>& matches, const Arguments& arguments) {
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(matches.size());
    for (const Match& match : matches) objects.push_back(match_json(match, arguments.search_values));
    context.output().line(json_lines(objects));
    return;
  }
  for (const Match& match : matches) {
    const std::string name = for_output(context.terminal(), shown_name(match.name));
    context.output().write(painted(context.terminal(), Ink::kKey, name));
    context.output().write(arguments.null_ends ? std::string_view("\0", 1) : "\n");
  }
}

Outcome run_find(Context& context, const Arguments& arguments) {
  std::string top;
  Pattern pattern;
  std::vector<Match> matches;
  DeniedParts denied;
  if (Outcome parsed = Pattern::parse(*arguments.pattern, &pattern); !parsed.ok()) return parsed;
  if (Outcome named = key_name(arguments.key.value_or("."), &top); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  const Status found = find_matches(context.reader(), top, pattern, arguments.search_values, &matches, &denied);
  if (!found.ok()) return found;
  print_matches(context, matches, arguments);
  denied.say(context.terminal());
  if (!matches.empty()) return {};
  return {Exit::kNotFound,
          (arguments.search_values ? "no key and no value matches '" : "no key matches '") + *arguments.pattern + "'"};
}

constexpr std::array kOperands{
    one("PATTERN", "What to look for; quote it for the shell", true, &Arguments::pattern, Candidates::kNone),
    one("KEY", "Look at this key and below; default: the root", false, &Arguments::key)};
constexpr std::array kOptions{flag("--values", "Look at values too", &Arguments::search_values), kNullEnds, kAt};

}  // namespace

constinit const Verb kFindVerb{
    .name = "find",
    .summary = "Find keys by their names or values",
    .details = R"(Prints the full names of the keys that match, one per line. In a PATTERN, * stands
for any characters, ? for one, [a-z] for one of a set, [!a-z] for one that is not
in it; \ takes the meaning from the next character.

A PATTERN without a dot is compared with the last level of each name. One with
dots is compared with the full name, level by level; in it, a level ** stands for
any number of levels. With --values, the PATTERN is also compared with each text
value as a whole, each element of a list, and each number; dots have no meaning
then.

If nothing matches, the exit code is 3. What the caller may not list, or with
--values not read, is passed over, and a note says so.
)",
    .examples = R"(  tkv find 'host*'
  tkv find 'app.*.port'
  tkv find '**.nodes.**' app
  tkv find --values '*10.0.0.7*'
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_find};

}  // namespace tkv::command
