#include "store/record.h"

#include <bit>
#include <cassert>
#include <cstring>
#include <string>

// Inlined: for short records, a call into the shared library would cost as much as the hash itself.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tkv::store {
namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kChecksumSize = 8;

std::uint64_t key_hash(NodeId id, std::string_view name) {
  return XXH3_64bits_withSeed(name.empty() ? "" : name.data(), name.size(), id);
}

std::uint64_t checksum(std::span<const std::byte> covered, std::uint64_t seed) {
  return XXH3_64bits_withSeed(covered.data(), covered.size(), seed);
}

template <typename Integer>
void put(std::byte* at, Integer value) {
  auto bits = static_cast<std::make_unsigned_t<Integer>>(value);
  for (std::size_t i = 0; i < sizeof bits; ++i) at[i] = static_cast<std::byte>(bits >> (8 * i));
}

template <typename Integer>
Integer get(const std::byte* at) {
  std::make_unsigned_t<Integer> bits = 0;
  if constexpr (std::endian::native == std::endian::little) {  // compilers do not make one load of the loop
    std::memcpy(&bits, at, sizeof bits);
    return static_cast<Integer>(bits);
  }
  for (std::size_t i = 0; i < sizeof bits; ++i)
    bits |=
        static_cast<std::make_unsigned_t<Integer>>(std::to_integer<std::make_unsigned_t<Integer>>(at[i]) << (8 * i));
  return static_cast<Integer>(bits);
}

// Masks with the low byte first, names as they are: the layout of sec_attr itself on little-endian machines.
void put_security(std::byte* at, const sec_attr& security) {
  put(at + offsetof(sec_attr, user_perm), security.user_perm);
  put(at + offsetof(sec_attr, group_perm), security.group_perm);
  put(at + offsetof(sec_attr, other_perm), security.other_perm);
  std::memcpy(at + offsetof(sec_attr, user_name), security.user_name, TKV_NAME_SIZE);
  std::memcpy(at + offsetof(sec_attr, group_name), security.group_name, TKV_NAME_SIZE);
}

sec_attr get_security(const std::byte* at) {
  sec_attr security;
  security.user_perm = get<std::int32_t>(at + offsetof(sec_attr, user_perm));
  security.group_perm = get<std::int32_t>(at + offsetof(sec_attr, group_perm));
  security.other_perm = get<std::int32_t>(at + offsetof(sec_attr, other_perm));
  std::memcpy(security.user_name, at + offsetof(sec_attr, user_name), TKV_NAME_SIZE);
  std::memcpy(security.group_name, at + offsetof(sec_attr, group_name), TKV_NAME_SIZE);
  return security;
}

void put_header(std::byte* record, RecordKind kind) {
  record[0] = std::byte{kRecordVersion};
  record[1] = static_cast<std::byte>(kind);
  record[2] = std::byte{0};
  record[3] = std::byte{0};
}

void seal(std::span<std::byte> record, std::uint64_t seed) {
  const std::size_t covered = record.size() - kChecksumSize;
  put(record.data() + covered, checksum(record.first(covered), seed));
}

bool is_sealed(std::span<const std::byte> record, std::uint64_t seed) {
  const std::size_t covered = record.size() - kChecksumSize;
  return get<std::uint64_t>(record.data() + covered) == checksum(record.first(covered), seed);
}

Status damaged(std::string why) { return {PRTKV_STORAGE_FAILED, "damaged record: " + std::move(why)}; }

bool has_header(std::span<const std::byte> record, RecordKind kind) {
  const auto version = std::to_integer<unsigned>(record[0]);
  return version != 0 && version <= kRecordVersion && record[1] == static_cast<std::byte>(kind) &&
         get<std::uint16_t>(record.data() + 2) == 0;
}

