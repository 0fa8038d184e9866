// Reads a range of keys at one revision, in pages that fit one message each. Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_PAGER_H
#define TKV_PLATFORM_STORE_ETCD_PAGER_H

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

class Pager {
 public:
  // If the request has no revision, the first page determines it.
  Pager(Kv& kv, RangeRequest range) : kv_(kv), request_(std::move(range)) {}

  // Reads the next page, which may be empty. The number of keys per page follows the size of the records in the page
  // before, and is reduced if an answer turns out to be too large.
  Reply next(RangeResponse* page);
  bool more() const { return more_; }
  std::int64_t revision() const { return request_.revision(); }

  // Continues after a page that the caller has read itself.
  void continue_after(const RangeResponse& page);

 private:
  Kv& kv_;
  RangeRequest request_;
  bool more_ = true;
};

}  // namespace tkv::store::etcd

#endif
