// What import and restore share: finding, showing and applying a difference.
#ifndef TKV_TOOLS_TKV_DIFFERENCE_H
#define TKV_TOOLS_TKV_DIFFERENCE_H

#include <cstdint>

#include "context.h"
#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

// Finds what bringing in `wanted` would change now. On Exit::kConflict, `*difference` is complete all the same.
Outcome find_difference(Context& context, const registry::Subtree& wanted, registry::MergeMode mode,
                        registry::Difference* difference);

struct ApplyRequest {
  registry::MergeMode mode = registry::MergeMode::kAdd;
  bool create_parents = false;
  const registry::Difference& expected;  // that was shown or agreed to
};

// Brings in `wanted`, in one transaction. Fails with Exit::kConflict if more keys would be deleted or changed by now
// than expected. `*changes` receives the number of changes made.
Outcome apply_difference(Context& context, const registry::Subtree& wanted, const ApplyRequest& request,
                         std::uint64_t* changes);

// Prints the lines of an export that would be removed (-) and added (+) or, with --json, the keys.
void print_difference(Context& context, const registry::Difference& difference);

// As diff(1): Exit::kDone if nothing differs, Exit::kOther without a text if something does.
Outcome outcome_of_dry_run(const registry::Difference& difference);

// Names the parts that an export or backup lacks since they could not be read, and says what that means: "not
// compared".
void name_left_out(const Context& context, const char* meaning, const registry::Subtree& saved);

// Reports what `verb` did.
void report_changes(Context& context, const char* verb, const registry::Subtree& wanted, std::uint64_t changes);

// Reports that an export or backup without keys changes nothing. Its top was damaged: what it lacks could not be read,
// and was not deleted.
Outcome report_nothing(Context& context, const char* verb, const registry::Subtree& wanted, bool dry_run);

}  // namespace tkv::command

#endif
