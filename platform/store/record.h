// The bytes of the records that stores keep: one format, whatever keeps them.
//
//   offset 0      format version, 1
//          1      kind of record
//          2      two zero bytes
//          4      the fields of the kind, integers with the low byte first
//   last 8 bytes  checksum
//
// The checksum is XXH3 (64 bits) of all bytes before it, seeded with a hash of the place where the record hangs:
// parent id and name for a node, id for a value. So a sound record that turns up in the wrong place is found as well.
// docs/format.md describes the format for those who read it without this code.
//
// Decoding takes any bytes. It gives 7 with a text for whatever is not a record of this format in its place, and then
// leaves the result as it was. Records of a newer format than kRecordVersion are refused, never guessed at.
//
// Pure functions: callable from any thread, no allocation unless a text for a failure is made.
#ifndef TKV_PLATFORM_STORE_RECORD_H
#define TKV_PLATFORM_STORE_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "store/store.h"

namespace tkv::store {

// These numbers live on disk. Do not change: a new format takes a new version.
constexpr std::uint8_t kRecordVersion = 1;
enum class RecordKind : std::uint8_t { kNode = 1, kValue = 2, kMeta = 3 };

constexpr std::size_t kNodeRecordSize = 160;
constexpr std::size_t kValueRecordOverhead = 16;  // what a value record holds besides the value's bytes
constexpr std::size_t kMetaRecordSize = 28;

static_assert(kNodeRecordSize == 4 + 8 + sizeof(sec_attr) + 8, "header, id, security, checksum");
static_assert(kValueRecordOverhead == 4 + 4 + 8, "header, type, checksum");
static_assert(kMetaRecordSize == 4 + 8 + 8 + 8, "header, next id, structure, checksum");

using NodeRecord = std::array<std::byte, kNodeRecordSize>;
using MetaRecord = std::array<std::byte, kMetaRecordSize>;

// What a store knows of itself.
struct Meta {
  NodeId next_id = kRootNode + 1;  // all ids from here on were never used
  std::uint64_t structure = 1;     // as View::structure
};

NodeRecord encode_node(NodeId parent, std::string_view name, const Node& node);
Status decode_node(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node);

// `record` has exactly value_record_size(bytes.size()) bytes, and does not overlap `bytes`.
constexpr std::size_t value_record_size(std::size_t size) { return size + kValueRecordOverhead; }
void encode_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes, std::span<std::byte> record);

// The value's bytes are those of the record, not a copy.
Status decode_value(NodeId id, std::span<const std::byte> record, Value* value);

MetaRecord encode_meta(const Meta& meta);
Status decode_meta(std::span<const std::byte> record, Meta* meta);

}  // namespace tkv::store

#endif
