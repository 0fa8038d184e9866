#include "batch_request.h"

#include <cstdint>

#include "registry/access.h"

namespace tkv::java {
namespace {

using registry::Condition;
using registry::Operation;

// As Batch.java names them. Do not change one side alone.
constexpr std::int32_t kTree = 1;
constexpr std::int32_t kReplace = 2;
constexpr std::int32_t kOwn = 4;
constexpr std::int32_t kCreatesParents = 1;
static_assert(Condition::Kind{0} == Condition::Kind::kAbsent && Condition::Kind{1} == Condition::Kind::kExists &&
              Condition::Kind{2} == Condition::Kind::kValue && Condition::Kind{3} == Condition::Kind::kRevision);
static_assert(Operation::Kind{0} == Operation::Kind::kPut && Operation::Kind{1} == Operation::Kind::kCreate &&
              Operation::Kind{2} == Operation::Kind::kRemove && Operation::Kind{3} == Operation::Kind::kMove &&
              Operation::Kind{4} == Operation::Kind::kCopy && Operation::Kind{5} == Operation::Kind::kSecurity);

registry::TypedValue read_value(DataReader& from) {
  registry::TypedValue value;
  value.type = from.word32();
  value.bytes = from.text();
  return value;
}

bool read_condition(DataReader& from, Condition* condition) {
  condition->kind = static_cast<Condition::Kind>(from.word32());
  condition->name = from.text();
  switch (condition->kind) {
    case Condition::Kind::kAbsent:
    case Condition::Kind::kExists:
      return from.complete();
    case Condition::Kind::kValue:
      condition->value = read_value(from);
      return from.complete();
    case Condition::Kind::kRevision:
      condition->revision = static_cast<Revision>(from.word64());
      return from.complete();
    case Condition::Kind::kSubtree:
      break;  // not part of the Java API
  }
  return false;
}

bool read_operation(DataReader& from, Operation* operation) {
  operation->kind = static_cast<Operation::Kind>(from.word32());
  const std::int32_t flags = from.word32();
  operation->recursive = (flags & kTree) != 0;
  operation->replace = (flags & kReplace) != 0;
  operation->own = (flags & kOwn) != 0;
  operation->name = from.text();
  switch (operation->kind) {
    case Operation::Kind::kPut:
    case Operation::Kind::kCreate:
      operation->value = read_value(from);
      return from.complete();
    case Operation::Kind::kRemove:
      return from.complete();
    case Operation::Kind::kMove:
    case Operation::Kind::kCopy:
      operation->target = from.text();
      return from.complete();
    case Operation::Kind::kSecurity:
      operation->change = read_security(from).specified;
      return from.complete();
  }
  return false;
}

}  // namespace

bool read_batch(DataReader& from, const Identity& identity, BatchRequest* request) {
  request->note = from.text();
  const bool creates_parents = (from.word32() & kCreatesParents) != 0;
  const KeySecurity security = read_security(from);
  request->batch.new_keys = {registry::default_security(identity), security.inherits, security.specified};
  for (std::int32_t left = from.word32(); left > 0; --left) {
    if (!read_condition(from, &request->batch.conditions.emplace_back())) return false;
  }
  while (!from.at_end()) {
    Operation& operation = request->batch.operations.emplace_back();
    if (!read_operation(from, &operation)) return false;
    operation.create_parents = creates_parents;
  }
  return from.complete();
}

}  // namespace tkv::java
