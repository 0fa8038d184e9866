// Charset: a character set of this system.
//
// There is one object for each set, which lives as long as the process, so its address and id stay valid. Any thread
// may call.
#ifndef TKV_PLATFORM_LX_CHARSET_H
#define TKV_PLATFORM_LX_CHARSET_H

#include <iconv.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tkv::lx {

// iconv's name for this machine's own UTF-16, without a byte order mark.
inline constexpr const char* kUtf16 = std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";

// An iconv conversion from one character set to another. Not thread-safe.
class IconvDescriptor {
 public:
  IconvDescriptor(const char* to, const char* from) : descriptor_(iconv_open(to, from)) {}
  ~IconvDescriptor();
  IconvDescriptor(IconvDescriptor&& other) noexcept : descriptor_(other.release()) {}
  IconvDescriptor& operator=(IconvDescriptor&&) = delete;

  // False if the system does not have the conversion.
  bool is_open() const { return descriptor_ != closed(); }

  enum class Ending {
    done,
    output_full,  // whole characters were written, and the next one did not fit
    incomplete,   // the text ends within a character
    ill_formed    // the text has a character that one of the two sets does not have
  };

  // Returns to the initial state, discarding what an earlier text left unfinished.
  void reset();

  // Converts from `from` to `*to` and advances both.
  Ending convert(std::string_view& from, char** to, std::size_t* room);

  // Writes what the conversion has held back, and the sequence that returns to the initial state.
  Ending finish(char** to, std::size_t* room);

 private:
  // NOLINTNEXTLINE(performance-no-int-to-ptr): what iconv_open gives on failure
  static iconv_t closed() { return reinterpret_cast<iconv_t>(-1); }
  iconv_t release();

  iconv_t descriptor_;
};

class Charset {
 public:
  enum class Kind { utf8, ascii, latin1, iconv };

  // Returns the set of a name, which may be spelled with or without hyphens and in either case. Returns null if the
  // system does not have the set, or if its texts contain zero bytes, since they could not be NUL-terminated.
  static const Charset* find(std::string_view name);

  // Returns the set with an id, null if there is none.
  static const Charset* by_id(std::int32_t id);

  // Returns the set at an address, null if there is none.
  static const Charset* at(const void* address);

  const std::string& name() const { return name_; }
  std::uint16_t id() const { return id_; }
  Kind kind() const { return kind_; }
  bool is_multibyte() const { return is_multibyte_; }

  // Converts UTF-16 to this set. Returns nullopt if the text has a character that the set does not have.
  std::optional<std::string> encode(std::u16string_view text) const;

  Charset(std::string name, std::uint16_t id, Kind kind, bool is_multibyte);

 private:
  std::optional<std::string> encode_by_iconv(std::u16string_view text) const;

  const std::string name_;
  const std::uint16_t id_;
  const Kind kind_;
  const bool is_multibyte_;

  mutable std::mutex mutex_;  // guards the encoder
  mutable std::optional<IconvDescriptor> encoder_;
};

}  // namespace tkv::lx

#endif
