#include "place.h"

#include <sys/stat.h>

#include <string_view>
#include <utility>

#include "context.h"

namespace tkv::command {
namespace {

using registry::Configuration;

// Finds the configuration of a place: that of a configuration file or, for a directory or the addresses of an etcd
// cluster, the one in force with this location.
Outcome configure(const std::string& place, Configuration* configuration) {
  if (is_regular_file(place)) {
    registry::Surroundings surroundings = registry::Surroundings::of_process();
    surroundings.variable = [&place, other = surroundings.variable](const char* name) {
      return std::string_view(name) == "TKV_CONF" ? place.c_str() : other(name);
    };
    return Configuration::read(configuration, surroundings);
  }
  if (Status read = Configuration::read(configuration); !read.ok()) return read;
  if (configuration->relocate(place).ok()) return {};
  return {Exit::kUsage,
          "'" + place + "' is neither a configuration file, nor an absolute directory, nor etcd://host:port"};
}

}  // namespace

bool is_regular_file(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
}

Outcome open_place(const std::string& place, const registry::OpenOptions& options,
                   std::shared_ptr<registry::Client>* client) {
  Configuration configuration;
  if (Outcome configured = configure(place, &configuration); !configured.ok()) return configured;
  Outcome opened = open_registry(std::move(configuration), options, client);
  return opened.ok() ? opened : Outcome(opened.exit(), place + ": " + opened.text());
}

}  // namespace tkv::command
