// Batch: changes that are made all or nothing, under conditions.
#ifndef TKV_PLATFORM_REGISTRY_BATCH_H
#define TKV_PLATFORM_REGISTRY_BATCH_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/change.h"
#include "registry/key_values.h"
#include "sec_attr.h"

namespace tkv::registry {

// What must hold for a batch to be made. Looked at on the state before the batch.
struct Condition {
  enum class Kind {
    kAbsent,    // there is no key of this name. Needs no right
    kExists,    // there is one. Needs no right
    kValue,     // it exists, and its value is `value`; type 0 without bytes: it has none. Needs TKV_RIGHT_READ
    kRevision,  // it exists, and its last change (KeyInfo::revision) was `revision`. Needs TKV_RIGHT_READ
    kSubtree,   // it exists, it is one of exactly `keys` keys at and below it, and none of these was changed after
                // `revision`. Passes over what the identity may not list, and over changes of what it may not read
  };
  Kind kind = Kind::kExists;
  std::string name = {};
  TypedValue value = {};
  Revision revision = 0;
  std::uint64_t keys = 0;
  KeyId id = kAnyKey;  // of all kinds but kAbsent: and it is this key
};

// One change of a batch. It sees the changes before it in the batch.
struct Operation {
  enum class Kind {
    kPut,       // writes `value`. A missing key is created as by kCreate
    kCreate,    // creates the key with `value` and with `security` or, if that is not given, as Batch::new_keys says.
                // PRTKV_KEY_EXISTS if there is one
    kRemove,    // as Client::remove: `recursive`
    kMove,      // as Client::move, to the full name `target`: `replace`
    kCopy,      // as Client::copy, to the full name `target`: `recursive`, `replace`, `own`
    kSecurity,  // replaces the security record by `security` or, if that is not given, applies `change`: `recursive`
  };
  Kind kind = Kind::kPut;
  std::string name = {};  // full name
  std::string target = {};
  TypedValue value = {};
  std::optional<sec_attr> security = {};
  SecurityChange change = {};
  bool create_parents = false;  // of kPut and kCreate: missing ancestors too, without values, with the same security
  bool recursive = false;
  bool replace = false;
  bool own = false;
};

struct Batch {
  std::vector<Condition> conditions = {};
  std::vector<Operation> operations = {};
  NewKeySecurity new_keys = {};
};

struct CommitResult {
  Revision revision = 0;  // of the change or, if the batch changed nothing, of the state that it was compared with
  // After PRTKV_CONFLICT, the index of the first condition that does not hold; after another failure of one operation,
  // the index of that operation.
  std::optional<std::size_t> failed_condition = {};
  std::optional<std::size_t> failed_operation = {};
};

}  // namespace tkv::registry

#endif
