// The registry's history as values: revisions, and records of what was changed, when and by whom.
//
// Every write that is committed has a revision, a number that only grows within the life of one registry. Revision 0 is
// a fresh registry. Numbers may be skipped.
#ifndef TKV_PLATFORM_BASE_CHANGE_H
#define TKV_PLATFORM_BASE_CHANGE_H

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace tkv {

using Revision = std::uint64_t;
constexpr Revision kNewestRevision = std::numeric_limits<Revision>::max();

// What a change did to one key.
struct Change {
  // Stored on disk. Do not change.
  enum class Kind : std::uint8_t {
    kCreated = 1,  // with its first value, if it has one
    kValue = 2,
    kSecurity = 3,
    kMoved = 4,             // `from` to `name`, with everything below it
    kDeleted = 5,           // with everything below it
    kChangedAtOrBelow = 6,  // stands for more changes than a record lists, all of them at this key or below it
    kPurged = 7,            // the former values of keys of this name were removed from the history
  };
  Kind kind = Kind::kValue;
  std::string name = {};  // full name of the key after the change or, if it was deleted, before it
  std::string from = {};  // of kMoved: the full name before
  std::uint64_t id = 0;   // of the key; 0 of kChangedAtOrBelow and kPurged

  bool operator==(const Change&) const = default;
};

// A change as its author describes it.
struct ChangeDescription {
  std::int64_t time = 0;      // microseconds since 1970, UTC, by the author's clock
  std::string author = {};    // the user
  std::string host = {};      // where the author's process ran
  std::string program = {};   // its name
  std::uint32_t process = 0;  // its id
  std::string note = {};      // what the change is for, "" if the author did not say
  std::vector<Change> changes = {};

  bool operator==(const ChangeDescription&) const = default;
};

// A committed change.
struct ChangeRecord : ChangeDescription {
  Revision revision = 0;
  // The state before this change cannot be read, nor any older one: the change was larger than the history may be.
  bool hides_past = false;

  bool operator==(const ChangeRecord&) const = default;
};

constexpr std::size_t kMaxListedChanges = 1000;  // in one record
constexpr std::size_t kMaxNoteSize = 1024;       // bytes of a note

// A part of the log, which is the sequence of all changes that are retained.
struct LogRange {
  Revision after = 0;                // changes with a larger revision
  Revision up_to = kNewestRevision;  // and with none beyond this one
  bool newest_first = false;
  bool only_complete = false;  // visit nothing if changes after `after` are no longer retained
};

// What a reader of the log has to know to go on.
struct LogPosition {
  Revision revision = 0;  // of the state that was read: later changes come after it
  bool complete = true;   // false: of the changes in the range, some are no longer retained
};

}  // namespace tkv

#endif
