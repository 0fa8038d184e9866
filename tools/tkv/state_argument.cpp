#include "state_argument.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <ctime>

#include "context.h"

namespace tkv::command {
namespace {

constexpr std::int64_t kSecond = 1'000'000;

// Reads a text from left to right.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool at_end() const { return rest_.empty(); }

  bool take(char expected) {
    if (rest_.empty() || rest_.front() != expected) return false;
    rest_.remove_prefix(1);
    return true;
  }

  // A number of exactly so many digits.
  bool take_digits(std::size_t digits, int* number) {
    if (rest_.size() < digits) return false;
    *number = 0;
    for (const char digit : rest_.substr(0, digits)) {
      if (digit < '0' || digit > '9') return false;
      *number = *number * 10 + (digit - '0');
    }
    rest_.remove_prefix(digits);
    return true;
  }

  // The digits after the point, as microseconds. Further digits are dropped.
  bool take_fraction(std::int64_t* microseconds) {
    std::int64_t unit = kSecond;
    const std::size_t before = rest_.size();
    *microseconds = 0;
    for (int digit = 0; take_digits(1, &digit);) *microseconds += digit * (unit /= 10);
    return rest_.size() < before;
  }

 private:
  std::string_view rest_;
};

struct ParsedTime {
  std::tm parts{};
  std::int64_t fraction = 0;
  bool has_fraction = false;
  std::optional<int> offset = {};  // seconds east of UTC; none: local time
};

bool take_date(Scanner* text, ParsedTime* time) {
  std::tm& parts = time->parts;
  const bool found = text->take_digits(4, &parts.tm_year) && text->take('-') && text->take_digits(2, &parts.tm_mon) &&
                     text->take('-') && text->take_digits(2, &parts.tm_mday);
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  return found;
}

bool take_time_of_day(Scanner* text, ParsedTime* time) {
  std::tm& parts = time->parts;
  if (!text->take_digits(2, &parts.tm_hour) || !text->take(':') || !text->take_digits(2, &parts.tm_min)) return false;
  if (!text->take(':')) return true;
  if (!text->take_digits(2, &parts.tm_sec)) return false;
  time->has_fraction = text->take('.');
  return !time->has_fraction || text->take_fraction(&time->fraction);
}

// "Z", "+01", "+01:00" or "+0100".
bool take_offset(Scanner* text, ParsedTime* time) {
  int hours = 0;
  int minutes = 0;
  if (text->take('Z')) {
    time->offset = 0;
    return true;
  }
  const bool is_west = text->take('-');
  if (!is_west && !text->take('+')) return true;
  if (!text->take_digits(2, &hours)) return false;
  const bool has_colon = text->take(':');
  if ((has_colon || !text->at_end()) && !text->take_digits(2, &minutes)) return false;
  if (hours > 23 || minutes > 59) return false;
  time->offset = (is_west ? -1 : 1) * (hours * 60 + minutes) * 60;
  return true;
}

// Fails for a date or an hour that does not exist.
bool to_seconds(const ParsedTime& time, std::int64_t* seconds) {
  std::tm parts = time.parts;
  parts.tm_isdst = -1;
  *seconds = time.offset ? ::timegm(&parts) - *time.offset : ::mktime(&parts);
  const std::tm& given = time.parts;
  return parts.tm_year == given.tm_year && parts.tm_mon == given.tm_mon && parts.tm_mday == given.tm_mday &&
         parts.tm_hour == given.tm_hour && parts.tm_min == given.tm_min && parts.tm_sec == given.tm_sec;
}

bool parse_calendar_time(std::string_view word, std::int64_t* first, std::int64_t* last) {
  Scanner text(word);
  ParsedTime time;
  std::int64_t seconds = 0;
  if (!take_date(&text, &time)) return false;
  if (!text.at_end()) {
    if (!text.take('T') && !text.take(' ')) return false;
    if (!take_time_of_day(&text, &time) || !take_offset(&text, &time) || !text.at_end()) return false;
  }
  if (!to_seconds(time, &seconds)) return false;
  *first = seconds * kSecond + time.fraction;
  *last = time.has_fraction ? *first : *first + kSecond - 1;
  return true;
}

struct Unit {
  const char* name;
  std::int64_t seconds;
};
constexpr std::array kUnits{Unit{"second", 1}, Unit{"minute", 60}, Unit{"hour", 3600}, Unit{"day", 86400},
                            Unit{"week", 604800}};

// "2 hours ago".
bool parse_distance(std::string_view word, std::int64_t* time) {
  constexpr std::int64_t kMostUnits = 1'000'000;
  constexpr std::string_view kEnd = " ago";
  std::int64_t count = 0;
  const auto [digits_end, error] = std::from_chars(word.data(), word.data() + word.size(), count);
  if (error != std::errc() || count < 0 || count > kMostUnits || !word.ends_with(kEnd)) return false;
  word.remove_suffix(kEnd.size());
  word.remove_prefix(std::min(word.size(), static_cast<std::size_t>(digits_end - word.data())));
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch());
  for (const Unit& unit : kUnits) {
    if (word != std::string(" ") + unit.name && word != std::string(" ") + unit.name + "s") continue;
    *time = now.count() - count * unit.seconds * kSecond;
    return true;
  }
  return false;
}

