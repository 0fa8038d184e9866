// The format of records, which is the same in every store.
//
//   offset 0      format version, 2
//          1      kind of record
//          2      of a node, how often it was moved, modulo 65,536; otherwise two zero bytes
//          4      the fields of the kind, integers with the low byte first
//   last 8 bytes  checksum
//
// The checksum is XXH3 (64 bits) of all preceding bytes, seeded with a hash of the record's key: parent id and name for
// a node, id for a value, revision and number for a part of a change. It therefore also detects a valid record that is
// stored under the wrong key. docs/format.md describes the format independently of this code.
//
// Decoding accepts any bytes. It returns PRTKV_STORAGE_FAILED with a reason for anything but a record of this format
// under its own key, and then leaves the result unchanged. Records of format version 1, which had no revisions, are
// read as well; what they lack keeps its default. Records of a version above kRecordVersion are refused.
//
// Pure functions: callable from any thread; they allocate only to compose the message of a failure.
#ifndef TKV_PLATFORM_STORE_RECORD_H
#define TKV_PLATFORM_STORE_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "store/store.h"

namespace tkv::store {

// Stored on disk. Do not change: a change of the format takes a new version.
constexpr std::uint8_t kRecordVersion = 2;
enum class RecordKind : std::uint8_t { kNode = 1, kValue = 2, kMeta = 3, kChange = 4 };

constexpr std::size_t kNodeRecordSize = 168;
constexpr std::size_t kValueRecordOverhead = 24;   // of a value record, beyond the value's bytes
constexpr std::size_t kChangeRecordOverhead = 16;  // of a part of a change, beyond the part's bytes
constexpr std::size_t kMetaRecordSize = 68;

static_assert(kNodeRecordSize == 4 + 8 + 8 + sizeof(sec_attr) + 8, "header, id, revision, security, checksum");
static_assert(kValueRecordOverhead == 4 + 4 + 8 + 8, "header, type, revision, checksum");
static_assert(kChangeRecordOverhead == 4 + 4 + 8, "header, number of parts, checksum");
static_assert(kMetaRecordSize == 4 + 7 * 8 + 8, "header, fields of Meta, checksum");

using NodeRecord = std::array<std::byte, kNodeRecordSize>;
using MetaRecord = std::array<std::byte, kMetaRecordSize>;

// The registry's record of itself.
struct Meta {
  NodeId next_id = kRootNode + 1;   // this id and all above it were never used
  std::uint64_t structure = 1;      // see View::structure
  Revision revision = 0;            // of the state that this record is part of
  Revision log_after = 0;           // the log has every change after this revision
  Revision oldest_state = 0;        // no older state can be read
  Revision oldest_stored = 1;       // of older changes, nothing is left in the file
  std::uint64_t history_bytes = 0;  // keys and records of the log
};

NodeRecord encode_node(NodeId parent, std::string_view name, const Node& node);
Status decode_node(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node);

// `record` has exactly value_record_size(value.bytes.size()) bytes, and does not overlap the value's.
constexpr std::size_t value_record_size(std::size_t size) { return size + kValueRecordOverhead; }
void encode_value(NodeId id, const Value& value, std::span<std::byte> record);

// Replaces the revision in the sound record of a value, of this format version, and seals it again.
void set_value_revision(NodeId id, Revision revision, std::span<std::byte> record);

// The value's bytes point into `record`.
Status decode_value(NodeId id, std::span<const std::byte> record, Value* value);

// The size of the value in a record, whose checksum is not verified. Returns false if it is no record of a value.
bool read_value_size(std::span<const std::byte> record, std::size_t* size);

// One of the parts that a change in the log is cut into.
struct ChangePart {
  std::uint32_t parts = 1;  // of the change
  std::span<const std::byte> bytes;
};

// `record` has kChangeRecordOverhead bytes more than the part, and does not overlap it.
void encode_change(Revision revision, std::uint32_t number, const ChangePart& part, std::span<std::byte> record);

// The part's bytes point into `record`.
Status decode_change(Revision revision, std::uint32_t number, std::span<const std::byte> record, ChangePart* part);

// Whether the checksum of a record is that of a node, a value or a part of a change under this key. Tells no reasons,
// and never allocates.
bool is_node_under(NodeId parent, std::string_view name, std::span<const std::byte> record);
bool is_value_under(NodeId id, std::span<const std::byte> record);
bool is_change_under(Revision revision, std::uint32_t number, std::span<const std::byte> record);

MetaRecord encode_meta(const Meta& meta);
Status decode_meta(std::span<const std::byte> record, Meta* meta);

}  // namespace tkv::store

#endif
