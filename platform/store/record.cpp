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
constexpr std::size_t kMovesAt = 2;  // in the header
constexpr std::size_t kChecksumSize = 8;

// Of format version 1.
constexpr std::size_t kNodeRecordSize1 = 160;
constexpr std::size_t kValueRecordOverhead1 = 16;
constexpr std::size_t kMetaRecordSize1 = 28;

template <typename Integer>
void put(std::byte* at, Integer value) {
  auto bits = static_cast<std::make_unsigned_t<Integer>>(value);
  if constexpr (std::endian::native == std::endian::little) {  // compilers do not make one store of the loop
    std::memcpy(at, &bits, sizeof bits);
    return;
  }
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

template <typename Integer>
std::array<std::byte, sizeof(Integer)> in_order(Integer value) {
  std::array<std::byte, sizeof(Integer)> bytes;
  put(bytes.data(), value);
  return bytes;
}

// The seed of a record's checksum. In version 1, short names under parents with related ids may have the same one: the
// hash of up to three bytes combines them with its own seed too simply. Since version 2, the id is hashed first; but
// not the 0 of the registry's own record, whose checksum tells every release that the format is a newer one.
std::uint64_t seed_of(unsigned version, std::uint64_t id, std::string_view name) {
  const bool is_plain = version <= 1 || id == kNoNode;
  const std::uint64_t seed = is_plain ? id : XXH3_64bits(in_order(id).data(), sizeof id);
  return XXH3_64bits_withSeed(name.empty() ? "" : name.data(), name.size(), seed);
}

std::uint64_t checksum(std::span<const std::byte> covered, std::uint64_t seed) {
  return XXH3_64bits_withSeed(covered.data(), covered.size(), seed);
}

// Masks with the low byte first, names as they are: the layout of sec_attr itself on little-endian machines.
void put_security(std::byte* at, const sec_attr& security) {
  put(at + offsetof(sec_attr, user_perm), security.user_perm);
  put(at + offsetof(sec_attr, group_perm), security.group_perm);
  put(at + offsetof(sec_attr, other_perm), security.other_perm);
  std::memcpy(at + offsetof(sec_attr, user_name), security.user_name, TKV_NAME_SIZE);
  std::memcpy(at + offsetof(sec_attr, group_name), security.group_name, TKV_NAME_SIZE);
}

void get_security(const std::byte* at, sec_attr* security) {
  security->user_perm = get<std::int32_t>(at + offsetof(sec_attr, user_perm));
  security->group_perm = get<std::int32_t>(at + offsetof(sec_attr, group_perm));
  security->other_perm = get<std::int32_t>(at + offsetof(sec_attr, other_perm));
  std::memcpy(security->user_name, at + offsetof(sec_attr, user_name), TKV_NAME_SIZE);
  std::memcpy(security->group_name, at + offsetof(sec_attr, group_name), TKV_NAME_SIZE);
}

void put_header(std::byte* record, RecordKind kind) {
  record[0] = std::byte{kRecordVersion};
  record[1] = static_cast<std::byte>(kind);
  record[2] = std::byte{0};
  record[3] = std::byte{0};
}

// What a record's checksum is seeded with.
struct RecordKey {
  std::uint64_t id;
  std::string_view name;
};

constexpr RecordKey kRegistry{kNoNode, "meta"};

void seal(std::span<std::byte> record, const RecordKey& key) {
  const std::size_t covered = record.size() - kChecksumSize;
  put(record.data() + covered, checksum(record.first(covered), seed_of(kRecordVersion, key.id, key.name)));
}

unsigned version_of(std::span<const std::byte> record) { return std::to_integer<unsigned>(record[0]); }

bool is_sealed(std::span<const std::byte> record, const RecordKey& key) {
  const std::size_t covered = record.size() - kChecksumSize;
  return get<std::uint64_t>(record.data() + covered) ==
         checksum(record.first(covered), seed_of(version_of(record), key.id, key.name));
}

bool is_sealed(std::span<const std::byte> record, RecordKind kind, std::size_t least, const RecordKey& key) {
  return record.size() >= least && record[1] == static_cast<std::byte>(kind) && is_sealed(record, key);
}

Status damaged(std::string why) { return {PRTKV_STORAGE_FAILED, "damaged record: " + std::move(why)}; }

Status wrong_size(std::span<const std::byte> record) {
  return damaged("it is " + std::to_string(record.size()) + " bytes long");
}

bool has_header(std::span<const std::byte> record, RecordKind kind) {
  const unsigned version = version_of(record);
  return version != 0 && version <= kRecordVersion && record[1] == static_cast<std::byte>(kind) &&
         (get<std::uint16_t>(record.data() + kMovesAt) == 0 || (version > 1 && kind == RecordKind::kNode));
}

// Sizes of the records of a kind, or the smallest ones, in format version 1 and in this one.
struct RecordSizes {
  std::size_t version1;
  std::size_t current;

  std::size_t of(std::span<const std::byte> record) const { return version_of(record) <= 1 ? version1 : current; }
};

constexpr RecordSizes kNodeSizes{kNodeRecordSize1, kNodeRecordSize};
constexpr RecordSizes kValueSizes{kValueRecordOverhead1, kValueRecordOverhead};
constexpr RecordSizes kMetaSizes{kMetaRecordSize1, kMetaRecordSize};

// Why a record that is not sound is not. Looks at the version first: a newer one may lay out the rest
// differently, but for the checksum at the end.
Status defect(std::span<const std::byte> record, const RecordSizes& sizes, const RecordKey& key) {
  if (record.empty()) return damaged("it is empty");
  const unsigned version = version_of(record);
  if (version > kRecordVersion && record.size() >= kHeaderSize + kChecksumSize && is_sealed(record, key)) {
    return {PRTKV_UNUSABLE, "record of format version " + std::to_string(version) +
                                ", and this release reads versions up to " + std::to_string(kRecordVersion) +
                                "; install a newer release of TKV"};
  }
  if (record.size() < sizes.of(record)) return wrong_size(record);
  if (!is_sealed(record, key)) return damaged("its checksum does not match");
  return damaged("it has the header of another kind of record");
}

Status check(std::span<const std::byte> record, RecordKind kind, const RecordSizes& sizes, const RecordKey& key) {
  const bool sound =
      !record.empty() && record.size() >= sizes.of(record) && has_header(record, kind) && is_sealed(record, key);
  return sound ? Status() : defect(record, sizes, key);
}

std::string_view as_name(const std::array<std::byte, 4>& number) {
  return {reinterpret_cast<const char*>(number.data()), number.size()};
}

}  // namespace

