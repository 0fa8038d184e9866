// Cluster services, on the registry client and its configuration.
#include "cls.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "registry/client.h"
#include "registry/configuration.h"
#include "registry/contexts.h"
#include "registry/session.h"

namespace {

using tkv::Status;
using tkv::registry::Client;
using tkv::registry::Configuration;
using tkv::registry::Session;
using tkv::registry::TypedValue;

constexpr std::string_view kPatchKey = "SYSTEM.version.patch";
constexpr std::int64_t kNoNumber = -1;

Status no_patch_level() {
  return {PRTKV_INVALID_ARGUMENT, "key '" + std::string(kPatchKey) + "' holds no patch level"};
}

// A decimal number, possibly with blanks around it, up to the first NUL.
std::int64_t number_in(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\n')) text.remove_suffix(1);
  std::int64_t number = kNoNumber;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : kNoNumber;
}

// A signed word of `size` bytes, least significant first.
std::int64_t word_in(std::string_view bytes, std::size_t size) {
  if (bytes.size() != size) return kNoNumber;
  std::uint64_t word = 0;
  for (std::size_t at = size; at-- > 0;) word = word << 8 | static_cast<unsigned char>(bytes[at]);
  return size == sizeof(std::int32_t) ? static_cast<std::int32_t>(word) : static_cast<std::int64_t>(word);
}

std::int64_t number_of(const TypedValue& value) {
  switch (value.type) {
    case PRTKV_TYPE_WORD32:
      return word_in(value.bytes, 4);
    case PRTKV_TYPE_WORD64:
      return word_in(value.bytes, 8);
    case PRTKV_TYPE_TEXT:
      return number_in(value.bytes);
    default:
      return kNoNumber;
  }
}

Status read_patch_level(Client& client, std::int32_t* level) {
  TypedValue value;
  Status status = client.read_value(kPatchKey, &value);
  if (status.is(PRTKV_NO_SUCH_KEY) || (status.ok() && value == TypedValue{})) {
    *level = 0;
    return {};
  }
  if (!status.ok()) return status;
  const std::int64_t number = number_of(value);
  if (number < 0 || number > std::numeric_limits<std::int32_t>::max()) return no_patch_level();
  *level = static_cast<std::int32_t>(number);
  return {};
}

}  // namespace

int32_t clsugetconf(lpm_ctx, uint32_t flags, int32_t* configuration) {
  if (configuration == nullptr) return PRTKV_NULL_ARGUMENT;
  if (flags != 0) return PRTKV_INVALID_ARGUMENT;
  Configuration read;
  const Status status = tkv::registry::without_session([&] { return Configuration::read(&read); });
  if (status.ok()) *configuration = read.cluster_configured ? CLS_CONFIGURATION_CLUSTER : CLS_CONFIGURATION_SINGLE;
  return status.code();
}

int32_t clsvswpatch(prtkv_ctx ctx, uint32_t flags, int32_t* patch_level, uint32_t reserved) {
  return tkv::registry::with_session(ctx, [&](Session& session) -> Status {
    if (patch_level == nullptr) return {PRTKV_NULL_ARGUMENT, "null argument: patch_level"};
    if (flags != 0) return {PRTKV_INVALID_ARGUMENT, "invalid argument: flags " + std::to_string(flags)};
    if (reserved != 0) return {PRTKV_INVALID_ARGUMENT, "invalid argument: reserved " + std::to_string(reserved)};
    std::int32_t level = 0;
    Status status = read_patch_level(session.client(), &level);
    if (status.ok()) *patch_level = level;
    return status;
  });
}
