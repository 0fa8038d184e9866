#include "change_details.h"

#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "change_text.h"
#include "characters.h"
#include "description.h"
#include "json.h"
#include "masks.h"
#include "records.h"
#include "registry/access.h"
#include "values.h"

namespace tkv::command {
namespace {

using registry::Batch;
using registry::KeyReader;
using registry::KeyRef;
using registry::Operation;

using Sides = std::vector<KeySide>;

// Reads one key. One that is not there (any longer) is no failure.
Status read_key(KeyReader& reader, const KeyRef& key, Sides* sides) {
  registry::KeyInfo info;
  KeySide side;
  side.key.name = key.name;
  Status status = reader.read_key(key, &info, &side.key.value);
  if (status.is(PRTKV_NO_SUCH_KEY)) return {};
  side.denied = status.is(PRTKV_ACCESS_DENIED);
  if (!status.ok() && !side.denied) return status;
  if (side.denied) side.key.value = {};
  side.key.security = info.security;
  sides->push_back(std::move(side));
  return {};
}

// Reads a key and everything below it, as far as the caller may.
Status read_subtree(KeyReader& reader, const KeyRef& top, Sides* sides) {
  registry::WalkOptions options;
  options.values = true;
  options.denied = registry::WalkOptions::Denied::kSkip;
  const Status status = reader.walk(top, options, [&](const registry::WalkEntry& entry) {
    sides->push_back({record_of(entry), (entry.rights & TKV_RIGHT_READ) == 0});
    return Status();
  });
  return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

// Reads the side of a change that one state shows.
Status read_side(KeyReader& reader, const Change& change, Sides* sides) {
  switch (change.kind) {
    case Change::Kind::kMoved:
    case Change::Kind::kPurged:
      return {};
    case Change::Kind::kDeleted:
    case Change::Kind::kChangedAtOrBelow:
      return read_subtree(reader, {change.name, change.id}, sides);
    default:
      return read_key(reader, {change.name, change.id}, sides);
  }
}

// Opens a state, if it is retained.
Status open_state(registry::Client& client, Revision revision, std::unique_ptr<registry::Snapshot>* state) {
  const Status status = client.at(revision, state);
  return status.is(PRTKV_INVALID_ARGUMENT) ? Status() : status;
}

std::string security_line(const sec_attr& security) {
  return std::string(registry::user_of(security)) + ":" + std::string(registry::group_of(security)) + " " +
         mode_of(security);
}

bool same_security(const KeySide& one, const KeySide& other) {
  return security_line(one.key.security) == security_line(other.key.security);
}

class DetailPrinter {
 public:
  explicit DetailPrinter(Context& context) : context_(context) {}

  void print(const ChangeDetails& details) {
    const Change::Kind kind = details.change.kind;
    if (kind == Change::Kind::kMoved) context_.print(change_text(details.change));
    std::map<std::string_view, std::pair<const KeySide*, const KeySide*>> keys;
    for (const KeySide& side : details.before) keys[side.key.name].first = &side;
    for (const KeySide& side : details.after) keys[side.key.name].second = &side;
    for (const auto& [name, sides] : keys) print_key(kind, sides.first, sides.second);
  }

 private:
  void print_key(Change::Kind kind, const KeySide* before, const KeySide* after) {
    const bool both = before != nullptr && after != nullptr;
    const bool readable = both && !before->denied && !after->denied;
    const bool is_security = kind == Change::Kind::kSecurity;
    const bool security = (is_security || (kind == Change::Kind::kChangedAtOrBelow && both)) &&
                          !(readable && same_security(*before, *after));
    const bool value = !is_security && !(readable && before->key.value == after->key.value);
    if (value) print_sides(before, after, &DetailPrinter::value_text);
    if (security) print_sides(before, after, &DetailPrinter::security_text);
  }

  static std::string value_text(const KeySide& side) {
    if (side.denied) return "  (access denied)";
    const std::string line = one_line(side.key.value, 0);
    return line.empty() ? "" : " = " + line;
  }

  static std::string security_text(const KeySide& side) {
    return side.denied ? "  (access denied)" : "  (" + security_line(side.key.security) + ")";
  }

  void print_sides(const KeySide* before, const KeySide* after, std::string (*text)(const KeySide&)) {
    if (before != nullptr) print_line('-', Ink::kRemoved, shown_name(before->key.name) + text(*before));
    if (after != nullptr) print_line('+', Ink::kAdded, shown_name(after->key.name) + text(*after));
  }

  void print_line(char sign, Ink ink, const std::string& text) {
    const Terminal& terminal = context_.terminal();
    context_.output().line(painted(terminal, ink, sign + (" " + for_output(terminal, utf8_for_people(text)))));
  }

  Context& context_;
};

std::string side_json(const KeySide& side) {
  if (!side.denied) return record_line(side.key);
  return JsonObject().text("name", side.key.name).flag("denied", true).str();
}

std::string sides_json(const Sides& sides) {
  std::vector<std::string> keys;
  keys.reserve(sides.size());
  for (const KeySide& side : sides) keys.push_back(side_json(side));
  return json_array(keys);
}

// What an operation of a batch would do to the present.
class OperationReader {
 public:
  OperationReader(registry::Client& client, const Operation& operation, ChangeDetails* details)
      : client_(client), operation_(operation), details_(*details) {}

  Status read() {
    details_.change.name = operation_.name;
    switch (operation_.kind) {
      case Operation::Kind::kRemove:
        details_.change.kind = Change::Kind::kDeleted;
        return read_subtree(client_, operation_.name, &details_.before);
      case Operation::Kind::kMove:
        details_.change.kind = Change::Kind::kMoved;
        details_.change.name = operation_.target;
        details_.change.from = operation_.name;
        return {};
      case Operation::Kind::kSecurity:
        return read_security();
      default:
        return read_value();
    }
  }

 private:
  Status read_security() {
    details_.change.kind = Change::Kind::kSecurity;
    if (Status status = read_key(client_, operation_.name, &details_.before); !status.ok()) return status;
    add_after();
    return {};
  }

  Status read_value() {
    if (operation_.kind != Operation::Kind::kCreate) {
      if (Status status = read_key(client_, operation_.name, &details_.before); !status.ok()) return status;
    }
    details_.change.kind = details_.before.empty() ? Change::Kind::kCreated : Change::Kind::kValue;
    add_after();
    details_.after.front().key.value = operation_.value;
    return {};
  }

  void add_after() {
    KeySide after = details_.before.empty() ? KeySide() : details_.before.front();
    after.key.name = operation_.name;
    after.denied = false;
    if (operation_.security) after.key.security = *operation_.security;
    details_.after.push_back(std::move(after));
  }

  registry::Client& client_;
  const Operation& operation_;
  ChangeDetails& details_;
};

}  // namespace

Outcome read_details(registry::Client& client, const ChangeRecord& record, std::vector<ChangeDetails>* details,
                     bool* retained) {
  std::unique_ptr<registry::Snapshot> before;
  std::unique_ptr<registry::Snapshot> after;
  details->clear();
  if (Status opened = open_state(client, record.revision - 1, &before); !opened.ok()) return opened;
  if (Status opened = open_state(client, record.revision, &after); !opened.ok()) return opened;
  *retained = before != nullptr && after != nullptr;
  for (const Change& change : record.changes) {
    ChangeDetails found{change, {}, {}};
    if (before != nullptr) {
      if (Status read = read_side(*before, change, &found.before); !read.ok()) return read;
    }
    if (after != nullptr && change.kind != Change::Kind::kDeleted) {
      if (Status read = read_side(*after, change, &found.after); !read.ok()) return read;
    }
    details->push_back(std::move(found));
  }
  return {};
}

Outcome read_details(registry::Client& client, const Batch& batch, std::vector<ChangeDetails>* details) {
  details->clear();
  for (const Operation& operation : batch.operations) {
    ChangeDetails found;
    if (Status read = OperationReader(client, operation, &found).read(); !read.ok()) return read;
    details->push_back(std::move(found));
  }
  return {};
}

void print_details(Context& context, const std::vector<ChangeDetails>& details) {
  DetailPrinter printer(context);
  for (const ChangeDetails& each : details) printer.print(each);
}

std::vector<std::string> details_json(const std::vector<ChangeDetails>& details) {
  std::vector<std::string> objects;
  objects.reserve(details.size());
  for (const ChangeDetails& each : details) {
    JsonObject object;
    add_change(each.change, &object);
    if (each.change.kind != Change::Kind::kMoved) {
      object.raw("before", sides_json(each.before)).raw("after", sides_json(each.after));
    }
    objects.push_back(object.str());
  }
  return objects;
}

}  // namespace tkv::command
