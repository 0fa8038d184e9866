// A build: a subtree that is sent to the cluster in batches before it is committed, below ids that nothing visible
// refers to yet. The commit makes it part of the tree.
//
// A key of its own says which ids those are and whose session it is, so that the remains of an interrupted build can be
// removed once that session has ended. Every batch rewrites that key and compares its revision: no batch can be made
// twice or out of order, and a build that has been given up cannot go on.
//
// The first batch finds no such key, and nor would a copy of it that arrives when the commit has removed the key again.
// Such a copy would have the subtree taken for the remains of an interrupted build. So the first batch, and each that
// is sent in its place if it was not made, is a write of one of the session's writers (see writer.h), of which no late
// copy can be made.
#ifndef TKV_PLATFORM_STORE_ETCD_BUILD_H
#define TKV_PLATFORM_STORE_ETCD_BUILD_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/etcd/id_source.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {

// The value of a build's key, sealed (see text_seal.h): a wrong id in it would have another key removed.
struct BuildText {
  std::uint64_t batch = 0;
  bool given_up = false;  // by its owner or by another session: only to be removed
  std::string session;    // the owner's token; empty for builds of releases that named a process instead
  std::vector<IdRange> ids;

  std::string print() const;

  // Nothing if it is damaged.
  static std::optional<BuildText> parse(std::string_view text);
};

// Used by one thread.
class Build {
 public:
  // `token` must never have been used.
  Build(Kv& kv, const Keys& keys, Writers& writers, const Owner& owner, std::string token);

  bool started() const { return text_.batch > 0; }
  const std::string& key() const { return mark_.key; }
  const std::string& token() const { return token_; }

  // Sends a batch of puts and removals below `ids`. It is not made if another session has given this build up, if
  // its owner's session has ended, or if a comparison of the batch itself fails.
  Written send(TxnRequest batch, const std::vector<IdRange>& ids);

  // Whether another batch can be sent after one that was not made. Once its key was rewritten or removed, whoever looks
  // for remains may have begun to remove what was staged.
  bool goes_on() const { return !over_; }

  // Adds the comparison that nobody has given the build up.
  void compare_in(TxnRequest* request) const { compare_revision(request, mark_.key, mark_.mod_revision); }

  // Adds to the commit what ends the build.
  void finish_in(TxnRequest* commit) const;

 private:
  Written send_first(TxnRequest batch);
  Written send_next(TxnRequest batch);

  Kv& kv_;
  const Keys& keys_;
  Writers& writers_;
  const std::string token_;
  Mark mark_;
  BuildText text_;
  bool begun_ = false;  // the first batch was made
  bool over_ = false;
};

}  // namespace tkv::store::etcd

#endif
