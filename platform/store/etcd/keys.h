// The layout of a registry's keys in etcd, all under the registry's prefix.
//
//   meta                              the next free id
//   log                               the last change; its former versions are the log
//   registry                          the mark: that there is a registry under this prefix, and which
//   n/<parent's id>/<level name>      a node
//   v/<id>                            a node's value
//   txn/<writer>                      the mark of a writer's last transaction, which tells whether it was made if its
//                                     answer is lost
//   sessions/<token>                  a session that writes, for as long as it lives
//   staging/<token>                   a build: who is staging which ids
//   garbage/<id>                      a subtree that was unlinked and is still to be removed
//   claims/<top's id>/<token>         a large change of a subtree: being prepared, or decided and being carried out
//   plan/<token>/<number>             a batch of that change's redo log
//   tickets/<ticket>                  that the large change was decided whose records carry this ticket, and when
//
// Ids are 16 hexadecimal digits, so that the keys of one parent are adjacent and in byte order of the names. Stored in
// clusters: do not change.
#ifndef TKV_PLATFORM_STORE_ETCD_KEYS_H
#define TKV_PLATFORM_STORE_ETCD_KEYS_H

#include <compare>
#include <optional>
#include <string>
#include <string_view>

#include "store/store.h"

namespace tkv::store::etcd {

// Where a node is in the tree.
struct NodePlace {
  NodeId parent = kNoNode;
  std::string name;

  auto operator<=>(const NodePlace&) const = default;  // NOLINT(modernize-use-nullptr): no pointer here
};

// What the key of a claim says.
struct ClaimPlace {
  NodeId top = kNoNode;
  std::string token;
};

// What the key of a batch says.
struct PlanPlace {
  std::string token;
  std::uint64_t number = 0;
};

// All keys from `begin` up to, but not including, `end`.
struct KeyRange {
  std::string begin;
  std::string end;
};

class Keys {
 public:
  explicit Keys(std::string prefix) : prefix_(std::move(prefix)) {}

  std::string meta() const { return prefix_ + "meta"; }
  std::string mark() const { return prefix_ + "registry"; }
  std::string log() const { return prefix_ + "log"; }
  std::string node(const NodePlace& place) const;
  std::string value(NodeId id) const;
  std::string garbage(NodeId id) const;
  std::string session(std::string_view token) const { return prefix_ + "sessions/" + std::string(token); }
  std::string staging(std::string_view token) const { return prefix_ + "staging/" + std::string(token); }
  std::string claim(NodeId top, std::string_view token) const;
  std::string plan(std::string_view token, std::uint64_t number) const;
  std::string ticket(Revision ticket) const;
  std::string writer(std::string_view writer) const { return prefix_ + "txn/" + std::string(writer); }

  KeyRange all() const { return folder(""); }
  KeyRange all_nodes() const { return folder("n/"); }
  KeyRange all_values() const { return folder("v/"); }
  KeyRange all_garbage() const { return folder("garbage/"); }
  KeyRange all_sessions() const { return folder("sessions/"); }
  KeyRange all_staging() const { return folder("staging/"); }
  KeyRange all_writers() const { return folder("txn/"); }
  KeyRange all_claims() const { return folder("claims/"); }
  KeyRange all_plans() const { return folder("plan/"); }
  KeyRange all_tickets() const { return folder("tickets/"); }
  KeyRange all_of_plan(std::string_view token) const { return folder("plan/" + std::string(token) + "/"); }
  KeyRange children(NodeId parent) const { return nodes_below(parent, parent); }

  // The children of the ids from `first` to `last`, and the values of those ids.
  KeyRange nodes_below(NodeId first, NodeId last) const;
  KeyRange values_of(NodeId first, NodeId last) const;

  // Parse a key; nothing if it is not one of that kind.
  std::optional<NodePlace> parse_node(std::string_view key) const;
  std::optional<NodeId> parse_value(std::string_view key) const { return parse_id(key, "v/"); }
  std::optional<NodeId> parse_garbage(std::string_view key) const { return parse_id(key, "garbage/"); }
  std::optional<Revision> parse_ticket(std::string_view key) const { return parse_id(key, "tickets/"); }
  std::optional<ClaimPlace> parse_claim(std::string_view key) const;
  std::optional<PlanPlace> parse_plan(std::string_view key) const;
  std::optional<std::string> parse_staging(std::string_view key) const;  // its token
  bool is_writer(std::string_view key) const;

 private:
  KeyRange folder(std::string_view name) const;
  std::optional<NodeId> parse_id(std::string_view key, std::string_view folder) const;

  std::string prefix_;
};

}  // namespace tkv::store::etcd

#endif
