// The C functions of the registry's history, declared in platform/if/prtkv_changes.h.
#include "prtkv_changes.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "registry/c_arguments.h"
#include "registry/contexts.h"
#include "registry/session.h"

namespace {

using namespace tkv::registry;
using tkv::Change;
using tkv::ChangeRecord;
using tkv::LogPosition;
using tkv::Revision;
using tkv::Status;

static_assert(PRTKV_CHANGE_CREATED == static_cast<int>(Change::Kind::kCreated) &&
              PRTKV_CHANGE_VALUE == static_cast<int>(Change::Kind::kValue) &&
              PRTKV_CHANGE_SECURITY == static_cast<int>(Change::Kind::kSecurity) &&
              PRTKV_CHANGE_MOVED == static_cast<int>(Change::Kind::kMoved) &&
              PRTKV_CHANGE_DELETED == static_cast<int>(Change::Kind::kDeleted) &&
              PRTKV_CHANGE_BELOW == static_cast<int>(Change::Kind::kChangedAtOrBelow) &&
              PRTKV_CHANGE_PURGED == static_cast<int>(Change::Kind::kPurged));

Status invalid(const char* what, std::int64_t value) {
  return {PRTKV_INVALID_ARGUMENT, std::string("invalid argument: ") + what + " " + std::to_string(value)};
}

TypedValue value_of(std::int32_t type, const void* value, std::uint32_t size) {
  return {type, std::string(static_cast<const char*>(size == 0 ? "" : value), size)};
}

Status take_condition(const prtkv_condition& given, Condition* condition) {
  switch (given.kind) {
    case PRTKV_IF_ABSENT:
      condition->kind = Condition::Kind::kAbsent;
      break;
    case PRTKV_IF_EXISTS:
      condition->kind = Condition::Kind::kExists;
      break;
    case PRTKV_IF_VALUE:
      condition->kind = Condition::Kind::kValue;
      break;
    case PRTKV_IF_REVISION:
      condition->kind = Condition::Kind::kRevision;
      break;
    default:
      return invalid("condition", given.kind);
  }
  if (Status status = demand({{given.name, "name of a condition"}}); !status.ok()) return status;
  if (Status status = check_value(given.value, given.size); !status.ok()) return status;
  condition->name = text(given.name);
  condition->value = value_of(given.type, given.value, given.size);
  condition->revision = given.revision;
  return {};
}

struct OperationKind {
  std::int32_t code;
  Operation::Kind kind;
  std::uint32_t flags;  // that it knows
  bool has_target;
  bool has_security;
};

constexpr OperationKind kOperations[] = {
    {PRTKV_DO_PUT, Operation::Kind::kPut, PRTKV_CREATE_PARENTS, false, true},
    {PRTKV_DO_CREATE, Operation::Kind::kCreate, PRTKV_CREATE_PARENTS, false, true},
    {PRTKV_DO_DELETE, Operation::Kind::kRemove, PRTKV_WITH_SUBKEYS, false, false},
    {PRTKV_DO_MOVE, Operation::Kind::kMove, PRTKV_REPLACE, true, false},
    {PRTKV_DO_COPY, Operation::Kind::kCopy, PRTKV_WITH_SUBKEYS | PRTKV_REPLACE, true, false},
    {PRTKV_DO_SECURITY, Operation::Kind::kSecurity, PRTKV_WITH_SUBKEYS, false, true}};

Status take_operation(const prtkv_operation& given, Operation* operation) {
  const OperationKind* kind = nullptr;
  for (const OperationKind& each : kOperations) {
    if (each.code == given.kind) kind = &each;
  }
  if (kind == nullptr) return invalid("operation", given.kind);
  if ((given.flags & ~kind->flags) != 0) return invalid("flags", given.flags);
  if (Status status = demand({{given.name, "name of an operation"}}); !status.ok()) return status;
  if (Status status = check_value(given.value, given.size); !status.ok()) return status;
  if (kind->has_target) {
    if (Status status = demand({{given.target, "target"}}); !status.ok()) return status;
    operation->target = text(given.target);
  }
  if (kind->has_security) operation->security = given.sec;
  operation->kind = kind->kind;
  operation->name = text(given.name);
  operation->value = value_of(given.type, given.value, given.size);
  operation->recursive = (given.flags & PRTKV_WITH_SUBKEYS) != 0;
  operation->replace = (given.flags & PRTKV_REPLACE) != 0;
  operation->create_parents = (given.flags & PRTKV_CREATE_PARENTS) != 0;
  return {};
}

Status take_batch(const prtkv_condition* conditions, std::uint32_t condition_count, const prtkv_operation* operations,
                  std::uint32_t operation_count, Batch* batch) {
  if (condition_count > 0) {
    if (Status status = demand({{conditions, "conditions"}}); !status.ok()) return status;
  }
  if (operation_count > 0) {
    if (Status status = demand({{operations, "operations"}}); !status.ok()) return status;
  }
  batch->conditions.resize(condition_count);
  batch->operations.resize(operation_count);
  for (std::uint32_t i = 0; i < condition_count; ++i) {
    if (Status status = take_condition(conditions[i], &batch->conditions[i]); !status.ok()) return status;
  }
  for (std::uint32_t i = 0; i < operation_count; ++i) {
    if (Status status = take_operation(operations[i], &batch->operations[i]); !status.ok()) return status;
  }
  return {};
}

prtkv_change shown(const ChangeRecord& record, const Change& change) {
  return {.revision = record.revision,
          .time = record.time,
          .author = record.author.c_str(),
          .host = record.host.c_str(),
          .program = record.program.c_str(),
          .process = record.process,
          .kind = static_cast<std::int32_t>(change.kind),
          .note = record.note.c_str(),
          .name = change.name.c_str(),
          .from = change.from.c_str()};
}

// Takes the answer of a visitor that ended a visit to the caller.
struct Ending {
  std::int32_t answer = 0;

