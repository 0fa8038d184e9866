#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "etcd_store_fixture.h"
#include "store/etcd/read_ahead.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kMostMessage = 4 * 1024 * 1024;

// A tree to build, and what a walk over it must give: values by the levels of their names.
struct Branch {
  std::string value;
  std::map<std::string, Branch> below;
};
using Walked = std::vector<std::pair<std::string, std::string>>;

Walked flat(const Branch& branch, const std::string& name = "") {
  Walked all{{name, branch.value}};
  for (const auto& [level, child] : branch.below) {
    const Walked below = flat(child, name + "." + level);
    all.insert(all.end(), below.begin(), below.end());
  }
  return all;
}

Status build(Update& update, const Branch& branch, NodeId id) {
  if (!branch.value.empty()) {
    if (Status status = update.set_value(id, 3, bytes_of(branch.value)); !status.ok()) return status;
  }
  for (const auto& [level, child] : branch.below) {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(id, level, node); !status.ok()) return status;
    if (Status status = build(update, child, node.id); !status.ok()) return status;
  }
  return {};
}

// As an export walks: each key before its subkeys, with its value.
Status walk(View& view, NodeId id, const std::string& name, Walked* walked) {
  Value value;
  if (Status status = view.value(id, &value); !status.ok()) return status;
  walked->emplace_back(name, text_of(value));
  return view.children(id, [&](std::string_view level, const Node& node) {
    return walk(view, node.id, name + "." + std::string(level), walked);
  });
}

// As a copy walks: the list of the subkeys is complete before the first of them is looked at.
Status walk_lists(View& view, NodeId id, const std::string& name, Walked* walked) {
  Value value;
  bool any = false;
  if (Status status = view.value(id, &value); !status.ok()) return status;
  walked->emplace_back(name, text_of(value));
  if (Status status = view.has_children(id, &any); !status.ok() || !any) return status;
  std::vector<std::pair<std::string, NodeId>> subkeys;
  const Status listed = view.children(id, [&](std::string_view level, const Node& node) {
    subkeys.emplace_back(level, node.id);
    return Status();
  });
  if (!listed.ok()) return listed;
  for (const auto& [level, below] : subkeys) {
    if (Status status = walk_lists(view, below, name + "." + level, walked); !status.ok()) return status;
  }
  return {};
}

// As a count walks: no values.
Status count_keys(View& view, NodeId id, int* keys) {
  ++*keys;
  return view.children(id, [&](std::string_view, const Node& node) { return count_keys(view, node.id, keys); });
}

class EtcdReadAhead : public EtcdStore {
 protected:
  void build_top(const Branch& branch) {
    ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
      Node top;
      if (Status status = update.new_id(&top.id); !status.ok()) return status;
      if (Status status = build(update, branch, top.id); !status.ok()) return status;
      return update.insert(kRootNode, "top", top);
    })));
  }

  // Requests of a function that is given the view and the topmost key.
  int requests_of(const std::function<Status(View&, NodeId)>& function) {
    watch_.reset();
    EXPECT_TRUE(done(read_top(function)));
    return watch_.count();
  }

  Status read_top(const std::function<Status(View&, NodeId)>& function) {
    return store_->read_all([&](View& view) -> Status {
      Node top;
      if (Status status = follow(view, "top", &top); !status.ok()) return status;
      return function(view, top.id);
    });
  }

  int requests_of_walk(const Branch& branch) {
    Walked walked;
    const int requests = requests_of([&](View& view, NodeId top) { return walk(view, top, "", &walked); });
    EXPECT_EQ(walked, flat(branch));
    EXPECT_LT(watch_.largest_answer(), kMostMessage);
    return requests;
  }

  int requests_of_copy(const Branch& branch) {
    Walked walked;
    const int requests = requests_of([&](View& view, NodeId top) { return walk_lists(view, top, "", &walked); });
    EXPECT_EQ(walked, flat(branch));
    EXPECT_LT(watch_.largest_answer(), kMostMessage);
    return requests;
  }

  NodeId id_of(std::string_view path) {
    NodeId id = kNoNode;
    EXPECT_TRUE(done(open_key(*store_, path, &id)));
    return id;
  }

  void spoil(const std::string& key) {
    std::string record = get_raw(key);
    ASSERT_GT(record.size(), 10u);
    record[10] = static_cast<char>(record[10] ^ 1);
    put_raw(key, record);
  }

  void compact() {
    RangeResponse response;
    EXPECT_TRUE(raw().range(get_one(keys().meta()), &response, patience()).ok());
    cluster_->ctl({"compaction", std::to_string(response.header().revision())});
  }
};

