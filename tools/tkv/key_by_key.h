// Processing several keys one after the other.
#ifndef TKV_TOOLS_TKV_KEY_BY_KEY_H
#define TKV_TOOLS_TKV_KEY_BY_KEY_H

#include <string>
#include <vector>

#include "base/function_ref.h"
#include "context.h"
#include "outcome.h"

namespace tkv::command {

// Converts the names of keys from the command line to the registry's form. Fails with Exit::kUsage if any is malformed.
Outcome key_names(const std::vector<std::string>& typed, std::vector<std::string>* names);

// Runs `work` on each key, also after failures, and reports each failure. Fails with Exit::kPartly if some succeeded
// and others not. With --json, prints what `work` stores in `*json` for those that succeeded: one object for one key,
// an array for several.
Outcome each_key(Context& context, const std::vector<std::string>& names,
                 FunctionRef<Outcome(const std::string& name, std::string* json)> work);

}  // namespace tkv::command

#endif
