// What all transactions of one open registry on etcd share.
#ifndef TKV_PLATFORM_STORE_ETCD_CORE_H
#define TKV_PLATFORM_STORE_ETCD_CORE_H

#include <memory>
#include <string>
#include <utility>

#include "base/function_ref.h"
#include "store/etcd/claims.h"
#include "store/etcd/id_source.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/node_cache.h"
#include "store/etcd/requests.h"
#include "store/etcd/sweeper.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {

struct Core {
  Core(std::unique_ptr<Kv> connected, std::string prefix)
      : kv(std::move(connected)),
        keys(std::move(prefix)),
        cache(kCachedNodes),
        ids(*kv, keys),
        writers(keys),
        claims(keys),
        sweeper(*kv, keys) {}

  static constexpr std::size_t kCachedNodes = 16384;

  Deadline deadline() const { return Deadline(kv->timeout()); }

  std::unique_ptr<Kv> kv;
  const Keys keys;
  NodeCache cache;
  IdSource ids;
  Writers writers;
  Claims claims;
  Sweeper sweeper;
};

// Carries out what is left of a decision, as plan.h tells.
Status carry_out_decision(Core& core, const Claim& claim, FunctionRef<Deadline()> deadline);

// Reads a range as the registry stands at a revision at which nothing decided is left to be carried out.
Reply read_settled(Core& core, const RangeRequest& range, RangeResponse* response, std::int64_t* revision);

// The one record of an answer, at its place. A record that is not there is revision 0.
SeenNode known_of(const RangeResponse& response, const NodePlace& place);
SeenNode known_of(const KeyValue& record, const NodePlace& place);

}  // namespace tkv::store::etcd

#endif
