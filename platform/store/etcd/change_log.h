// ChangeLog: what was done to a registry, as the history of one key that every transaction with visible writes puts.
//
// The key's value describes the last change; its modification revision is the change's. The key is never compared, so
// changes of different nodes do not get into each other's way. Former versions of the key are the log, and reach back
// as far as the cluster keeps its history. A watch of the key sees every change.
//
// While etcd's space alarm is raised, nothing can be put. A change that only deletes is made all the same, and removes
// the key; the next change puts it again. What was deleted in between leaves no trace in the log. So whoever reads
// across such a gap is told that changes are missing, as where the log has been compacted: once for the removal, and
// once for the put after it. The removal itself is shown as a change of anything.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_CHANGE_LOG_H
#define TKV_PLATFORM_STORE_ETCD_CHANGE_LOG_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

#include "base/change.h"
#include "base/function_ref.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// The revisions at which one transaction reads the key, to find its former versions newest first. The first half of the
// points are at successive revisions, which is best if the registry has the cluster to itself. The others are at equal
// distances, which is best if most revisions are those of other keys. A version that no point meets is found by the
// next transaction.
class VersionPoints {
 public:
  int count() const { return count_; }
  std::int64_t distance(int point) const;  // from the first one, in revisions

  // Takes more points for the next transaction, at distances that suit the versions that the last one found. `left` is
  // the number of revisions that are still to be searched: points beyond them would find nothing.
  void learn(const std::vector<KeyValue>& versions, std::int64_t left);

  // From now on takes so few points that records of any size fit into one answer. Returns false if it does already.
  bool shrink();

 private:
  static constexpr int kFirst = 12;

  int successive() const { return count_ / 2; }

  int count_ = kFirst;
  int most_ = 96;
  std::int64_t stride_ = 1;
};

class ChangeLog {
 public:
  ChangeLog(Kv& kv, const Keys& keys) : kv_(kv), keys_(keys) {}

  // The value of the key for a change. One that describes too much says only that something was changed.
  static std::string encode(const ChangeDescription& description);

  // Returns PRTKV_STORAGE_FAILED if a version of the key is damaged.
  static Status check(const KeyValue& version);

  // Finds the revision of the last change that the log knows, or zero if none was ever logged. `at` is the revision of
  // the state to look at, or zero for the present.
  Reply revision(std::int64_t at, Revision* revision);

  // The same, given what was found at the key in the state `at`, which is not 0.
  Reply last_change(const RangeResponse& found, std::int64_t at, Revision* revision);

  // Reads the record of a change. Returns PRTKV_NO_SUCH_KEY if it is not retained.
  Status find(Revision revision, ChangeRecord* record);

  // As the Store's functions.
  Status visit(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit, LogPosition* position);
  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop, Revision* revision);

  // Finds a revision of the cluster at which the state right after the change `revision` can be read. Returns
  // PRTKV_INVALID_ARGUMENT if there is none, or if there has never been such a state.
  Status find_state(Revision revision, std::int64_t* at);

  // What can be read of the past. All are 0 if nothing was ever logged.
  struct Reach {
    Revision revision = 0;      // of the last change
    Revision oldest_state = 0;  // that can be read
    Revision log_after = 0;     // the log has every change after this revision
  };
  Reply reach(Reach* reach);

 private:
  using Visit = FunctionRef<Status(const ChangeRecord& record)>;

  Reply get(std::int64_t at, RangeResponse* response);
  Reply get_key(std::int64_t at, RangeResponse* response);
  Reply find_removal(std::int64_t at, Revision* revision);
  Reply was_there(std::int64_t at, bool* answer);
  void note_removal(std::int64_t revision);
  Reply find_mark(std::int64_t at, std::int64_t* created);
  Reply find_gap(const RangeResponse& end, std::int64_t* begin, bool* complete);
  Reply find_oldest_kept(std::int64_t* begin);
  Status find_begin(std::int64_t after, std::int64_t* begin, bool* complete);
  Status visit_forward(std::int64_t begin, std::int64_t last, Visit visit);
  Reply read_versions(const VersionPoints& points, std::int64_t begin, std::int64_t last,
                      std::vector<KeyValue>* versions);
  Status visit_backward(std::int64_t after, std::int64_t begin, std::int64_t last, Visit visit);
  Status visit_versions(const std::vector<KeyValue>& versions, std::int64_t after, std::int64_t* last, Visit visit);
  Status visit_removal(std::int64_t begin, std::int64_t* last, Visit visit);

  Kv& kv_;
  const Keys& keys_;
  std::atomic<std::int64_t> removed_at_{0};  // the last removal of the key that is known; 0: none
};

}  // namespace tkv::store::etcd

#endif
