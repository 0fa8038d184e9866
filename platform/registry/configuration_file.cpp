#include "registry/configuration_file.h"

#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>

#include "base/descriptor.h"
#include "base/file_trust.h"

namespace tkv::registry {
namespace {

constexpr std::size_t kMaxFileBytes = 1UL << 20;
constexpr int kMaxLineBytes = 8192;
constexpr std::size_t kMaxNameBytes = 48;  // of sections and names: what the parser keeps whole
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

std::string what_to_do(const std::string& file, int error) {
  if (error == ENOENT || error == ENOTDIR) return "; name one that exists in TKV_CONF, or unset TKV_CONF";
  return error == EACCES ? "; type, as its owner: chmod a+r '" + file + "'" : "";
}

Status unreadable(const std::string& file, int error) {
  return {PRTKV_CONFIGURATION_UNREADABLE, "the configuration file " + file + " cannot be read: " +
                                              std::generic_category().message(error) + what_to_do(file, error)};
}

Status read_whole(const std::string& file, std::string* text) {
  // A pipe would keep the caller waiting for somebody to write.
  const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  int error = errno;
  if (!descriptor.is_open()) return unreadable(file, error);
  struct stat found {};
  if (::fstat(descriptor.number(), &found) != 0) {
    error = errno;
    return unreadable(file, error);
  }
  if (!S_ISREG(found.st_mode)) {
    return {PRTKV_CONFIGURATION_UNREADABLE,
            "the configuration file " + file + " is not a regular file; name one in TKV_CONF, or put one in its place"};
  }
  if (const std::string reason = reason_for_distrust(found); !reason.empty()) {
    return {PRTKV_CONFIGURATION_UNREADABLE, "the configuration file " + file + " is refused to root: " + reason +
                                                "; type: chown root: '" + file + "' && chmod go-w '" + file + "'"};
  }
  char buffer[4096];
  while (text->size() <= kMaxFileBytes) {
    const ssize_t size = ::read(descriptor.number(), buffer, sizeof buffer);
    error = errno;
    if (size == 0) return {};
    if (size < 0 && error == EINTR) continue;
    if (size < 0) return unreadable(file, error);
    text->append(buffer, static_cast<std::size_t>(size));
    // A regular file yields less than was asked for only at its end.
    if (static_cast<std::size_t>(size) < sizeof buffer && text->size() <= kMaxFileBytes) return {};
  }
  return {PRTKV_INVALID_CONFIGURATION, "the configuration file " + file + " is larger than 1 MiB"};
}

bool is_blank(char byte) { return byte == ' ' || byte == '\t'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

bool is_control(char byte) { return (static_cast<unsigned char>(byte) < 0x20 && byte != '\t') || byte == 0x7f; }

// Feeds the parser line by line, since it passes no line numbers to its handler, and handles what the parser overlooks:
// headings without lines, text behind a heading, control characters, names that it would truncate.
class Feed {
 public:
  Feed(std::string_view text, FunctionRef<Status(const std::string&)> section,
       FunctionRef<Status(const ConfigurationLine&)> line)
      : rest_(text), section_(section), line_(line) {
    if (rest_.starts_with(kByteOrderMark)) rest_.remove_prefix(kByteOrderMark.size());
  }

  // The parser's source, as fgets: null at the end.
  char* next(char* buffer, int size) {
    if (rest_.empty() || !failure_.ok()) return nullptr;
    ++number_;
    const std::size_t end = std::min(rest_.find('\n'), rest_.size());
    std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    // Without blanks in front, no line is the continuation of the one before.
    line = trimmed(line);
    examine(line, static_cast<std::size_t>(size));
    if (!failure_.ok()) return nullptr;
    line.copy(buffer, line.size());
    buffer[line.size()] = '\0';
    return buffer;
  }

  int take(const char* section, const char* name, const char* value) {
    if (failure_.ok()) failure_ = line_(ConfigurationLine{section, name, value, number_});
    return 1;
  }

  int number() const { return number_; }
  const Status& failure() const { return failure_; }

 private:
  void examine(std::string_view line, std::size_t size) {
    if (line.size() + 3 > size) {
      refuse("the line is longer than " + std::to_string(kMaxLineBytes - 3) + " bytes");
    } else if (std::any_of(line.begin(), line.end(), is_control)) {
      refuse("the line holds a control character");
    } else if (line.starts_with('[')) {
      examine_heading(line);
    } else if (!line.empty() && line.front() != ';' && line.front() != '#') {
      if (trimmed(line.substr(0, line.find_first_of("=:"))).size() > kMaxNameBytes) refuse("the name is too long");
    }
  }

  void examine_heading(std::string_view line) {
    const std::size_t end = line.find(']');
    if (end == std::string_view::npos) return;  // the parser's business
    const std::string_view behind = trimmed(line.substr(end + 1));
    if (!behind.empty() && behind.front() != ';' && behind.front() != '#') return refuse("malformed line");
    if (end > kMaxNameBytes) return refuse("the section's name is too long");
    failure_ = section_(std::string(line.substr(1, end - 1)));
  }

  void refuse(std::string why) { failure_ = {PRTKV_INVALID_CONFIGURATION, std::move(why)}; }

  std::string_view rest_;
  FunctionRef<Status(const std::string&)> section_;
  FunctionRef<Status(const ConfigurationLine&)> line_;
  int number_ = 0;
  Status failure_;
};

// The parser's limit for a line is a variable of its library, whose default is too short for our locations.
void allow_long_lines() {
  static std::once_flag once;
  std::call_once(once, [] { ini_max_line = std::max(ini_max_line, kMaxLineBytes); });
}

}  // namespace

Status read_configuration_file(const std::string& file, FunctionRef<Status(const std::string& name)> section,
                               FunctionRef<Status(const ConfigurationLine&)> line) {
  std::string text;
  if (Status status = read_whole(file, &text); !status.ok()) return status;
  Feed feed(text, section, line);
  allow_long_lines();
  const int malformed = ini_parse_stream(
      [](char* buffer, int size, void* stream) { return static_cast<Feed*>(stream)->next(buffer, size); }, &feed,
      [](void* user, const char* in, const char* name, const char* value) {
        return static_cast<Feed*>(user)->take(in, name, value);
      },
      &feed);
  const auto at = [&](int number) { return file + ":" + std::to_string(number); };
  // The parser goes on after a malformed line; what comes first is reported.
  if (malformed > 0) return {PRTKV_INVALID_CONFIGURATION, at(malformed) + ": malformed line"};
  if (malformed < 0) return PRTKV_OUT_OF_MEMORY;
  return feed.failure().about(at(feed.number()));
}

}  // namespace tkv::registry
