// Sweeper: removes unlinked subtrees and the remains of interrupted builds, and carries out what was decided by
// sessions that have ended.
//
// Each of these has a key that names it until it is gone, so that another session can finish what one leaves undone. A
// build is removed only if its session has ended (see session.h). What is not recognized is left alone, whatever its
// key. Removal goes bottom-up, in bounded batches; any number of sweepers may work on the same subtree.
//
// Threads. Any number may call at once. The work is done by a thread that lives as long as there is some.
#ifndef TKV_PLATFORM_STORE_ETCD_SWEEPER_H
#define TKV_PLATFORM_STORE_ETCD_SWEEPER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
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
  static constexpr std::chrono::minutes kDefaultInterval{5};

  // Looks around again after `interval`.
  Sweeper(Kv& kv, const Keys& keys, Recovery& recovery, std::chrono::milliseconds interval)
      : kv_(kv), keys_(keys), recovery_(recovery), interval_(interval), next_look_(time_after(interval)) {}

  // Gives remaining work a second, and leaves the rest to another session.
  ~Sweeper();

  Sweeper(const Sweeper&) = delete;
  Sweeper& operator=(const Sweeper&) = delete;

  // A subtree that was unlinked while etcd had no space for a garbage key.
  struct Unmarked {
    NodeId top = kNoNode;
    NodePlace place;  // that it was unlinked from
    std::int64_t unlinked_at = 0;
  };

  // Removes subtrees that this session has just unlinked, given by their garbage keys or without them. Does so at once
  // for up to `moment`, and leaves the rest to the thread.
  void remove_garbage(const std::vector<std::string>& keys, std::chrono::milliseconds moment);
  void remove_unmarked(const std::vector<Unmarked>& unlinked, std::chrono::milliseconds moment);

  // Has the thread look for what ended sessions have left, and finish or remove it.
  void look_around() { add({Job::Kind::kLookAround, ""}); }

  // The same, if it has not been done for a while: for sessions that are open for long. While there is work of sessions
  // that go on, the next look comes sooner. Does nothing in a forked child.
  void look_around_when_due();

  // Has the thread remove a build of this session.
  void give_up_build(std::string key);

  // Does what look_around() asks for, now and on the caller's thread.
  Status sweep_all();

  // The same, and removes what sessions of former releases have left, which named processes as owners. Nothing tells
  // whether those have ended, so none may be open.
  Status sweep_for_repair();

  // Takes in what was found when the registry was opened, and starts the thread if there is anything to look at.
  void found(const RangeResponse& garbage, const RangeResponse& staging, const RangeResponse& claims);

 private:
  struct Job {
    enum class Kind { kGarbage, kUnmarkedGarbage, kOwnBuild, kLookAround } kind;
    std::string key;
    Unmarked unmarked = {};
  };

  // Which builds may be given up, apart from those that have been already.
  enum class Whose {
    kOurs,        // one that this session knows to be its own and not to go on
    kEnded,       // those of sessions that have ended
    kEndedFormer  // and those that former releases have left
  };

  // When to stop, and how long a single request may take.
  struct Pace {
    FunctionRef<bool()> stop;
    std::chrono::milliseconds request;
  };

  // The key that says what is to be removed, and the revision at which it was written. Each removal compares it:
  // another sweeper may be done, or a snapshot may have been restored in which nothing is to be removed, or in which
  // the same ids belong to others.
  //
  // Without a garbage key, each removal compares what the deletion has removed besides: the entry of the subtree, and
  // the key of the log, which may have been created again since. A snapshot that is older than the deletion has the one
  // or the other, and so protects the subtree that it has brought back. It lacks both only if another deletion without
  // space has removed the log, before the snapshot was made or since it was restored, and the subtree was moved. This
  // cannot be ruled out, since a transaction that only deletes leaves no key that proves that it was made.
  struct Marker {
    std::string key;
    std::optional<std::int64_t> revision;
    std::string ended_session = {};  // compared as well: of a build that there was no space to give up
    std::optional<Unmarked> unmarked = {};
    bool log_is_back = false;
  };

  static std::int64_t time_after(std::chrono::milliseconds from_now);
  void add(Job job);
  void work();
  Status carry_out(const Job& job, const Pace& pace);
  Status sweep_all(const Pace& pace);
  Status sweep_former_marks(const Pace& pace);
  Status sweep_builds(Whose whose, const Pace& pace);
  Status sweep_claims(const Pace& pace);
  Status sweep_garbage(const Pace& pace);
  bool stopping();
  Status sweep_garbage(const std::string& key, const Pace& pace);
  Status sweep_unmarked(const Unmarked& unlinked, const Pace& pace);
  Status sweep_build(const std::string& key, Whose whose, const Pace& pace);
  Status give_up(const KeyValue& build, BuildText text, Whose whose, Marker* marker, const Pace& pace);
  Status sweep_given_up(const std::string& token, const BuildText& text, Marker* marker, const Pace& pace);
  Status sweep_range(const KeyRange& range, Marker* marker, const Pace& pace);
  Status sweep_below(std::vector<NodeId> parents, std::unordered_set<NodeId>* seen, Marker* marker, const Pace& pace);
  Status remove_children(const std::vector<KeyRange>& entries, const std::vector<NodeId>& ids, Marker* marker,
                         const Pace& pace);
  Status remove(TxnRequest* batch, const Pace& pace);
  Status remove_marked(TxnRequest* batch, Marker* marker, const Pace& pace);
  Status remove_unmarked(const TxnRequest& batch, Marker* marker, const Pace& pace);

  Kv& kv_;
  const Keys& keys_;
  Recovery& recovery_;
  const std::chrono::milliseconds interval_;
  std::atomic<std::int64_t> next_look_;  // of the steady clock, in milliseconds
  std::mutex mutex_;
  std::deque<Job> jobs_;
  bool working_ = false;
  bool stop_ = false;
  std::condition_variable idle_;
  std::thread thread_;
};

}  // namespace tkv::store::etcd

#endif
