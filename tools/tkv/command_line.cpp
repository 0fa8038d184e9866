#include "command_line.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>

#include "suggestion.h"
#include "verbs.h"

namespace tkv::command {
namespace {

// The parser gives some operands a meaning of their own ("[a,b]", "{}", "++", names of verbs). Operands are data: each
// passes through the parser with this byte in front, which keeps it from being interpreted, and loses it afterwards.
constexpr char kOperandMark = '\x01';

bool has_option_zero(const Verb& verb) {
  for (const Option& option : verb.options) {
    if (std::string_view(option.names).starts_with("-0")) return true;
  }
  return false;
}

bool is_operand(const std::string& word, const Verb& verb) {
  if (!word.starts_with('-') || word == "-") return true;
  return word[1] >= '0' && word[1] <= '9' && !has_option_zero(verb);
}

std::string unmarked(std::string word) {
  if (word.starts_with(kOperandMark)) word.erase(0, 1);
  return word;
}

// The first word that is neither an option nor the argument of one that precedes the verb.
const char* word_for_verb(int count, char** words) {
  for (int at = 1; at < count; ++at) {
    const std::string_view word = words[at];
    if (!word.starts_with('-')) return words[at];
    if (word == "--conf") ++at;
  }
  return nullptr;
}

std::vector<std::string> marked(int count, char** words) {
  std::vector<std::string> result;
  const Verb* verb = nullptr;
  const char* const first = word_for_verb(count, words);
  bool only_operands = false;
  for (int at = 1; at < count; ++at) {
    std::string word = words[at];
    if (verb != nullptr && !only_operands && word == "--") {
      only_operands = true;
      continue;
    }
    const bool operand = verb != nullptr && (only_operands || is_operand(word, *verb));
    if (words[at] == first) verb = find_verb(word);
    result.push_back(operand ? kOperandMark + word : word);
  }
  return result;
}

// Tells whether the words ask for JSON, even if they make no sense otherwise.
bool asks_for_json(int count, char** words) {
  for (int at = 1; at < count && std::string_view(words[at]) != "--"; ++at) {
    if (std::string_view(words[at]) == "--json") return true;
  }
  return false;
}

class Parser {
 public:
  explicit Parser(Arguments* arguments)
      : arguments_(*arguments), app_(command_text().summary, "tkv"), formatter_(std::make_shared<CLI::Formatter>()) {
    formatter_->column_width(28);
    formatter_->label("REQUIRED", "");
    formatter_->label("SUBCOMMAND", "VERB");
    app_.formatter(formatter_);
    app_.set_help_flag("-h,--help", "Show this help; after a verb, the help of the verb");
    app_.set_version_flag("--version", std::string("tkv ") + TKV_VERSION, "Show the version");
    app_.require_subcommand(1, 1);
    app_.footer(overview());
    for (const Option& option : common_options()) add(app_, option);
    for (const Verb* verb : all_verbs()) add(*verb);
  }

  CLI::App& app() { return app_; }
  CLI::App* sub(const Verb& verb) { return app_.get_subcommand(verb.name); }

  void parse(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());
    app_.parse(std::move(words));
    for (const auto& take : taking_) take();
  }

  const Verb* chosen() { return find_verb(app_.get_subcommands().front()->get_name()); }

 private:
  static std::string overview() {
    const CommandText& text = command_text();
    return std::string("\nKeys\n") + text.names + "\nValues\n" + text.arguments + "\nExit codes\n" + exit_code_text() +
           "\nEnvironment\n" + text.environment + "\nSee `tkv help VERB` for a verb and its examples.";
  }

  static std::string foot(const Verb& verb) {
    return std::string("\n") + verb.details + "\nExamples\n" + verb.examples +
           "\nEvery verb also takes --json, -q, --no-color, --conf FILE and --yes; see `tkv --help`.";
  }

