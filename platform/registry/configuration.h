// Configuration: where the registry is and how it is reached.
//
// It is read from the file that the environment variable TKV_CONF names, or else from /etc/tkv/tkv.conf. If TKV_CONF
// names a file that does not exist, that is an error; without /etc/tkv/tkv.conf the defaults are in force. A program
// with more rights than its caller (set-user-ID, set-group-ID, file capabilities) ignores the environment.
//
// The file consists of sections and lines "name = value". setting_texts() describes all settings; those of a store are
// declared in its row of the table of store kinds. Lines that begin with ";" or "#" are comments, and so is what
// follows " ;" on a line. yes and no may also be written true, false, on, off, 1, 0. Unknown sections and names, names
// given twice (except location), malformed lines and values out of bounds yield PRTKV_INVALID_CONFIGURATION with file
// and line; a file that cannot be read yields PRTKV_CONFIGURATION_UNREADABLE.
#ifndef TKV_PLATFORM_REGISTRY_CONFIGURATION_H
#define TKV_PLATFORM_REGISTRY_CONFIGURATION_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/status.h"

namespace tkv::registry {

// What a configuration is read from besides the file. Tests replace it.
struct Surroundings {
  std::function<const char*(const char* name)> variable;  // of the environment; null if it is not set
  uid_t user = 0;                                         // effective
  std::string home;                                       // the user's by the system's records, for want of $HOME
  std::string default_file = "/etc/tkv/tkv.conf";

  static Surroundings of_process();
};

// A setting as it is in force, and where it came from.
struct Setting {
  std::string name;    // "registry.location"
  std::string value;   // "" if there is none
  std::string origin;  // "/etc/tkv/tkv.conf:3", "default", "environment XDG_STATE_HOME", "follows registry.location"
};

struct Configuration {
  // Reads the configuration that is in force now. On failure `*configuration` is unchanged. Any thread may call.
  static Status read(Configuration* configuration, const Surroundings& surroundings = Surroundings::of_process());

  std::string file;         // that was read, "" if there was none
  std::string file_origin;  // "environment TKV_CONF", "default", or "none"

  std::vector<std::string> locations;  // all of one kind of store, in the configured order
  bool location_configured = false;    // it is not the default
  bool local_only = true;
  std::string backup_location;
  bool cluster_configured = false;

  // The configured values of settings that belong to stores, by name ("etcd.prefix").
  std::map<std::string, std::string, std::less<>> store_settings;

  // Replaces the locations by those of a value as in the file; everything else stays. Returns
  // PRTKV_INVALID_CONFIGURATION if it is malformed.
  Status relocate(const std::string& location);

  bool is_distributed() const;  // nodes share the registry
  const char* store() const;    // the kind of store that the locations belong to: "lmdb", "etcd"

  // Every setting, for people. Holds no secrets.
  std::vector<Setting> settings;
};

// What a setting means, which values it takes and what is in force without it.
struct SettingText {
  std::string_view name;  // "registry.location"
  const char* text;
};

// All settings, in the order of Configuration::settings. Any thread may call.
std::vector<SettingText> setting_texts();

}  // namespace tkv::registry

#endif
