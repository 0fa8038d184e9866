#include "store/lmdb/log.h"

#include "store/lmdb/file.h"
#include "store/lmdb/tree_cursor.h"

namespace tkv::store {
namespace {

Status read_part(const FileState& state, Revision revision, std::uint32_t number, ChangePart* part) {
  const Key key = Key::change(revision, number);
  TreeCursor cursor(state);
  bool found = false;
  std::span<const std::byte> record;
  if (PageDamage damage = cursor.seek(key.bytes(), &found)) return damaged_page(state.map, damage);
  if (!found) {
    return {PRTKV_STORAGE_FAILED, change_text(revision) + ": its part " + std::to_string(number) + " is missing"};
  }
  if (PageDamage damage = cursor.record(&record)) return damaged_page(state.map, damage);
  return decode_change(revision, number, record, part).about(change_text(revision));
}

}  // namespace

std::string change_text(Revision revision) { return "change " + std::to_string(revision); }

Status read_content(const FileState& state, Revision revision, ContentPart wanted, Bytes* buffer,
                    std::span<const std::byte>* content) {
  ChangePart part;
  if (Status status = read_part(state, revision, 0, &part); !status.ok()) return status;
  *content = part.bytes;
  const auto is_enough = [&] {
    return wanted == ContentPart::kDescription && content->size() >= description_end(*content);
  };
  if (part.parts == 1 || is_enough()) return {};
  buffer->assign(part.bytes.begin(), part.bytes.end());
  for (std::uint32_t number = 1; number < part.parts && !is_enough(); ++number) {
    ChangePart next;
    if (Status status = read_part(state, revision, number, &next); !status.ok()) return status;
    buffer->insert(buffer->end(), next.bytes.begin(), next.bytes.end());
    *content = *buffer;
  }
  return {};
}

Status read_change(const FileState& state, const Meta& meta, Revision revision, ChangeRecord* record) {
  if (revision <= meta.log_after || revision > meta.revision) return PRTKV_NO_SUCH_KEY;
  Bytes buffer;
  std::span<const std::byte> content;
  if (Status status = read_content(state, revision, ContentPart::kDescription, &buffer, &content); !status.ok()) {
    return status;
  }
  ChangeRecord found;
  found.revision = revision;
  if (Status status = decode_description(content, &found); !status.ok()) return status.about(change_text(revision));
  *record = std::move(found);
  return {};
}

}  // namespace tkv::store
