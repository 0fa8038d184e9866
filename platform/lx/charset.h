// Charset: a character set of this system, known for as long as the process lives.
//
// Sets are kept once each and never go away, so that their addresses and ids may be handed out. Any thread may call.
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

// A conversion of iconv's from one character set to another. One thread at a time may use it.
class IconvDescriptor {
 public:
  IconvDescriptor(const char* to, const char* from) : descriptor_(iconv_open(to, from)) {}
  ~IconvDescriptor();
  IconvDescriptor(IconvDescriptor&& other) noexcept : descriptor_(other.release()) {}
  IconvDescriptor& operator=(IconvDescriptor&&) = delete;

  // False when the system does not have the conversion.
  bool is_open() const { return descriptor_ != closed(); }

  enum class Outcome {
    done,
    output_full,  // whole characters were written up to where the next did not fit
    incomplete,   // the text ends within a character
    ill_formed    // a character that one of the two sets does not have
  };

  // Starts anew: what an earlier text left unfinished is forgotten.
  void reset();

  // Converts from where `from` stands to where `*to` stands, and moves both.
  Outcome convert(std::string_view& from, char** to, std::size_t* room);

  // Writes what the conversion still holds back, and the way back to the initial state.
  Outcome finish(char** to, std::size_t* room);

 private:
  // NOLINTNEXTLINE(performance-no-int-to-ptr): what iconv_open gives on failure
  static iconv_t closed() { return reinterpret_cast<iconv_t>(-1); }
  iconv_t release();

  iconv_t descriptor_;
};

class Charset {
 public:
  enum class Kind { utf8, ascii, latin1, iconv };

  // Gives the set of a name, spelt with or without its hyphens, in either case. Null when the system does not have it,
  // and for a set whose texts have zero bytes within, which no NUL-terminated text can be in.
  static const Charset* find(std::string_view name);

  // Gives the set of an id that find gave a set with; null for others.
  static const Charset* by_id(std::int32_t id);

  // Gives the set at an address that was handed out; null for others.
  static const Charset* at(const void* address);

  const std::string& name() const { return name_; }
  std::uint16_t id() const { return id_; }
  Kind kind() const { return kind_; }
  bool is_multibyte() const { return is_multibyte_; }

  // Converts UTF-16 to a text of this set. Nothing when it has a character that the set does not.
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
