#include "registry/configuration.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "base/name_service.h"
#include "prtkv.h"
#include "registry/configuration_file.h"
#include "store/setting_values.h"
#include "store/store_kinds.h"

namespace tkv::registry {
namespace {

constexpr const char* kLocation = "registry.location";
constexpr std::string_view kListSeparators = " \t,";
constexpr std::size_t kMaxBackupLocationSize = PRTKV_BACKUP_LOCATION_SIZE - 1;

Status invalid(std::string why) { return {PRTKV_INVALID_CONFIGURATION, std::move(why)}; }

// "a location is one directory or up to five etcd addresses".
Status wrong_number_of_locations() {
  std::string text;
  for (const store::StoreKind* kind : store::store_kinds())
    text += (text.empty() ? "" : " or ") + std::string(kind->locations);
  return invalid("a location is " + text);
}

Status add_location(const std::string& location, std::vector<std::string>* locations) {
  const store::StoreKind& kind = store::kind_of_location(location);
  if (Status status = kind.check_location(location); !status.ok()) return invalid(status.text());
  if (std::find(locations->begin(), locations->end(), location) != locations->end()) {
    return invalid("'" + location + "' is given twice");
  }
  const bool fits = locations->empty() || &store::kind_of_location(locations->front()) == &kind;
  if (!fits || locations->size() == kind.max_locations) return wrong_number_of_locations();
  locations->push_back(location);
  return {};
}

// A value names one location or, of a kind that may have several, a list.
Status take_locations(const std::string& value, std::vector<std::string>* locations) {
  if (store::kind_of_location(value).max_locations == 1) return add_location(value, locations);
  for (std::size_t at = 0; (at = value.find_first_not_of(kListSeparators, at)) != std::string::npos;) {
    const std::size_t end = std::min(value.find_first_of(kListSeparators, at), value.size());
    if (Status status = add_location(value.substr(at, end - at), locations); !status.ok()) return status;
    at = end;
  }
  return {};
}

Status take_backup_location(const std::string& value, std::string* location) {
  Status status = store::check_absolute_path(value, kMaxBackupLocationSize);
  if (status.ok()) *location = value;
  return status;
}

// A setting that does not belong to a store.
struct OwnSetting {
  const char* name;
  Status (*take)(const std::string& value, Configuration* configuration);
  const char* text;
};

constexpr OwnSetting kRegistrySettings[] = {
    {"registry.location", [](const auto& value, auto* made) { return take_locations(value, &made->locations); },
     "One directory (absolute path), or one to five etcd://host:port, separated by blanks or commas or on lines of "
     "their own. Default: /var/lib/tkv for root; for others $XDG_STATE_HOME/tkv or, if that is not set, "
     "~/.local/state/tkv."},
    {"registry.local_only",
     [](const auto& value, auto* made) { return store::parse_yes_or_no(value, &made->local_only); },
     "yes or no: what callers are told. Default: yes for a directory, no for etcd."},
    {"registry.backup_location",
     [](const auto& value, auto* made) { return take_backup_location(value, &made->backup_location); },
     "Directory (absolute path) for backups. Default: none."}};

constexpr OwnSetting kClusterSettings[] = {
    {"cluster.configured",
     [](const auto& value, auto* made) { return store::parse_yes_or_no(value, &made->cluster_configured); },
     "yes or no: whether this node is a member of a cluster. Default: yes if the location is etcd."}};

struct KnownSetting {
  std::string_view name;
  const OwnSetting* own;
  const store::StoreSetting* of_store;

