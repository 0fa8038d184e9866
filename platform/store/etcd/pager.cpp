#include "store/etcd/pager.h"

#include <algorithm>

#include "store/etcd/limits.h"

namespace tkv::store::etcd {

Reply Pager::next(RangeResponse* page) {
  Reply reply = kv_.range(request_, page, Deadline(kv_.timeout()));
  while (reply.verdict == Verdict::kAnswerTooLarge && request_.limit() > 1) {
    request_.set_limit(request_.limit() / 2);
    reply = kv_.range(request_, page, Deadline(kv_.timeout()));
  }
  if (reply.ok()) continue_after(*page);
  return reply;
}

void Pager::continue_after(const RangeResponse& page) {
  if (request_.revision() == 0) request_.set_revision(page.header().revision());
  more_ = page.more() && page.kvs_size() > 0;
  if (!more_) return;
  request_.set_key(page.kvs(page.kvs_size() - 1).key() + '\0');
  const auto average = static_cast<std::int64_t>(page.ByteSizeLong() / static_cast<std::size_t>(page.kvs_size())) + 1;
  const auto fitting = std::max<std::int64_t>(1, static_cast<std::int64_t>(kPageBytes) / average);
  request_.set_limit(std::min({fitting, request_.limit() * 2, kNodesPerPage}));
}

}  // namespace tkv::store::etcd