  void add(CLI::App& app, const Option& option) {
    if (option.flag != nullptr) {
      app.add_flag(option.names, arguments_.*option.flag, option.text);
      return;
    }
    CLI::Option* made = app.add_option(option.names, option.text)->type_name(option.argument)->expected(1);
    taking_.push_back([this, made, &option] {
      if (made->count() != 0) arguments_.*option.value = unmarked(made->results().back());
    });
  }

  void add(CLI::App& app, const Operand& operand) {
    CLI::Option* made = app.add_option(operand.name, operand.text)->type_name("")->required(operand.required);
    made->expected(1, operand.one != nullptr ? 1 : CLI::detail::expected_max_vector_size);
    made->allow_extra_args(operand.many != nullptr);
    taking_.push_back([this, made, &operand] {
      for (const std::string& word : made->results()) {
        if (operand.one != nullptr) {
          arguments_.*operand.one = unmarked(word);
        } else {
          (arguments_.*operand.many).push_back(unmarked(word));
        }
      }
    });
  }

  void add(const Verb& verb) {
    CLI::App* sub = app_.add_subcommand(verb.name, verb.summary);
    sub->fallthrough();
    sub->formatter(formatter_);
    sub->footer(foot(verb));
    sub->group(verb.hidden ? "" : "Verbs");
    for (const Operand& operand : verb.operands) add(*sub, operand);
    for (const Option& option : verb.options) add(*sub, option);
  }

  Arguments& arguments_;
  CLI::App app_;
  std::shared_ptr<CLI::Formatter> formatter_;
  std::vector<std::function<void()>> taking_;
};

// A suggestion for the mistyped option at the end of a message of the parser.
std::string option_suggestion(const Verb* verb, const std::string& text) {
  const std::size_t begin = text.find_last_of(' ') + 1;
  const std::string word = text.substr(begin, text.find('=', begin) - begin);
  std::vector<std::string> names;
  if (!word.starts_with("--")) return "";
  for (const std::span<const Option> options :
       {common_options(), verb == nullptr ? std::span<const Option>() : verb->options}) {
    for (const Option& option : options) {
      const std::string_view all = option.names;
      names.emplace_back(all.substr(all.find("--")));
    }
  }
  return suggestion(word, names);
}

// Explains why the words make no sense, mostly in the parser's own words, and where to read on.
std::string reason(const CLI::ParseError& error, const Verb* verb, const char* word) {
  std::string text = error.what();
  std::erase(text, kOperandMark);
  while (text.ends_with('\n')) text.pop_back();
  const bool required = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  if (verb == nullptr && word != nullptr) text = "there is no verb '" + std::string(word) + "'" + verb_suggestion(word);
  if (verb == nullptr && word == nullptr && required) text = "a verb is missing";
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) text += option_suggestion(verb, text);
  return text + "\nSee: tkv" + (verb == nullptr ? "" : std::string(" ") + verb->name) + " --help";
}

}  // namespace

Outcome parse_command_line(int count, char** words, Arguments* arguments, const Verb** verb, Output& output) {
  Parser parser(arguments);
  try {
    parser.parse(marked(count, words));
  } catch (const CLI::CallForVersion&) {
    output.line(std::string("tkv ") + TKV_VERSION);
    return {};
  } catch (const CLI::Success&) {
    const auto chosen = parser.app().get_subcommands();
    output.write(help_text(chosen.empty() ? nullptr : find_verb(chosen.front()->get_name())));
    return {};
  } catch (const CLI::ParseError& error) {
    arguments->json = asks_for_json(count, words);
    const char* word = word_for_verb(count, words);
    return {Exit::kUsage, reason(error, word == nullptr ? nullptr : find_verb(word), word)};
  }
  *verb = parser.chosen();
  return {};
}

std::string help_text(const Verb* verb) {
  Arguments unused;
  Parser parser(&unused);
  return verb == nullptr ? parser.app().help() : parser.sub(*verb)->help("tkv");
}

}  // namespace tkv::command
