#include "registry/configuration.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>

#include "base/function_ref.h"
#include "base/name_service.h"
#include "registry/configuration_file.h"

namespace tkv::registry {
namespace {

constexpr std::string_view kEtcdScheme = "etcd://";
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kListSeparators = " \t,";
constexpr std::size_t kMaxGroupBytes = 63;
constexpr std::size_t kMaxUserBytes = 255;
constexpr std::size_t kMaxPrefixBytes = 256;
constexpr std::size_t kMaxHostBytes = 255;
constexpr std::uint64_t kMinMapSize = 1ULL << 20;
constexpr std::uint64_t kMaxMapSize = 16ULL << 40;
constexpr int kMinTimeout = 100;
constexpr int kMaxTimeout = 600000;

Status invalid(std::string why) { return {PRTKV_INVALID_CONFIGURATION, std::move(why)}; }

Status take_absolute(const std::string& value, std::size_t most, std::string* path) {
  if (!value.starts_with('/')) return invalid("'" + value + "' is not an absolute path");
  if (value.size() > most) return invalid("the path is longer than " + std::to_string(most) + " bytes");
  *path = value;
  return {};
}

Status take_file(const std::string& value, std::string* path) {
  return take_absolute(value, kMaxLocationBytes - 1, path);
}

Status take_yes_or_no(const std::string& value, bool* answer) {
  for (const char* word : {"yes", "true", "on", "1"}) {
    if (value == word) return *answer = true, Status();
  }
  for (const char* word : {"no", "false", "off", "0"}) {
    if (value == word) return *answer = false, Status();
  }
  return invalid("'" + value + "' is neither yes nor no");
}

// Takes a decimal number off the front of `text`.
bool take_number(std::string_view* text, std::uint64_t* number) {
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
  if (error != std::errc()) return false;
  text->remove_prefix(static_cast<std::size_t>(end - text->data()));
  return true;
}

// The shift that a unit stands for, -1 when it is none.
int unit_shift(std::string_view unit) {
  if (unit.empty()) return 0;
  const std::size_t at = std::string_view("KMGTkmgt").find(unit.front());
  return unit.size() > 1 || at == std::string_view::npos ? -1 : static_cast<int>(10 * (at % 4 + 1));
}

Status take_map_size(const std::string& value, std::uint64_t* size) {
  std::string_view rest = value;
  std::uint64_t number = 0;
  const bool begins_well = take_number(&rest, &number);
  const int shift = unit_shift(rest);
  if (!begins_well || shift < 0) return invalid("'" + value + "' is not a size in bytes, as in 512M");
  if (number > kMaxMapSize >> shift || number << shift < kMinMapSize) {
    return invalid("'" + value + "' is not between 1M and 16T");
  }
  *size = number << shift;
  return {};
}

Status take_timeout(const std::string& value, int* milliseconds) {
  std::string_view rest = value;
  std::uint64_t number = 0;
  if (!take_number(&rest, &number) || !rest.empty()) return invalid("'" + value + "' is not a number of milliseconds");
  if (number < kMinTimeout || number > kMaxTimeout) return invalid("'" + value + "' is not between 100 and 600000");
  *milliseconds = static_cast<int>(number);
  return {};
}

Status take_prefix(const std::string& value, std::string* prefix) {
  if (!value.starts_with('/') || !value.ends_with('/')) {
    return invalid("'" + value + "' does not begin and end with '/'");
  }
  if (value.size() > kMaxPrefixBytes) return invalid("the prefix is longer than 256 bytes");
  *prefix = value;
  return {};
}

Status take_word(const std::string& value, std::size_t most, std::string* word) {
  if (value.find_first_of(kBlanks) != std::string::npos || value.find(':') != std::string::npos) {
    return invalid("'" + value + "' is not a name");
  }
  if (value.size() > most) return invalid("the name is longer than " + std::to_string(most) + " bytes");
  *word = value;
  return {};
}

Status add_endpoint(const std::string& address, Configuration* configuration) {
  std::string endpoint;
  if (Status status = parse_etcd_address(address, &endpoint); !status.ok()) return invalid(status.text());
  auto& locations = configuration->locations;
  if (!locations.empty() && !is_etcd_address(locations.front())) {
    return invalid("a location is one directory or up to five etcd addresses, not both");
  }
  if (std::find(locations.begin(), locations.end(), address) != locations.end()) {
    return invalid("'" + address + "' is given twice");
  }
  if (locations.size() == kMaxLocations) return invalid("more than five locations");
  locations.push_back(address);
  return {};
}

Status take_location(const std::string& value, Configuration* configuration) {
  if (!is_etcd_address(value)) {
    if (!configuration->locations.empty()) {
      return invalid("a location is one directory or up to five etcd addresses");
    }
    std::string directory;
    Status status = take_absolute(value, kMaxLocationBytes, &directory);
    if (status.ok()) configuration->locations.push_back(std::move(directory));
    return status;
  }
  for (std::size_t at = 0; (at = value.find_first_not_of(kListSeparators, at)) != std::string::npos;) {
    const std::size_t end = std::min(value.find_first_of(kListSeparators, at), value.size());
    if (Status status = add_endpoint(value.substr(at, end - at), configuration); !status.ok()) return status;
    at = end;
  }
  return {};
}

using Take = Status (*)(const std::string& value, Configuration* configuration);

struct Key {
  const char* section;
  const char* name;
  Take take;
};

// Every key, in the order in which people are shown them.
constexpr Key kKeys[] = {
    {"registry", "location", take_location},
    {"registry", "local_only", [](const auto& value, auto* c) { return take_yes_or_no(value, &c->local_only); }},
    {"registry", "backup_location",
     [](const auto& value, auto* c) { return take_absolute(value, kMaxBackupLocationBytes, &c->backup_location); }},
    {"registry", "map_size", [](const auto& value, auto* c) { return take_map_size(value, &c->map_size); }},
    {"registry", "group", [](const auto& value, auto* c) { return take_word(value, kMaxGroupBytes, &c->group); }},
    {"etcd", "ca", [](const auto& value, auto* c) { return take_file(value, &c->etcd_ca); }},
    {"etcd", "cert", [](const auto& value, auto* c) { return take_file(value, &c->etcd_cert); }},
    {"etcd", "key", [](const auto& value, auto* c) { return take_file(value, &c->etcd_key); }},
    {"etcd", "user", [](const auto& value, auto* c) { return take_word(value, kMaxUserBytes, &c->etcd_user); }},
    {"etcd", "password_file", [](const auto& value, auto* c) { return take_file(value, &c->etcd_password_file); }},
    {"etcd", "prefix", [](const auto& value, auto* c) { return take_prefix(value, &c->etcd_prefix); }},
    {"etcd", "timeout_ms", [](const auto& value, auto* c) { return take_timeout(value, &c->etcd_timeout_ms); }},
    {"cluster", "configured", [](const auto& value, auto* c) { return take_yes_or_no(value, &c->cluster_configured); }},
};

const char* yes_or_no(bool answer) { return answer ? "yes" : "no"; }

// Builds a configuration: the file's lines first, then what follows from them.
class Builder {
 public:
  explicit Builder(const Surroundings& surroundings) : surroundings_(surroundings) {
    for (const Key& key : kKeys) {
      made_.settings.push_back({std::string(key.section) + "." + key.name, "", "default"});
    }
  }

