// Staging: sends what a run has written below fresh nodes before the commit, so that a commit is small however large
// the subtree that it attaches.
//
// Used by one thread. Failures of the cluster are recorded in the Run.
#ifndef TKV_PLATFORM_STORE_ETCD_STAGING_H
#define TKV_PLATFORM_STORE_ETCD_STAGING_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/etcd/build.h"
#include "store/etcd/claims.h"
#include "store/etcd/core.h"
#include "store/etcd/run.h"
#include "store/etcd/write_set.h"

namespace tkv::store::etcd {

class Staging {
 public:
  Staging(Core& core, Run& run, WriteSet& writes) : core_(core), run_(run), writes_(writes) {}

  // Leaves the removal of an unfinished build to the sweeper.
  ~Staging();
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  // Who makes this run's writes, the same for all of them. A session is begun if need be.
  Status owner(Owner* owner);

  // The owner's session has ended: the run is repeated in another one.
  Status lost();

  // Makes the id of a fresh node.
  Status new_id(NodeId* id);

  // Called before an operation of this size that can be staged is written. Sends what is there when it fills a batch.
  Status make_room(std::size_t bytes);

  // Sends all that can be staged.
  Status send();

  // Sends one transaction as a batch of the build, which it begins if need be. try_send() leaves it to the caller what
  // to do if the batch is not made.
  Status send(TxnRequest batch);
  Written try_send(TxnRequest batch);

  // Whether another batch can be sent after one that was not made (see build.h).
  bool goes_on() const { return !build_ || build_->goes_on(); }

  // Sends a batch without content if none has been sent for a moment: others wait for the claim of this build as long
  // as it makes progress. The run repeats if the claim has been removed.
  Status show_progress(const Claim& claim);

  // Gives the ticket for records that are sent before the commit (see tickets.h), which then puts its key.
  Status ticket(Revision* ticket);

  // The redo log of a change, to be decided by the commit.
  Status send_log(std::vector<std::string> batches);

  // Whether anything has been sent.
  bool started() const { return build_ && build_->started(); }

  // Makes sure that nobody has removed what was sent, which this run may have read again.
  Status validate();

  // Gives the token of the build. It tells when the change began, unless something has been sent before.
  Status token_since(std::int64_t began, std::string* token);

  // Adds to the commit what ends the build.
  void finish_in(TxnRequest* commit) const;
  void committed() { build_.reset(); }

 private:
  Status begin(std::optional<std::int64_t> began = {});
  Status reserve();

  Core& core_;
  Run& run_;
  WriteSet& writes_;
  std::optional<Owner> owner_;
  std::optional<Build> build_;
  Revision ticket_ = 0;  // 0: no record carries it
  IdRange reserved_;     // taken for this build alone
  std::uint64_t block_size_ = kFirstBlock;
  std::chrono::steady_clock::time_point last_sent_;

  // A long build takes blocks of growing size, so that its ids are described by few ranges.
  static constexpr std::uint64_t kFirstBlock = 1024;
  static constexpr std::uint64_t kLargestBlock = 65536;
};

}  // namespace tkv::store::etcd

#endif
