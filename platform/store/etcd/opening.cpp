#include "store/etcd/opening.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/etcd/registry_mark.h"
#include "store/etcd/seen_node.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr std::int64_t kKeysPerPage = 1000;
constexpr int kMaxLookOperations = 8;  // for the sake of servers that permit few in a transaction

bool is_registry(const std::string& meta) {
  Meta ignored;
  return decode_meta(as_bytes(meta), &ignored).ok();
}

class Opening {
 public:
  Opening(Core& core, const EtcdOptions& options) : core_(core), options_(options), keys_(core.keys) {}

  Status run();

 private:
  Status look(TxnResponse* found);
  Status take(const TxnResponse& found, bool* taken);
  Status create(bool* created);
  Status mark(std::int64_t meta_revision, bool* taken);
  Status take_marked(const TxnResponse& found, bool* taken);
  Status upgrade(const std::string& former, RegistryMark mark, bool has_log, bool* taken);
  Status begin_log();
  Status check_enclosing();
  Status check_enclosed();
  Status check_enclosed(KeyRange range);
  std::string quoted(const std::string& prefix) const { return "'" + prefix + "'"; }

  Core& core_;
  const EtcdOptions& options_;
  const Keys& keys_;
};

// The answers of look(), in order.
enum Found { kMeta, kMark, kRoot, kGarbage, kStaging, kClaims, kLog, kTickets };

const RangeResponse& part(const TxnResponse& found, Found which) { return found.responses(which).response_range(); }

Status Opening::look(TxnResponse* found) {
  TxnRequest request;
  const auto add = [&](RangeRequest range) { *request.add_success()->mutable_request_range() = std::move(range); };
  add(get_one(keys_.meta()));
  add(get_one(keys_.mark()));
  add(get_one(keys_.node({kNoNode, ""})));
  add(get_range(keys_.all_garbage(), kMarkersPerPage));
  add(get_range(keys_.all_staging(), kMarkersPerPage));
  add(get_all(keys_.all_claims()));
  RangeRequest log = get_one(keys_.log());
  log.set_keys_only(true);
  add(std::move(log));
  RangeRequest tickets = get_range(keys_.all_tickets(), kMarkersPerPage);
  tickets.set_sort_target(RangeRequest::CREATE);
  tickets.set_sort_order(RangeRequest::DESCEND);
  tickets.set_keys_only(true);
  add(std::move(tickets));
  return core_.kv->txn(request, found, core_.deadline()).status;
}

Status Opening::run() {
  while (true) {
    TxnResponse found;
    if (Status status = look(&found); !status.ok()) return status;
    if (part(found, kMeta).kvs_size() > 0) {
      bool taken = true;
      if (Status status = take(found, &taken); !status.ok() || taken) return status;
      continue;
    }
    if (!options_.create) {
      return {PRTKV_NO_SUCH_KEY, "there is no registry under " + quoted(options_.prefix) + " in etcd"};
    }
    if (Status status = check_enclosing(); !status.ok()) return status;
    bool created = false;
    if (Status status = create(&created); !status.ok() || created) return status;
  }
}

// Not created, and no failure: another session has just created it.
Status Opening::create(bool* created) {
  const NodePlace root{kNoNode, ""};
  const std::string mark = RegistryMark::make().print();
  TxnRequest request;
  compare_no_newcomer(&request, keys_.all(), 0);
  put(request.add_success(), keys_.meta(), as_text(encode_meta(Meta())));
  put(request.add_success(), keys_.mark(), mark);
  put(request.add_success(), keys_.log(), ChangeLog::encode({}));
  put(request.add_success(), keys_.node(root), as_text(encode_node(kNoNode, "", {kRootNode, options_.root_security})));
  RangeRequest any = get_range(keys_.all(), 1);
  any.set_keys_only(true);
  *request.add_failure()->mutable_request_range() = get_one(keys_.meta());
  *request.add_failure()->mutable_request_range() = std::move(any);
  TxnResponse response;
  if (Reply reply = core_.kv->txn(request, &response, core_.deadline()); !reply.ok()) return reply.status;
  *created = response.succeeded();
  if (!*created) {
    if (response.responses(0).response_range().kvs_size() > 0) return {};
    return {PRTKV_UNUSABLE, "no registry can be created under the prefix " + quoted(options_.prefix) +
                                " in etcd: there are other keys, such as " +
                                quoted(response.responses(1).response_range().kvs(0).key()) +
                                "; set `prefix` to another one"};
  }
  core_.kv->hold_mark(keys_.mark(), mark);
  core_.ids.know(Meta(), response.header().revision());
  core_.claims.learn(RangeResponse(), response.header().revision());
  return {};
}

