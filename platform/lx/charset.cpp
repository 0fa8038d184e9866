#include "lx/charset.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "base/utf8.h"

namespace tkv::lx {
namespace {

// Ids are 16-bit words that callers may treat as signed.
constexpr std::size_t kMaxCharsets = 0x7FFF;

struct Alias {
  std::string_view key;  // letters and digits, upper case
  const char* name;
};

// Other spellings of character sets, as found in locale names and configurations.
constexpr Alias kAliases[] = {
    {"UTF8", "UTF-8"},   {"USASCII", "US-ASCII"},  {"ASCII", "US-ASCII"},    {"ANSIX341968", "US-ASCII"},
    {"646", "US-ASCII"}, {"ISO646US", "US-ASCII"}, {"LATIN1", "ISO-8859-1"}, {"LATIN9", "ISO-8859-15"},
    {"EUCJP", "EUC-JP"}, {"UJIS", "EUC-JP"},       {"SJIS", "SHIFT_JIS"},    {"SHIFTJIS", "SHIFT_JIS"},
    {"EUCKR", "EUC-KR"}, {"EUCTW", "EUC-TW"},      {"EUCCN", "GB2312"},      {"BIG5HKSCS", "BIG5-HKSCS"},
};

// ASCII only, regardless of the process's global locale.
bool is_letter_or_digit(char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9');
}

char upper_case(char byte) { return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte; }

std::string key_of(std::string_view name) {
  std::string key;
  for (const char byte : name) {
    if (is_letter_or_digit(byte)) key.push_back(upper_case(byte));
  }
  return key;
}

std::string canonical_name(std::string_view name) {
  const std::string key = key_of(name);
  for (const Alias& alias : kAliases) {
    if (alias.key == key) return alias.name;
  }
  constexpr std::string_view kIso8859 = "ISO8859";
  if (key.starts_with(kIso8859) && key.size() > kIso8859.size()) return "ISO-8859-" + key.substr(kIso8859.size());
  return std::string(name);
}

// Names are passed to iconv, which takes "//" for the start of options, and are stored in records of fixed size.
bool is_plain_name(std::string_view name) {
  constexpr std::size_t kLongestName = 55;
  if (name.empty() || name.size() > kLongestName) return false;
  return std::all_of(name.begin(), name.end(), [](char byte) {
    return is_letter_or_digit(byte) || std::string_view("-_.:+()").find(byte) != std::string_view::npos;
  });
}

Charset::Kind kind_of(const std::string& name) {
  if (name == "UTF-8") return Charset::Kind::utf8;
  if (name == "US-ASCII") return Charset::Kind::ascii;
  if (name == "ISO-8859-1") return Charset::Kind::latin1;
  return Charset::Kind::iconv;
}

bool writes_zero_bytes(IconvDescriptor& encoder) {
  const char16_t letter = u'A';
  std::string_view from(reinterpret_cast<const char*>(&letter), sizeof(letter));
  char bytes[16];
  char* to = bytes;
  std::size_t room = sizeof(bytes);
  if (encoder.convert(from, &to, &room) != IconvDescriptor::Ending::done) return true;
  const std::string_view written(bytes, static_cast<std::size_t>(to - bytes));
  return written.empty() || written.find('\0') != std::string_view::npos;
}

// Whether the set has characters of several bytes.
bool has_lead_bytes(IconvDescriptor& decoder) {
  for (int byte = 1; byte < 256; ++byte) {
    const char letter = static_cast<char>(byte);
    std::string_view from(&letter, 1);
    char units[32];
    char* to = units;
    std::size_t room = sizeof(units);
    decoder.reset();
    if (decoder.convert(from, &to, &room) == IconvDescriptor::Ending::incomplete) return true;
  }
  return false;
}

class Charsets {
 public:
  static Charsets& instance() {
    // Never destroyed: other threads may still convert while the process exits.
    static Charsets& charsets = *new Charsets;
    return charsets;
  }

  const Charset* find(std::string_view given_name) {
    if (!is_plain_name(given_name)) return nullptr;
    const std::string name = canonical_name(given_name);
    const std::string key = key_of(name);
    const std::lock_guard lock(mutex_);
    for (const auto& charset : charsets_) {
      if (key_of(charset->name()) == key) return charset.get();
    }
    return add(name);
  }

  const Charset* by_id(std::int32_t id) {
    const std::lock_guard lock(mutex_);
    if (id < 1 || static_cast<std::size_t>(id) > charsets_.size()) return nullptr;
    return charsets_[static_cast<std::size_t>(id) - 1].get();
  }

  const Charset* at(const void* address) {
    const std::lock_guard lock(mutex_);
    for (const auto& charset : charsets_) {
      if (charset.get() == address) return charset.get();
    }
    return nullptr;
  }

