#include "input.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "characters.h"
#include "json.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

// Bytes that are read for a value. The largest value takes less in hexadecimal digits with blanks between them.
constexpr std::size_t kMostRead = std::size_t{8} * 1024 * 1024;

Outcome cannot_read(const std::string& path, int error) {
  return {exit_of_error(error), "cannot read " + shown_path(path) + ": " + std::strerror(error)};
}

Outcome too_large(const std::string& path, std::size_t limit) {
  return {Exit::kUsage, shown_path(path) + " has more than " + std::to_string(limit) + " bytes"};
}

Outcome read_all(int descriptor, const std::string& path, std::size_t limit, std::string* bytes) {
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t size = ::read(descriptor, buffer, sizeof buffer);
    const int error = errno;
    if (size == 0) return {};
    if (size > 0) {
      bytes->append(buffer, static_cast<std::size_t>(size));
      if (bytes->size() > limit) return too_large(path, limit);
    } else if (error != EINTR) {
      return cannot_read(path, error);
    }
  }
}

void drop_line_end(std::string* text) {
  if (!text->ends_with('\n')) return;
  text->pop_back();
  if (text->ends_with('\r')) text->pop_back();
}

// Finds the contents that a word names, or takes the word itself.
Outcome resolve(const std::string& word, bool literal, std::string* text, bool* was_read) {
  *was_read = !literal && names_input(word);
  if (*was_read) return read_file(word == "-" ? word : word.substr(1), kMostRead, text);
  *text = word;
  return {};
}

Outcome one_word(const Arguments& arguments, const char* what) {
  if (arguments.values.size() == 1) return {};
  return {Exit::kUsage, arguments.values.empty() ? std::string("set needs ") + what + ", or - for standard input"
                                                 : std::string("set takes one VALUE here; --list takes several")};
}

Outcome text_from(const Arguments& arguments, TypedValue* value) {
  std::string text;
  bool was_read = false;
  if (Outcome single = one_word(arguments, "a VALUE"); !single.ok()) return single;
  if (Outcome read = resolve(arguments.values.front(), arguments.literal, &text, &was_read); !read.ok()) return read;
  if (was_read && !arguments.keep_newline) drop_line_end(&text);
  if (!is_utf8(text)) return {Exit::kUsage, "the text is not UTF-8; use --bytes to store other bytes"};
  *value = text_value(text);
  return {};
}

void add_lines(std::string_view text, std::vector<std::string>* elements) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    elements->emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return;
    if (elements->back().ends_with('\r')) elements->back().pop_back();
    text.remove_prefix(end + 1);
  }
}

Outcome list_from(const Arguments& arguments, TypedValue* value) {
  std::vector<std::string> elements;
  for (const std::string& word : arguments.values) {
    std::string text;
    bool was_read = false;
    if (Outcome read = resolve(word, arguments.literal, &text, &was_read); !read.ok()) return read;
    if (was_read) {
      add_lines(text, &elements);
    } else {
      elements.push_back(std::move(text));
    }
  }
  for (const std::string& element : elements) {
    if (!is_utf8(element)) {
      return {Exit::kUsage, "an element of the list is not UTF-8; use --bytes to store other bytes"};
    }
  }
  return list_value(elements, value);
}

Outcome number_from(const Arguments& arguments, TypedValue* value) {
  std::string text;
  bool was_read = false;
  if (Outcome single = one_word(arguments, "a number"); !single.ok()) return single;
  if (Outcome read = resolve(arguments.values.front(), arguments.literal, &text, &was_read); !read.ok()) return read;
  if (was_read) drop_line_end(&text);
  return arguments.int32 ? parse_int32(text, value) : parse_int64(text, value);
}

Outcome bytes_from(const Arguments& arguments, TypedValue* value) {
  bool was_read = false;
  if (Outcome single = one_word(arguments, "@FILE"); !single.ok()) return single;
  if (Outcome read = resolve(arguments.values.front(), arguments.literal, &value->bytes, &was_read); !read.ok()) {
    return read;
  }
  if (arguments.hex) {
    auto bytes = bytes_from_hex(value->bytes);
    if (!bytes) return {Exit::kUsage, "--hex: write pairs of hexadecimal digits"};
    value->bytes = std::move(*bytes);
  }
  const auto type = type_from_name(arguments.type.value_or("bytes"));
  if (!type) return {Exit::kUsage, "--type " + *arguments.type + ": the type must be a number of 32 bits or a name"};
  value->type = *type;
  return {};
}

}  // namespace

Outcome demand_own_rights(const std::string& what) {
  if (::getauxval(AT_SECURE) == 0) return {};
  return {Exit::kUsage, what + " cannot be given to a command that has more rights than its caller"};
}

std::string shown_path(const std::string& path) { return path == "-" ? "standard input" : path; }

Outcome read_file(const std::string& path, std::size_t limit, std::string* bytes) {
  bytes->clear();
  if (path == "-") return read_all(STDIN_FILENO, path, limit, bytes);
  if (Outcome allowed = demand_own_rights("the file " + path); !allowed.ok()) return allowed;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int error = errno;
  if (descriptor < 0) return cannot_read(path, error);
  Outcome outcome = read_all(descriptor, path, limit, bytes);
  ::close(descriptor);
  return outcome;
}

bool names_input(const std::string& word) { return word == "-" || word.starts_with('@'); }

Outcome value_from_arguments(const Arguments& arguments, TypedValue* value) {
  const int kinds = arguments.list + arguments.int32 + arguments.int64 + (arguments.bytes || arguments.hex);
  if (kinds > 1) return {Exit::kUsage, "choose one of --list, --int32, --int64, --bytes and --hex"};
  if (arguments.type && !arguments.bytes && !arguments.hex) return {Exit::kUsage, "--type needs --bytes or --hex"};
  if (arguments.list) return list_from(arguments, value);
  if (arguments.int32 || arguments.int64) return number_from(arguments, value);
  if (arguments.bytes || arguments.hex) return bytes_from(arguments, value);
  return text_from(arguments, value);
}

}  // namespace tkv::command
