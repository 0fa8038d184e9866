#include "store/etcd/text_seal.h"

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tkv::store::etcd {
namespace {

constexpr std::string_view kField = "sum ";

// Stored in clusters: do not change.
std::string seal_of(std::string_view lines) {
  const std::uint64_t sum = XXH3_64bits(lines.data(), lines.size());
  std::array<char, 17> digits{};
  (void)std::snprintf(digits.data(), digits.size(), "%016" PRIx64, sum);
  return std::string(kField) + digits.data() + '\n';
}

}  // namespace

std::string seal_text(std::string_view lines) { return std::string(lines) + seal_of(lines); }

Seal unseal_text(std::string_view* text) {
  if (!text->ends_with('\n')) return Seal::kBroken;
  const auto before_last = text->substr(0, text->size() - 1).rfind('\n');
  const std::string_view lines = text->substr(0, before_last == std::string_view::npos ? 0 : before_last + 1);
  const std::string_view last = text->substr(lines.size());
  if (!last.starts_with(kField)) return Seal::kNone;
  *text = lines;
  return last == seal_of(lines) ? Seal::kSound : Seal::kBroken;
}

}  // namespace tkv::store::etcd
