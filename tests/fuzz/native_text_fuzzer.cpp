// Converts any UTF-16 to the native character set, in buffers of every size. The first two bytes choose the set and the
// size.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "prsrvut/native_text.h"

namespace {

constexpr const char* kCharsets[] = {"UTF-8",     "US-ASCII", "ISO-8859-1", "EUC-JP",
                                     "SHIFT_JIS", "GB18030",  "BIG5-HKSCS", "ISO-2022-JP"};

void require(bool claim) {
  if (!claim) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  setenv("TKV_CHARSET", kCharsets[data[0] % std::size(kCharsets)], 1);
  const int capacity = data[1] % 80;
  std::u16string text((size - 2) / 2, u'\0');
  if (!text.empty()) std::memcpy(text.data(), data + 2, text.size() * 2);

  const auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(capacity));
  int length = capacity;
  const int outcome = tkv::prsrvut::write_native_text(text, buffer.get(), &length);
  if (outcome < 0) {
    require(length == capacity);
    return 0;
  }
  require(length >= 1);
  require(outcome == (length > capacity ? tkv::prsrvut::kCut : tkv::prsrvut::kWhole));
  if (capacity == 0) return 0;
  const std::size_t shown = strnlen(buffer.get(), static_cast<std::size_t>(capacity));
  require(shown < static_cast<std::size_t>(capacity));
  require(outcome == tkv::prsrvut::kCut || shown + 1 == static_cast<std::size_t>(length));

  // The whole text begins with what was shown, unless the set ends each text in its own way.
  const auto whole = std::make_unique<char[]>(static_cast<std::size_t>(length));
  int room = length;
  require(tkv::prsrvut::write_native_text(text, whole.get(), &room) == tkv::prsrvut::kWhole && room == length);
  const bool has_states = data[0] % std::size(kCharsets) == std::size(kCharsets) - 1;
  require(has_states || std::memcmp(buffer.get(), whole.get(), shown) == 0);
  return 0;
}
