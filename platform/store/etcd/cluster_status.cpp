#include "store/etcd/cluster_status.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "store/etcd/build.h"
#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {
namespace {

// "http://10.0.0.1:2379/" as an endpoint names it: "10.0.0.1:2379".
std::string_view address_of(std::string_view url) {
  if (const auto scheme = url.find("://"); scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
  if (url.ends_with('/')) url.remove_suffix(1);
  return url;
}

bool has_address(const etcdserverpb::Member& member, std::string_view address) {
  return std::any_of(member.client_urls().begin(), member.client_urls().end(),
                     [address](const std::string& url) { return address_of(url) == address; });
}

class Description {
 public:
  explicit Description(const ClusterAnswer& answer) : answer_(answer) {}

  void print(StoreStatus* status);

 private:
  void list_members();
  void take_in(const EndpointAnswer& endpoint);
  ClusterMember& member_at(const EndpointAnswer& endpoint);
  void find_leader();
  std::string name_of(std::uint64_t id) const;

  const ClusterAnswer& answer_;
  std::vector<ClusterMember> members_;
  std::map<std::uint64_t, std::size_t> by_id_;  // places in `members_`
};

void Description::list_members() {
  for (const etcdserverpb::Member& listed : answer_.members.members()) {
    by_id_[listed.id()] = members_.size();
    ClusterMember& member = members_.emplace_back();
    member.name = listed.name();
    if (listed.client_urls_size() > 0) member.address = address_of(listed.client_urls(0));
    member.problem = "not asked, since it is not one of the configured endpoints";
  }
}

ClusterMember& Description::member_at(const EndpointAnswer& endpoint) {
  if (endpoint.status.ok()) {
    const auto [at, is_new] = by_id_.try_emplace(endpoint.member.header().member_id(), members_.size());
    return is_new ? members_.emplace_back() : members_[at->second];
  }
  for (const etcdserverpb::Member& listed : answer_.members.members()) {
    if (has_address(listed, endpoint.address)) return members_[by_id_[listed.id()]];
  }
  return members_.emplace_back();
}

void Description::take_in(const EndpointAnswer& endpoint) {
  ClusterMember& member = member_at(endpoint);
  if (!endpoint.status.ok() && !member.version.empty()) return;  // it has answered at another endpoint
  member.address = endpoint.address;
  member.problem = endpoint.status.ok() ? "" : "does not answer: " + endpoint.status.text();
  member.version = endpoint.member.version();
  member.bytes = static_cast<std::uint64_t>(endpoint.member.db_size());
}

void Description::find_leader() {
  std::uint64_t leader = 0;
  std::uint64_t latest = 0;
  for (const EndpointAnswer& endpoint : answer_.endpoints) {
    if (!endpoint.status.ok() || endpoint.member.leader() == 0 || endpoint.member.raft_term() < latest) continue;
    latest = endpoint.member.raft_term();
    leader = endpoint.member.leader();
  }
  if (const auto at = by_id_.find(leader); at != by_id_.end()) members_[at->second].leads = true;
}

std::string Description::name_of(std::uint64_t id) const {
  const auto at = by_id_.find(id);
  if (at == by_id_.end()) return std::to_string(id);
  const ClusterMember& member = members_[at->second];
  return member.name.empty() ? member.address : member.name;
}

std::string alarm_text(etcdserverpb::AlarmType alarm) {
  if (alarm == etcdserverpb::NOSPACE) return "no space";
  if (alarm == etcdserverpb::CORRUPT) return "corrupt data";
  return "alarm " + std::to_string(alarm);
}

void Description::print(StoreStatus* status) {
  list_members();
  for (const EndpointAnswer& endpoint : answer_.endpoints) take_in(endpoint);
  find_leader();
  ClusterStatus& cluster = status->cluster.emplace();
  for (const etcdserverpb::AlarmMember& raised : answer_.alarms.alarms()) {
    cluster.alarms.push_back({name_of(raised.member_id()), alarm_text(raised.alarm())});
  }
  for (const EndpointAnswer& endpoint : answer_.endpoints) {
    const auto quota = static_cast<std::uint64_t>(endpoint.member.db_size_quota());
    status->bytes = std::max(status->bytes, static_cast<std::uint64_t>(endpoint.member.db_size()));
    cluster.bytes_in_use = std::max(cluster.bytes_in_use, static_cast<std::uint64_t>(endpoint.member.db_size_in_use()));
    if (quota != 0 && (status->max_bytes == 0 || quota < status->max_bytes)) status->max_bytes = quota;
  }
  cluster.retries = answer_.retries;
  cluster.members = std::move(members_);
}

// Reads all keys of a range at one revision.
Status read_range(Core& core, RangeRequest request, std::int64_t revision, FunctionRef<void(const KeyValue&)> visit) {
  request.set_revision(revision);
  Pager pager(*core.kv, std::move(request));
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& record : page.kvs()) visit(record);
  }
  return {};
}

Status count_builds(Core& core, ClusterStatus* cluster) {
  const auto revision = static_cast<std::int64_t>(cluster->revision);
  std::set<std::string> sessions;
  RangeRequest open = get_range(core.keys.all_sessions(), kKeysPerSweep);
  open.set_keys_only(true);
  Status status =
      read_range(core, std::move(open), revision, [&](const KeyValue& session) { sessions.insert(session.key()); });
  if (!status.ok()) return status;
  return read_range(core, get_range(core.keys.all_staging(), kMarkersPerPage), revision, [&](const KeyValue& build) {
    const auto text = BuildText::parse(build.value());
    ++cluster->builds;
    if (!text || text->given_up || !sessions.contains(core.keys.session(text->session))) ++cluster->dead_builds;
  });
}

Status count_work(Core& core, ClusterStatus* cluster) {
  TxnRequest request;
  for (const KeyRange& range : {core.keys.all_claims(), core.keys.all_garbage()}) {
    RangeRequest* counted = request.add_success()->mutable_request_range();
    *counted = get_range(range, 1);
    counted->set_keys_only(true);
  }
  TxnResponse found;
  if (Reply reply = core.kv->txn(request, &found, core.deadline()); !reply.ok()) return reply.status;
  cluster->revision = static_cast<std::uint64_t>(found.header().revision());
  cluster->claims = static_cast<std::uint64_t>(found.responses(0).response_range().count());
  cluster->garbage = static_cast<std::uint64_t>(found.responses(1).response_range().count());
  return count_builds(core, cluster);
}

}  // namespace

void describe_cluster(const ClusterAnswer& answer, StoreStatus* status) {
  *status = {};
  Description(answer).print(status);
}

Status read_cluster_status(Core& core, StoreStatus* status) {
  ClusterAnswer answer;
  if (Reply reply = core.kv->ask_members(&answer, core.deadline()); !reply.ok()) return reply.status;
  describe_cluster(answer, status);
  ChangeLog::Reach reach;
  if (Reply reply = core.log.reach(&reach); !reply.ok()) return reply.status;
  status->revision = reach.revision;
  status->oldest_state = reach.oldest_state;
  status->log_after = reach.log_after;
  return count_work(core, &*status->cluster);
}

}  // namespace tkv::store::etcd
