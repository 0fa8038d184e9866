#include "manual.h"

#include <string_view>

#include "registry/configuration.h"
#include "verbs.h"

namespace tkv::command {
namespace {

// Escapes the characters that have a meaning for man.
std::string plain(std::string_view text) {
  std::string result;
  bool line_begins = true;
  for (const char letter : text) {
    if (line_begins && (letter == '.' || letter == '\'')) result += "\\&";
    if (letter == '\\') {
      result += "\\e";
    } else if (letter == '-') {
      result += "\\-";
    } else {
      result += letter;
    }
    line_begins = letter == '\n';
  }
  return result;
}

void add_line(std::string_view text, std::string* page) { page->append(text) += '\n'; }

void add_section(const char* name, std::string* page) { add_line(std::string(".SH ") + name, page); }

// Adds lines that keep their line breaks.
void add_verbatim(std::string_view text, std::string* page) {
  *page += ".nf\n" + plain(text);
  if (!text.ends_with('\n')) *page += '\n';
  *page += ".fi\n";
}

// Running text, whose paragraphs are separated by empty lines.
void add_paragraphs(std::string_view text, std::string* page) {
  for (std::size_t end = text.find("\n\n"); end != std::string_view::npos; end = text.find("\n\n")) {
    *page += plain(text.substr(0, end + 1)) + ".PP\n";
    text.remove_prefix(end + 2);
  }
  *page += plain(text);
}

std::string synopsis_of(const Verb& verb) {
  std::string line = "\\fBtkv " + plain(verb.name) + "\\fR";
  if (!verb.options.empty()) line += " [\\fIoptions\\fR]";
  for (const Operand& operand : verb.operands) {
    const std::string name = "\\fI" + plain(operand.name) + "\\fR" + (operand.many != nullptr ? "..." : "");
    line += operand.required ? " " + name : " [" + name + "]";
  }
  return line;
}

void add_item(const std::string& label, std::string_view text, std::string* page) {
  *page += ".TP\n" + label + "\n" + plain(text) + "\n";
}

void add_options(std::span<const Option> options, std::string* page) {
  for (const Option& option : options) {
    std::string label = "\\fB" + plain(option.names) + "\\fR";
    if (option.argument != nullptr) label += " \\fI" + plain(option.argument) + "\\fR";
    add_item(label, option.text, page);
  }
}

void add_verb(const Verb& verb, std::string* page) {
  add_line(".SS " + std::string(verb.name), page);
  add_line(synopsis_of(verb), page);
  add_line(".PP", page);
  add_line(plain(verb.summary) + ".", page);
  add_paragraphs(verb.details, page);
  for (const Operand& operand : verb.operands) add_item("\\fI" + plain(operand.name) + "\\fR", operand.text, page);
  add_options(verb.options, page);
  add_line(".PP", page);
  add_verbatim(verb.examples, page);
}

std::string title(const char* name, const char* section) {
  return std::string(".\\\" Made by tkv help; do not edit.\n.TH ") + name + " " + section +
         " \"\" \"tkv " TKV_VERSION "\" \"TKV\"\n";
}

}  // namespace

std::string manual_page() {
  const CommandText& text = command_text();
  std::string page = title("TKV", "1");
  add_section("NAME", &page);
  add_line("tkv \\- " + plain(text.summary), &page);
  add_section("SYNOPSIS", &page);
  for (const Verb* verb : all_verbs()) {
    if (!verb->hidden) page += synopsis_of(*verb) + "\n.br\n";
  }
  add_section("DESCRIPTION", &page);
  add_line(
      plain("Works on the configured registry, with the rights of the user who runs it, while other programs use it."),
      &page);
  add_line(".SS Keys", &page);
  add_verbatim(text.names, &page);
  add_line(".SS Values", &page);
  add_verbatim(text.arguments, &page);
  add_section("OPTIONS", &page);
  add_options(common_options(), &page);
  add_item("\\fB\\-h\\fR,\\fB\\-\\-help\\fR", "Show help; after a verb, the help of the verb.", &page);
  add_item("\\fB\\-\\-version\\fR", "Show the version.", &page);
  add_section("VERBS", &page);
  for (const Verb* verb : all_verbs()) {
    if (!verb->hidden) add_verb(*verb, &page);
  }
  add_section("EXIT STATUS", &page);
  add_verbatim(exit_code_text(), &page);
  add_section("ENVIRONMENT", &page);
  add_verbatim(text.environment, &page);
  add_section("FILES", &page);
  add_item("/etc/tkv/tkv.conf", "The configuration, see tkv.conf(5).", &page);
  add_section("SEE ALSO", &page);
  add_line("tkv.conf(5)", &page);
  return page;
}

std::string configuration_manual_page() {
  std::string page = title("TKV.CONF", "5");
  add_section("NAME", &page);
  add_line("tkv.conf \\- configuration of the cluster registry", &page);
  add_section("DESCRIPTION", &page);
  add_line(
      plain(
          "The file that TKV_CONF names, else /etc/tkv/tkv.conf; without one, the defaults apply. It has sections in\n"
          "brackets, lines \"name = value\"; lines that begin with ; or # are comments. Unknown names and sections,\n"
          "and names given twice (except location), are errors that name file and line. tkv conf shows what is in\n"
          "force and where it came from."),
      &page);
  std::string_view section;
  for (const registry::SettingText& setting : registry::setting_texts()) {
    const std::size_t dot = setting.name.find('.');
    if (section != setting.name.substr(0, dot)) {
      section = setting.name.substr(0, dot);
      add_line(".SS [" + std::string(section) + "]", &page);
    }
    add_item("\\fB" + plain(setting.name.substr(dot + 1)) + "\\fR", setting.text, &page);
  }
  add_section("EXAMPLE", &page);
  add_verbatim("[registry]\nlocation = /srv/tkv\nbackup_location = /srv/tkv-backups\ngroup = operators\n", &page);
  add_section("SEE ALSO", &page);
  add_line("tkv(1)", &page);
  return page;
}

}  // namespace tkv::command
