// The bytes on disk, compared with the examples in docs/format.md. A difference means that registries written by former
// releases can no longer be read: change neither.
#include "store/record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lmdb_files.h"
#include "newer_record.h"
#include "store/change_content.h"
#include "store/lmdb/file.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

std::string hex(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text.push_back(kDigits[std::to_integer<unsigned>(byte) >> 4]);
    text.push_back(kDigits[std::to_integer<unsigned>(byte) & 15]);
  }
  return text;
}

// The bytes of one of the documented examples: what stands in the block "```hex <title>", pairs of hex digits up to the
// first three blanks of a line.
std::string documented(const std::string& title) {
  std::ifstream document(TKV_FORMAT_DOCUMENT);
  EXPECT_TRUE(document) << TKV_FORMAT_DOCUMENT;
  std::string line;
  while (std::getline(document, line) && line != "```hex " + title) continue;
  std::string digits;
  while (std::getline(document, line) && line != "```") {
    const std::string pairs = line.substr(0, line.find("   "));
    std::copy_if(pairs.begin(), pairs.end(), std::back_inserter(digits), [](char c) { return c != ' '; });
  }
  EXPECT_FALSE(digits.empty()) << "no example of " << title;
  return digits;
}

constexpr Revision kCreated = 1;
constexpr Revision kRevision = 2;

std::vector<std::byte> value_record(NodeId id, std::int32_t type, std::string_view text) {
  std::vector<std::byte> record(value_record_size(text.size()));
  encode_value(id, {type, std::as_bytes(std::span(text.data(), text.size())), kRevision}, record);
  return record;
}

Node sample_node() {
  Node node{2, {}, kCreated};
  node.security.user_perm = 0x3f;
  node.security.group_perm = 0x34;
  node.security.other_perm = 0x03;
  std::memcpy(node.security.user_name, "ada", 3);
  std::memcpy(node.security.group_name, "staff", 5);
  return node;
}

TEST(Record, ANodeIsLaidOutAsDocumented) {
  EXPECT_EQ(hex(encode_node(kRootNode, "SYSTEM", sample_node())), documented("node"));
}

TEST(Record, AValueIsLaidOutAsDocumented) {
  EXPECT_EQ(hex(value_record(2, 3, std::string_view("on\0", 3))), documented("value"));
}

TEST(Record, TheRegistrysRecordOfItselfIsLaidOutAsDocumented) {
  EXPECT_EQ(hex(encode_meta(Meta{3, 1, 2, 0, 0, 1, 226})), documented("registry"));
}

std::string hex_of(const MDB_val& bytes) { return hex({static_cast<const std::byte*>(bytes.mv_data), bytes.mv_size}); }

TEST(Record, KeysAreLaidOutAsDocumented) {
  const auto hex_of_key = [](const Key& key) { return hex_of(key.val()); };
  EXPECT_EQ(hex_of_key(Key::node(kRootNode, "SYSTEM")), documented("node-key"));
  EXPECT_EQ(hex_of_key(Key::value(2)), documented("value-key"));
  EXPECT_EQ(hex_of_key(Key::meta()), "4d");
}

TEST(Record, KeysAreReadBack) {
  const std::string longest(kMaxLevelSize, 'n');
  for (const std::string_view name : {std::string_view(), std::string_view("SYSTEM"), std::string_view(longest)}) {
    const Key key = Key::node(0x0123456789abcdef, name);
    KeyParts parts;
    ASSERT_TRUE(read_key(key.bytes(), &parts));
    EXPECT_EQ(parts.kind, KeyParts::Kind::kNode);
    EXPECT_EQ(parts.id, 0x0123456789abcdefu);
    EXPECT_EQ(parts.name, name);
  }
  for (std::string unknown : {std::string(), std::string("X12345678"), std::string("N1234567"),
                              std::string("V123456789"), std::string("MM"), "N12345678" + longest + "n"}) {
    KeyParts parts;
    EXPECT_FALSE(read_key(std::as_bytes(std::span(unknown)), &parts)) << unknown;
  }
}

