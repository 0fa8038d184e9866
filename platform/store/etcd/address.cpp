#include "store/etcd/address.h"

#include <algorithm>
#include <cstdint>

#include "store/setting_values.h"

namespace tkv::store {
namespace {

constexpr std::size_t kMaxAddressSize = 4096;
constexpr std::size_t kMaxHostSize = 255;
constexpr std::size_t kShownSize = 200;  // of a malformed address

bool is_host_byte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') || byte == '.' ||
         byte == '-' || byte == '_';
}

bool is_ipv6_byte(char byte) {
  return (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F') || (byte >= '0' && byte <= '9') || byte == '.' ||
         byte == ':';
}

bool is_host(std::string_view host) {
  if (host.empty() || host.size() > kMaxHostSize) return false;
  if (host.front() != '[') return std::all_of(host.begin(), host.end(), is_host_byte);
  if (!host.ends_with(']') || host.size() < 4) return false;
  return std::all_of(host.begin() + 1, host.end() - 1, is_ipv6_byte);
}

bool is_port(std::string_view port) {
  std::uint64_t number = 0;
  return take_number(&port, &number) && port.empty() && number >= 1 && number <= 65535;
}

}  // namespace

Status parse_etcd_address(std::string_view address, std::string* endpoint) {
  const std::string_view scheme = kEtcdScheme;
  if (address.starts_with(scheme) && address.size() <= kMaxAddressSize) {
    const std::string_view rest = address.substr(scheme.size());
    const std::size_t colon = rest.rfind(':');
    if (colon != std::string_view::npos && is_host(rest.substr(0, colon)) && is_port(rest.substr(colon + 1))) {
      *endpoint = rest;
      return {};
    }
  }
  return {PRTKV_INVALID_ARGUMENT,
          "'" + std::string(address.substr(0, kShownSize)) + "' is not of the form etcd://host:port"};
}

}  // namespace tkv::store