// Not taken, and no failure: another session has just changed the registry's format.
Status Opening::take(const TxnResponse& found, bool* taken) {
  const KeyValue& record = part(found, kMeta).kvs(0);
  Meta meta;
  const Status damage = decode_meta(as_bytes(record.value()), &meta);
  if (damage.is(PRTKV_UNUSABLE)) return damage.about("the registry under " + quoted(options_.prefix) + " in etcd");
  if (part(found, kMark).kvs_size() == 0) {
    if (Status status = mark(record.mod_revision(), taken); !status.ok() || !*taken) return status;
    if (Status status = begin_log(); !status.ok()) return status;
  } else if (Status status = take_marked(found, taken); !status.ok() || !*taken) {
    return status;
  }
  const NodePlace root{kNoNode, ""};
  core_.ids.know(meta, damage.ok() ? record.mod_revision() : IdSource::kUnknown);
  core_.cache.put(root, seen_node(part(found, kRoot), root));
  core_.claims.learn(part(found, kClaims), found.header().revision());
  core_.tickets.learn(part(found, kTickets));
  core_.sweeper.found(part(found, kGarbage), part(found, kStaging), part(found, kClaims));
  return {};
}

Status Opening::take_marked(const TxnResponse& found, bool* taken) {
  const std::string& text = part(found, kMark).kvs(0).value();
  const auto mark = RegistryMark::parse(text);
  if (!mark) return damaged_mark(keys_.mark());
  if (mark->format > RegistryMark::kFormat) {
    return {PRTKV_UNUSABLE, "the registry under " + quoted(options_.prefix) + " in etcd has format " +
                                std::to_string(mark->format) + ", and this release knows up to " +
                                std::to_string(RegistryMark::kFormat) + "; install a newer release of TKV"};
  }
  const bool has_log = part(found, kLog).kvs_size() > 0;
  if (options_.create && (mark->format < RegistryMark::kFormat || !has_log)) {
    return upgrade(text, *mark, has_log, taken);
  }
  core_.kv->hold_mark(keys_.mark(), text);
  return {};
}

// Gives the registry the present format and a log, so that its state has a revision. Sessions of releases that do not
// know this format hold the former mark: they cannot write any more, and changes could not go unlogged. If etcd does
// not permit it, or has no space, the registry can be used as it is.
Status Opening::upgrade(const std::string& former, RegistryMark mark, bool has_log, bool* taken) {
  mark.format = RegistryMark::kFormat;
  std::string text = mark.print();
  TxnRequest request;
  compare_value(&request, keys_.mark(), former);
  if (text != former) put(request.add_success(), keys_.mark(), text);
  if (!has_log) {
    compare_revision(&request, keys_.log(), 0);
    put(request.add_success(), keys_.log(), ChangeLog::encode({}));
  }
  TxnResponse response;
  Status status = core_.kv->txn(request, &response, core_.deadline()).status;
  const bool as_it_is = status.is(PRTKV_ACCESS_DENIED) || status.is(PRTKV_STORAGE_FULL);
  if (!status.ok() && !as_it_is) return status;
  *taken = as_it_is || response.succeeded();
  if (*taken) core_.kv->hold_mark(keys_.mark(), as_it_is ? former : text);
  return {};
}

