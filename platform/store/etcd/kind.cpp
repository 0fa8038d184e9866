#include "store/etcd/kind.h"

#include <algorithm>
#include <utility>

#include "store/etcd/address.h"
#include "store/etcd/loader.h"
#include "store/setting_values.h"

namespace tkv::store {
namespace {

constexpr std::size_t kMaxUserSize = 255;
constexpr std::size_t kMaxPrefixSize = 256;
constexpr std::uint64_t kMinAttempt = 10;

Status check_attempt(const std::string& value) {
  int milliseconds = 0;
  return parse_milliseconds(value, kMinAttempt, &milliseconds);
}

Status check_prefix(const std::string& value) {
  if (!value.starts_with('/') || !value.ends_with('/')) {
    return refuse("'" + value + "' does not begin and end with '/'");
  }
  if (value.size() > kMaxPrefixSize) return refuse("the prefix is longer than 256 bytes");
  return {};
}

Status check_user(const std::string& value) { return check_account(value, kMaxUserSize); }

constexpr StoreSetting kSettings[] = {
    {.name = "etcd.ca",
     .check = check_file,
     .text = "PEM file (absolute path) of the authority that signed the members' certificates. With it the connection "
             "is TLS. Default: no TLS."},
    {.name = "etcd.cert",
     .check = check_file,
     .needs = {"etcd.key", "etcd.ca"},
     .text = "PEM file of this client's certificate; goes with key and ca. Default: none."},
    {.name = "etcd.key",
     .check = check_file,
     .needs = {"etcd.cert"},
     .text = "PEM file of the certificate's key; goes with cert. Default: none."},
    {.name = "etcd.user",
     .check = check_user,
     .needs = {"etcd.password_file"},
     .text = "User of the cluster; goes with password_file. Default: none."},
    {.name = "etcd.password_file",
     .check = check_file,
     .needs = {"etcd.user"},
     .text = "File (absolute path) of one line, readable by its owner only; goes with user. Default: none."},
    {.name = "etcd.prefix",
     .check = check_prefix,
     .default_value = "/tkv/",
     .text = "Prefix of the registry's keys in etcd; begins and ends with /, 256 bytes at most. Default: /tkv/"},
    {.name = "etcd.timeout_ms",
     .check = check_timeout,
     .default_value = "5000",
     .text = "Milliseconds that one operation may take over all members, 100 to 600000. Default: 5000."},
    {.name = "etcd.attempt_ms",
     .check = check_attempt,
     .default_value = "300",
     .text =
         "Milliseconds that an answer may be overdue, beyond the measured round-trip time, before another member is "
         "asked, 10 to 600000; 1000 at least if there is only one member. Default: 300."}};

constexpr RefusedSection kRefused[] = {
    {"history",
     "a registry on etcd keeps as much of its past as etcd does: set etcd's --auto-compaction-retention instead"}};

// What is configured or, if it is not, the default.
std::string value_of(const Settings& settings, std::string_view name) {
  if (const auto found = settings.find(name); found != settings.end()) return found->second;
  const auto* const setting = std::find_if(std::begin(kSettings), std::end(kSettings),
                                           [&](const StoreSetting& each) { return name == each.name; });
  return setting->default_value;
}

Status check_location(const std::string& location) {
  std::string endpoint;
  return parse_etcd_address(location, &endpoint);
}

Status check(const StorePlace&) { return {}; }

bool is_absent(const StorePlace&) { return false; }

bool is_same(const StorePlace& one, const StorePlace& other) {
  return one.locations == other.locations &&
         value_of(one.settings, "etcd.prefix") == value_of(other.settings, "etcd.prefix");
}

Status options_for(const StorePlace& place, const StoreOpening& opening, EtcdOptions* options) {
  for (const std::string& location : place.locations) {
    std::string endpoint;
    if (Status status = parse_etcd_address(location, &endpoint); !status.ok()) return status;
    options->endpoints.push_back(std::move(endpoint));
  }
  options->ca = value_of(place.settings, "etcd.ca");
  options->cert = value_of(place.settings, "etcd.cert");
  options->key = value_of(place.settings, "etcd.key");
  options->user = value_of(place.settings, "etcd.user");
  options->password_file = value_of(place.settings, "etcd.password_file");
  options->prefix = value_of(place.settings, "etcd.prefix");
  options->create = opening.create && !opening.read_only;
  options->root_security = opening.root_security;
  Status status = parse_milliseconds(value_of(place.settings, "etcd.attempt_ms"), kMinAttempt, &options->attempt_ms);
  if (!status.ok()) return status;
  status = parse_timeout(value_of(place.settings, "etcd.timeout_ms"), &options->timeout_ms);
  if (opening.max_wait_ms != 0) {
    options->timeout_ms = std::min(options->timeout_ms, static_cast<int>(opening.max_wait_ms));
  }
  return status;
}

Status open(const StorePlace& place, const StoreOpening& opening, std::shared_ptr<Store>* store) {
  EtcdOptions options;
  OpenEtcdStore open_store = nullptr;
  if (Status status = options_for(place, opening, &options); !status.ok()) return status;
  if (Status status = load_etcd_module(&open_store); !status.ok()) return status;
  return open_store(options, store);
}

}  // namespace

constinit const StoreKind kEtcdKind = {.name = "etcd",
                                       .scheme = kEtcdScheme,
                                       .locations = "up to five etcd addresses",
                                       .max_locations = 5,
                                       .is_distributed = true,
                                       .settings = kSettings,
                                       .refused = kRefused,
                                       .check_location = check_location,
                                       .check = check,
                                       .is_absent = is_absent,
                                       .is_same = is_same,
                                       .open = open};

}  // namespace tkv::store
