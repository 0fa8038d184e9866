#include <algorithm>
#include <vector>

#include "characters.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "key_by_key.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

struct Reading {
  std::string name;  // the argument of --as
  char end;          // what ends a line
  bool ends;         // whether the last line of the value is ended too
};

Outcome no_such_reading(const std::string& name, const TypedValue& value, const std::string& reading) {
  return {Exit::kWrongType, registry::describe(name) + " has no reading as " + reading + ": it is " +
                                type_name(value.type) + ", " + counted(value.bytes.size(), "byte")};
}

// The text of a value of type 3, or the text that a JVM stored under type 1 or 2.
std::optional<std::string> any_text(const TypedValue& value) {
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
                                 " contains a newline; use --null or --json to tell elements apart");
  }
  for (std::size_t at = 0; at < elements.size(); ++at) {
    print_text(context, elements[at], {reading.name, reading.end, reading.ends || at + 1 < elements.size()});
  }
  return {};
}

void note_text_reading(Context& context, const TypedValue& value) {
  const auto text = text_in_number(value);
  if (!text || text->size() < 2 || !context.terminal().messages) return;
  note(context.terminal(), "tkv: note: the bytes also read as the text \"" + *text + "\"; --as text prints it");
}

Outcome print_by_type(Context& context, const std::string& name, const TypedValue& value, const Reading& reading) {
  if (value.bytes.empty()) return {};
  if (const auto elements = exact_list(value)) return print_list(context, name, *elements, reading);
  if (const auto number = exact_number(value)) {
    note_text_reading(context, value);
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

Outcome print_value(Context& context, const std::string& name, const TypedValue& value, const Reading& reading) {
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
  return print_by_type(context, name, value, reading);
}

std::string value_json(const std::string& name, const TypedValue& value) {
  JsonObject object;
  object.text("name", name);
  add_value(value, &object);
  add_other_reading(value, &object);
  return object.str();
}

Outcome run_get(Context& context, const Arguments& arguments) {
  const Reading reading{arguments.reading.value_or("auto"), arguments.null_ends ? '\0' : '\n', !arguments.no_newline};
  constexpr std::string_view kReadings[] = {"auto", "text", "list", "number", "hex", "raw"};
  if (std::find(std::begin(kReadings), std::end(kReadings), reading.name) == std::end(kReadings)) {
    return {Exit::kUsage, "--as " + reading.name + ": choose auto, text, list, number, hex or raw"};
  }
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    TypedValue value;
    if (Status read = context.reader().read_value(name, &value); !read.ok()) return read;
    if (!context.json()) return print_value(context, name, value, reading);
    *json = value_json(name, value);
    return {};
  });
}

constexpr std::array kOptions{
    valued("--as", "READING", "auto, text, list, number, hex or raw", &Arguments::reading, Candidates::kReadings),
    flag("-n,--no-newline", "Print no newline after the value", &Arguments::no_newline), kNullEnds, kAt};

}  // namespace

constinit const Verb kGetVerb{
    .name = "get",
    .summary = "Print the value of a key",
    .details = R"(Prints a text on one line, a list with one element per line, types 1 and 2 as
numbers, and other bytes as text if they are printable, else in hexadecimal.
A key without a value prints nothing. Several keys are printed one after the
other.

--as selects a reading. With text, list or number, a value that has no such
reading is an error (exit code 6); text also reads the text that a JVM stored
under type 1 or 2. hex prints the bytes in hexadecimal, raw writes them
unchanged.

On a terminal, control characters are shown, not sent.
)",
    .examples = R"(  tkv get SYSTEM.version.patch
  tkv get --as raw app.certificate > certificate.der
  tkv get --json app.limits
)",
    .operands = kKeys,
    .options = kOptions,
    .run = run_get};

}  // namespace tkv::command
