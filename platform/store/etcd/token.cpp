#include "store/etcd/token.h"

#include <sys/random.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <random>

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kNumberDigits = 16;

}  // namespace

bool is_token(std::string_view text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string numbered_token(std::uint64_t number) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string token = random_token();
  for (std::size_t i = kNumberDigits; i-- > 0; number >>= 4) token[i] = kDigits[number & 0xf];
  return token;
}

std::uint64_t number_of(std::string_view token) {
  constexpr auto kNone = std::numeric_limits<std::uint64_t>::max();
  if (!is_token(token)) return kNone;
  std::uint64_t number = kNone;
  std::from_chars(token.data(), token.data() + kNumberDigits, number, 16);
  return number;
}

std::uint64_t random_part_of(std::string_view token) {
  std::uint64_t number = 0;
  token.remove_prefix(std::min(token.size(), kNumberDigits));
  std::from_chars(token.data(), token.data() + token.size(), number, 16);
  return number;
}

std::string random_token() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::random_device device;
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(device());
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) text += {kDigits[byte >> 4], kDigits[byte & 0xf]};
  return text;
}

}  // namespace tkv::store::etcd