  Status of(std::int32_t given) {
    answer = given;
    return given == 0 ? Status() : Status(PRTKV_UNKNOWN, "the visit was ended");
  }
};

}  // namespace

int32_t prtkv_get_revision(prtkv_ctx ctx, uint64_t* revision) {
  return with_session(ctx, [&](Session& session) {
    Status status = demand({{revision, "revision"}});
    return status.ok() ? session.client().revision(revision) : status;
  });
}

int32_t prtkv_get_key_revision(prtkv_ctx ctx, prtkv_key key, uint64_t* revision) {
  return with_session(ctx, [&](Session& session) {
    Status status = demand({{revision, "revision"}});
    return status.ok() ? session.get_revision(key, revision) : status;
  });
}

int32_t prtkv_get_value_at(prtkv_ctx ctx, uint64_t revision, const char* name, int32_t* type, void* buffer,
                           uint32_t* size) {
  return with_session(ctx, [&](Session& session) -> Status {
    std::unique_ptr<Snapshot> snapshot;
    TypedValue value;
    Status status = demand({{name, "name"}, {type, "type"}, {size, "size"}});
    if (status.ok() && *size > 0) status = demand({{buffer, "buffer"}});
    if (status.ok()) status = session.client().at(revision, &snapshot);
    if (status.ok()) status = snapshot->read_value(text(name), &value);
    if (!status.ok()) return status;
    const std::uint32_t offered = *size;
    *size = static_cast<std::uint32_t>(value.bytes.size());
    if (*size > offered) {
      return {PRTKV_BUFFER_TOO_SMALL,
              "the buffer has " + std::to_string(offered) + " bytes, and " + std::to_string(*size) + " are needed"};
    }
    *type = value.type;
    if (*size > 0) std::memcpy(buffer, value.bytes.data(), *size);
    return {};
  });
}

int32_t prtkv_list_at(prtkv_ctx ctx, uint64_t revision, const char* name,
                      int32_t (*visit)(void* data, const char* subkey), void* data) {
  Ending ending;
  const int32_t code = with_session(ctx, [&](Session& session) -> Status {
    std::unique_ptr<Snapshot> snapshot;
    Status status = demand({{name, "name"}, {reinterpret_cast<const void*>(visit), "visit"}});
    if (status.ok()) status = session.client().at(revision, &snapshot);
    if (!status.ok()) return status;
    return snapshot->list(text(name), false, [&](const Subkey& subkey) {
      return ending.of(visit(data, std::string(subkey.level).c_str()));
    });
  });
  return ending.answer != 0 ? ending.answer : code;
}

int32_t prtkv_commit(prtkv_ctx ctx, const prtkv_condition* conditions, uint32_t condition_count,
                     const prtkv_operation* operations, uint32_t operation_count, const char* note, uint64_t* revision,
                     uint32_t* failed) {
  return with_session(ctx, [&](Session& session) -> Status {
    Batch batch;
    CommitResult result;
    Status status = take_batch(conditions, condition_count, operations, operation_count, &batch);
    if (!status.ok()) return status;
    status = note == nullptr ? session.client().commit(batch, &result)
                             : session.client().with_note(note)->commit(batch, &result);
    const std::optional<std::size_t> index =
        result.failed_condition ? result.failed_condition : result.failed_operation;
    if (failed != nullptr && index) *failed = static_cast<std::uint32_t>(*index);
    if (revision != nullptr && status.ok()) *revision = result.revision;
    return status;
  });
}

int32_t prtkv_changes_since(prtkv_ctx ctx, uint64_t* revision, const char* name,
                            int32_t (*visit)(void* data, const prtkv_change* change), void* data, int32_t* lost) {
  Ending ending;
  const int32_t code = with_session(ctx, [&](Session& session) -> Status {
    LogPosition position;
    Status status = demand(
        {{revision, "revision"}, {name, "name"}, {reinterpret_cast<const void*>(visit), "visit"}, {lost, "lost"}});
    if (!status.ok()) return status;
    ChangeQuery query;
    query.range.after = *revision;
    query.range.only_complete = true;
    query.name = text(name);
    const auto visit_each = [&](const ChangeRecord& record) -> Status {
      for (const Change& change : record.changes) {
        const prtkv_change given = shown(record, change);
        if (Status ended = ending.of(visit(data, &given)); !ended.ok()) return ended;
      }
      return {};
    };
    status = session.client().changes_since(query, visit_each, &position);
    if (!status.ok()) return status;
    *revision = position.revision;
    *lost = position.complete ? 0 : 1;
    return {};
  });
  return ending.answer != 0 ? ending.answer : code;
}

int32_t prtkv_wait(prtkv_ctx ctx, uint64_t after, int32_t timeout_ms, uint64_t* revision) {
  std::shared_ptr<Client> client;
  std::stop_token stop;
  const int32_t code = with_session(ctx, [&](Session& session) {
    client = session.shared_client();
    stop = session.waits();
    return demand({{revision, "revision"}});
  });
  if (code != PRTKV_DONE) return code;
  const auto timeout = timeout_ms < 0 ? std::chrono::milliseconds::max() : std::chrono::milliseconds(timeout_ms);
  Revision latest = 0;
  Status waited = without_session([&] { return client->wait(after, timeout, stop, &latest); });
  if (waited.ok()) *revision = latest;
  if (stop.stop_requested()) return waited.code();  // the context may be gone
  return with_session(ctx, [&](Session&) { return waited; });
}

int32_t prtkv_stop_waiting(prtkv_ctx ctx) {
  return with_session(ctx, [](Session& session) {
    session.stop_waiting();
    return Status();
  });
}
