// How data crosses between Java and native code: as bytes, numbers with the most significant byte first, texts and
// other bytes preceded by a 32-bit count. The Java side is DataReader and DataWriter.
#ifndef TKV_JAVA_NATIVE_DATA_WRITER_H
#define TKV_JAVA_NATIVE_DATA_WRITER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "sec_attr.h"

namespace tkv::java {

// Writes the last `size` bytes of a number.
inline void write_word(std::uint64_t number, std::size_t size, char* to) {
  for (std::size_t at = size; at-- > 0; number >>= 8) to[at] = static_cast<char>(number);
}

// Appends to a string, which must live longer.
class DataWriter {
 public:
  explicit DataWriter(std::string* bytes) : bytes_(*bytes) {}

  void word32(std::int32_t number) { word(static_cast<std::uint32_t>(number), 4); }
  void word64(std::int64_t number) { word(static_cast<std::uint64_t>(number), 8); }
  void text(std::string_view text) {
    word(text.size(), 4);
    bytes_.append(text);
  }
  void raw(std::string_view bytes) { bytes_.append(bytes); }

 private:
  void word(std::uint64_t number, std::size_t size) {
    std::array<char, sizeof number> bytes;
    write_word(number, size, bytes.data());
    bytes_.append(bytes.data(), size);
  }

  std::string& bytes_;
};

// Three masks, user, group.
void write_security(const sec_attr& security, DataWriter& to);

}  // namespace tkv::java

#endif
