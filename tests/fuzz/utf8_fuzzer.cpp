// Passes any bytes to the decoder that every text for Java goes through.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "base/utf8.h"

namespace {

using tkv::IllFormed;
using tkv::utf8_to_utf16;

void require(bool claim) {
  if (!claim) std::abort();
}

// The units that the bytes give with `capacity` of room, in an allocation of exactly that.
std::vector<std::uint16_t> decode(std::string_view bytes, std::size_t capacity) {
  const auto units = std::make_unique<std::uint16_t[]>(capacity);
  const auto count = utf8_to_utf16(bytes, units.get(), capacity, IllFormed::replace);
  require(count.has_value() && *count <= capacity);
  return {units.get(), units.get() + *count};
}

bool is_beginning(const std::vector<std::uint16_t>& part, const std::vector<std::uint16_t>& whole) {
  return part.size() <= whole.size() &&
         (part.empty() || std::memcmp(part.data(), whole.data(), part.size() * sizeof(part[0])) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto exact = std::make_unique<char[]>(size);
  if (size > 0) std::memcpy(exact.get(), data, size);
  const std::string_view bytes(exact.get(), size);

  const auto needed = utf8_to_utf16(bytes, nullptr, 0, IllFormed::replace);
  require(needed.has_value() && *needed <= size);
  const std::vector<std::uint16_t> whole = decode(bytes, *needed);
  require(whole.size() == *needed);
  for (std::size_t capacity = 0; capacity < *needed && capacity < 40; ++capacity) {
    require(is_beginning(decode(bytes, capacity), whole));
  }

  // What is well-formed is the same either way, and comes back through UTF-8 proper.
  const auto strict = utf8_to_utf16(bytes, nullptr, 0, IllFormed::reject);
  if (strict) require(*strict == *needed);
  const auto proper = tkv::utf16_to_utf8(std::u16string(whole.begin(), whole.end()));
  if (proper) {
    require(decode(*proper, *needed) == whole);
    require(utf8_to_utf16(*proper, nullptr, 0, IllFormed::reject) == *needed);
  }
  return 0;
}
