// Entry: one key with everything that belongs to it, outside any store. Names and values as the registry keeps them.
#ifndef TKV_TOOLS_TKV_ENTRY_H
#define TKV_TOOLS_TKV_ENTRY_H

#include <string>
#include <string_view>
#include <vector>

#include "registry/tree.h"
#include "sec_attr.h"
#include "values.h"

namespace tkv::command {

// What an entry says about its key. An entry that was read from a registry says all; one that a person wrote may leave
// out parts, and these stay as they are, or come from the session's default for a new key.
struct Entry {
  std::string name;  // full name
  sec_attr security{};
  StoredValue value;
  bool has_owner = true;
  bool has_group = true;
  bool has_mode = true;
  bool has_value = true;
};

// Copies of what a store gives for the time of a visit only.
StoredValue copied(const store::Value& value);
Entry copied(const registry::Entry& key, const store::Value& value);

// A subtree, its top first, in the order of names.
struct Snapshot {
  std::string top;
  std::vector<Entry> entries;
};

// The one order of names: parents before their subkeys, siblings by their bytes. So a subtree is one run.
bool name_before(std::string_view left, std::string_view right);

bool same_security(const sec_attr& left, const sec_attr& right);

// The same name below another top. `name` lies within `from`.
std::string rebased(std::string_view name, std::string_view from, std::string_view to);

// The name of a subkey.
std::string child_name(std::string_view parent, std::string_view level);

}  // namespace tkv::command

#endif
