#include "store/etcd/server_version.h"

#include <charconv>
#include <compare>
#include <string>

namespace tkv::store::etcd {
namespace {

struct Version {
  int major = 0;
  int minor = 0;
  int patch = 0;

  auto operator<=>(const Version&) const = default;  // NOLINT(modernize-use-nullptr): it is about the result's zero
};

constexpr Version kOldest{3, 4, 0};
constexpr Version kFirstCorrupting{3, 5, 0};
constexpr Version kFirstRepaired{3, 5, 3};

// Reads a number, and the dot behind it if there is one.
bool take_number(std::string_view* text, int* number) {
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
  if (error != std::errc()) return false;
  text->remove_prefix(static_cast<std::size_t>(end - text->data()));
  if (!text->empty() && text->front() == '.') text->remove_prefix(1);
  return true;
}

// A patch level that cannot be read counts as 0. What follows the numbers, as in "3.5.0-rc.1", does not matter.
bool parse(std::string_view text, Version* version) {
  if (!take_number(&text, &version->major) || !take_number(&text, &version->minor)) return false;
  (void)take_number(&text, &version->patch);
  return true;
}

Status unusable(std::string_view version, const char* why) {
  return {PRTKV_UNUSABLE, "etcd " + std::string(version) + why};
}

}  // namespace

Status check_server_version(std::string_view text) {
  Version version;
  if (!parse(text, &version)) return unusable(text, " is not a version that is known: 3.4 or later is needed");
  if (version < kOldest) return unusable(text, " is too old: 3.4 or later is needed");
  if (version >= kFirstCorrupting && version < kFirstRepaired) {
    return unusable(text,
                    " can lose data when a member crashes (releases 3.5.0 to 3.5.2): upgrade it to 3.5.3 or later");
  }
  return {};
}

}  // namespace tkv::store::etcd