Branch leaves(int count) {
  Branch branch{"the top", {}};
  for (int i = 0; i < count; ++i) branch.below["k" + std::to_string(i)].value = "value " + std::to_string(i);
  return branch;
}

// ---- how many requests

// Two to find the topmost key. Three pages of 2,048 subkeys. Before anything is fetched ahead, two values and two lists
// of subkeys, and those of the topmost key. Values 8 at a time, then twice as many each time up to 256: 5 requests
// until then, 5,000 / 256 = 20 from then on, and one more for what remains of each page. Lists come with them.
constexpr int kMostForFiveThousand = 2 + 3 + (2 * 2 + 2) + 5 + 20 + 3;

TEST_F(EtcdReadAhead, AWalkOverFiveThousandKeysWithValuesTakesAFewDozenRequests) {
  const Branch branch = leaves(5000);
  build_top(branch);
  EXPECT_LE(requests_of_walk(branch), kMostForFiveThousand);
  EXPECT_LE(requests_of_copy(branch), kMostForFiveThousand);
}

TEST_F(EtcdReadAhead, NeitherDoesATreeOfGroupsTakeMore) {
  Branch branch{"the top", {}};
  for (int i = 0; i < 50; ++i) branch.below["group" + std::to_string(i)] = leaves(99);
  build_top(branch);
  // A group's list of subkeys may be cut short by its share of an answer, and then takes one request more.
  EXPECT_LE(requests_of_walk(branch), kMostForFiveThousand + 50);
  EXPECT_LE(requests_of_copy(branch), kMostForFiveThousand + 50);
}

TEST_F(EtcdReadAhead, ADeepTreeTakesARequestALevel) {
  Branch branch{"bottom", {}};
  for (int level = 0; level < 150; ++level) {
    Branch above{"v" + std::to_string(level), {}};
    above.below["level"] = std::move(branch);
    branch = std::move(above);
  }
  build_top(branch);
  EXPECT_LE(requests_of_walk(branch), 150 + 8);
  EXPECT_LE(requests_of_copy(branch), 150 + 8);
}

TEST_F(EtcdReadAhead, ManySmallBranchesAreReadAbreast) {
  Branch branch{"the top", {}};
  for (int i = 0; i < 300; ++i) {
    Branch& group = branch.below["g" + std::to_string(i)];
    group.below["a"].below["b"].below["c"].value = "deep " + std::to_string(i);
    group.below["d"].value = "flat";
  }
  build_top(branch);
  EXPECT_LE(requests_of_walk(branch), 60);  // of 1,501 keys
  EXPECT_LE(requests_of_copy(branch), 60);
}

TEST_F(EtcdReadAhead, AWalkWithoutValuesFetchesNone) {
  Branch branch = leaves(1000);
  for (auto& [level, child] : branch.below) child.value = std::string(2000, 'x');
  build_top(branch);
  int count = 0;
  EXPECT_LE(requests_of([&](View& view, NodeId top) { return count_keys(view, top, &count); }), 2 + 1 + 3 + 8);
  EXPECT_EQ(count, 1001);
  EXPECT_LT(watch_.answered(), 1000u * 1000);
}

