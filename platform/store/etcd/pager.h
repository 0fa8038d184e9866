// Reading a range of keys in pages that fit one message each, all of one revision.
#ifndef TKV_PLATFORM_STORE_ETCD_PAGER_H
#define TKV_PLATFORM_STORE_ETCD_PAGER_H

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// A node's entry is at most this long in an answer: prefix, place, record and what etcd tells of it.
constexpr std::size_t kLongestNodeEntry = 1024;
constexpr std::size_t kPageBytes = std::size_t{2} << 20;
constexpr std::int64_t kNodesPerPage = kPageBytes / kLongestNodeEntry;

class Pager {
 public:
  // `revision` 0: that of the first page's answer.
  Pager(Kv& kv, RangeRequest range) : kv_(kv), request_(std::move(range)) {}

  // The next page, which may be empty; `more` tells whether there are others. Records of unknown size come in pages
  // whose number of keys follows the size of the page before, and shrinks when an answer is too large after all.
  Reply next(RangeResponse* page);
  bool more() const { return more_; }
  std::int64_t revision() const { return request_.revision(); }

  // Goes on behind what another request has read.
  void continue_after(const RangeResponse& page);

 private:
  Kv& kv_;
  RangeRequest request_;
  bool more_ = true;
};

}  // namespace tkv::store::etcd

#endif