  Status read_file() {
    const char* named = surroundings_.variable("TKV_CONF");
    const bool is_named = named != nullptr && *named != '\0';
    const std::string file = is_named ? named : surroundings_.default_file;
    if (!is_named && ::access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
      made_.file_origin = "none";
      return {};
    }
    made_.file = file;
    made_.file_origin = is_named ? "environment TKV_CONF" : "default";
    return read_configuration_file(
        file, [](const std::string& section) { return check_section(section); },
        [&](const ConfigurationLine& line) { return take(line); });
  }

  Status complete(Configuration* configuration) {
    if (Status status = check_pairs(); !status.ok()) return status;
    made_.location_configured = !made_.locations.empty();
    if (!made_.location_configured) {
      if (Status status = place_by_default(); !status.ok()) return status;
    }
    follow_location("registry.local_only", !made_.is_distributed(), &made_.local_only);
    follow_location("cluster.configured", made_.is_distributed(), &made_.cluster_configured);
    show_defaults();
    *configuration = std::move(made_);
    return {};
  }

 private:
  static Status check_section(const std::string& section) {
    for (const Key& key : kKeys) {
      if (section == key.section) return {};
    }
    return invalid("unknown section [" + section + "]");
  }

  Setting* setting(std::string_view name) {
    return &*std::find_if(made_.settings.begin(), made_.settings.end(), [&](const auto& s) { return s.name == name; });
  }

  static bool is_set(const Setting& setting) { return setting.origin != "default"; }

  Status take(const ConfigurationLine& line) {
    for (std::size_t at = 0; at < std::size(kKeys); ++at) {
      if (line.section == kKeys[at].section && line.name == kKeys[at].name) return take_as(at, line);
    }
    if (line.section.empty()) return invalid("'" + line.name + "' stands before the first section");
    return invalid("unknown name '" + line.name + "' in [" + line.section + "]");
  }

  Status take_as(std::size_t at, const ConfigurationLine& line) {
    Setting& entry = made_.settings[at];
    const std::string here = made_.file + ":" + std::to_string(line.number);
    const bool again = is_set(entry);
    if (again && at != 0) return invalid("'" + line.name + "' is given twice, first at " + entry.origin);
    if (line.value.empty()) return invalid("'" + line.name + "' has no value");
    if (Status status = kKeys[at].take(line.value, &made_); !status.ok()) return status.about(line.name);
    entry.value = again ? entry.value + " " + line.value : line.value;
    entry.origin = again ? entry.origin + ", " + here : here;
    return {};
  }