TEST_F(EtcdReadAhead, AWalkThatStopsReadingValuesStopsFetchingThem) {
  Branch branch = leaves(3000);
  for (auto& [level, child] : branch.below) child.value = std::string(2000, 'x');
  build_top(branch);
  int seen = 0;
  requests_of([&](View& view, NodeId top) {
    return view.children(top, [&](std::string_view, const Node& node) -> Status {
      Value value;
      if (++seen <= 20) {
        if (Status status = view.value(node.id, &value); !status.ok()) return status;
        EXPECT_EQ(value.bytes.size(), 2000u);
      }
      bool any = true;
      Status status = view.has_children(node.id, &any);
      EXPECT_FALSE(any);
      return status;
    });
  });
  EXPECT_EQ(seen, 3000);
  EXPECT_LT(watch_.answered(), 3000u * 300 + 200u * 2000);
}

TEST_F(EtcdReadAhead, SingleReadingsTakeOneRequestEachAndNoMoreBytes) {
  build_top(leaves(100));
  const NodeId wanted = id_of("top.k7");
  EXPECT_EQ(requests_of([&](View& view, NodeId) {
              Value value;
              Status status = view.value(wanted, &value);
              EXPECT_EQ(text_of(value), "value 7");
              return status;
            }),
            3);  // two to find the topmost key
  EXPECT_EQ(requests_of([&](View& view, NodeId top) -> Status {
              Node node;
              Value value;
              bool any = true;
              if (Status status = view.find(top, "k8", &node); !status.ok()) return status;
              if (Status status = view.has_children(node.id, &any); !status.ok()) return status;
              EXPECT_FALSE(any);
              return view.value(node.id, &value);
            }),
            5);
  EXPECT_LT(watch_.answered(), 2000u);
}

// ---- sizes

TEST_F(EtcdReadAhead, LargeValuesAmongSmallOnesKeepMessagesSmall) {
  Branch branch{"the top", {}};
  std::mt19937 random(99);
  for (int i = 0; i < 400; ++i) {
    const std::size_t size = i >= 200 && i < 212 ? 1024 * 1024 : random() % 400 + 1;
    branch.below["k" + std::to_string(1000 + i)].value = std::string(size, static_cast<char>('a' + i % 26));
  }
  build_top(branch);
  EXPECT_LE(requests_of_walk(branch), 2 + 1 + 6 + 8 + 12 * 2 + 12);
}

TEST_F(EtcdReadAhead, AWideKeyIsReadPageByPage) {
  const Branch branch = leaves(20000);
  build_top(branch);
  EXPECT_LE(requests_of_walk(branch), 20000 / 256 + 2 * (20000 / 2048 + 1) + 14);
  EXPECT_LE(requests_of_copy(branch), 20000 / 256 + 2 * (20000 / 2048 + 1) + 14);
}

// ---- what is asked for in other orders

TEST_F(EtcdReadAhead, WhateverIsAskedForInWhateverOrderIsAnsweredRightly) {
  std::mt19937 random(20240611);
  const std::function<Branch(int)> grow = [&](int levels) {
    Branch branch;
    if (random() % 4 != 0) branch.value = "v" + std::to_string(random());
    const int below = levels == 0 ? 0 : static_cast<int>(random() % 8);
    for (int i = 0; i < below; ++i) branch.below[std::to_string(random() % 1000)] = grow(levels - 1);
    return branch;
  };
  Branch branch{"the top", {}};
  for (int i = 0; i < 8; ++i) branch.below["b" + std::to_string(i)] = grow(3);
  build_top(branch);
  // Ids that are not consecutive in the order of the names.
  for (int i = 0; i < 60; ++i) {
    const std::string name = std::to_string(random());
    ASSERT_TRUE(done(create_key(*store_, "top." + name, "v" + name)));
    branch.below[name].value = "v" + name;
  }

  const std::function<Status(View&, NodeId, const Branch&)> check = [&](View& view, NodeId id,
                                                                        const Branch& expected) -> Status {
    const auto check_value = [&]() -> Status {
      Value value;
      if (random() % 3 == 0) return {};
      Status status = view.value(id, &value);
      EXPECT_EQ(text_of(value), expected.value);
      return status;
    };
    const auto check_any = [&]() -> Status {
      bool any = false;
      if (random() % 3 != 0) return {};
      Status status = view.has_children(id, &any);
      EXPECT_EQ(any, !expected.below.empty());
      return status;
    };
    if (Status status = check_value(); !status.ok()) return status;
    if (Status status = check_any(); !status.ok()) return status;
    const bool nested = random() % 2 == 0;
    std::vector<std::pair<std::string, NodeId>> subkeys;
    auto next = expected.below.begin();
    if (random() % 8 == 0) return {};
    const Status listed = view.children(id, [&](std::string_view level, const Node& node) -> Status {
      if (next == expected.below.end() || next->first != level) return {PRTKV_UNKNOWN, "a wrong subkey"};
      subkeys.emplace_back(level, node.id);
      return nested ? check(view, node.id, (next++)->second) : (++next, Status());
    });
    if (!listed.ok()) return listed;
    EXPECT_TRUE(next == expected.below.end());
    if (Status status = check_value(); !status.ok()) return status;
    if (nested) return check_any();
    if (random() % 3 == 0) std::shuffle(subkeys.begin(), subkeys.end(), random);
    for (const auto& [level, below] : subkeys) {
      if (Status status = check(view, below, expected.below.at(level)); !status.ok()) return status;
    }
    return check_any();
  };
  for (int round = 0; round < 12; ++round) {
    requests_of([&](View& view, NodeId top) { return check(view, top, branch); });
    const int keys = static_cast<int>(flat(branch).size());
    EXPECT_LT(watch_.count(), 3 * keys);
  }
}

