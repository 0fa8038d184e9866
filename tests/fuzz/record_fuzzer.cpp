// Decoding accepts or refuses any bytes, and does nothing else.
//
// The input's first byte says what to make of the rest: as it is, or sealed with a right checksum, so that also what
// lies behind the checksum is reached. What is accepted must encode to the very bytes that were decoded, if they are of
// the format version that is written today, and else to a record that means the same.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "store/change_content.h"
#include "store/lmdb/file.h"
#include "store/record.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

using namespace tkv::store;

void require(bool holds) {
  if (!holds) std::abort();
}

// Ends the record with the checksum of a place, as the format version in its first byte forms it.
void seal(std::vector<std::byte>* record, std::uint64_t id, std::string_view name) {
  if (record->size() < 8) return;
  const std::size_t covered = record->size() - 8;
  const bool is_plain = record->front() <= std::byte{1} || id == kNoNode;
  const std::uint64_t place = is_plain ? id : XXH3_64bits(&id, sizeof id);
  const std::uint64_t seed = XXH3_64bits_withSeed(name.data(), name.size(), place);
  const std::uint64_t sum = XXH3_64bits_withSeed(record->data(), covered, seed);
  for (std::size_t i = 0; i < 8; ++i) (*record)[covered + i] = static_cast<std::byte>(sum >> (8 * i));
}

bool is_current(std::span<const std::byte> record) { return record[0] == std::byte{kRecordVersion}; }

bool same(std::span<const std::byte> a, std::span<const std::byte> b) { return std::ranges::equal(a, b); }

void try_node(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, 7, "name");
  Node node;
  if (!decode_node(7, "name", record, &node).ok()) return;
  const NodeRecord again = encode_node(7, "name", node);
  if (is_current(record)) require(same(again, record));
  Node decoded;
  require(decode_node(7, "name", again, &decoded).ok());
  require(same(encode_node(7, "name", decoded), again));
}

void try_value(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, 7, "");
  Value value;
  if (!decode_value(7, record, &value).ok()) return;
  std::vector<std::byte> again(value_record_size(value.bytes.size()));
  encode_value(7, value, again);
  if (is_current(record)) require(same(again, record));
  Value decoded;
  require(decode_value(7, again, &decoded).ok());
  require(decoded.type == value.type && decoded.revision == value.revision && same(decoded.bytes, value.bytes));
}

void try_meta(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, kNoNode, "meta");
  Meta meta;
  if (!decode_meta(record, &meta).ok()) return;
  const MetaRecord again = encode_meta(meta);
  if (is_current(record)) require(same(again, record));
  Meta decoded;
  require(decode_meta(again, &decoded).ok());
  require(same(encode_meta(decoded), again));
}

void try_change(std::vector<std::byte> record, bool sealed) {
  constexpr std::string_view kSecond("\2\0\0\0", 4);
  if (sealed) seal(&record, 7, kSecond);
  ChangePart part;
  if (!decode_change(7, 2, record, &part).ok()) return;
  std::vector<std::byte> again(part.bytes.size() + kChangeRecordOverhead);
  encode_change(7, 2, part, again);
  if (is_current(record)) require(same(again, record));
}

void try_content(const std::vector<std::byte>& content) {
  static_cast<void>(visit_former_records(content, [](auto, auto) { return tkv::Status(); }));
  std::int64_t time = 0;
  static_cast<void>(decode_time(content, &time));
  tkv::ChangeRecord record;
  if (!decode_description(content, &record).ok()) return;
  require(record.time == time);
  tkv::ChangeRecord decoded;
  require(decode_description(encode_description(record, record.hides_past), &decoded).ok());
  require(decoded == record);
}

void try_key(std::vector<std::byte> bytes) {
  KeyParts parts;
  const MDB_val val{bytes.size(), bytes.data()};
  if (!read_key(bytes, &parts) || parts.kind == KeyParts::Kind::kMeta) return;
  const Key key = parts.kind == KeyParts::Kind::kNode    ? Key::node(parts.id, parts.name)
                  : parts.kind == KeyParts::Kind::kValue ? Key::value(parts.id)
                                                         : Key::change(parts.id, parts.part);
  const MDB_val again = key.val();
  require(again.mv_size == val.mv_size && std::memcmp(again.mv_data, val.mv_data, val.mv_size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto* const bytes = reinterpret_cast<const std::byte*>(data);
  const std::vector<std::byte> rest(bytes + 1, bytes + size);
  const bool sealed = data[0] % 2 != 0;
  try_node(rest, sealed);
  try_value(rest, sealed);
  try_meta(rest, sealed);
  try_change(rest, sealed);
  try_content(rest);
  try_key(rest);
  return 0;
}
