// What all transactions of one open registry on etcd share.
#ifndef TKV_PLATFORM_STORE_ETCD_CORE_H
#define TKV_PLATFORM_STORE_ETCD_CORE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "store/etcd/change_log.h"
#include "store/etcd/claims.h"
#include "store/etcd/history.h"
#include "store/etcd/id_source.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/node_cache.h"
#include "store/etcd/recovery.h"
#include "store/etcd/requests.h"
#include "store/etcd/session.h"
#include "store/etcd/sweeper.h"
#include "store/etcd/tickets.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {

struct Core {
  // `ttl` is how long a session outlives its process, in seconds; `sweeping` is how often it looks for what others have
  // left.
  Core(std::unique_ptr<Kv> connected, std::string prefix, std::int64_t ttl = Session::kDefaultTtl,
       std::chrono::milliseconds sweeping = Sweeper::kDefaultInterval)
      : kv(std::make_unique<History>(std::move(connected))),
        keys(std::move(prefix)),
        cache(kCachedNodes),
        ids(*kv, keys),
        writers(keys),
        claims(keys),
        tickets(*kv, keys),
        recovery(*kv, keys, claims),
        sweeper(*kv, keys, recovery, sweeping),
        log(*kv, keys),
        session(*kv, keys, ttl) {
    session.on_kept_alive([this] { sweeper.look_around_when_due(); });
  }

  static constexpr std::size_t kCachedNodes = 16384;

  Deadline deadline() const { return Deadline(kv->timeout()); }

  std::unique_ptr<History> kv;
  const Keys keys;
  NodeCache cache;
  IdSource ids;
  Writers writers;
  Claims claims;
  Tickets tickets;
  Recovery recovery;
  Sweeper sweeper;
  ChangeLog log;
  Session session;  // last: it is ended while the sweeper gets its time
};

}  // namespace tkv::store::etcd

#endif
