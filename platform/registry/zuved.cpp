#include "registry/zuved.h"

#include <string>
#include <string_view>

#include "prtkv.h"

namespace tkv::registry {
namespace {

constexpr const char* kDependencies = "SYSTEM.ZUVED.dependencies";
constexpr const char* kMode = "SYSTEM.ZUVED.mode";

using namespace std::string_view_literals;

// The services of a mode as a list value, "" for an unknown mode.
std::string_view services_of(std::int32_t mode) {
  switch (mode) {
    case PRTKV_ZUVED_STORAGE_NONE:
      return "membership\0\0"sv;
    case PRTKV_ZUVED_STORAGE_LOCAL:
      return "membership\0storage\0\0"sv;
    case PRTKV_ZUVED_STORAGE_REMOTE:
      return "membership\0network\0storage-client\0\0"sv;
    default:
      return {};
  }
}

}  // namespace

Status record_zuved_dependencies(Client& client, std::int32_t mode) {
  const std::string_view services = services_of(mode);
  if (services.empty()) return {PRTKV_INVALID_ARGUMENT, "invalid argument: no storage mode " + std::to_string(mode)};
  const std::string number = std::to_string(mode) + '\0';
  const NamedValue values[] = {{kDependencies, {PRTKV_TYPE_LIST, std::string(services)}},
                               {kMode, {PRTKV_TYPE_TEXT, number}}};
  PutOptions options;
  options.create_parents = true;
  options.security.initial = default_security(client.identity());
  return client.put(values, options);
}

}  // namespace tkv::registry
