// DataReader: decodes what Java has written; see data_writer.h.
#ifndef TKV_JAVA_NATIVE_DATA_READER_H
#define TKV_JAVA_NATIVE_DATA_READER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "registry/client.h"

namespace tkv::java {

// Reads from bytes that must live longer. Never reads beyond their end: once they are too short, everything reads as
// zero or empty, and `complete` is false.
class DataReader {
 public:
  explicit DataReader(std::string_view bytes) : rest_(bytes) {}

  std::int32_t word32() { return static_cast<std::int32_t>(static_cast<std::uint32_t>(word(4))); }
  std::int64_t word64() { return static_cast<std::int64_t>(word(8)); }
  std::string_view text() { return take(static_cast<std::uint32_t>(word32())); }

  bool at_end() const { return rest_.empty(); }
  bool complete() const { return complete_; }

 private:
  std::uint64_t word(std::size_t size) {
    std::uint64_t number = 0;
    for (const char byte : take(size)) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
  }

  std::string_view take(std::size_t size) {
    if (size > rest_.size()) {
      complete_ = false;
      rest_ = {};
      return {};
    }
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
  }

  std::string_view rest_;
  bool complete_ = true;
};

// A KeySecurity: what it specifies, and whether a new key takes the rest from its parent.
struct KeySecurity {
  bool inherits = false;
  registry::SecurityChange specified;
};

KeySecurity read_security(DataReader& from);

}  // namespace tkv::java

#endif
