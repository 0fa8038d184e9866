// States of the registry as the command line names them.
//
//   17                        the state after change 17
//   now                       the latest state
//   2026-02-28T12:30:05Z      the latest state at that time, UTC
//   2026-02-28T12:30:05+01:00 with the distance from UTC
//   2026-02-28T12:30:05.250   local time
//   2026-02-28 12:30          seconds, and the time of day, may be missing; a blank may stand for the T
//   2 hours ago               seconds, minutes, hours, days or weeks
//
// A time is compared with the clocks of those who made the changes. One without a fraction of a second includes the
// whole second: the time that `tkv log` shows for a change leads to the state after it.
#ifndef TKV_TOOLS_TKV_STATE_ARGUMENT_H
#define TKV_TOOLS_TKV_STATE_ARGUMENT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/change.h"
#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

// Parses a revision that stands alone. Fails with Exit::kUsage; `what` names the argument.
Outcome parse_revision(const char* what, const std::string& word, Revision* revision);

class StateArgument {
 public:
  // Fails with Exit::kUsage.
  static Outcome parse(const std::string& word, StateArgument* state);

  // The revision of the state. Fails with Exit::kNotFound if a time is given that the log does not reach back to.
  Outcome find(registry::Client& client, Revision* revision) const;

  // The revision after which the log has what `--since` with this argument asks for: changes after a revision, or of a
  // time and later. It is zero if the log does not reach back to that time.
  Outcome find_before(registry::Client& client, Revision* revision) const;

  // Opens the state for reading. Fails with Exit::kNotFound, and says what can be read, if it is not retained.
  Outcome open(registry::Client& client, std::unique_ptr<registry::Snapshot>* snapshot) const;

 private:
  enum class Kind { kLatest, kRevision, kTime };

  Kind kind_ = Kind::kLatest;
  Revision revision_ = 0;
  std::int64_t first_ = 0;  // microseconds since 1970 that the time stands for
  std::int64_t last_ = 0;
};

// KEY or KEY@STATE.
struct KeyAtState {
  std::string name = {};  // in the registry's form
  std::optional<StateArgument> state = {};
};

// Takes what follows the last "@" as a state if it reads as one, and otherwise as a part of the name. Fails with
// Exit::kUsage if the name is malformed. To name a key whose name ends in "@17", write "@now" behind it.
Outcome parse_key_at_state(const std::string& word, KeyAtState* key);

// A time of the log, in microseconds since 1970, to the second: "2026-02-28T12:30:05Z".
std::string shown_time(std::int64_t time);

// The same with all digits, for programs: "2026-02-28T12:30:05.000250Z".
std::string exact_time(std::int64_t time);

}  // namespace tkv::command

#endif