TEST(Record, ANodeComesBackAsItWas) {
  Node node = sample_node();
  node.moves = 0xfffe;
  const NodeRecord record = encode_node(7, "name", node);
  Node found;
  ASSERT_TRUE(decode_node(7, "name", record, &found).ok());
  EXPECT_EQ(found.id, node.id);
  EXPECT_EQ(found.revision, node.revision);
  EXPECT_EQ(found.moves, node.moves);
  EXPECT_EQ(std::memcmp(&found.security, &node.security, sizeof node.security), 0);
}

TEST(Record, AValueComesBackAsItWas) {
  for (const std::size_t size : {0u, 1u, 239u, 240u, 241u, 1048576u}) {
    const std::string text(size, 'v');
    const std::vector<std::byte> record = value_record(9, -5, text);
    Value value;
    ASSERT_TRUE(decode_value(9, record, &value).ok()) << size;
    EXPECT_EQ(value.type, -5);
    EXPECT_EQ(value.bytes.size(), size);
    EXPECT_EQ(value.bytes.data(), record.data() + 16) << "the bytes are those of the record";
    EXPECT_EQ(value.revision, kRevision);
  }
}

TEST(Record, AValueGetsAnotherRevision) {
  for (const std::size_t size : {0u, 300u}) {
    const std::string text(size, 'v');
    std::vector<std::byte> record = value_record(9, -5, text);
    set_value_revision(9, kRevision + 1, record);
    Value value;
    ASSERT_TRUE(decode_value(9, record, &value).ok()) << size;
    EXPECT_EQ(value.revision, kRevision + 1);
    EXPECT_EQ(value.type, -5);
    EXPECT_EQ(value.bytes.size(), size);
  }
}

// What a documented example says, as bytes.
std::vector<std::byte> documented_bytes(const std::string& title) {
  const std::string digits = documented(title);
  std::vector<std::byte> bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::byte>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

TEST(Record, RecordsOfFormat1AreRead) {
  Node node;
  Value value;
  Meta meta{9, 9, 9, 9, 9, 9, 9};
  ASSERT_TRUE(decode_node(kRootNode, "SYSTEM", documented_bytes("node-1"), &node).ok());
  EXPECT_EQ(node.id, 2u);
  EXPECT_EQ(node.revision, 0u);
  const Node sample = sample_node();
  EXPECT_EQ(std::memcmp(&node.security, &sample.security, sizeof node.security), 0);
  const std::vector<std::byte> record = documented_bytes("value-1");
  ASSERT_TRUE(decode_value(2, record, &value).ok());
  EXPECT_EQ(value.type, 3);
  EXPECT_EQ(hex(value.bytes), "6f6e00");
  EXPECT_EQ(value.revision, 0u);
  ASSERT_TRUE(decode_meta(documented_bytes("registry-1"), &meta).ok());
  EXPECT_EQ(meta.next_id, 3u);
  EXPECT_EQ(meta.structure, 1u);
  EXPECT_EQ(meta.revision, 0u);
  EXPECT_EQ(meta.oldest_stored, 1u);
  EXPECT_TRUE(is_node_under(kRootNode, "SYSTEM", documented_bytes("node-1")));
  EXPECT_TRUE(is_value_under(2, record));
}

TEST(Record, ShortNamesUnderRelatedParentsAreToldApart) {
  const NodeRecord record = encode_node(39, "a30", sample_node());
  Node node;
  EXPECT_TRUE(decode_node(39, "a30", record, &node).ok());
  EXPECT_TRUE(decode_node(43, "a34", record, &node).is(PRTKV_STORAGE_FAILED));
}

ChangeDescription by_ada(const std::string& note, const Change& change) {
  return {.time = 1'767'225'600'000'000,
          .author = "ada",
          .host = "node-1",
          .program = "tkv",
          .process = 4711,
          .note = note,
          .changes = {change}};
}

// The second change of the documented example: ada sets the value.
TEST(Record, AChangeIsLaidOutAsDocumented) {
  const ChangeDescription description = by_ada("switch it on", {Change::Kind::kValue, "SYSTEM", "", 2});
  FormerRecords formers;
  const Key key = Key::value(2);
  formers.add(key.bytes(), std::nullopt);
  Bytes content = encode_description(description, false);
  content.insert(content.end(), formers.bytes().begin(), formers.bytes().end());
  std::vector<std::byte> record(content.size() + kChangeRecordOverhead);
  encode_change(kRevision, 0, {1, content}, record);
  EXPECT_EQ(hex(record), documented("change"));
  const Key change_key = Key::change(kRevision, 0);
  EXPECT_EQ(hex(change_key.bytes()), documented("change-key"));
  ChangeRecord read;
  EXPECT_TRUE(decode_description(content, &read).ok());
  EXPECT_EQ(static_cast<const ChangeDescription&>(read), description);
}

// The documented example as the embedded store writes it.
TEST(Record, ARegistryHasTheDocumentedRecordsInItsFile) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  LmdbOptions options;
  options.directory = directory / "registry";
  options.retention.age = std::chrono::hours(24) * 365 * 100;  // the example is of a fixed date
  {
    const auto store = open_or_fail(options);
    ASSERT_TRUE(store
                    ->write([](Update& update) {
                      Node node = sample_node();
                      if (Status status = update.new_id(&node.id); !status.ok()) return status;
                      update.describe(by_ada("", {Change::Kind::kCreated, "SYSTEM", "", node.id}));
                      return update.insert(kRootNode, "SYSTEM", node);
                    })
                    .ok());
    ASSERT_TRUE(store
                    ->write([](Update& update) {
                      update.describe(by_ada("switch it on", {Change::Kind::kValue, "SYSTEM", "", 2}));
                      return update.set_value(2, 3, std::as_bytes(std::span("on", 3)));
                    })
                    .ok());
  }
  std::map<std::string, std::string> records;
  with_plain_lmdb(options.directory, [&](MDB_txn* txn, MDB_dbi database) {
    MDB_cursor* cursor = nullptr;
    MDB_val key{};
    MDB_val data{};
    ASSERT_EQ(mdb_cursor_open(txn, database, &cursor), 0);
    while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) records[hex_of(key)] = hex_of(data);
    mdb_cursor_close(cursor);
  });
  EXPECT_EQ(records.size(), 6U) << "the root, the key, its value, the registry's own record, two changes";
  EXPECT_EQ(records["4d"], documented("registry"));
  EXPECT_EQ(records[documented("node-key")], documented("node"));
  EXPECT_EQ(records[documented("value-key")], documented("value"));
  EXPECT_EQ(records[documented("change-key")], documented("change"));
}