TEST_F(EtcdReadAhead, WhatOthersWriteMeanwhileIsNotSeen) {
  const Branch branch = leaves(600);
  build_top(branch);
  Walked walked;
  ASSERT_TRUE(done(read_top([&](View& view, NodeId top) {
    EXPECT_TRUE(done(write_key(*store_, "top.k599", "later")));
    EXPECT_TRUE(done(create_key(*store_, "top.k30.new", "later")));
    EXPECT_TRUE(done(delete_key(*store_, "top.k300")));
    return walk(view, top, "", &walked);
  })));
  EXPECT_EQ(walked, flat(branch));
}

// ---- failures

TEST_F(EtcdReadAhead, ADamagedValueFailsWhenItIsAskedForAndOnlyThen) {
  build_top(leaves(300));
  spoil(keys().value(id_of("top.k150")));
  int read = 0;
  const auto read_all_but = [&](std::string_view skipped) {
    read = 0;
    return read_top([&](View& view, NodeId top) {
      return view.children(top, [&](std::string_view level, const Node& node) -> Status {
        Value value;
        if (level == skipped) return {};
        Status status = view.value(node.id, &value);
        EXPECT_EQ(status.is(PRTKV_STORAGE_FAILED), level == "k150") << level;
        if (status.ok()) ++read;
        return status;
      });
    });
  };
  EXPECT_TRUE(done(read_all_but("k150")));
  EXPECT_EQ(read, 299);
  const Status status = read_all_but("");
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(status.has_text());
  EXPECT_EQ(read, 58);  // those before it, in byte order of the names
}

TEST_F(EtcdReadAhead, ADamagedKeyFailsInItsPlaceAndIsNamed) {
  Branch branch{"the top", {}};
  for (int i = 0; i < 60; ++i) branch.below["group" + std::to_string(100 + i)] = leaves(5);
  build_top(branch);
  spoil(keys().node({id_of("top.group140"), "k3"}));
  Walked walked;
  const Status status = read_top([&](View& view, NodeId top) { return walk(view, top, "", &walked); });
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("k3"), std::string::npos) << status.text();
  ASSERT_EQ(walked.size(), 1u + 40 * 6 + 1 + 3);
  EXPECT_EQ(walked.back().first, ".group140.k2");

  // Whoever passes over its group never hears of it.
  int groups = 0;
  EXPECT_TRUE(done(read_top([&](View& view, NodeId top) {
    return view.children(top, [&](std::string_view level, const Node& node) -> Status {
      int keys = 0;
      ++groups;
      return level == "group140" ? Status() : count_keys(view, node.id, &keys);
    });
  })));
  EXPECT_EQ(groups, 60);
}

