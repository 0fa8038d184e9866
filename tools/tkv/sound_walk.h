// Walks that may leave out damaged keys, for export and backup.
#ifndef TKV_TOOLS_TKV_SOUND_WALK_H
#define TKV_TOOLS_TKV_SOUND_WALK_H

#include <string>
#include <vector>

#include "base/function_ref.h"
#include "context.h"
#include "registry/client.h"

namespace tkv::command {

struct SkippedParts {
  std::uint64_t count = 0;        // of keys that are missing (with their subkeys), of values, and of lists of subkeys
  std::vector<std::string> keys;  // that are missing, or lack subkeys, as in Subtree::left_out

  // Exit::kPartly if anything was left out.
  Outcome outcome(const char* what) const;
};

// Walks a subtree with values. With `skip_damaged`, reports what is damaged on standard error and leaves it out: a key
// with its subkeys, or only the value of a key, which is visited without one. If the top is damaged, nothing is
// visited.
Status walk_sound_keys(Context& context, const std::string& top, bool skip_damaged, SkippedParts* skipped,
                       FunctionRef<Status(const registry::WalkEntry& entry)> visit);

}  // namespace tkv::command

#endif
