#include "store/lmdb/kind.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>

#include "store/lmdb/directory.h"
#include "store/lmdb/lmdb_store.h"
#include "store/setting_values.h"

namespace tkv::store {
namespace {

constexpr std::size_t kMaxDirectorySize = 4096;  // bytes of a location
constexpr std::size_t kMaxGroupSize = 63;
constexpr std::uint64_t kMinMapSize = 1ULL << 20;
constexpr std::uint64_t kMaxMapSize = 16ULL << 40;
constexpr std::uint64_t kMaxHistoryChanges = 1'000'000'000;
constexpr std::uint64_t kMaxHistoryAge = std::uint64_t{5200} * 7 * 24 * 60 * 60;  // seconds

// The shift that a unit stands for, -1 if it is none.
int unit_shift(std::string_view unit) {
  if (unit.empty()) return 0;
  const std::size_t at = std::string_view("KMGTkmgt").find(unit.front());
  return unit.size() > 1 || at == std::string_view::npos ? -1 : static_cast<int>(10 * (at % 4 + 1));
}

struct SizeBounds {
  std::uint64_t least;
  std::uint64_t most;
  const char* text;  // "1M and 16T"
};

constexpr SizeBounds kMapSizes{kMinMapSize, kMaxMapSize, "1M and 16T"};
constexpr SizeBounds kHistorySizes{std::uint64_t{64} << 10, kMaxMapSize, "64K and 16T"};

Status parse_size(const std::string& value, const SizeBounds& bounds, std::uint64_t* size) {
  std::string_view rest = value;
  std::uint64_t number = 0;
  const bool begins_well = take_number(&rest, &number);
  const int shift = unit_shift(rest);
  if (!begins_well || shift < 0) return refuse("'" + value + "' is not a size in bytes, as in 512M");
  if (number > bounds.most >> shift || number << shift < bounds.least) {
    return refuse("'" + value + "' is not between " + bounds.text);
  }
  *size = number << shift;
  return {};
}

Status check_map_size(const std::string& value) {
  std::uint64_t size = 0;
  return parse_size(value, kMapSizes, &size);
}

Status check_history_size(const std::string& value) {
  std::uint64_t size = 0;
  return parse_size(value, kHistorySizes, &size);
}

Status parse_history_changes(const std::string& value, std::uint64_t* changes) {
  std::string_view rest = value;
  if (take_number(&rest, changes) && rest.empty() && *changes >= 1 && *changes <= kMaxHistoryChanges) return {};
  return refuse("'" + value + "' is not a number of changes from 1 to 1000000000");
}

Status check_history_changes(const std::string& value) {
  std::uint64_t changes = 0;
  return parse_history_changes(value, &changes);
}

// The seconds that a unit of time stands for, or zero if it is none.
std::uint64_t unit_seconds(std::string_view unit) {
  constexpr std::uint64_t kHour = 3600;
  constexpr std::uint64_t kDay = 24 * kHour;
  if (unit == "h") return kHour;
  if (unit == "d") return kDay;
  return unit == "w" ? 7 * kDay : 0;
}

Status parse_history_age(const std::string& value, std::chrono::seconds* age) {
  std::string_view rest = value;
  std::uint64_t number = 0;
  const bool begins_well = take_number(&rest, &number);
  const std::uint64_t unit = unit_seconds(rest);
  if (!begins_well || unit == 0) return refuse("'" + value + "' is not an age, as in 12h, 90d or 4w");
  if (number < 1 || number > kMaxHistoryAge / unit) return refuse("'" + value + "' is not between 1h and 5200w");
  *age = std::chrono::seconds(number * unit);
  return {};
}

Status check_history_age(const std::string& value) {
  std::chrono::seconds age{};
  return parse_history_age(value, &age);
}

Status check_yes_or_no(const std::string& value) {
  bool answer = false;
  return parse_yes_or_no(value, &answer);
}

Status check_group(const std::string& value) { return check_account(value, kMaxGroupSize); }

constexpr StoreSetting kSettings[] = {
    {.name = "registry.map_size",
     .check = check_map_size,
     .text = "Bytes that an embedded registry may grow to, with K, M, G or T for powers of 1024; 1M to 16T. "
             "Default: it grows as it has to."},
    {.name = "registry.group",
     .check = check_group,
     .text = "Group that shares an embedded registry: directory and files belong to it, with the modes 3770 and 0660. "
             "Whoever can open the files "
             "can bypass the rights in the registry. Default: none, only the owner opens them."},
    {.name = "registry.timeout_ms",
     .check = check_timeout,
     .default_value = "30000",
     .text =
         "Milliseconds that a write to an embedded registry waits for other writers, 100 to 600000. Default: 30000."},
    {.name = "history.changes",
     .check = check_history_changes,
     .default_value = "10000",
     .text = "Changes that the log of an embedded registry keeps, 1 to 1000000000. Default: 10000."},
    {.name = "history.size",
     .check = check_history_size,
     .default_value = "64M",
     .text = "Bytes that the log and the past of an embedded registry take, with K, M, G or T as for map_size; 64K to "
             "16T. A single change that takes more is logged without its past. Default: 64M."},
    {.name = "history.age",
     .check = check_history_age,
     .default_value = "90d",
     .text = "Age from which a change is dropped from the log of an embedded registry, in hours (h), days (d) or weeks "
             "(w); 1h to 5200w. Default: 90d."},
    {.name = "history.off",
     .check = check_yes_or_no,
     .default_value = "no",
     .text = "yes or no: whether an embedded registry keeps no log and no past. Default: no."}};

Status check_location(const std::string& location) {
  const Status status = check_absolute_path(location, kMaxDirectorySize);
  return status.ok() ? status : Status(PRTKV_INVALID_ARGUMENT, status.text());
}

std::string group_of(const StorePlace& place) {
  const auto group = place.settings.find("registry.group");
  return group == place.settings.end() ? std::string() : group->second;
}

Status check(const StorePlace& place) { return check_lmdb_directory(place.locations.front(), group_of(place)); }

bool is_absent(const StorePlace& place) {
  const std::string file = data_file(place.locations.front());
  return ::access(file.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool is_same(const StorePlace& one, const StorePlace& other) {
  std::error_code unknown;
  return std::filesystem::equivalent(one.locations.front(), other.locations.front(), unknown);
}

// The limits of the history that are configured.
Status take_retention(const Settings& settings, Retention* retention) {
  const auto take = [&](const char* name, auto parse, auto* result) {
    const auto setting = settings.find(name);
    return setting == settings.end() ? Status() : parse(setting->second, result);
  };
  const auto parse_history_size = [](const std::string& value, std::uint64_t* size) {
    return parse_size(value, kHistorySizes, size);
  };
  if (Status status = take("history.changes", parse_history_changes, &retention->changes); !status.ok()) return status;
  if (Status status = take("history.size", parse_history_size, &retention->bytes); !status.ok()) return status;
  if (Status status = take("history.age", parse_history_age, &retention->age); !status.ok()) return status;
  return take("history.off", parse_yes_or_no, &retention->off);
}

Status open(const StorePlace& place, const StoreOpening& opening, std::shared_ptr<Store>* store) {
  LmdbOptions options;
  options.directory = place.locations.front();
  options.create = opening.create && !opening.read_only;
  options.create_parents = opening.create_parents;
  options.read_only = opening.read_only;
  options.group = group_of(place);
  options.root_security = opening.root_security;
  options.on_wait = opening.on_wait;
  if (const auto timeout = place.settings.find("registry.timeout_ms"); timeout != place.settings.end()) {
    int milliseconds = 0;
    if (Status status = parse_timeout(timeout->second, &milliseconds); !status.ok()) return status;
    options.timeout_ms = static_cast<std::uint32_t>(milliseconds);
  }
  if (opening.max_wait_ms != 0) options.timeout_ms = std::min(options.timeout_ms, opening.max_wait_ms);
  if (const auto size = place.settings.find("registry.map_size"); size != place.settings.end()) {
    if (Status status = parse_size(size->second, kMapSizes, &options.map_size); !status.ok()) return status;
  }
  if (Status status = take_retention(place.settings, &options.retention); !status.ok()) return status;
  return open_lmdb_store(options, store);
}

}  // namespace

constinit const StoreKind kLmdbKind = {.name = "lmdb",
                                       .scheme = "",
                                       .locations = "one directory",
                                       .max_locations = 1,
                                       .is_distributed = false,
                                       .settings = kSettings,
                                       .check_location = check_location,
                                       .check = check,
                                       .is_absent = is_absent,
                                       .is_same = is_same,
                                       .open = open};

}  // namespace tkv::store