TEST(Record, AnyBytesAreNoChangeOrOne) {
  const ChangeDescription description{.author = "ada", .changes = {{Change::Kind::kMoved, "b", "a", 2}}};
  FormerRecords formers;
  formers.add(std::as_bytes(std::span("key", 3)), std::as_bytes(std::span("record", 6)));
  Bytes content = encode_description(description, true);
  content.insert(content.end(), formers.bytes().begin(), formers.bytes().end());
  const auto visit = [](std::span<const std::byte>, std::optional<std::span<const std::byte>>) { return Status(); };
  for (std::size_t size = 0; size < content.size(); ++size) {
    ChangeRecord record;
    const auto cut = std::span(content).first(size);
    const bool has_description = size >= 4 && size >= description_end(content);
    EXPECT_EQ(decode_description(cut, &record).ok(), has_description) << size;
    const bool ends_there = has_description && size == description_end(content);
    EXPECT_EQ(visit_former_records(cut, visit).ok(), ends_there) << size;
  }
  for (std::size_t at = 0; at < content.size(); ++at) {
    for (const int mask : {0x01, 0x80, 0xff}) {
      Bytes changed = content;
      ChangeRecord record;
      changed[at] ^= static_cast<std::byte>(mask);
      (void)decode_description(changed, &record);
      (void)visit_former_records(changed, visit);
    }
  }
}

