// What import and restore share: planning, showing and making a difference.
#ifndef TKV_TOOLS_TKV_DIFFERENCE_H
#define TKV_TOOLS_TKV_DIFFERENCE_H

#include <cstdint>
#include <string>

#include "changes.h"
#include "context.h"
#include "outcome.h"

namespace tkv::command {

// What would have to change now, in a registry that is open. On a conflict the plan holds it all the same.
Outcome plan_for(Context& context, const Snapshot& wanted, Manner manner, Plan* plan);

// Brings a snapshot in, in one transaction. 5 when by now more keys would be deleted or changed than by `expected`.
Outcome bring_in(Context& context, const Snapshot& wanted, Manner manner, bool parents, const Plan& expected,
                 std::uint64_t* changes);

// Prints the lines of an export that go (-) and come (+), or with --json the entries.
void print_difference(Context& context, const Plan& plan);

// Says what was done.
void report_changes(Context& context, const char* did, const Snapshot& wanted, std::uint64_t changes);

}  // namespace tkv::command

#endif