bool is_revision(std::string_view word, Revision* revision) {
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *revision);
  return error == std::errc() && end == word.data() + word.size();
}

// The oldest state that can be read. A store that does not keep the number of it can read all states since the oldest
// change that it logs. Zero stands for no such state, or for one that nobody can tell.
Revision oldest_state(registry::Client& client) {
  registry::RegistryStatus registry;
  LogPosition position;
  if (!client.status(&registry).ok()) return 0;
  Revision oldest = registry.oldest_state;
  if (oldest != 0) return oldest;
  const Status visited = client.changes_since(
      {},
      [&](const ChangeRecord& record) -> Status {
        oldest = record.revision;
        return PRTKV_NO_MORE_SUBKEYS;  // the first is enough
      },
      &position);
  return visited.ok() || visited.is(PRTKV_NO_MORE_SUBKEYS) ? oldest : 0;
}

// Says what can be read instead. A state that cannot be read is not there; it is no mistake in the arguments.
Outcome not_retained(registry::Client& client, const std::string& what) {
  const Revision oldest = oldest_state(client);
  if (oldest == 0) return {Exit::kNotFound, what + "; no earlier state can be read"};
  return {Exit::kNotFound, what + "; the oldest state that can be read is " + std::to_string(oldest)};
}

std::string time_text(std::int64_t time, int digits) {
  const std::int64_t fraction = (time % kSecond + kSecond) % kSecond;
  const auto seconds = static_cast<std::time_t>((time - fraction) / kSecond);
  std::tm parts{};
  std::array<char, 64> text{};
  ::gmtime_r(&seconds, &parts);
  std::string result(text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts));
  if (digits != 0) result += "." + std::to_string(kSecond + fraction).substr(1);
  return result + "Z";
}

}  // namespace

Outcome parse_revision(const char* what, const std::string& word, Revision* revision) {
  if (is_revision(word, revision)) return {};
  return {Exit::kUsage, std::string(what) + " " + word + ": write the number of a revision; tkv log shows them"};
}

Outcome StateArgument::parse(const std::string& word, StateArgument* state) {
  StateArgument parsed;
  if (word == "now") {
    *state = parsed;
    return {};
  }
  if (is_revision(word, &parsed.revision_)) {
    parsed.kind_ = Kind::kRevision;
  } else if (parse_calendar_time(word, &parsed.first_, &parsed.last_)) {
    parsed.kind_ = Kind::kTime;
  } else if (parse_distance(word, &parsed.first_)) {
    parsed.kind_ = Kind::kTime;
    parsed.last_ = parsed.first_;
  } else {
    return {Exit::kUsage,
            "'" + word + "' is neither a revision nor a time; write 17, 2026-02-28T12:30:05Z or '2 hours ago'"};
  }
  *state = parsed;
  return {};
}

Outcome StateArgument::find(registry::Client& client, Revision* revision) const {
  if (kind_ == Kind::kRevision) {
    *revision = revision_;
    return {};
  }
  if (kind_ == Kind::kLatest) return client.revision(revision);
  const Status status = client.revision_at(last_, revision);
  if (!status.is(PRTKV_INVALID_ARGUMENT)) return status;
  return not_retained(client, "the history does not reach back to " + shown_time(last_));
}

Outcome StateArgument::find_before(registry::Client& client, Revision* revision) const {
  if (kind_ != Kind::kTime) return find(client, revision);
  const Status status = client.revision_at(first_ - 1, revision);
  if (!status.is(PRTKV_INVALID_ARGUMENT)) return status;
  *revision = 0;
  return {};
}

Outcome StateArgument::open(registry::Client& client, std::unique_ptr<registry::Snapshot>* snapshot) const {
  Revision revision = 0;
  if (Outcome found = find(client, &revision); !found.ok()) return found;
  const Status status = client.at(revision, snapshot);
  if (!status.is(PRTKV_INVALID_ARGUMENT)) return status;
  Revision latest = 0;
  if (Status asked = client.revision(&latest); !asked.ok()) return asked;
  const std::string what = "revision " + std::to_string(revision);
  if (revision <= latest) return not_retained(client, what + " is not retained");
  return {Exit::kNotFound, what + " does not exist yet; the latest is " + std::to_string(latest)};
}

Outcome parse_key_at_state(const std::string& word, KeyAtState* key) {
  const std::size_t mark = word.rfind('@');
  StateArgument state;
  key->state.reset();
  if (mark == std::string::npos || !StateArgument::parse(word.substr(mark + 1), &state).ok()) {
    return key_name(word, &key->name);
  }
  key->state = state;
  return key_name(word.substr(0, mark), &key->name);
}

std::string shown_time(std::int64_t time) { return time_text(time, 0); }

std::string exact_time(std::int64_t time) { return time_text(time, 6); }

}  // namespace tkv::command