  // `name` was given: so must `other` be.
  Status demand_pair(const char* name, const char* other) {
    const Setting& given = *setting(name);
    if (!is_set(given) || is_set(*setting(other))) return {};
    return invalid(given.origin + ": " + name + " is given without " + other);
  }

  Status check_pairs() {
    constexpr const char* kPairs[][2] = {{"etcd.cert", "etcd.key"},
                                         {"etcd.key", "etcd.cert"},
                                         {"etcd.cert", "etcd.ca"},
                                         {"etcd.user", "etcd.password_file"},
                                         {"etcd.password_file", "etcd.user"}};
    for (const auto& pair : kPairs) {
      if (Status status = demand_pair(pair[0], pair[1]); !status.ok()) return status;
    }
    return {};
  }

  Status place_by_default() {
    Setting& entry = *setting("registry.location");
    const char* state = surroundings_.variable("XDG_STATE_HOME");
    const char* home = surroundings_.variable("HOME");
    std::string directory;
    if (surroundings_.user == 0) {
      directory = "/var/lib/tkv";
    } else if (state != nullptr && *state == '/') {  // relative ones are to be ignored
      directory = std::string(state) + "/tkv";
      entry.origin = "environment XDG_STATE_HOME";
    } else if (home != nullptr && *home == '/') {
      directory = std::string(home) + "/.local/state/tkv";
      entry.origin = "environment HOME";
    } else if (surroundings_.home.starts_with('/')) {
      directory = surroundings_.home + "/.local/state/tkv";
    } else {
      return invalid("no location is configured, and the user has no home directory for a default one");
    }
    entry.value = directory;
    if (directory.size() > kMaxLocationBytes) return invalid(entry.origin + ": the path is longer than 4096 bytes");
    made_.locations.push_back(std::move(directory));
    return {};
  }

  void follow_location(const char* name, bool answer, bool* value) {
    Setting& entry = *setting(name);
    if (!is_set(entry)) {
      *value = answer;
      entry.origin = "follows registry.location";
    }
    entry.value = yes_or_no(*value);
  }

  void show_defaults() {
    setting("etcd.prefix")->value = made_.etcd_prefix;
    setting("etcd.timeout_ms")->value = std::to_string(made_.etcd_timeout_ms);
  }

  const Surroundings& surroundings_;
  Configuration made_;
};

bool is_host_byte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') || byte == '.' ||
         byte == '-' || byte == '_';
}

bool is_ipv6_byte(char byte) {
  return (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F') || (byte >= '0' && byte <= '9') || byte == '.' ||
         byte == ':';
}

bool is_host(std::string_view host) {
  if (host.empty() || host.size() > kMaxHostBytes) return false;
  if (host.front() != '[') return std::all_of(host.begin(), host.end(), is_host_byte);
  if (!host.ends_with(']') || host.size() < 4) return false;
  return std::all_of(host.begin() + 1, host.end() - 1, is_ipv6_byte);
}

bool is_port(std::string_view port) {
  std::uint64_t number = 0;
  return take_number(&port, &number) && port.empty() && number >= 1 && number <= 65535;
}

// "" when the system does not know it.
std::string home_by_records(uid_t user) {
  std::string home;
  const auto ask = [user](passwd* record, char* buffer, std::size_t size, passwd** found) {
    return ::getpwuid_r(user, record, buffer, size, found);
  };
  static_cast<void>(ask_name_service<passwd>(ask, [&](const passwd* found) {
    if (found != nullptr && found->pw_dir != nullptr) home = found->pw_dir;
  }));
  return home;
}

}  // namespace

Surroundings Surroundings::of_process() {
  Surroundings surroundings;
  // A program that has more rights than its caller does not let him say where it reads and writes.
  surroundings.variable = [](const char* name) -> const char* { return ::secure_getenv(name); };
  surroundings.user = ::geteuid();
  const char* home = surroundings.variable("HOME");
  if (surroundings.user != 0 && (home == nullptr || *home != '/'))
    surroundings.home = home_by_records(surroundings.user);
  return surroundings;
}

Status Configuration::read(Configuration* configuration, const Surroundings& surroundings) {
  Builder builder(surroundings);
  if (Status status = builder.read_file(); !status.ok()) return status;
  return builder.complete(configuration);
}

bool Configuration::is_distributed() const { return !locations.empty() && is_etcd_address(locations.front()); }

bool is_etcd_address(std::string_view address) { return address.starts_with(kEtcdScheme); }

Status parse_etcd_address(std::string_view address, std::string* endpoint) {
  if (is_etcd_address(address) && address.size() <= kMaxLocationBytes) {
    const std::string_view rest = address.substr(kEtcdScheme.size());
    const std::size_t colon = rest.rfind(':');
    if (colon != std::string_view::npos && is_host(rest.substr(0, colon)) && is_port(rest.substr(colon + 1))) {
      *endpoint = rest;
      return {};
    }
  }
  return {PRTKV_INVALID_ARGUMENT, "'" + std::string(address.substr(0, 200)) + "' is not of the form etcd://host:port"};
}

}  // namespace tkv::registry
