#include "lx.h"

#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "base/utf8.h"
#include "lx/charset.h"
#include "lx/process_locale.h"

namespace tkv::lx {
namespace {

constexpr std::uint32_t kWrongArgument = 1;
constexpr std::uint32_t kNoSuchCharset = 2;
constexpr std::int32_t kVersion = 1;

// The contents of a handle: its character set, and descriptors for the sets that it has converted from.
class CharsetSession {
 public:
  explicit CharsetSession(const Charset& charset) : charset_(charset) {}

  const Charset& charset() const { return charset_; }

  IconvDescriptor* decoder(const Charset& charset);

 private:
  struct Decoder {
    const Charset* charset;
    IconvDescriptor descriptor;
  };

  const Charset& charset_;
  std::vector<Decoder> decoders_;
};

IconvDescriptor* CharsetSession::decoder(const Charset& charset) {
  for (Decoder& decoder : decoders_) {
    if (decoder.charset == &charset) return &decoder.descriptor;
  }
  IconvDescriptor descriptor(kUtf16, charset.name().c_str());
  if (!descriptor.is_open()) return nullptr;
  return &decoders_.emplace_back(Decoder{&charset, std::move(descriptor)}).descriptor;
}

// The layout of the caller's storage. A handle is recognized by its mark and its own address, so zeros, a copy, or a
// handle that has ended are not taken for one.
struct HandleArea {
  std::uint64_t mark;
  HandleArea* self;
  CharsetSession* session;
};

static_assert(sizeof(HandleArea) <= LX_HANDLE_SIZE);

constexpr std::uint64_t kHandleMark = 0x6c785f68616e646cU;

HandleArea* handle_at(void* area) {
  auto* handle = static_cast<HandleArea*>(area);
  return handle != nullptr && handle->mark == kHandleMark && handle->self == handle ? handle : nullptr;
}

// Returns the character set that an environment names, null if it names none.
const Charset* charset_of(const void* lang_env) {
  if (lang_env == nullptr) return nullptr;
  const auto* environment = static_cast<const lx_lang_env*>(lang_env);
  const std::size_t length = strnlen(environment->name, sizeof(environment->name));
  return length == 0 ? nullptr : Charset::find({environment->name, length});
}

// Converts from a set in which each byte below `limit` is the character of that number and other bytes are ill-formed.
std::optional<std::size_t> widen(std::string_view from, unsigned limit, std::uint16_t* to, std::size_t capacity) {
  const std::size_t count = to == nullptr || from.size() < capacity ? from.size() : capacity;
  for (std::size_t index = 0; index < count; ++index) {
    const auto byte = static_cast<unsigned char>(from[index]);
    if (byte >= limit) return std::nullopt;
    if (to != nullptr) to[index] = byte;
  }
  return count;
}

// Writes as many whole characters as fit.
std::optional<std::size_t> decode_into(IconvDescriptor& decoder, std::string_view from, std::uint16_t* to,
                                       std::size_t capacity) {
  char* const start = reinterpret_cast<char*>(to);
  char* position = start;
  std::size_t room = capacity * sizeof(*to);
  decoder.reset();
  auto ending = decoder.convert(from, &position, &room);
  if (ending == IconvDescriptor::Ending::done) ending = decoder.finish(&position, &room);
  if (ending != IconvDescriptor::Ending::done && ending != IconvDescriptor::Ending::output_full) return std::nullopt;
  return static_cast<std::size_t>(position - start) / sizeof(*to);
}

std::optional<std::size_t> decoded_size(IconvDescriptor& decoder, std::string_view from) {
  std::size_t units = 0;
  decoder.reset();
  for (bool is_converted = false;;) {
    std::uint16_t chunk[256];
    char* const start = reinterpret_cast<char*>(chunk);
    char* position = start;
    std::size_t room = sizeof(chunk);
    const auto ending = is_converted ? decoder.finish(&position, &room) : decoder.convert(from, &position, &room);
    units += static_cast<std::size_t>(position - start) / sizeof(chunk[0]);
    if (ending == IconvDescriptor::Ending::output_full) continue;
    if (ending != IconvDescriptor::Ending::done) return std::nullopt;
    if (is_converted) return units;
    is_converted = true;
  }
}

std::optional<std::size_t> to_utf16(CharsetSession& session, const Charset& charset, std::string_view from,
                                    std::uint16_t* to, std::size_t capacity) {
  switch (charset.kind()) {
    case Charset::Kind::utf8:
      return utf8_to_utf16(from, to, capacity, IllFormed::reject);
    case Charset::Kind::ascii:
      return widen(from, 0x80, to, capacity);
    case Charset::Kind::latin1:
      return widen(from, 0x100, to, capacity);
    case Charset::Kind::iconv:
      break;
  }
  IconvDescriptor* decoder = session.decoder(charset);
  if (decoder == nullptr) return std::nullopt;
  return to == nullptr ? decoded_size(*decoder, from) : decode_into(*decoder, from, to, capacity);
}

// As Charset::at, but returns null if there is no memory to create the table of sets.
const Charset* charset_at(const void* address) noexcept {
  try {
    return Charset::at(address);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

const Charset* start(const void* parameters, std::int32_t version, std::uint32_t* error) {
  *error = kWrongArgument;
  if (parameters != nullptr || version != kVersion) return nullptr;
  *error = kNoSuchCharset;
  const Charset* charset = charset_of_process();
  if (charset != nullptr) *error = 0;
  return charset;
}

}  // namespace
}  // namespace tkv::lx

using tkv::lx::Charset;
using tkv::lx::CharsetSession;
using tkv::lx::HandleArea;

extern "C" void* lxlinit(void* parameters, int32_t version, uint32_t* error) {
  uint32_t ignored = 0;
  try {
    // The services belong to the process and never end, so the character set is all that there is to return.
    return const_cast<Charset*>(tkv::lx::start(parameters, version, error == nullptr ? &ignored : error));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" void* lxinitc(void* handle_area, void* global, int32_t /*reserved1*/, int32_t /*reserved2*/) {
  const Charset* charset = tkv::lx::charset_at(global);
  if (handle_area == nullptr || charset == nullptr) return nullptr;
  auto* session = new (std::nothrow) CharsetSession(*charset);
  if (session == nullptr) return nullptr;
  std::memset(handle_area, 0, LX_HANDLE_SIZE);
  auto* handle = static_cast<HandleArea*>(handle_area);
  *handle = {tkv::lx::kHandleMark, handle, session};
  return handle_area;
}

extern "C" void* lxhLangEnv(void* lang_env_area, int32_t /*reserved*/, void* handle_area) {
  const HandleArea* handle = tkv::lx::handle_at(handle_area);
  if (lang_env_area == nullptr || handle == nullptr) return nullptr;
  const Charset& charset = handle->session->charset();
  std::memset(lang_env_area, 0, LX_LANG_ENV_SIZE);
  auto* environment = static_cast<lx_lang_env*>(lang_env_area);
  charset.name().copy(environment->name, sizeof(environment->name) - 1);
  environment->flags = charset.is_multibyte() ? LX_LANG_ENV_MULTIBYTE : 0;
  return lang_env_area;
}

extern "C" uint16_t lxhcsn(void* lang_env, void* handle) {
  if (tkv::lx::handle_at(handle) == nullptr) return 0;
  try {
    const Charset* charset = tkv::lx::charset_of(lang_env);
    return charset == nullptr ? static_cast<uint16_t>(0) : charset->id();
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

extern "C" void lxlterm(void* handle_area) {
  HandleArea* handle = tkv::lx::handle_at(handle_area);
  if (handle == nullptr) return;
  delete handle->session;
  *handle = {};
}

extern "C" void* lxhci2h(int32_t charset_id, void* handle) {
  if (tkv::lx::handle_at(handle) == nullptr) return nullptr;
  return const_cast<Charset*>(Charset::by_id(charset_id));
}

extern "C" uint32_t lxsulen(const char* text) { return text == nullptr ? 0 : static_cast<uint32_t>(std::strlen(text)); }

extern "C" int32_t lxgt2u(uint16_t* to, uint32_t capacity, const char* from, void* charset_address, uint32_t length,
                          uint32_t flags, void* handle_area) {
  const HandleArea* handle = tkv::lx::handle_at(handle_area);
  const Charset* charset = tkv::lx::charset_at(charset_address);
  if (handle == nullptr || charset == nullptr || flags != 0 || (from == nullptr && length != 0)) return -1;
  if (length == 0) return 0;
  try {
    const auto units = tkv::lx::to_utf16(*handle->session, *charset, {from, length}, to, capacity);
    return units && *units <= INT32_MAX ? static_cast<int32_t>(*units) : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}
