#include "registry/batch_writer.h"

#include <algorithm>
#include <cstring>
#include <utility>

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

Status read_extent(Reader& tree, const KeyRef& key, std::uint64_t* keys, Revision* latest) {
  WalkOptions options;
  options.values = true;
  options.denied = WalkOptions::Denied::kSkip;
  *keys = 0;
  *latest = 0;
  return tree.walk(key, options, [&](const WalkEntry& entry) {
    ++*keys;
    *latest = std::max(*latest, entry.revision);
    return Status();
  });
}

Status check_subtree(Reader& tree, const Condition& condition) {
  std::uint64_t keys = 0;
  Revision latest = 0;
  Status status = read_extent(tree, {condition.name, condition.id}, &keys, &latest);
  if (!status.ok()) return status;
  if (latest > condition.revision) {
    return conflict(condition, "or a key below it was changed in revision " + std::to_string(latest) + ", after " +
                                   std::to_string(condition.revision));
  }
  if (keys == condition.keys) return {};
  return conflict(condition, "is one of " + std::to_string(keys) + " keys at and below it, not of " +
                                 std::to_string(condition.keys));
}

Status check_existing(Reader& tree, const Condition& condition) {
  Place place;
  switch (condition.kind) {
    case Condition::Kind::kValue:
      return check_value(tree, condition);
    case Condition::Kind::kRevision:
      return check_revision(tree, condition);
    case Condition::Kind::kSubtree:
      return check_subtree(tree, condition);
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

// What is to hold of a key that is written or moved.
Status expect_key(Reader& present, const std::string& name, Batch* batch) {
  Place place;
  KeyInfo info;
  Condition condition{.kind = Condition::Kind::kRevision, .name = name};
  Status status = present.resolve(name, &place);
  if (status.ok()) status = present.stat_briefly({name, place.node.id}, &info);
  condition.id = place.node.id;
  condition.revision = info.revision;
  if (status.is(PRTKV_ACCESS_DENIED)) condition.kind = Condition::Kind::kExists;
  if (status.is(PRTKV_NO_SUCH_KEY)) condition = {.kind = Condition::Kind::kAbsent, .name = name};
  batch->conditions.push_back(std::move(condition));
  return status.is(PRTKV_ACCESS_DENIED) || status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

Status expect_subtree(Reader& present, const std::string& name, Batch* batch) {
  Place place;
  Condition condition{.kind = Condition::Kind::kSubtree, .name = name};
  Status status = present.resolve(name, &place);
  if (status.ok()) {
    condition.id = place.node.id;
    status = read_extent(present, {name, place.node.id}, &condition.keys, &condition.revision);
  }
  if (status.is(PRTKV_NO_SUCH_KEY)) condition = {.kind = Condition::Kind::kAbsent, .name = name};
  batch->conditions.push_back(std::move(condition));
  return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

}  // namespace

Status expect_present(Reader& present, Batch* batch) {
  batch->conditions.clear();
  for (const Operation& operation : batch->operations) {
    const bool is_subtree = operation.kind == Operation::Kind::kRemove && operation.recursive;
    Status status =
        is_subtree ? expect_subtree(present, operation.name, batch) : expect_key(present, operation.name, batch);
    if (!status.ok()) return status;
  }
  return {};
}

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
