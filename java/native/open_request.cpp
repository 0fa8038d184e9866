#include "open_request.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "open_registry.h"
#include "registry/configuration.h"
#include "registry/open_client.h"

namespace tkv::java {
namespace {

using registry::Configuration;
using registry::Surroundings;

// What RegistryOptions.java asks for. Do not change one side alone.
enum class Place : std::int32_t { kConfigured = 0, kConfigurationFile = 1, kDirectory = 2 };
constexpr std::int32_t kReadOnly = 1;
constexpr std::int32_t kMustExist = 2;

// The configuration in a file, whatever TKV_CONF says.
Status read_file(const std::string& file, Configuration* configuration) {
  Surroundings surroundings = Surroundings::of_process();
  surroundings.variable = [of_process = surroundings.variable, &file](const char* name) -> const char* {
    return std::string_view(name) == "TKV_CONF" ? file.c_str() : of_process(name);
  };
  return Configuration::read(configuration, surroundings);
}

// The default configuration, with a directory in place of the default location. The environment plays no part.
Status place_in(const std::string& directory, Configuration* configuration) {
  Surroundings none;
  none.variable = [](const char*) -> const char* { return nullptr; };
  none.default_file = "";
  if (Status status = Configuration::read(configuration, none); !status.ok()) return status;
  configuration->locations = {directory};
  configuration->location_configured = true;
  return {};
}

Status configure(Place place, const std::string& path, Configuration* configuration) {
  switch (place) {
    case Place::kConfigured:
      return Configuration::read(configuration);
    case Place::kConfigurationFile:
      return read_file(path, configuration);
    case Place::kDirectory:
      return place_in(path, configuration);
  }
  return {PRTKV_INVALID_ARGUMENT, "no place for a registry: " + std::to_string(static_cast<std::int32_t>(place))};
}

}  // namespace

Status open_requested(DataReader& request, jlong* handle) {
  const Place place{request.word32()};
  const std::string path(request.text());
  const std::int32_t flags = request.word32();
  registry::OpenOptions options;
  options.max_wait_ms = static_cast<std::uint32_t>(request.word32());
  options.read_only = (flags & kReadOnly) != 0;
  options.create = (flags & kMustExist) == 0;
  options.note = request.text();
  if (!request.complete()) return {PRTKV_INVALID_ARGUMENT, "incomplete request"};
  Configuration configuration;
  if (Status status = configure(place, path, &configuration); !status.ok()) return status;
  std::shared_ptr<registry::Client> client;
  if (Status status = open_client(std::move(configuration), options, &client); !status.ok()) return status;
  *handle = add_registry(std::move(client), options.read_only);
  return {};
}

}  // namespace tkv::java
