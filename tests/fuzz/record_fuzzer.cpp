// Decoding accepts or refuses any bytes, and does nothing else.
//
// The input's first byte says what to make of the rest: as it is, or sealed with a right checksum, so that also what
// lies behind the checksum is reached. What is accepted must encode to the very bytes that were decoded.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "store/lmdb/file.h"
#include "store/record.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

using namespace tkv::store;

void require(bool holds) {
  if (!holds) std::abort();
}

// Ends the record with the checksum of a place.
void seal(std::vector<std::byte>* record, NodeId id, std::string_view name) {
  if (record->size() < 8) return;
  const std::size_t covered = record->size() - 8;
  const std::uint64_t seed = XXH3_64bits_withSeed(name.data(), name.size(), id);
  const std::uint64_t sum = XXH3_64bits_withSeed(record->data(), covered, seed);
  for (std::size_t i = 0; i < 8; ++i) (*record)[covered + i] = static_cast<std::byte>(sum >> (8 * i));
}

void try_node(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, 7, "name");
  Node node;
  if (!decode_node(7, "name", record, &node).ok()) return;
  const NodeRecord again = encode_node(7, "name", node);
  require(std::equal(again.begin(), again.end(), record.begin(), record.end()));
}

void try_value(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, 7, "");
  Value value;
  if (!decode_value(7, record, &value).ok()) return;
  std::vector<std::byte> again(value_record_size(value.bytes.size()));
  encode_value(7, value, again);
  require(again == record);
}

void try_meta(std::vector<std::byte> record, bool sealed) {
  if (sealed) seal(&record, kNoNode, "meta");
  Meta meta;
  if (!decode_meta(record, &meta).ok()) return;
  const MetaRecord again = encode_meta(meta);
  require(std::equal(again.begin(), again.end(), record.begin(), record.end()));
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
  try_key(rest);
  return 0;
}
