#include "change_text.h"

#include "characters.h"
#include "context.h"
#include "state_argument.h"

namespace tkv::command {
namespace {
constexpr std::size_t kShownChanges = 3;
}

const char* kind_name(Change::Kind kind) {
  switch (kind) {
    case Change::Kind::kCreated:
      return "created";
    case Change::Kind::kValue:
      return "value";
    case Change::Kind::kSecurity:
      return "security";
    case Change::Kind::kMoved:
      return "moved";
    case Change::Kind::kDeleted:
      return "deleted";
    case Change::Kind::kChangedAtOrBelow:
      return "subtree";
    case Change::Kind::kPurged:
      return "purged";
  }
  return "unknown";
}

std::string change_text(const Change& change) {
  const std::string kind = kind_name(change.kind);
  if (change.kind != Change::Kind::kMoved) return kind + " " + shown_name(change.name);
  return kind + " " + shown_name(change.from) + " to " + shown_name(change.name);
}

std::string changes_text(const ChangeRecord& record) {
  std::string text;
  for (std::size_t at = 0; at < record.changes.size(); ++at) {
    if (at == kShownChanges) return text + " and " + std::to_string(record.changes.size() - at) + " more";
    text += (at == 0 ? "" : ", ") + change_text(record.changes[at]);
  }
  return text;
}

std::string author_text(const ChangeRecord& record) {
  return record.author + " on " + record.host + ", " + record.program + " (" + std::to_string(record.process) + ")";
}

void add_change(const Change& change, JsonObject* object) {
  object->raw("kind", json_string(kind_name(change.kind))).text("name", change.name);
  if (change.kind == Change::Kind::kMoved) object->text("from", change.from);
}

void add_author(const ChangeRecord& record, JsonObject* object) {
  object->number("revision", record.revision)
      .raw("time", json_string(exact_time(record.time)))
      .utf8("author", record.author)
      .utf8("host", record.host)
      .utf8("program", record.program)
      .number("process", record.process);
  if (!record.note.empty()) object->utf8("note", record.note);
}

}  // namespace tkv::command
