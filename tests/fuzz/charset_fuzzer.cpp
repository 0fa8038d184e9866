// Converts any bytes from any of these character sets through a session. The first byte chooses the set.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lx.h"

namespace {

constexpr const char* kCharsets[] = {"UTF-8",  "US-ASCII", "ISO-8859-1", "ISO-8859-15", "EUC-JP",       "SHIFT_JIS",
                                     "CP1258", "GB18030",  "BIG5-HKSCS", "ISO-2022-JP", "EUC-JISX0213", "KOI8-R"};

void require(bool claim) {
  if (!claim) std::abort();
}

class Session {
 public:
  explicit Session(const char* charset) {
    setenv("TKV_CHARSET", charset, 1);
    std::uint32_t error = 0;
    handle_ = lxinitc(area_, lxlinit(nullptr, 1, &error), 0, 0);
    lx_lang_env environment;
    charset_ = lxhci2h(lxhcsn(lxhLangEnv(&environment, 0, handle_), handle_), handle_);
    require(charset_ != nullptr);
  }
  ~Session() { lxlterm(handle_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  std::int32_t convert(std::uint16_t* to, std::size_t capacity, const char* from, std::size_t size) {
    return lxgt2u(to, static_cast<std::uint32_t>(capacity), from, charset_, static_cast<std::uint32_t>(size), 0,
                  handle_);
  }

 private:
  alignas(void*) char area_[LX_HANDLE_SIZE] = {};
  void* handle_;
  void* charset_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static auto& sessions = *new std::vector<std::unique_ptr<Session>>;
  if (sessions.empty()) {
    for (const char* charset : kCharsets) sessions.push_back(std::make_unique<Session>(charset));
  }
  Session& session = *sessions[data[0] % sessions.size()];
  --size;
  const auto exact = std::make_unique<char[]>(size);
  if (size > 0) std::memcpy(exact.get(), data + 1, size);

  const std::int32_t needed = session.convert(nullptr, 0, exact.get(), size);
  require(needed >= -1);
  if (needed < 0) return 0;
  const auto room = static_cast<std::size_t>(needed);
  const auto whole = std::make_unique<std::uint16_t[]>(room);
  require(session.convert(whole.get(), room, exact.get(), size) == needed);
  for (std::size_t capacity = 0; capacity < room && capacity < 40; ++capacity) {
    const auto part = std::make_unique<std::uint16_t[]>(capacity);
    const std::int32_t written = session.convert(part.get(), capacity, exact.get(), size);
    require(written >= 0 && static_cast<std::size_t>(written) <= capacity);
    const std::size_t bytes = static_cast<std::size_t>(written) * sizeof(part[0]);
    require(std::memcmp(part.get(), whole.get(), bytes) == 0);
  }
  return 0;
}