 private:
  Charsets() {
    // The most common sets have the same ids in every process.
    for (const char* name : {"UTF-8", "US-ASCII", "ISO-8859-1"}) add(name);
  }

  const Charset* add(const std::string& name) {
    if (charsets_.size() >= kMaxCharsets) return nullptr;
    const Charset::Kind kind = kind_of(name);
    bool is_multibyte = kind == Charset::Kind::utf8;
    if (kind == Charset::Kind::iconv) {
      IconvDescriptor decoder(kUtf16, name.c_str());
      IconvDescriptor encoder(name.c_str(), kUtf16);
      if (!decoder.is_open() || !encoder.is_open() || writes_zero_bytes(encoder)) return nullptr;
      is_multibyte = has_lead_bytes(decoder);
    }
    const auto id = static_cast<std::uint16_t>(charsets_.size() + 1);
    return charsets_.emplace_back(std::make_unique<Charset>(name, id, kind, is_multibyte)).get();
  }

  std::mutex mutex_;
  std::vector<std::unique_ptr<Charset>> charsets_;  // in the order of their ids, from 1
};

// Encodes into a set of one byte per character that is the first `limit` characters of Unicode.
std::optional<std::string> narrowed(std::u16string_view text, unsigned limit) {
  std::string bytes;
  bytes.reserve(text.size());
  for (const char16_t unit : text) {
    if (unit >= limit) return std::nullopt;
    bytes.push_back(static_cast<char>(unit));
  }
  return bytes;
}

}  // namespace

IconvDescriptor::~IconvDescriptor() {
  if (is_open()) iconv_close(descriptor_);
}

iconv_t IconvDescriptor::release() {
  const iconv_t descriptor = descriptor_;
  descriptor_ = closed();
  return descriptor;
}

void IconvDescriptor::reset() { iconv(descriptor_, nullptr, nullptr, nullptr, nullptr); }

namespace {

IconvDescriptor::Ending ending_of(std::size_t result, int error) {
  if (result != static_cast<std::size_t>(-1)) return IconvDescriptor::Ending::done;
  switch (error) {
    case E2BIG:
      return IconvDescriptor::Ending::output_full;
    case EINVAL:
      return IconvDescriptor::Ending::incomplete;
    default:
      return IconvDescriptor::Ending::ill_formed;
  }
}

}  // namespace

IconvDescriptor::Ending IconvDescriptor::convert(std::string_view& from, char** to, std::size_t* room) {
  char* position = const_cast<char*>(from.data());  // iconv only reads it
  std::size_t left = from.size();
  const std::size_t result = iconv(descriptor_, &position, &left, to, room);
  const int error = errno;
  from.remove_prefix(from.size() - left);
  return ending_of(result, error);
}

IconvDescriptor::Ending IconvDescriptor::finish(char** to, std::size_t* room) {
  const std::size_t result = iconv(descriptor_, nullptr, nullptr, to, room);
  const int error = errno;
  return ending_of(result, error);
}

Charset::Charset(std::string name, std::uint16_t id, Kind kind, bool is_multibyte)
    : name_(std::move(name)), id_(id), kind_(kind), is_multibyte_(is_multibyte) {}

const Charset* Charset::find(std::string_view name) { return Charsets::instance().find(name); }
const Charset* Charset::by_id(std::int32_t id) { return Charsets::instance().by_id(id); }
const Charset* Charset::at(const void* address) { return Charsets::instance().at(address); }

std::optional<std::string> Charset::encode(std::u16string_view text) const {
  switch (kind_) {
    case Kind::utf8:
      return utf16_to_utf8(text);
    case Kind::ascii:
      return narrowed(text, 0x80);
    case Kind::latin1:
      return narrowed(text, 0x100);
    case Kind::iconv:
      break;
  }
  return encode_by_iconv(text);
}

std::optional<std::string> Charset::encode_by_iconv(std::u16string_view text) const {
  const std::lock_guard lock(mutex_);
  if (!encoder_) encoder_.emplace(name_.c_str(), kUtf16);
  if (!encoder_->is_open()) {
    encoder_.reset();
    return std::nullopt;
  }
  encoder_->reset();
  std::string bytes;
  std::string_view from(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
  for (bool is_converted = false;;) {
    char chunk[256];
    char* to = chunk;
    std::size_t room = sizeof(chunk);
    const auto ending = is_converted ? encoder_->finish(&to, &room) : encoder_->convert(from, &to, &room);
    bytes.append(chunk, to);
    if (ending == IconvDescriptor::Ending::output_full) continue;
    if (ending != IconvDescriptor::Ending::done) return std::nullopt;
    if (is_converted) return bytes;
    is_converted = true;
  }
}

}  // namespace tkv::lx
