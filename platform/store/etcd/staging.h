// A subtree that is built aside: what one transaction does not hold is sent ahead in batches, below ids that nothing
// visible hangs on yet, and only the last transaction makes it part of the tree.
//
// A key of its own says which ids those are, so that what an interrupted build leaves behind can be removed. Every
// batch rewrites that key and compares its revision: batches cannot be made twice or out of order, and a build that
// another session has given up for dead cannot go on.
#ifndef TKV_PLATFORM_STORE_ETCD_STAGING_H
#define TKV_PLATFORM_STORE_ETCD_STAGING_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/etcd/id_source.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {

// What the key of a build says.
struct StagingText {
  std::uint64_t batch = 0;
  std::int64_t seconds = 0;  // when the last batch was sent
  bool given_up = false;     // by its owner or by another session: only to be removed
  std::string owner;
  std::vector<IdRange> ids;

  std::string print() const;
  static std::optional<StagingText> parse(const std::string& text);

  // Whether a session may remove this: it was given up, its owner is known to have ended, or nothing was added for
  // long.
  bool is_abandoned(std::int64_t now) const;
};

class Build {
 public:
  Build(Kv& kv, const Keys& keys);

  bool started() const { return text_.batch > 0; }
  const std::string& key() const { return mark_.key; }
  const std::string& token() const { return token_; }

  // Sends a batch of puts and removals below `ids`. Not made: another session has given this build up, or comparisons
  // of the batch's own did not hold.
  Written send(TxnRequest batch, const std::vector<IdRange>& ids);

  // Adds to the last transaction what ends the build.
  void finish_in(TxnRequest* last) const;

 private:
  Kv& kv_;
  const std::string token_;
  Mark mark_;
  StagingText text_;
};

}  // namespace tkv::store::etcd

#endif