// Why a record that is not sound is not. Looks at the version first: a newer one may lay out the rest
// differently, but for the checksum at the end.
Status defect(std::span<const std::byte> record, std::size_t least, std::uint64_t seed) {
  if (record.empty()) return damaged("it is empty");
  const auto version = std::to_integer<unsigned>(record[0]);
  if (version > kRecordVersion && record.size() >= kHeaderSize + kChecksumSize && is_sealed(record, seed)) {
    return {PRTKV_UNUSABLE, "record of format version " + std::to_string(version) +
                                ", and this release reads versions up to " + std::to_string(kRecordVersion)};
  }
  if (record.size() < least) return damaged("it is " + std::to_string(record.size()) + " bytes long");
  if (!is_sealed(record, seed)) return damaged("its checksum does not match");
  return damaged("it has the header of another kind of record");
}

Status check(std::span<const std::byte> record, RecordKind kind, std::size_t least, std::uint64_t seed) {
  const bool sound = record.size() >= least && has_header(record, kind) && is_sealed(record, seed);
  return sound ? Status() : defect(record, least, seed);
}

}  // namespace

NodeRecord encode_node(NodeId parent, std::string_view name, const Node& node) {
  NodeRecord record;
  put_header(record.data(), RecordKind::kNode);
  put(record.data() + kHeaderSize, node.id);
  put_security(record.data() + kHeaderSize + 8, node.security);
  seal(record, key_hash(parent, name));
  return record;
}

Status decode_node(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node) {
  if (Status status = check(record, RecordKind::kNode, kNodeRecordSize, key_hash(parent, name)); !status.ok()) {
    return status;
  }
  if (record.size() != kNodeRecordSize) return damaged("it is " + std::to_string(record.size()) + " bytes long");
  const auto id = get<NodeId>(record.data() + kHeaderSize);
  if (id == kNoNode) return damaged("it has no id");
  *node = Node{id, get_security(record.data() + kHeaderSize + 8)};
  return {};
}

void encode_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes, std::span<std::byte> record) {
  assert(record.size() == value_record_size(bytes.size()));
  put_header(record.data(), RecordKind::kValue);
  put(record.data() + kHeaderSize, type);
  if (!bytes.empty()) std::memcpy(record.data() + kHeaderSize + 4, bytes.data(), bytes.size());
  seal(record, key_hash(id, ""));
}

Status decode_value(NodeId id, std::span<const std::byte> record, Value* value) {
  if (Status status = check(record, RecordKind::kValue, kValueRecordOverhead, key_hash(id, "")); !status.ok()) {
    return status;
  }
  *value = Value{get<std::int32_t>(record.data() + kHeaderSize),
                 record.subspan(kHeaderSize + 4, record.size() - kValueRecordOverhead)};
  return {};
}

bool read_value_size(std::span<const std::byte> record, std::size_t* size) {
  if (record.size() < kValueRecordOverhead || !has_header(record, RecordKind::kValue)) return false;
  *size = record.size() - kValueRecordOverhead;
  return true;
}

bool is_node_under(NodeId parent, std::string_view name, std::span<const std::byte> record) {
  return record.size() == kNodeRecordSize && record[1] == static_cast<std::byte>(RecordKind::kNode) &&
         is_sealed(record, key_hash(parent, name));
}

bool is_value_under(NodeId id, std::span<const std::byte> record) {
  return record.size() >= kValueRecordOverhead && record[1] == static_cast<std::byte>(RecordKind::kValue) &&
         is_sealed(record, key_hash(id, ""));
}

MetaRecord encode_meta(const Meta& meta) {
  MetaRecord record;
  put_header(record.data(), RecordKind::kMeta);
  put(record.data() + kHeaderSize, meta.next_id);
  put(record.data() + kHeaderSize + 8, meta.structure);
  seal(record, key_hash(kNoNode, "meta"));
  return record;
}

Status decode_meta(std::span<const std::byte> record, Meta* meta) {
  if (Status status = check(record, RecordKind::kMeta, kMetaRecordSize, key_hash(kNoNode, "meta")); !status.ok()) {
    return status;
  }
  if (record.size() != kMetaRecordSize) return damaged("it is " + std::to_string(record.size()) + " bytes long");
  *meta = Meta{get<NodeId>(record.data() + kHeaderSize), get<std::uint64_t>(record.data() + kHeaderSize + 8)};
  return {};
}

}  // namespace tkv::store
