// Several keys, worked on one after the other.
#ifndef TKV_TOOLS_TKV_KEY_BY_KEY_H
#define TKV_TOOLS_TKV_KEY_BY_KEY_H

#include <string>
#include <vector>

#include "base/function_ref.h"
#include "context.h"
#include "outcome.h"

namespace tkv::command {

// The names of operands, as the registry keeps them. 2 when one makes no sense: then nothing is done with any.
Outcome key_names(const std::vector<std::string>& typed, std::vector<std::string>* names);

// Runs `work` on each key, whatever became of the one before, and says what went wrong with which. 9 when some were
// done and others not. With --json prints what `work` puts into `json` of those that were done: one object for one
// key, an array for several.
Outcome each_key(Context& context, const std::vector<std::string>& names,
                 FunctionRef<Outcome(const std::string& name, std::string* json)> work);

}  // namespace tkv::command

#endif
