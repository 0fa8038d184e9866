#include "registry/batch_writer.h"

#include <cstring>

#include "registry/new_keys.h"

namespace tkv::registry {
namespace {

Status conflict(const Condition& condition, const std::string& why) {
  return {PRTKV_CONFLICT, describe(condition.name) + " " + why};
}

Status check_value(Reader& tree, const Condition& condition) {
  store::Value found;
  if (Status status = tree.value({condition.name, condition.id}, &found); !status.ok()) return status;
  const auto wanted = condition.value.span();
  const bool is_equal = found.type == condition.value.type && found.bytes.size() == wanted.size() &&
                        (wanted.empty() || std::memcmp(found.bytes.data(), wanted.data(), wanted.size()) == 0);
  return is_equal ? Status() : conflict(condition, "has another value than the condition names");
}

Status check_revision(Reader& tree, const Condition& condition) {
  KeyInfo info;
  if (Status status = tree.stat_briefly({condition.name, condition.id}, &info); !status.ok()) return status;
  if (info.revision == condition.revision) return {};
  return conflict(condition, "was changed in revision " + std::to_string(info.revision) + ", not last in " +
                                 std::to_string(condition.revision));
}

Status check_existing(Reader& tree, const Condition& condition) {
  Place place;
  switch (condition.kind) {
    case Condition::Kind::kValue:
      return check_value(tree, condition);
    case Condition::Kind::kRevision:
      return check_revision(tree, condition);
    default:
      return tree.resolve({condition.name, condition.id}, &place);
  }
}

Status check_condition(Reader& tree, const Condition& condition) {
  if (Status status = check_name(condition.name); !status.ok()) return status;
  if (condition.kind != Condition::Kind::kAbsent) {
    const Status status = check_existing(tree, condition);
    return status.is(PRTKV_NO_SUCH_KEY) ? conflict(condition, "does not exist") : status;
  }
  bool exists = false;
  if (Status status = tree.exists(condition.name, &exists); !status.ok()) return status;
  return exists ? conflict(condition, "exists") : Status();
}

// What an operation creates has its own security record or, if it has none, that of the batch's new keys.
NewKeySecurity security_of(const Operation& operation, const NewKeySecurity& rules) {
  if (!operation.security) return rules;
  NewKeySecurity own;
  own.initial = *operation.security;
  return own;
}

Status create(Writer& tree, const Operation& operation, const NewKeySecurity& rules) {
  const NewKeySecurity security = security_of(operation, rules);
  if (operation.create_parents) {
    if (Status status = create_parents(tree, operation.name, security); !status.ok()) return status;
  }
  return create_key(tree, operation.name, operation.value, security);
}

Status put(Writer& tree, const Operation& operation, const NewKeySecurity& rules) {
  bool exists = false;
  if (Status status = tree.exists(operation.name, &exists); !status.ok()) return status;
  if (!exists) return create(tree, operation, rules);
  return tree.write_value(operation.name, operation.value.type, operation.value.span());
}

Status change_security(Writer& tree, const Operation& operation) {
  return tree.change_security(operation.name, operation.recursive, [&](sec_attr* security) -> Status {
    if (!operation.security) return operation.change.apply(security);
    *security = *operation.security;
    return {};
  });
}

Status make(Writer& tree, const Operation& operation, const NewKeySecurity& rules) {
  KeyId id = kAnyKey;
  switch (operation.kind) {
    case Operation::Kind::kPut:
      return put(tree, operation, rules);
    case Operation::Kind::kCreate:
      return create(tree, operation, rules);
    case Operation::Kind::kRemove:
      return tree.remove(operation.name, operation.recursive);
    case Operation::Kind::kMove:
      return tree.move(operation.name, "", operation.target, operation.replace, &id);
    case Operation::Kind::kCopy:
      return tree.copy(operation.name, operation.target,
                       {.recursive = operation.recursive, .replace = operation.replace, .own = operation.own});
    case Operation::Kind::kSecurity:
      return change_security(tree, operation);
  }
  return {PRTKV_INVALID_ARGUMENT, "an unknown kind of operation"};
}

}  // namespace

Status check_conditions(Reader& tree, const Batch& batch, CommitResult* result) {
  *result = {};
  for (std::size_t i = 0; i < batch.conditions.size(); ++i) {
    Status status = check_condition(tree, batch.conditions[i]);
    if (status.ok()) continue;
    result->failed_condition = i;
    return status;
  }
  return {};
}

Status write_batch(Writer& tree, const Batch& batch, CommitResult* result) {
  if (Status status = check_conditions(tree, batch, result); !status.ok()) return status;
  for (std::size_t i = 0; i < batch.operations.size(); ++i) {
    Status status = make(tree, batch.operations[i], batch.new_keys);
    if (status.ok()) continue;
    result->failed_operation = i;
    return status;
  }
  return {};
}

}  // namespace tkv::registry
