// Changes with the keys as they were before and after.
#ifndef TKV_TOOLS_TKV_CHANGE_DETAILS_H
#define TKV_TOOLS_TKV_CHANGE_DETAILS_H

#include <string>
#include <vector>

#include "base/change.h"
#include "context.h"
#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

// What the caller may not read is marked, and has no value. So is what is no longer retained.
struct KeySide {
  registry::KeyRecord key;
  bool denied = false;
};

// Of a move, neither side: it changes no key but its name.
struct ChangeDetails {
  Change change;
  std::vector<KeySide> before;  // keys in the order of names
  std::vector<KeySide> after;
};

// Reads the keys around a change. `*retained` is false if the state before it can no longer be read.
Outcome read_details(registry::Client& client, const ChangeRecord& record, std::vector<ChangeDetails>* details,
                     bool* retained);

// Reads what a batch would change now.
Outcome read_details(registry::Client& client, const registry::Batch& batch, std::vector<ChangeDetails>* details);

// Prints a line for each value or security record that is removed (-) or added (+).
void print_details(Context& context, const std::vector<ChangeDetails>& details);

// One object for each change, as add_change, with "before" and "after": arrays of keys as export writes them.
std::vector<std::string> details_json(const std::vector<ChangeDetails>& details);

}  // namespace tkv::command

#endif
