#include "store/setting_values.h"

#include <charconv>

namespace tkv::store {
namespace {

constexpr std::uint64_t kMinTimeout = 100;
constexpr std::uint64_t kMaxMilliseconds = 600000;

}  // namespace

Status check_absolute_path(const std::string& value, std::size_t max_size) {
  if (!value.starts_with('/')) return refuse("'" + value + "' is not an absolute path");
  if (value.size() > max_size) return refuse("the path is longer than " + std::to_string(max_size) + " bytes");
  return {};
}

Status check_file(const std::string& value) { return check_absolute_path(value, kMaxPathSize); }

Status check_account(const std::string& value, std::size_t max_size) {
  if (value.find_first_of(" \t:") != std::string::npos) return refuse("'" + value + "' is not a name");
  if (value.size() > max_size) return refuse("the name is longer than " + std::to_string(max_size) + " bytes");
  return {};
}

Status parse_yes_or_no(const std::string& value, bool* answer) {
  for (const char* word : {"yes", "true", "on", "1"}) {
    if (value == word) return *answer = true, Status();
  }
  for (const char* word : {"no", "false", "off", "0"}) {
    if (value == word) return *answer = false, Status();
  }
  return refuse("'" + value + "' is neither yes nor no");
}

Status parse_milliseconds(const std::string& value, std::uint64_t least, int* milliseconds) {
  std::string_view rest = value;
  std::uint64_t number = 0;
  if (!take_number(&rest, &number) || !rest.empty()) return refuse("'" + value + "' is not a number of milliseconds");
  if (number < least || number > kMaxMilliseconds) {
    return refuse("'" + value + "' is not between " + std::to_string(least) + " and " +
                  std::to_string(kMaxMilliseconds));
  }
  *milliseconds = static_cast<int>(number);
  return {};
}

Status parse_timeout(const std::string& value, int* milliseconds) {
  return parse_milliseconds(value, kMinTimeout, milliseconds);
}

Status check_timeout(const std::string& value) {
  int milliseconds = 0;
  return parse_timeout(value, &milliseconds);
}

bool take_number(std::string_view* text, std::uint64_t* number) {
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
  if (error != std::errc()) return false;
  text->remove_prefix(static_cast<std::size_t>(end - text->data()));
  return true;
}

}  // namespace tkv::store
