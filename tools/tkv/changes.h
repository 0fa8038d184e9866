// Changes: how a subtree gets from what it is to what it should be, in one transaction.
#ifndef TKV_TOOLS_TKV_CHANGES_H
#define TKV_TOOLS_TKV_CHANGES_H

#include <cstdint>
#include <string>
#include <vector>

#include "entry.h"
#include "registry/registry.h"

namespace tkv::command {

// How a snapshot is brought into a registry.
enum class Manner {
  kAdd,     // what exists must be the same
  kMerge,   // what exists and is not in the snapshot stays
  kReplace  // what is not in the snapshot goes
};

struct Change {
  enum class Kind { kAdd, kChange, kRemove };
  Kind kind;
  Entry before;  // for kChange and kRemove
  Entry after;   // for kAdd and kChange, complete
};

struct Plan {
  std::vector<Change> changes;  // in the order of names
  std::uint64_t keys = 0;       // of the whole subtree as it will be

  std::uint64_t count(Change::Kind kind) const;
};

// Reads a subtree whole. Empty entries when the top does not exist. Needs the rights to read and list all of it.
Status read_snapshot(registry::Reader& reader, const std::string& top, Snapshot* snapshot,
                     FunctionRef<void(std::uint64_t keys)> progress);
Status read_snapshot(registry::Reader& reader, const std::string& top, Snapshot* snapshot);

// What has to change. `wanted` has the same top as `current`. What entries leave out comes from the key that is there,
// or from `fresh`. 55 for kAdd when something exists and differs.
Status make_plan(const Snapshot& current, const Snapshot& wanted, Manner manner, const sec_attr& fresh, Plan* plan);

// Makes a key what a change of kind kChange says.
Status change_key(registry::Writer& writer, const Change& change);

// Makes a plan's changes. The parent of its top exists.
Status apply_plan(registry::Writer& writer, const Plan& plan);

// Gives a snapshot another top. 5 when a name would go beyond the limits.
Status rebase(Snapshot* snapshot, const std::string& top);

// Copies, and gives the copies to the session's user and group.
Status copy_as_own(registry::Writer& writer, const std::string& from, const std::string& to, bool recursive,
                   bool replace);

}  // namespace tkv::command

#endif