TEST_F(EtcdReadAhead, ARegistryThatHangsBelowItselfIsReadAsFarAsTheWalkGoes) {
  Branch branch{"the top", {}};
  for (int i = 0; i < 20; ++i) branch.below["k" + std::to_string(10 + i)].below["below"].value = "v";
  build_top(branch);
  const NodeId k20 = id_of("top.k20");
  const NodeId k21 = id_of("top.k21");
  const NodeId below = id_of("top.k20.below");
  put_raw(keys().node({below, "again"}), as_text(encode_node(below, "again", {k20, {}})));
  put_raw(keys().node({k21, "itself"}), as_text(encode_node(k21, "itself", {k21, {}})));
  std::size_t visits = 0;
  const std::function<Status(View&, NodeId, int)> descend = [&](View& view, NodeId id, int levels) -> Status {
    Value value;
    ++visits;
    if (Status status = view.value(id, &value); !status.ok()) return status;
    if (levels == 0) return {};
    return view.children(id, [&](std::string_view, const Node& node) { return descend(view, node.id, levels - 1); });
  };
  EXPECT_TRUE(done(read_top([&](View& view, NodeId top) { return descend(view, top, 40); })));
  EXPECT_EQ(visits, 1u + 18 * 2 + 40 + 39 + 40);
}

TEST_F(EtcdReadAhead, ACompactionInTheMiddleEndsTheWalk) {
  build_top(leaves(3000));
  Walked walked;
  const Status status = read_top([&](View& view, NodeId top) {
    return view.children(top, [&](std::string_view level, const Node& node) -> Status {
      if (walked.size() == 500) {
        EXPECT_TRUE(done(write_key(*store_, "top.k1", "later")));
        compact();
      }
      return walk(view, node.id, std::string(level), &walked);
    });
  });
  EXPECT_TRUE(status.is(PRTKV_BUSY));
  EXPECT_NE(status.text().find("compacted"), std::string::npos) << status.text();
  EXPECT_GE(walked.size(), 500u);
  EXPECT_LE(walked.size(), 500u + kMostValuesAhead);
}

TEST_F(EtcdReadAhead, LostRequestsAndAnswersChangeNothing) {
  const Branch branch = leaves(2000);
  build_top(branch);
  std::mt19937 random(5);
  watch_.decide([&](const std::string&) {
    const auto dice = random() % 10;
    return dice < 2 ? Fate::kLoseAnswer : dice < 4 ? Fate::kLoseRequest : Fate::kPass;
  });
  Walked walked;
  EXPECT_TRUE(done(read_top([&](View& view, NodeId top) { return walk(view, top, "", &walked); })));
  watch_.decide({});
  EXPECT_EQ(walked, flat(branch));
}

TEST(EtcdReadAheadOnASmallServer, FewerOperationsATransactionAreNoFailure) {
  EtcdCluster::Options few;
  few.flags = {"--max-txn-ops=8"};
  EtcdCluster cluster(few);
  std::shared_ptr<Store> store;
  ASSERT_TRUE(done(open_etcd_store(cluster.registry(), &store)));
  ASSERT_TRUE(done(create_key(*store, "a")));
  ASSERT_TRUE(done(create_key(*store, "b")));
  for (int i = 100; i < 150; ++i) {  // by turns, so that no two ids below one key follow each other
    ASSERT_TRUE(done(create_key(*store, "a.k" + std::to_string(i), "a.k" + std::to_string(i))));
    ASSERT_TRUE(done(create_key(*store, "b.k" + std::to_string(i), "b.k" + std::to_string(i))));
  }
  Walked walked;
  ASSERT_TRUE(done(store->read_all([&](View& view) { return walk(view, kRootNode, "", &walked); })));
  ASSERT_EQ(walked.size(), 103u);
  for (const auto& [name, value] : walked) EXPECT_EQ(name, value.empty() ? name.substr(0, 2) : "." + value);
}

// ---- memory

