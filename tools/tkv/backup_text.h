// Descriptions of backups.
#ifndef TKV_TOOLS_TKV_BACKUP_TEXT_H
#define TKV_TOOLS_TKV_BACKUP_TEXT_H

#include <cstdint>
#include <string>

#include "backup_file.h"
#include "json.h"

namespace tkv::command {

// A time in UTC, formatted as by strftime.
std::string utc(std::uint64_t seconds, const char* form);

JsonObject totals_json(const std::string& path, const BackupTotals& totals, const std::string& hash);

}  // namespace tkv::command

#endif