// Marks the prefix of a registry that an earlier release has created. If etcd does not permit it, the registry can be
// read as it is. Not taken, and no failure: another session, perhaps of a later release, has just marked or removed it.
Status Opening::mark(std::int64_t meta_revision, bool* taken) {
  if (Status status = check_enclosing(); !status.ok()) return status;
  if (Status status = check_enclosed(); !status.ok()) return status;
  if (!options_.create) return {};
  TxnRequest request;
  compare_revision(&request, keys_.mark(), 0);
  compare_not_removed(&request, keys_.meta(), meta_revision);
  const std::string mark = RegistryMark::make().print();
  put(request.add_success(), keys_.mark(), mark);
  TxnResponse response;
  Status status = core_.kv->txn(request, &response, core_.deadline()).status;
  if (!status.ok()) return status.is(PRTKV_ACCESS_DENIED) ? Status() : status;
  *taken = response.succeeded();
  if (*taken) core_.kv->hold_mark(keys_.mark(), mark);
  return {};
}

// Every beginning of the prefix may be the prefix of another registry. What this session may not read, it cannot write
// either.
Status Opening::check_enclosing() {
  for (std::size_t size = 1; size < options_.prefix.size();) {
    TxnRequest request;
    std::vector<std::string> prefixes;
    for (; size < options_.prefix.size() && request.success_size() < kMaxLookOperations; ++size) {
      prefixes.push_back(options_.prefix.substr(0, size));
      const Keys outer(prefixes.back());
      *request.add_success()->mutable_request_range() = get_one(outer.mark());
      *request.add_success()->mutable_request_range() = get_one(outer.meta());
    }
    TxnResponse response;
    const Reply reply = core_.kv->txn(request, &response, core_.deadline());
    if (reply.status.is(PRTKV_ACCESS_DENIED)) return {};
    if (!reply.ok()) return reply.status;
    for (std::size_t i = 0; i < prefixes.size(); ++i) {
      const RangeResponse& mark = response.responses(static_cast<int>(2 * i)).response_range();
      const RangeResponse& meta = response.responses(static_cast<int>(2 * i + 1)).response_range();
      if ((mark.kvs_size() > 0 && RegistryMark::parse(mark.kvs(0).value())) ||
          (meta.kvs_size() > 0 && is_registry(meta.kvs(0).value()))) {
        return {PRTKV_UNUSABLE, "the prefix " + quoted(options_.prefix) +
                                    " is within the prefix of another registry in etcd, " + quoted(prefixes[i]) +
                                    "; set `prefix` to another one"};
      }
    }
  }
  return {};
}

// Gives an unmarked registry the first record of its log.
Status Opening::begin_log() {
  if (!options_.create) return {};
  TxnRequest request;
  compare_revision(&request, keys_.log(), 0);
  put(request.add_success(), keys_.log(), ChangeLog::encode({}));
  TxnResponse response;
  Status status = core_.kv->txn(request, &response, core_.deadline()).status;
  return status.is(PRTKV_ACCESS_DENIED) || status.is(PRTKV_STORAGE_FULL) ? Status() : status;
}

// Looks for registries among the keys that are neither nodes nor values.
Status Opening::check_enclosed() {
  const KeyRange all = keys_.all();
  const KeyRange nodes = keys_.all_nodes();
  const KeyRange values = keys_.all_values();
  for (const KeyRange& range :
       {KeyRange{all.begin, nodes.begin}, KeyRange{nodes.end, values.begin}, KeyRange{values.end, all.end}}) {
    if (Status status = check_enclosed(range); !status.ok()) return status;
  }
  return {};
}

Status Opening::check_enclosed(KeyRange range) {
  RangeRequest request = get_range(std::move(range), kKeysPerPage);
  request.set_keys_only(true);
  Pager pager(*core_.kv, request);
  const std::string meta = Keys("").meta();
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& found : page.kvs()) {
      if (!found.key().ends_with(meta) || found.key() == keys_.meta()) continue;
      RangeResponse record;
      if (Reply reply = core_.kv->range(get_one(found.key()), &record, core_.deadline()); !reply.ok()) {
        return reply.status;
      }
      if (record.kvs_size() == 0 || !is_registry(record.kvs(0).value())) continue;
      const std::string inner = found.key().substr(0, found.key().size() - meta.size());
      return {PRTKV_UNUSABLE, "the prefix " + quoted(options_.prefix) + " contains that of another registry in etcd, " +
                                  quoted(inner) + "; set `prefix` to another one"};
    }
  }
  return {};
}

}  // namespace

Status open_registry(Core& core, const EtcdOptions& options) { return Opening(core, options).run(); }

}  // namespace tkv::store::etcd
