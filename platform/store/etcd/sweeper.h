// Removes what hangs on nothing any more: subtrees that were taken out of the tree, and what interrupted builds left.
// Carries out what was decided by sessions that have ended.
//
// Such things have a key that names them until they are gone, so that whoever opens the registry next finishes what a
// session leaves undone. Removal goes from the leaves up, in bounded batches; any number of sweepers may be at the same
// subtree.
//
// Threads. Any number may call. The work is done by a thread that lives while there is some.
#ifndef TKV_PLATFORM_STORE_ETCD_SWEEPER_H
#define TKV_PLATFORM_STORE_ETCD_SWEEPER_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "base/function_ref.h"
#include "store/etcd/build.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/recovery.h"
#include "store/etcd/requests.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {

class Sweeper {
 public:
  Sweeper(Kv& kv, const Keys& keys, Recovery& recovery) : kv_(kv), keys_(keys), recovery_(recovery) {}

  // Goes on for a moment when there is work left, and leaves the rest to another session.
  ~Sweeper();

  Sweeper(const Sweeper&) = delete;
  Sweeper& operator=(const Sweeper&) = delete;

  // Removes subtrees in the garbage, given by their keys: at once as far as a moment goes, so that most leave nothing
  // behind, and the rest later.
  void remove_garbage(const std::vector<std::string>& keys);

  // Removes what lies about and belongs to nobody alive, and carries out what was decided, later.
  void look_around() { add({Job::Kind::kLookAround, ""}); }

  // The key of a build that its owner, this process, gives up.
  void give_up_build(std::string key);

  // The same now, on the caller's thread.
  Status sweep_all();

  // What lies about, as read when the registry was opened; starts removing what belongs to nobody alive.
  void found(const RangeResponse& garbage, const RangeResponse& staging, const RangeResponse& writers,
             const RangeResponse& claims);

 private:
  struct Job {
    enum class Kind { kGarbage, kOwnBuild, kLookAround } kind;
    std::string key;
  };

  // How long to go on, and how long a single request may take.
  struct Pace {
    FunctionRef<bool()> stop;
    std::chrono::milliseconds request;
  };

  void add(Job job);
  void work();
  Status carry_out(const Job& job, const Pace& pace);
  Status sweep_all(const Pace& pace);
  Status sweep_marks(const Pace& pace);
  Status sweep_builds(const Pace& pace);
  Status sweep_claims(const Pace& pace);
  Status sweep_garbage(const Pace& pace);
  bool stopping();
  Status sweep_garbage(const std::string& key, const Pace& pace);
  Status sweep_build(const std::string& key, bool ours, const Pace& pace);
  Status sweep_range(const KeyRange& range, const Pace& pace);
  Status sweep_below(std::vector<NodeId> parents, std::unordered_set<NodeId>* seen, const Pace& pace);
  Status remove_children(const std::vector<KeyRange>& entries, const std::vector<NodeId>& ids, const Pace& pace);
  Status remove(TxnRequest* batch, const Pace& pace);

  Kv& kv_;
  const Keys& keys_;
  Recovery& recovery_;
  std::mutex mutex_;
  std::deque<Job> jobs_;
  bool working_ = false;
  bool stop_ = false;
  std::condition_variable idle_;
  std::thread thread_;
};

}  // namespace tkv::store::etcd

#endif
