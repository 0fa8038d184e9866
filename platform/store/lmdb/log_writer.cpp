#include "store/lmdb/log_writer.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <string_view>

namespace tkv::store {
namespace {

std::uint32_t parts_of(std::size_t content_size) {
  return static_cast<std::uint32_t>((content_size + kMaxChangePart - 1) / kMaxChangePart);
}

std::string_view text_of(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

Status LogWriter::keep_former(const Key& key) {
  if (retention_.off || hides_past_) return {};
  if (!kept_.emplace(text_of(key.bytes())).second) return {};
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = records_.get(key, &found, &record); !status.ok()) return status;
  formers_.add(key.bytes(), found ? std::optional(record) : std::nullopt);
  hides_past_ = formers_.bytes().size() > retention_.bytes;
  if (hides_past_) {
    formers_.clear();
    kept_.clear();
  }
  return {};
}

Status LogWriter::log(const ChangeDescription& description, Meta* meta) {
  std::uint32_t parts = 0;
  meta_ = meta;
  time_ = description.time;
  const Revision revision = ++meta_->revision;
  if (retention_.off) {
    meta_->log_after = meta_->oldest_state = revision;
    if (meta_->history_bytes != 0) return trim(parts);
    meta_->oldest_stored = revision + 1;
    return {};
  }
  if (hides_past_) meta_->oldest_state = revision;
  Bytes content = encode_description(description, hides_past_);
  content.insert(content.end(), formers_.bytes().begin(), formers_.bytes().end());
  if (Status status = put_content(revision, content, &parts); !status.ok()) return status;
  if (revision > retention_.changes) meta_->log_after = std::max(meta_->log_after, revision - retention_.changes);
  return trim(parts);
}

Status LogWriter::put_content(Revision revision, std::span<const std::byte> content, std::uint32_t* parts) {
  *parts = parts_of(content.size());
  for (std::uint32_t number = 0; number < *parts; ++number) {
    const auto bytes =
        content.subspan(number * kMaxChangePart, std::min(kMaxChangePart, content.size() - number * kMaxChangePart));
    const Key key = Key::change(revision, number);
    record_.resize(bytes.size() + kChangeRecordOverhead);
    encode_change(revision, number, {*parts, bytes}, record_);
    if (Status status = records_.put(key, record_, 0); !status.ok()) return status;
    meta_->history_bytes += key.bytes().size() + record_.size();
  }
  return {};
}

// Removes some of the oldest changes that nobody may read any longer: now and then a batch, which is cheaper than a few
// with each write, and always more than a large change has added.
Status LogWriter::trim(std::uint32_t parts) {
  constexpr Revision kInterval = 16;
  constexpr std::uint32_t kBatch = 64;
  std::uint32_t most = parts > 1 ? 2 * parts : 0;
  if (meta_->revision % kInterval == 0 || retention_.bytes == 0) most += kBatch;
  for (std::uint32_t removed = 0; removed < most;) {
    std::uint32_t parts_of_next = 0;
    if (Status status = trim_next(&parts_of_next); !status.ok()) return status;
    if (parts_of_next == 0) break;
    removed += parts_of_next;
  }
  meta_->oldest_state = std::max(meta_->oldest_state, meta_->log_after);
  return {};
}

// Removes the oldest change that is stored, if it is not to be retained. `*parts` is 0 if it is; a change that was
// never stored, since no history was kept then, counts as one part.
Status LogWriter::trim_next(std::uint32_t* parts) {
  const Revision oldest = meta_->oldest_stored;
  *parts = 0;
  if (oldest >= meta_->revision) return {};
  if (oldest > meta_->log_after) {
    bool retained = true;
    if (Status status = check_retained(oldest, &retained); !status.ok() || retained) return status;
    meta_->log_after = oldest;
  }
  std::uint32_t removed = 0;
  if (Status status = remove_content(oldest, &removed); !status.ok()) return status;
  *parts = std::max(removed, 1u);
  ++meta_->oldest_stored;
  return {};
}

// Tells whether size and age allow a change of the log to stay.
Status LogWriter::check_retained(Revision revision, bool* retained) {
  *retained = meta_->history_bytes <= retention_.bytes;
  if (!*retained || time_ == 0) return {};
  bool found = false;
  std::span<const std::byte> record;
  ChangePart part;
  std::int64_t time = 0;
  if (Status status = records_.get(Key::change(revision, 0), &found, &record); !status.ok()) return status;
  // What is damaged stays for a check to find.
  if (!found || !decode_change(revision, 0, record, &part).ok() || !decode_time(part.bytes, &time).ok()) return {};
  *retained = time >= time_ - std::chrono::microseconds(retention_.age).count();
  return {};
}

// Rewrites the changes that hold a former value of one of the nodes.
Status LogWriter::purge(std::span<const NodeId> nodes, const ChangeDescription& description, Meta* meta,
                        std::uint64_t* removed) {
  std::set<std::string, std::less<>> keys;
  *removed = 0;
  meta_ = meta;
  time_ = description.time;
  for (const NodeId id : nodes) {
    const Key key = Key::value(id);
    keys.emplace(text_of(key.bytes()));
  }
  for (std::uint32_t parts = 1; parts != 0;) {  // what nobody may read any longer may still be in the file
    if (Status status = trim_next(&parts); !status.ok()) return status;
  }
  for (Revision revision = meta_->log_after + 1; revision <= meta_->revision; ++revision) {
    if (Status status = purge_change(revision, keys, removed); !status.ok()) return status;
  }
  return {};
}

Status LogWriter::purge_change(Revision revision, const std::set<std::string, std::less<>>& keys,
                               std::uint64_t* removed) {
  Bytes buffer;
  std::span<const std::byte> content;
  FormerRecords kept;
  std::uint64_t found = 0;
  if (Status status = read_content(former_, revision, ContentPart::kWhole, &buffer, &content); !status.ok()) {
    return status;
  }
  const auto keep = [&](std::span<const std::byte> key, std::optional<std::span<const std::byte>> record) {
    const bool is_purged = record && keys.contains(text_of(key));
    if (is_purged) ++found;
    kept.add(key, is_purged ? std::nullopt : record);
    return Status();
  };
  if (Status status = visit_former_records(content, keep).about(change_text(revision)); !status.ok()) return status;
  if (found == 0) return {};
  *removed += found;
  const auto description = content.first(description_end(content));
  Bytes purged(description.begin(), description.end());
  purged.insert(purged.end(), kept.bytes().begin(), kept.bytes().end());
  std::uint32_t parts = 0;
  if (Status status = remove_content(revision, &parts); !status.ok()) return status;
  return put_content(revision, purged, &parts);
}

// Removes the parts of a change, up to the first one that is missing, and counts them. A short part tells that it is
// the last one: so most changes, which have one part, need no look for another. It is on the leaf page itself. A longer
// one is not read: a page of it that the disk cannot deliver would end the process.
Status LogWriter::remove_content(Revision revision, std::uint32_t* parts) {
  constexpr std::size_t kMostOnLeaf = 1000;
  std::uint32_t all = std::numeric_limits<std::uint32_t>::max();
  for (*parts = 0; *parts < all; ++*parts) {
    const Key key = Key::change(revision, *parts);
    bool found = false;
    std::span<const std::byte> record;
    if (Status status = records_.get(key, &found, &record); !status.ok() || !found) return status;
    const std::uint64_t bytes = key.bytes().size() + record.size();
    const bool is_short = record.size() <= kMostOnLeaf;
    ChangePart part;
    if (is_short && decode_change(revision, *parts, record, &part).ok()) all = part.parts;
    if (Status status = records_.remove(key); !status.ok()) return status;
    meta_->history_bytes -= std::min(meta_->history_bytes, bytes);
  }
  return {};
}

}  // namespace tkv::store