TEST(Record, EveryFlippedBitIsFound) {
  NodeRecord node = encode_node(7, "name", sample_node());
  std::vector<std::byte> value = value_record(9, 3, "some text");
  MetaRecord meta = encode_meta(Meta{12, 34, 56, 7, 8, 9, 10});
  std::vector<std::byte> change(kChangeRecordOverhead + 4);
  encode_change(5, 6, {7, std::as_bytes(std::span("part", 4))}, change);
  const auto flip_each = [](std::span<std::byte> record, auto decode) {
    for (std::size_t bit = 0; bit < 8 * record.size(); ++bit) {
      const std::byte mask = static_cast<std::byte>(1u << (bit % 8));
      record[bit / 8] ^= mask;
      const Status status = decode();
      EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << "bit " << bit;
      EXPECT_TRUE(status.has_text()) << "bit " << bit;
      record[bit / 8] ^= mask;
    }
    EXPECT_TRUE(decode().ok());
  };
  Node found_node;
  Value found_value;
  Meta found_meta;
  flip_each(node, [&] { return decode_node(7, "name", node, &found_node); });
  flip_each(value, [&] { return decode_value(9, value, &found_value); });
  flip_each(meta, [&] { return decode_meta(meta, &found_meta); });
  ChangePart found_part;
  flip_each(change, [&] { return decode_change(5, 6, change, &found_part); });
  EXPECT_EQ(found_part.parts, 7u);
  EXPECT_EQ(hex(found_part.bytes), "70617274");
  EXPECT_TRUE(decode_change(6, 6, change, &found_part).is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(decode_change(5, 5, change, &found_part).is(PRTKV_STORAGE_FAILED));
}

TEST(Record, EveryLengthButTheRightOneIsRefused) {
  const NodeRecord whole = encode_node(7, "name", sample_node());
  std::vector<std::byte> record(whole.begin(), whole.end());
  record.resize(whole.size() + 20);
  for (std::size_t size = 0; size <= record.size(); ++size) {
    Node node{99, {}};
    const Status status = decode_node(7, "name", std::span(record).first(size), &node);
    EXPECT_EQ(status.ok(), size == whole.size()) << size;
    if (!status.ok()) {
      EXPECT_EQ(node.id, 99u) << "a refused record leaves the result alone";
    }
  }
  const std::vector<std::byte> value = value_record(9, 3, "some text");
  for (std::size_t size = 0; size < value.size(); ++size) {
    Value found;
    EXPECT_TRUE(decode_value(9, std::span(value).first(size), &found).is(PRTKV_STORAGE_FAILED)) << size;
  }
}

TEST(Record, ARecordInAnothersPlaceIsFound) {
  const NodeRecord node = encode_node(7, "name", sample_node());
  Node found;
  EXPECT_TRUE(decode_node(8, "name", node, &found).is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(decode_node(7, "nama", node, &found).is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(decode_node(7, "", node, &found).is(PRTKV_STORAGE_FAILED));
  const std::vector<std::byte> value = value_record(9, 3, "text");
  Value found_value;
  EXPECT_TRUE(decode_value(10, value, &found_value).is(PRTKV_STORAGE_FAILED));
}

TEST(Record, ARecordOfAnotherKindIsFound) {
  const NodeRecord node = encode_node(9, "", sample_node());
  Value value;
  EXPECT_TRUE(decode_value(9, node, &value).is(PRTKV_STORAGE_FAILED));
}

TEST(Record, ANewerFormatIsRefusedByItsNumber) {
  NodeRecord record = encode_node(7, "name", sample_node());
  set_version(&record, kRecordVersion + 1, 7, "name");
  Node node;
  const Status status = decode_node(7, "name", record, &node);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_EQ(status.text(), "record of format version " + std::to_string(kRecordVersion + 1) +
                               ", and this release reads versions up to " + std::to_string(kRecordVersion) +
                               "; install a newer release of TKV");
}

TEST(Record, OlderReleasesCanTellThatTheRegistryHasANewerFormat) {
  const MetaRecord record = encode_meta(Meta{});
  MetaRecord as_version_1_seals = record;
  set_version_1_checksum(&as_version_1_seals, kNoNode, "meta");
  EXPECT_EQ(record, as_version_1_seals);
}

TEST(Record, ADamagedVersionIsNoNewerFormat) {
  NodeRecord record = encode_node(7, "name", sample_node());
  record[0] = std::byte{kRecordVersion + 1};
  Node node;
  EXPECT_TRUE(decode_node(7, "name", record, &node).is(PRTKV_STORAGE_FAILED));
  const std::vector<std::byte> few{std::byte{kRecordVersion + 1}};
  EXPECT_TRUE(decode_node(7, "name", few, &node).is(PRTKV_STORAGE_FAILED));
}

}  // namespace
}  // namespace tkv::store
