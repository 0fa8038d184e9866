#include "store/change_content.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace tkv::store {
namespace {

// Stored on disk. Do not change.
constexpr std::uint8_t kHidesPast = 1;                 // a flag
constexpr std::uint32_t kNoFormerRecord = 0xffffffff;  // instead of a record's size

constexpr std::size_t kSizeField = sizeof(std::uint32_t);
constexpr std::size_t kMaxText = 0xffff;

class Encoder {
 public:
  explicit Encoder(Bytes* bytes) : bytes_(*bytes) {}

  template <typename Integer>
  void put(Integer value) {
    const auto bits = static_cast<std::make_unsigned_t<Integer>>(value);
    for (std::size_t i = 0; i < sizeof bits; ++i) bytes_.push_back(static_cast<std::byte>(bits >> (8 * i)));
  }

  void put_bytes(std::span<const std::byte> bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

  void put_text(std::string_view text) {
    text = text.substr(0, kMaxText);
    put(static_cast<std::uint16_t>(text.size()));
    put_bytes(std::as_bytes(std::span(text)));
  }

 private:
  Bytes& bytes_;
};

// Takes fields off the front. What is not there makes it fail, and everything after that reads as nothing.
class Decoder {
 public:
  explicit Decoder(std::span<const std::byte> rest) : rest_(rest) {}

  bool failed() const { return failed_; }
  bool at_end() const { return rest_.empty(); }

  std::span<const std::byte> take(std::size_t size) {
    failed_ = failed_ || size > rest_.size();
    if (failed_) return {};
    const auto taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }

  template <typename Integer>
  Integer take() {
    std::make_unsigned_t<Integer> bits = 0;
    unsigned shift = 0;
    for (const std::byte byte : take(sizeof(Integer))) {
      bits |= static_cast<std::make_unsigned_t<Integer>>(std::to_integer<std::make_unsigned_t<Integer>>(byte) << shift);
      shift += 8;
    }
    return static_cast<Integer>(bits);
  }

  std::string take_text() {
    const auto bytes = take(take<std::uint16_t>());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

 private:
  std::span<const std::byte> rest_;
  bool failed_ = false;
};

Status damaged(const char* why) { return {PRTKV_STORAGE_FAILED, std::string("damaged record of a change: ") + why}; }

bool is_kind(std::uint8_t kind) {
  return kind >= static_cast<std::uint8_t>(Change::Kind::kCreated) &&
         kind <= static_cast<std::uint8_t>(Change::Kind::kPurged);
}

}  // namespace

void FormerRecords::add(std::span<const std::byte> key, std::optional<std::span<const std::byte>> record) {
  Encoder encoder(&bytes_);
  encoder.put(static_cast<std::uint16_t>(key.size()));
  encoder.put_bytes(key);
  encoder.put(record ? static_cast<std::uint32_t>(record->size()) : kNoFormerRecord);
  if (record) encoder.put_bytes(*record);
}

Bytes encode_description(const ChangeDescription& description, bool hides_past) {
  Bytes bytes;
  Encoder encoder(&bytes);
  encoder.put(std::uint32_t{0});  // the size, see below
  encoder.put(description.time);
  encoder.put(description.process);
  encoder.put(static_cast<std::uint8_t>(hides_past ? kHidesPast : 0));
  encoder.put_text(description.author);
  encoder.put_text(description.host);
  encoder.put_text(description.program);
  encoder.put_text(description.note);
  encoder.put(static_cast<std::uint32_t>(description.changes.size()));
  for (const Change& change : description.changes) {
    encoder.put(static_cast<std::uint8_t>(change.kind));
    encoder.put(change.id);
    encoder.put_text(change.name);
    encoder.put_text(change.from);
  }
  Bytes size;
  Encoder(&size).put(static_cast<std::uint32_t>(bytes.size() - kSizeField));
  std::copy(size.begin(), size.end(), bytes.begin());
  return bytes;
}

std::size_t description_end(std::span<const std::byte> content) {
  return kSizeField + Decoder(content).take<std::uint32_t>();
}

Status decode_time(std::span<const std::byte> content, std::int64_t* time) {
  Decoder decoder(content);
  decoder.take(kSizeField);
  const auto found = decoder.take<std::int64_t>();
  if (decoder.failed()) return damaged("it is cut off");
  *time = found;
  return {};
}

Status decode_description(std::span<const std::byte> content, ChangeRecord* record) {
  if (content.size() < kSizeField || content.size() < description_end(content)) return damaged("it is cut off");
  Decoder decoder(content.first(description_end(content)).subspan(kSizeField));
  ChangeRecord found;
  found.revision = record->revision;
  found.time = decoder.take<std::int64_t>();
  found.process = decoder.take<std::uint32_t>();
  found.hides_past = (decoder.take<std::uint8_t>() & kHidesPast) != 0;
  found.author = decoder.take_text();
  found.host = decoder.take_text();
  found.program = decoder.take_text();
  found.note = decoder.take_text();
  for (auto left = decoder.take<std::uint32_t>(); left > 0 && !decoder.failed(); --left) {
    const auto kind = decoder.take<std::uint8_t>();
    Change change;
    change.kind = static_cast<Change::Kind>(kind);
    change.id = decoder.take<std::uint64_t>();
    change.name = decoder.take_text();
    change.from = decoder.take_text();
    if (!decoder.failed() && !is_kind(kind)) return damaged("it lists an unknown kind of change");
    found.changes.push_back(std::move(change));
  }
  if (decoder.failed() || !decoder.at_end()) return damaged("its description has a wrong size");
  *record = std::move(found);
  return {};
}

Status visit_former_records(std::span<const std::byte> content, VisitFormer visit) {
  if (content.size() < kSizeField || content.size() < description_end(content)) return damaged("it is cut off");
  Decoder decoder(content.subspan(description_end(content)));
  while (!decoder.at_end()) {
    const auto key = decoder.take(decoder.take<std::uint16_t>());
    const auto size = decoder.take<std::uint32_t>();
    std::optional<std::span<const std::byte>> record;
    if (size != kNoFormerRecord) record = decoder.take(size);
    if (decoder.failed()) return damaged("a former record is cut off");
    if (Status status = visit(key, record); !status.ok()) return status;
  }
  return {};
}

}  // namespace tkv::store
