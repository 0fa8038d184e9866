#include "backup_text.h"

#include <ctime>

namespace tkv::command {

std::string utc(std::uint64_t seconds, const char* form) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[64];
  gmtime_r(&time, &parts);
  return {text, std::strftime(text, sizeof text, form, &parts)};
}

JsonObject totals_json(const std::string& path, const BackupTotals& totals, const std::string& hash) {
  JsonObject object;
  object.utf8("file", path)
      .number("keys", totals.keys)
      .number("values", totals.values)
      .number("value_bytes", totals.value_bytes)
      .raw("xxh3_128", json_string(hash));
  return object;
}

}  // namespace tkv::command