// A walk over a made-up cluster: nodes up to kLastGroup have as many children as fit an answer, the others none.
class HeldByReadAhead : public testing::Test {
 protected:
  static constexpr NodeId kLastGroup = 1000;

  void SetUp() override {
    ChildPage top;
    for (NodeId id = 2; id <= kLastGroup; ++id) top.children.push_back({"k", {1, Node{id, {}}, {}}});
    ahead_.listed(kRootNode, top, true);
  }

  void ask(NodeId id, Sought sought, std::size_t value_size) {
    if (!ahead_.ask(id, sought)) return;
    const auto request = ahead_.request(1);
    if (!request) return;
    ++requests_;
    TxnResponse response = answer(*request, value_size);
    ahead_.keep(&response);
    most_ = std::max(most_, ahead_.held());
  }

  TxnResponse answer(const TxnRequest& request, std::size_t value_size) {
    TxnResponse response;
    for (const RequestOp& operation : request.success()) {
      const RangeRequest& range = operation.request_range();
      RangeResponse* answered = response.add_responses()->mutable_response_range();
      if (auto id = keys_.parse_value(range.key())) {
        for (; keys_.value(*id) < range.range_end(); ++*id)
          add(answered, keys_.value(*id), std::string(value_size, 'x'));
      } else if (const auto first = keys_.parse_node(range.key()); first->parent <= kLastGroup) {
        for (std::int64_t i = 0; i < range.limit(); ++i) {
          const NodePlace place{first->parent, "child" + std::to_string(1000000 + i)};
          add(answered, keys_.node(place), as_text(encode_node(place.parent, place.name, {++last_id_, {}})));
        }
        answered->set_more(true);
      }
    }
    return response;
  }

  static void add(RangeResponse* answered, std::string key, std::string value) {
    KeyValue* record = answered->add_kvs();
    record->set_key(std::move(key));
    record->set_value(std::move(value));
  }

  Keys keys_{"/held/"};
  ReadAhead ahead_{keys_};
  NodeId last_id_ = 1000000;
  std::size_t most_ = 0;
  int requests_ = 0;
};

// What is asked for itself is always kept, so the bound may be passed by that much.
constexpr std::size_t kOneMore = 1024 * 1024;

TEST_F(HeldByReadAhead, ValuesStayWithinTheBoundWhenTheyGrowAllOfASudden) {
  for (NodeId id = 2; id <= kLastGroup; ++id) {
    ask(id, Sought::kValue, id < 600 ? 10 : 60000);
    std::optional<KeyValue> record;
    if (ahead_.take_value(id, &record)) {
      ASSERT_TRUE(record);
    }
  }
  EXPECT_LE(requests_, 5 + 1000 / 256 + 1 + (400 - 256) / 16);
  EXPECT_GT(most_, kMostHeld / 2);
  EXPECT_LE(most_, kMostHeld + kOneMore);
  EXPECT_LT(ahead_.held(), kOneMore);
}

TEST_F(HeldByReadAhead, ListsOfChildrenStayWithinTheBound) {
  ChildPage top;
  for (NodeId id = 2; id <= kLastGroup; id += 2) top.children.push_back({"k", {1, Node{id, {}}, {}}});
  ahead_.listed(kRootNode, top, true);
  for (NodeId id = 2; id <= kLastGroup; id += 2) {
    ask(id, Sought::kChildren, 0);
    ChildPage page;
    if (!ahead_.take_children(id, &page)) continue;
    ahead_.listed(id, page, true);
    for (const Child& child : page.children) {
      ask(child.seen.node->id, Sought::kChildren, 0);
      ChildPage none;
      if (!ahead_.take_children(child.seen.node->id, &none)) continue;
      ahead_.listed(child.seen.node->id, none, true);
      EXPECT_TRUE(none.children.empty());
    }
  }
  EXPECT_GT(requests_, 10);
  EXPECT_GT(most_, kMostHeld / 8);
  EXPECT_LE(most_, kMostHeld + kOneMore);
}

}  // namespace
}  // namespace tkv::store::etcd