  std::string_view section() const { return name.substr(0, name.find('.')); }
  std::string_view name_in_section() const { return name.substr(name.find('.') + 1); }
};

// Every setting, in the order in which people are shown them.
const std::vector<KnownSetting>& known_settings() {
  static const std::vector<KnownSetting> known = [] {
    std::vector<KnownSetting> all;
    for (const OwnSetting& own : kRegistrySettings) all.push_back({own.name, &own, nullptr});
    for (const store::StoreKind* kind : store::store_kinds()) {
      for (const store::StoreSetting& setting : kind->settings) all.push_back({setting.name, nullptr, &setting});
    }
    for (const OwnSetting& own : kClusterSettings) all.push_back({own.name, &own, nullptr});
    return all;
  }();
  return known;
}

const store::StoreKind& kind_of(const Configuration& configuration) {
  return store::kind_of_location(configuration.locations.empty() ? "" : configuration.locations.front());
}

const char* yes_or_no(bool answer) { return answer ? "yes" : "no"; }

// Builds a configuration: first from the file's lines, then what follows from them.
class Builder {
 public:
  explicit Builder(const Surroundings& surroundings) : surroundings_(surroundings) {
    made_.settings.reserve(known_settings().size());
    for (const KnownSetting& known : known_settings()) {
      const char* value = known.of_store == nullptr ? "" : known.of_store->default_value;
      made_.settings.push_back({std::string(known.name), value, "default"});
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
    if (Status status = check_needs(); !status.ok()) return status;
    made_.location_configured = !made_.locations.empty();
    if (!made_.location_configured) {
      if (Status status = place_by_default(); !status.ok()) return status;
    }
    if (Status status = check_refused(); !status.ok()) return status;
    follow_location("registry.local_only", !made_.is_distributed(), &made_.local_only);
    follow_location("cluster.configured", made_.is_distributed(), &made_.cluster_configured);
    *configuration = std::move(made_);
    return {};
  }

 private:
  // "location, local_only, ...".
  static std::string names_in(std::string_view section) {
    std::string names;
    for (const KnownSetting& known : known_settings()) {
      if (known.section() == section) names.append(names.empty() ? "" : ", ").append(known.name_in_section());
    }
    return names;
  }

  // The first section that has a setting of this name, or just the first section.
  static std::string section_of(std::string_view name) {
    for (const KnownSetting& known : known_settings()) {
      if (known.name_in_section() == name) return std::string(known.section());
    }
    return std::string(known_settings().front().section());
  }

  static Status check_section(const std::string& section) {
    for (const KnownSetting& known : known_settings()) {
      if (section == known.section()) return {};
    }
    std::string known_sections;
    std::string_view last;
    for (const KnownSetting& known : known_settings()) {
      if (known.section() == last) continue;
      last = known.section();
      known_sections.append(known_sections.empty() ? "[" : ", [").append(last).append("]");
    }
    return invalid("unknown section [" + section + "]; there are " + known_sections);
  }

  // They are in the order of the known ones.
  Setting* setting(const KnownSetting& known) {
    return &made_.settings[static_cast<std::size_t>(&known - known_settings().data())];
  }

  Setting* setting(std::string_view name) {
    const auto& known = known_settings();
    return setting(*std::find_if(known.begin(), known.end(), [&](const auto& k) { return k.name == name; }));
  }

  static bool is_set(const Setting& setting) { return setting.origin != "default"; }

  Status take(const ConfigurationLine& line) {
    const std::string name = line.section + "." + line.name;
    for (const KnownSetting& known : known_settings()) {
      if (known.name == name) return take_as(known, line);
    }
    if (line.section.empty()) {
      return invalid("'" + line.name + "' stands before the first section; put it below [" + section_of(line.name) +
                     "]");
    }
    return invalid("unknown name '" + line.name + "' in [" + line.section + "]; it has " + names_in(line.section));
  }

  Status take_as(const KnownSetting& known, const ConfigurationLine& line) {
    Setting& entry = *setting(known);
    const std::string here = made_.file + ":" + std::to_string(line.number);
    const bool again = is_set(entry);
    if (again && known.name != kLocation) {
      return invalid("'" + line.name + "' is given twice, first at " + entry.origin);
    }
    if (line.value.empty()) return invalid("'" + line.name + "' has no value");
    if (Status status = take_value(known, line.value); !status.ok()) return status.about(line.name);
    entry.value = again ? entry.value + " " + line.value : line.value;
    entry.origin = again ? entry.origin + ", " + here : here;
    return {};
  }

  Status take_value(const KnownSetting& known, const std::string& value) {
    if (known.own != nullptr) return known.own->take(value, &made_);
    Status status = known.of_store->check(value);
    if (status.ok()) made_.store_settings[known.of_store->name] = value;
    return status;
  }

  Status check_needs() {
    for (const KnownSetting& known : known_settings()) {
      const Setting& given = *setting(known);
      if (known.of_store == nullptr || !is_set(given)) continue;
      for (const char* needed : known.of_store->needs) {
        if (needed == nullptr || is_set(*setting(needed))) continue;
        return invalid(given.origin + ": " + given.name + " is given without " + needed);
      }
    }
    return {};
  }

  // Settings that the location's store would not heed although they promise something.
  Status check_refused() {
    for (const store::RefusedSection& refused : kind_of(made_).refused) {
      for (const KnownSetting& known : known_settings()) {
        const Setting& given = *setting(known);
        if (known.section() != refused.section || !is_set(given)) continue;
        return invalid(given.origin + ": " + given.name + " is given, but " + refused.why);
      }
    }
    return {};
  }

  Status place_by_default() {
    Setting& entry = *setting(kLocation);
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
      return invalid(
          "no location is configured, and the user has no home directory for a default one; set `location` in "
          "[registry] of " +
          surroundings_.default_file + ", or HOME");
    }
    entry.value = directory;
    return add_location(directory, &made_.locations).about(entry.origin);
  }

  void follow_location(const char* name, bool answer, bool* value) {
    Setting& entry = *setting(name);
    if (!is_set(entry)) {
      *value = answer;
      entry.origin = "follows registry.location";
    }
    entry.value = yes_or_no(*value);
  }

  const Surroundings& surroundings_;
  Configuration made_;
};

// "" if the system does not know it.
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
  // The caller of a program with raised privileges must not choose where it reads and writes.
  surroundings.variable = [](const char* name) -> const char* { return ::secure_getenv(name); };
  surroundings.user = ::geteuid();
  const char* home = surroundings.variable("HOME");
  if (surroundings.user != 0 && (home == nullptr || *home != '/')) {
    surroundings.home = home_by_records(surroundings.user);
  }
  return surroundings;
}

Status Configuration::read(Configuration* configuration, const Surroundings& surroundings) {
  Builder builder(surroundings);
  if (Status status = builder.read_file(); !status.ok()) return status;
  return builder.complete(configuration);
}

Status Configuration::relocate(const std::string& location) {
  std::vector<std::string> taken;
  if (Status status = take_locations(location, &taken); !status.ok()) return status;
  locations = std::move(taken);
  location_configured = true;
  return {};
}

bool Configuration::is_distributed() const { return kind_of(*this).is_distributed; }

const char* Configuration::store() const { return kind_of(*this).name; }

std::vector<SettingText> setting_texts() {
  std::vector<SettingText> texts;
  for (const KnownSetting& known : known_settings()) {
    texts.push_back({known.name, known.own != nullptr ? known.own->text : known.of_store->text});
  }
  return texts;
}

}  // namespace tkv::registry
