// The content of a change in the log of a store that keeps its own history: the description, and the records that the
// change has replaced or removed.
//
//   description size   4 bytes
//   description        time, process, flags, author, host, program, note, changes
//   former records     each with its key; or the note that there was none under that key
//
// docs/format.md describes the layout. The content is cut into parts, each a record of its own (see record.h), so that
// the checksums cover all of it. Decoding nevertheless accepts any bytes and returns PRTKV_STORAGE_FAILED with a reason
// for those that are no content.
#ifndef TKV_PLATFORM_STORE_CHANGE_CONTENT_H
#define TKV_PLATFORM_STORE_CHANGE_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/change.h"
#include "base/function_ref.h"
#include "base/status.h"

namespace tkv::store {

using Bytes = std::vector<std::byte>;

// Former records, as they are appended to a content. Duplicate keys are allowed; the first one counts.
class FormerRecords {
 public:
  // No record: there was none under this key. A key has at most 65,535 bytes.
  void add(std::span<const std::byte> key, std::optional<std::span<const std::byte>> record);
  void clear() { bytes_ = Bytes(); }

  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

// A content without former records. Texts longer than 65,535 bytes are cut off.
Bytes encode_description(const ChangeDescription& description, bool hides_past);

// Reads the description at the beginning of a content, of which `content` may lack the end.
// `record->revision` stays as it is.
Status decode_description(std::span<const std::byte> content, ChangeRecord* record);

// Reads only the time of the description, of which the first bytes suffice.
Status decode_time(std::span<const std::byte> content, std::int64_t* time);

// How many bytes of a content have to be there to decode its description. Needs the first four.
std::size_t description_end(std::span<const std::byte> content);

// Visits the former records of a whole content.
using VisitFormer =
    FunctionRef<Status(std::span<const std::byte> key, std::optional<std::span<const std::byte>> record)>;
Status visit_former_records(std::span<const std::byte> content, VisitFormer visit);

}  // namespace tkv::store

#endif
