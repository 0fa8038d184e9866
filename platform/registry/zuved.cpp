#include "registry/zuved.h"

#include <span>
#include <string>
#include <string_view>

#include "prtkv.h"

namespace tkv::registry {
namespace {

constexpr std::string_view kFolder = "SYSTEM.ZUVED";
constexpr std::string_view kDependencies = "SYSTEM.ZUVED.dependencies";
constexpr std::string_view kMode = "SYSTEM.ZUVED.mode";

using namespace std::string_view_literals;

// The services of a mode as a list value, "" for a mode that there is not.
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

std::span<const std::byte> bytes_of(std::string_view text) { return std::as_bytes(std::span(text)); }

// Makes the keys of a full name that do not exist.
Status ensure(Writer& tree, std::string_view name, const sec_attr& security) {
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = name.find('.', end + 1);
    const std::string_view key = name.substr(0, end);
    bool there = false;
    store::NodeId id = store::kNoNode;
    if (Status status = tree.exists(key, &there); !status.ok()) return status;
    if (there) continue;
    if (Status status = tree.create(parent_of(key), last_level(key), security, &id); !status.ok()) return status;
  }
  return {};
}

Status put(Writer& tree, std::string_view name, const sec_attr& security, std::int32_t type, std::string_view value) {
  bool there = false;
  store::NodeId id = store::kNoNode;
  if (Status status = tree.exists(name, &there); !status.ok()) return status;
  if (there) return tree.set_value(name, type, bytes_of(value));
  return tree.create_and_set(parent_of(name), last_level(name), security, type, bytes_of(value), &id);
}

}  // namespace

Status record_zuved_dependencies(Registry& registry, std::int32_t mode) {
  const std::string_view services = services_of(mode);
  if (services.empty()) return {PRTKV_INVALID_ARGUMENT, "invalid argument: no storage mode " + std::to_string(mode)};
  const std::string number = std::to_string(mode) + '\0';
  const sec_attr security = default_security(registry.identity());
  return registry.write([&](Writer& tree) {
    if (Status status = ensure(tree, kFolder, security); !status.ok()) return status;
    Status status = put(tree, kDependencies, security, PRTKV_TYPE_LIST, services);
    return status.ok() ? put(tree, kMode, security, PRTKV_TYPE_TEXT, number) : status;
  });
}

}  // namespace tkv::registry
