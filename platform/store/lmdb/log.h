// The log in one state of the data file: the changes after Meta::log_after, each in parts under keys of its own.
//
// Damage, and a change that should be there and is not, yield PRTKV_STORAGE_FAILED with a message that names the
// revision.
#ifndef TKV_PLATFORM_STORE_LMDB_LOG_H
#define TKV_PLATFORM_STORE_LMDB_LOG_H

#include <span>
#include <string>

#include "store/change_content.h"
#include "store/lmdb/file_state.h"
#include "store/record.h"

namespace tkv::store {

// The bytes of a change's content in one part. A part fills its pages: LMDB keeps 16 bytes of the first for itself.
constexpr std::size_t kMaxChangePart = (std::size_t{64} << 10) - 16 - kChangeRecordOverhead;

// The content of a change that `meta`'s log has, or as much of its beginning as holds the description. Points into the
// map or, if it has several parts, into `*buffer`.
enum class ContentPart { kDescription, kWhole };
Status read_content(const FileState& state, Revision revision, ContentPart wanted, Bytes* buffer,
                    std::span<const std::byte>* content);

// As View::change.
Status read_change(const FileState& state, const Meta& meta, Revision revision, ChangeRecord* record);

// "change 42"
std::string change_text(Revision revision);

}  // namespace tkv::store

#endif