NodeRecord encode_node(NodeId parent, std::string_view name, const Node& node) {
  NodeRecord record;
  put_header(record.data(), RecordKind::kNode);
  put(record.data() + kMovesAt, node.moves);
  put(record.data() + kHeaderSize, node.id);
  put(record.data() + kHeaderSize + 8, node.revision);
  put_security(record.data() + kHeaderSize + 16, node.security);
  seal(record, {parent, name});
  return record;
}

Status decode_node(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node) {
  if (Status status = check(record, RecordKind::kNode, kNodeSizes, {parent, name}); !status.ok()) return status;
  if (record.size() != kNodeSizes.of(record)) return wrong_size(record);
  const std::byte* const fields = record.data() + kHeaderSize;
  const auto id = get<NodeId>(fields);
  if (id == kNoNode) return damaged("it has no id");
  const bool has_revision = version_of(record) > 1;
  node->id = id;
  node->revision = has_revision ? get<Revision>(fields + 8) : 0;
  node->moves = has_revision ? get<std::uint16_t>(record.data() + kMovesAt) : std::uint16_t{0};
  get_security(fields + (has_revision ? 16 : 8), &node->security);
  return {};
}

void encode_value(NodeId id, const Value& value, std::span<std::byte> record) {
  assert(record.size() == value_record_size(value.bytes.size()));
  put_header(record.data(), RecordKind::kValue);
  put(record.data() + kHeaderSize, value.type);
  put(record.data() + kHeaderSize + 4, value.revision);
  if (!value.bytes.empty()) std::memcpy(record.data() + kHeaderSize + 12, value.bytes.data(), value.bytes.size());
  seal(record, {id, ""});
}

