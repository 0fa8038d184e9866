// Configuration: where the registry is and how it is reached.
//
// The file is the one that the environment variable TKV_CONF names, else /etc/tkv/tkv.conf. TKV_CONF that names no
// file is an error; without /etc/tkv/tkv.conf the defaults are in force. A program with more rights than its caller
// (set-user-ID, set-group-ID, file capabilities) takes no variable of the environment into account.
//
//   [registry]
//   location         one directory (absolute), or one to five "etcd://host:port", separated by blanks or commas or
//                    given on lines of their own. Default: /var/lib/tkv for root, $XDG_STATE_HOME/tkv for others, or
//                    ~/.local/state/tkv when that is not set.
//   local_only       yes or no: what callers are told. Default: yes for a directory, no for etcd.
//   backup_location  a directory (absolute). Default: none.
//   map_size         bytes that an embedded registry may grow to, with K, M, G or T for powers of 1024; 1M to 16T.
//                    Default: the store's.
//   group            group that shares an embedded registry. Default: none.
//   [etcd]
//   ca, cert, key    PEM files (absolute). cert and key go together, and with a ca. Default: no TLS.
//   user, password_file   go together; the file is absolute.
//   prefix           of the registry's keys in etcd; begins and ends with "/", 256 bytes at most. Default: /tkv/
//   timeout_ms       of one operation over all endpoints, 100 to 600000. Default: 5000.
//   [cluster]
//   configured       yes or no: whether this node is a member of a cluster. Default: yes when the location is etcd.
//
// Lines are "name = value"; lines that begin with ";" or "#" are comments, and so is what follows " ;" on a line.
// yes and no may also be written true, false, on, off, 1, 0. Unknown sections and names, names given twice (but
// location), malformed lines and values out of bounds are errors (41) that name file and line; a file that cannot be
// read is 42.
#ifndef TKV_PLATFORM_REGISTRY_CONFIGURATION_H
#define TKV_PLATFORM_REGISTRY_CONFIGURATION_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/status.h"

namespace tkv::registry {

constexpr std::size_t kMaxLocations = 5;
constexpr std::size_t kMaxLocationBytes = 4096;
constexpr std::size_t kMaxBackupLocationBytes = 4095;

// What a configuration is read from, besides the file; for tests to stand in for the process.
struct Surroundings {
  std::function<const char*(const char* name)> variable;  // of the environment; null when not set
  uid_t user = 0;                                         // effective
  std::string home;                                       // of the user by the system's records, used without $HOME
  std::string default_file = "/etc/tkv/tkv.conf";

  static Surroundings of_process();
};

// A setting as it is in force, and where it came from.
struct Setting {
  std::string name;    // "registry.location"
  std::string value;   // "" when there is none
  std::string origin;  // "/etc/tkv/tkv.conf:3", "default", "environment XDG_STATE_HOME", "follows registry.location"
};

struct Configuration {
  // Reads the configuration that is in force now. 41 and 42 as above; `*configuration` is then as it was. Any thread
  // may call.
  static Status read(Configuration* configuration, const Surroundings& surroundings = Surroundings::of_process());

  std::string file;         // that was read, "" when there was none
  std::string file_origin;  // "environment TKV_CONF", "default", or "none"

  std::vector<std::string> locations;  // one directory, or endpoints "etcd://host:port"
  bool location_configured = false;    // the file names it, it is not the default
  bool local_only = true;
  std::string backup_location;
  std::uint64_t map_size = 0;  // 0: the store's default
  std::string group;

  std::string etcd_ca;
  std::string etcd_cert;
  std::string etcd_key;
  std::string etcd_user;
  std::string etcd_password_file;
  std::string etcd_prefix = "/tkv/";
  int etcd_timeout_ms = 5000;

  bool cluster_configured = false;

  bool is_distributed() const;  // the locations are those of an etcd cluster

  // Every setting in the order above, for people. Holds no secrets.
  std::vector<Setting> settings;
};

// Tells whether an address begins like those of distributed registries, well-formed or not.
bool is_etcd_address(std::string_view address);

// Takes "etcd://host:port" apart, "host:port" into `*endpoint`: 8 with a text when it is malformed. The host is a
// name, an IPv4 address, or an IPv6 address in brackets.
Status parse_etcd_address(std::string_view address, std::string* endpoint);

}  // namespace tkv::registry

#endif
