// What a store tells about itself, for those who look after a registry.
#ifndef TKV_PLATFORM_BASE_STORE_STATUS_H
#define TKV_PLATFORM_BASE_STORE_STATUS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/change.h"

namespace tkv {

// A session that reads one state for so long that the space of what has been replaced since cannot be used again.
struct LongReader {
  std::int32_t process = 0;
  std::string command;           // "tkv"; empty if it is not known
  std::uint64_t seconds = 0;     // for which it has read the same state, at least
  std::uint64_t held_bytes = 0;  // that have been freed since, and cannot be used again before it ends
};

// A member of the cluster that a store is kept on.
struct ClusterMember {
  std::string name;     // empty: it has none, or the user may not see it
  std::string address;  // of its endpoint or, if it has none, as the cluster tells clients
  bool leads = false;
  std::string problem;  // why nothing is known about it; empty: it has answered
  std::string version;
  std::uint64_t bytes = 0;  // of its database on disk
};

struct ClusterAlarm {
  std::string member;  // its name or, without one, its address or number
  std::string alarm;   // "no space"
};

// What a store that is kept on a cluster can tell.
struct ClusterStatus {
  std::vector<ClusterMember> members;
  std::vector<ClusterAlarm> alarms;
  std::uint64_t revision = 0;
  std::uint64_t bytes_in_use = 0;  // of the largest database; the rest can be freed
  std::uint64_t claims = 0;        // large changes under way
  std::uint64_t garbage = 0;       // deleted subtrees that are still to be removed
  std::uint64_t builds = 0;        // unfinished changes
  std::uint64_t dead_builds = 0;   // of those, whose sessions have ended
  std::uint64_t retries = 0;       // requests repeated since the session was opened
};

// What a store can tell about itself without reading the records. 0: not known or, for limits, none.
struct StoreStatus {
  std::uint64_t bytes = 0;      // that the store takes on disk
  std::uint64_t max_bytes = 0;  // that it may take
  std::uint32_t readers = 0;    // sessions that are open for reading, of all processes
  std::uint32_t max_readers = 0;
  Revision revision = 0;                 // of the latest state
  Revision oldest_state = 0;             // that can be read again
  Revision log_after = 0;                // the log has every change after this revision
  std::uint64_t history_bytes = 0;       // of `bytes`, what the log and the former records take
  std::vector<LongReader> long_readers;  // that have read one state for a minute or longer
  std::optional<ClusterStatus> cluster;  // only of a store on a cluster
};

}  // namespace tkv

#endif