void set_value_revision(NodeId id, Revision revision, std::span<std::byte> record) {
  assert(record.size() >= kValueRecordOverhead && version_of(record) == kRecordVersion);
  put(record.data() + kHeaderSize + 4, revision);
  seal(record, {id, ""});
}

Status decode_value(NodeId id, std::span<const std::byte> record, Value* value) {
  if (Status status = check(record, RecordKind::kValue, kValueSizes, {id, ""}); !status.ok()) return status;
  const std::size_t overhead = kValueSizes.of(record);
  const std::byte* const fields = record.data() + kHeaderSize;
  *value = Value{get<std::int32_t>(fields), record.subspan(overhead - kChecksumSize, record.size() - overhead),
                 version_of(record) == 1 ? 0 : get<Revision>(fields + 4)};
  return {};
}

void encode_change(Revision revision, std::uint32_t number, const ChangePart& part, std::span<std::byte> record) {
  assert(record.size() == part.bytes.size() + kChangeRecordOverhead);
  put_header(record.data(), RecordKind::kChange);
  put(record.data() + kHeaderSize, part.parts);
  if (!part.bytes.empty()) std::memcpy(record.data() + kHeaderSize + 4, part.bytes.data(), part.bytes.size());
  seal(record, {revision, as_name(in_order(number))});
}

Status decode_change(Revision revision, std::uint32_t number, std::span<const std::byte> record, ChangePart* part) {
  constexpr RecordSizes kSizes{kChangeRecordOverhead, kChangeRecordOverhead};
  const auto name = in_order(number);
  if (Status status = check(record, RecordKind::kChange, kSizes, {revision, as_name(name)}); !status.ok()) {
    return status;
  }
  *part = ChangePart{get<std::uint32_t>(record.data() + kHeaderSize),
                     record.subspan(kHeaderSize + 4, record.size() - kChangeRecordOverhead)};
  return {};
}

bool read_value_size(std::span<const std::byte> record, std::size_t* size) {
  if (record.size() < kHeaderSize || !has_header(record, RecordKind::kValue)) return false;
  if (record.size() < kValueSizes.of(record)) return false;
  *size = record.size() - kValueSizes.of(record);
  return true;
}

bool is_node_under(NodeId parent, std::string_view name, std::span<const std::byte> record) {
  return is_sealed(record, RecordKind::kNode, kNodeRecordSize1, {parent, name}) &&
         record.size() == kNodeSizes.of(record);
}

bool is_value_under(NodeId id, std::span<const std::byte> record) {
  return is_sealed(record, RecordKind::kValue, kValueRecordOverhead1, {id, ""}) &&
         record.size() >= kValueSizes.of(record);
}

bool is_change_under(Revision revision, std::uint32_t number, std::span<const std::byte> record) {
  const auto name = in_order(number);
  return is_sealed(record, RecordKind::kChange, kChangeRecordOverhead, {revision, as_name(name)});
}

MetaRecord encode_meta(const Meta& meta) {
  MetaRecord record;
  put_header(record.data(), RecordKind::kMeta);
  std::byte* at = record.data() + kHeaderSize;
  for (const std::uint64_t field : {meta.next_id, meta.structure, meta.revision, meta.log_after, meta.oldest_state,
                                    meta.oldest_stored, meta.history_bytes}) {
    put(at, field);
    at += sizeof field;
  }
  seal(record, kRegistry);
  return record;
}

Status decode_meta(std::span<const std::byte> record, Meta* meta) {
  if (Status status = check(record, RecordKind::kMeta, kMetaSizes, kRegistry); !status.ok()) return status;
  if (record.size() != kMetaSizes.of(record)) return wrong_size(record);
  const std::byte* at = record.data() + kHeaderSize;
  Meta found;
  for (std::uint64_t* const field : {&found.next_id, &found.structure, &found.revision, &found.log_after,
                                     &found.oldest_state, &found.oldest_stored, &found.history_bytes}) {
    if (at == record.data() + record.size() - kChecksumSize) break;  // version 1 ends with the structure
    *field = get<std::uint64_t>(at);
    at += sizeof *field;
  }
  *meta = found;
  return {};
}

}  // namespace tkv::store
