#include "store_contract.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "store/store_limits.h"

namespace tkv::store {
namespace {

std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::string text_of(const Value& value) {
  return {reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()};
}

Status set(Update& update, NodeId id, std::int32_t type, std::string_view text) {
  return update.set_value(id, type, bytes_of(text));
}

Status make(Update& update, NodeId parent, std::string_view name, NodeId* id) {
  Node node;
  if (Status status = update.new_id(&node.id); !status.ok()) return status;
  *id = node.id;
  return update.insert(parent, name, node);
}

Status move(Update& update, NodeId from, std::string_view name, NodeId to, std::string_view new_name) {
  Node node;
  if (Status status = update.find(from, name, &node); !status.ok()) return status;
  if (Status status = update.unlink(from, name); !status.ok()) return status;
  return update.insert(to, new_name, node);
}

Status remove(Update& update, NodeId parent, std::string_view name) {
  Node node;
  if (Status status = update.find(parent, name, &node); !status.ok()) return status;
  if (Status status = update.unlink(parent, name); !status.ok()) return status;
  return update.discard(node.id);
}

testing::AssertionResult done(const Status& status) {
  if (status.ok()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << status.code() << " " << status.text();
}

testing::AssertionResult same(const sec_attr& left, const sec_attr& right) {
  if (std::memcmp(&left, &right, sizeof left) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "the records differ";
}

}  // namespace

sec_attr distinct_security(int seed) {
  sec_attr security{};
  auto* const bytes = reinterpret_cast<unsigned char*>(&security);
  for (std::size_t i = 0; i < sizeof security; ++i)
    bytes[i] = static_cast<unsigned char>(seed * 31 + static_cast<int>(i));
  return security;
}

void StoreContract::SetUp() {
  factory_ = GetParam()();
  store_ = factory_->open_fresh(root_security_);
  ASSERT_NE(store_, nullptr);
}

NodeId StoreContract::add(NodeId parent, std::string_view name, int security_seed) {
  Node node{kNoNode, distinct_security(security_seed)};
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    return update.insert(parent, name, node);
  })));
  return node.id;
}

void StoreContract::set_value(NodeId id, std::int32_t type, std::string_view bytes) {
  EXPECT_TRUE(done(store_->write([&](Update& update) { return set(update, id, type, bytes); })));
}

void StoreContract::damage_node(NodeId parent, std::string_view name) {
  store_.reset();
  factory_->damage_node(parent, name);
  store_ = factory_->open_again();
  ASSERT_NE(store_, nullptr);
}

void StoreContract::damage_value(NodeId id) {
  store_.reset();
  factory_->damage_value(id);
  store_ = factory_->open_again();
  ASSERT_NE(store_, nullptr);
}

NodeId StoreContract::id_of(NodeId parent, std::string_view name) {
  Node node;
  const Status status = store_->read([&](View& view) { return view.find(parent, name, &node); });
  if (status.is(PRTKV_NO_SUCH_KEY)) return kNoNode;
  EXPECT_TRUE(done(status));
  return node.id;
}

std::string StoreContract::value_of(NodeId id, std::int32_t* type) {
  std::string text;
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    Value value;
    Status status = view.value(id, &value);
    text = text_of(value);
    if (type != nullptr) *type = value.type;
    return status;
  })));
  return text;
}

std::string StoreContract::names_below(NodeId parent) {
  std::string names;
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    names.clear();
    return view.children(parent, [&](std::string_view name, const Node&) -> Status {
      names.append(names.empty() ? "" : " ").append(name);
      return {};
    });
  })));
  return names;
}

Totals StoreContract::totals() {
  Totals totals;
  EXPECT_TRUE(done(store_->check(
      false, [](const Finding& finding) { ADD_FAILURE() << "'" << finding.name << "': " << finding.detail; },
      &totals)));
  return totals;
}

std::vector<Finding> StoreContract::findings(bool repair) {
  std::vector<Finding> found;
  Totals totals;
  EXPECT_TRUE(done(store_->check(
      repair, [&](const Finding& finding) { found.push_back(finding); }, &totals)));
  return found;
}

TEST_P(StoreContract, AFreshRegistryHasARootAndNothingElse) {
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    Node root;
    bool answer = true;
    Value value{7, {}};
    EXPECT_TRUE(done(view.find(kNoNode, "", &root)));
    EXPECT_EQ(root.id, kRootNode);
    EXPECT_TRUE(same(root.security, root_security_));
    EXPECT_TRUE(done(view.has_children(kRootNode, &answer)));
    EXPECT_FALSE(answer);
    EXPECT_TRUE(done(view.value(kRootNode, &value)));
    EXPECT_EQ(value.type, 0);
    EXPECT_TRUE(value.bytes.empty());
    return {};
  })));
  const Totals found = totals();
  EXPECT_EQ(found.nodes, 1u);
  EXPECT_EQ(found.values, 0u);
}

TEST_P(StoreContract, AnInsertedNodeIsFoundWithItsIdAndSecurity) {
  const NodeId id = add(kRootNode, "a", 42);
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    Node node;
    if (Status status = view.find(kRootNode, "a", &node); !status.ok()) return status;
    EXPECT_EQ(node.id, id);
    EXPECT_TRUE(same(node.security, distinct_security(42)));
    return {};
  })));
}

TEST_P(StoreContract, WhatIsNotThereIsNotFoundAndHasNoText) {
  add(kRootNode, "ab");
  const std::string overlong(kMaxLevelSize + 1, 'x');
  const std::string_view names[] = {"a", "abc", "b", overlong};
  for (const std::string_view name : names) {
    Node node;
    const Status status = store_->read([&](View& view) { return view.find(kRootNode, name, &node); });
    EXPECT_TRUE(status.is(PRTKV_NO_SUCH_KEY)) << name;
    EXPECT_FALSE(status.has_text()) << name;
  }
  EXPECT_EQ(id_of(4711, "ab"), kNoNode);
}

TEST_P(StoreContract, ATakenNameIsRefusedAndTheNodeStays) {
  const NodeId id = add(kRootNode, "a", 1);
  const Status status = store_->write([&](Update& update) {
    NodeId other = kNoNode;
    return make(update, kRootNode, "a", &other);
  });
  EXPECT_TRUE(status.is(PRTKV_KEY_EXISTS));
  EXPECT_EQ(id_of(kRootNode, "a"), id);
}

TEST_P(StoreContract, ANodeKeepsTheNumberOfItsMovesUntilItIsInsertedWithAnother) {
  const NodeId a = add(kRootNode, "a", 1);
  const NodeId b = add(a, "b", 2);
  const auto moves_at = [&](NodeId parent) {
    Node node;
    EXPECT_TRUE(done(store_->read([&](View& view) { return view.find(parent, "b", &node); })));
    EXPECT_EQ(node.id, b);
    return node.moves;
  };
  const auto move = [&](NodeId from, NodeId to, std::uint16_t moves) {
    EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
      Node node;
      Node moved;
      if (Status status = update.find(from, "b", &node); !status.ok()) return status;
      if (Status status = update.unlink(from, "b"); !status.ok()) return status;
      node.moves = moves;
      if (Status status = update.insert(to, "b", node); !status.ok()) return status;
      Status status = update.find(to, "b", &moved);
      EXPECT_EQ(moved.moves, moves) << "in the update itself";
      return status;
    })));
  };
  EXPECT_EQ(moves_at(a), 0);
  move(a, kRootNode, 1);
  EXPECT_EQ(moves_at(kRootNode), 1);
  move(kRootNode, a, 0xffff);
  EXPECT_TRUE(done(store_->write([&](Update& update) { return update.set_security(a, "b", distinct_security(3)); })));
  set_value(b, 3, "value");
  add(b, "c", 4);
  EXPECT_EQ(moves_at(a), 0xffff);
}

TEST_P(StoreContract, PlacesThatCannotBeAreRefused) {
  const auto insert = [&](NodeId parent, std::string_view name, NodeId id) {
    return store_->write([&](Update& update) { return update.insert(parent, name, Node{id, {}}); }).code();
  };
  EXPECT_EQ(insert(kRootNode, "", 5), PRTKV_INVALID_NAME);
  EXPECT_EQ(insert(kRootNode, std::string(kMaxLevelSize + 1, 'x'), 5), PRTKV_INVALID_NAME);
  EXPECT_EQ(insert(kNoNode, "", 5), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(insert(kNoNode, "a", 5), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(insert(kRootNode, "a", kNoNode), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(store_->write([](Update& update) { return update.unlink(kNoNode, ""); }).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(store_->write([](Update& update) { return update.discard(kRootNode); }).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(store_->write([](Update& update) { return set(update, kNoNode, 1, "x"); }).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(totals().nodes, 1u);
}

TEST_P(StoreContract, NamesAreBytes) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) every_byte.push_back(static_cast<char>(byte));
  const std::vector<std::string> names = {"a",        "A",  "\xff\xfe", "\xc0\x80", std::string(kMaxLevelSize, 'n'),
                                          every_byte, "%s", " ",        "/",        "a/b"};
  std::vector<NodeId> ids;
  for (const std::string& name : names) ids.push_back(add(kRootNode, name));
  for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(id_of(kRootNode, names[i]), ids[i]) << names[i];
}

TEST_P(StoreContract, ChildrenComeInByteOrderAndOnlyTheOwn) {
  const NodeId parent = add(kRootNode, "p");
  const NodeId next = add(kRootNode, "q");
  for (const char* name : {"b", "a", "\xc3\xa4", "aa", "Z", "10", "9", "a!"}) add(parent, name);
  add(next, "other");
  EXPECT_EQ(names_below(parent), "10 9 Z a a! aa b \xc3\xa4");
  EXPECT_EQ(names_below(next), "other");
  EXPECT_EQ(names_below(kRootNode), "p q");
  EXPECT_EQ(names_below(4711), "");
}

TEST_P(StoreContract, ChildrenComeWithTheirNodes) {
  const NodeId a = add(kRootNode, "a", 3);
  const NodeId b = add(kRootNode, "b", 4);
  std::vector<Node> nodes;
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    nodes.clear();
    return view.children(kRootNode, [&](std::string_view, const Node& node) -> Status {
      nodes.push_back(node);
      return {};
    });
  })));
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].id, a);
  EXPECT_TRUE(same(nodes[0].security, distinct_security(3)));
  EXPECT_EQ(nodes[1].id, b);
  EXPECT_TRUE(same(nodes[1].security, distinct_security(4)));
}

TEST_P(StoreContract, AVisitThatFailsEndsTheWalkAndIsPassedOn) {
  for (const char* name : {"a", "b", "c"}) add(kRootNode, name);
  int visits = 0;
  const Status status = store_->read([&](View& view) -> Status {
    visits = 0;
    return view.children(kRootNode, [&](std::string_view name, const Node&) -> Status {
      ++visits;
      return name == "b" ? Status(PRTKV_BUFFER_TOO_SMALL, "enough") : Status();
    });
  });
  EXPECT_TRUE(status.is(PRTKV_BUFFER_TOO_SMALL));
  EXPECT_EQ(status.text(), "enough");
  EXPECT_EQ(visits, 2);
}

TEST_P(StoreContract, HasChildrenTellsWhetherThereIsOne) {
  const NodeId parent = add(kRootNode, "p");
  const NodeId child = add(parent, "c");
  const auto has_children = [&](NodeId id) {
    bool answer = false;
    EXPECT_TRUE(done(store_->read([&](View& view) { return view.has_children(id, &answer); })));
    return answer;
  };
  EXPECT_TRUE(has_children(kRootNode));
  EXPECT_TRUE(has_children(parent));
  EXPECT_FALSE(has_children(child));
  EXPECT_FALSE(has_children(4711));
}

TEST_P(StoreContract, SecurityIsRewrittenInPlace) {
  const NodeId id = add(kRootNode, "a", 1);
  set_value(id, 3, "kept");
  const auto rewrite = [&](NodeId parent, std::string_view name, int seed) {
    return store_->write([&](Update& update) { return update.set_security(parent, name, distinct_security(seed)); });
  };
  EXPECT_TRUE(done(rewrite(kRootNode, "a", 9)));
  EXPECT_TRUE(done(rewrite(kNoNode, "", 8)));
  EXPECT_TRUE(rewrite(kRootNode, "b", 9).is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
    Node node;
    if (Status status = view.find(kRootNode, "a", &node); !status.ok()) return status;
    EXPECT_EQ(node.id, id);
    EXPECT_TRUE(same(node.security, distinct_security(9)));
    Node root;
    if (Status status = view.find(kNoNode, "", &root); !status.ok()) return status;
    EXPECT_EQ(root.id, kRootNode);
    EXPECT_TRUE(same(root.security, distinct_security(8)));
    return {};
  })));
  EXPECT_EQ(value_of(id), "kept");
}

TEST_P(StoreContract, ValuesOfEverySizeComeBackAsWritten) {
  const NodeId id = add(kRootNode, "a");
  // Up and down, so that each size replaces a smaller and a larger one.
  for (const std::size_t size : {0u, 1u, 8u, 1024u, 3u, 2000u, 4096u, 100u, 1048576u, 65536u, 0u, 1048576u}) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + size);
    set_value(id, 3, bytes);
    std::int32_t type = 0;
    EXPECT_EQ(value_of(id, &type), bytes);
    EXPECT_EQ(type, 3);
  }
}

TEST_P(StoreContract, TypesAreStoredAndNotInterpreted) {
  const NodeId id = add(kRootNode, "a");
  for (const std::int32_t type : {1, 5, -1, 0x7fffffff, static_cast<std::int32_t>(0x80000000)}) {
    set_value(id, type, "x");
    std::int32_t found = 0;
    EXPECT_EQ(value_of(id, &found), "x");
    EXPECT_EQ(found, type);
  }
  set_value(id, 0, "bytes of type 0");
  EXPECT_EQ(value_of(id), "bytes of type 0");
}

TEST_P(StoreContract, AnEmptyValueIsAValueUnlessItsTypeIsZero) {
  const NodeId id = add(kRootNode, "a");
  set_value(id, 3, "");
  std::int32_t type = 0;
  value_of(id, &type);
  EXPECT_EQ(type, 3);
  EXPECT_EQ(totals().values, 1u);
  set_value(id, 0, "");
  value_of(id, &type);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(totals().values, 0u);
}

TEST_P(StoreContract, AValueOverTheLimitIsRefusedAndTheFormerStays) {
  const NodeId id = add(kRootNode, "a");
  set_value(id, 3, "former");
  const std::string large(kMaxValueSize + 1, 'x');
  const Status status = store_->write([&](Update& update) { return set(update, id, 3, large); });
  EXPECT_TRUE(status.is(PRTKV_VALUE_TOO_LARGE));
  EXPECT_EQ(value_of(id), "former");
}

TEST_P(StoreContract, AValueCanBeCopiedWithinAnUpdate) {
  const NodeId a = add(kRootNode, "a");
  const NodeId b = add(kRootNode, "b");
  const std::string small(300, 's');
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    if (Status status = set(update, a, 3, small); !status.ok()) return status;
    Value value;
    if (Status status = update.value(a, &value); !status.ok()) return status;
    return update.set_value(b, value.type, value.bytes);
  })));
  EXPECT_EQ(value_of(a), small);
  EXPECT_EQ(value_of(b), small);
}

TEST_P(StoreContract, IdsAreNeverUsedAgain) {
  std::set<NodeId> seen{kNoNode, kRootNode};
  for (int round = 0; round < 5; ++round) {
    for (const char* name : {"a", "b"}) EXPECT_TRUE(seen.insert(add(kRootNode, name)).second) << "round " << round;
    EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
      if (Status status = remove(update, kRootNode, "a"); !status.ok()) return status;
      return remove(update, kRootNode, "b");
    })));
    store_.reset();
    store_ = factory_->open_again();
    ASSERT_NE(store_, nullptr);
  }
}

TEST_P(StoreContract, AMoveKeepsTheNodeItsSubtreeAndItsValues) {
  const NodeId from = add(kRootNode, "from");
  const NodeId to = add(kRootNode, "to");
  const NodeId moved = add(from, "old", 5);
  const NodeId child = add(moved, "child");
  set_value(moved, 3, "of the moved");
  set_value(child, 3, "of its child");
  EXPECT_TRUE(done(store_->write([&](Update& update) { return move(update, from, "old", to, "new"); })));
  EXPECT_EQ(id_of(from, "old"), kNoNode);
  EXPECT_EQ(id_of(to, "new"), moved);
  EXPECT_EQ(id_of(moved, "child"), child);
  EXPECT_EQ(value_of(moved), "of the moved");
  EXPECT_EQ(value_of(child), "of its child");
  EXPECT_EQ(totals().nodes, 5u);
}

TEST_P(StoreContract, ANodeThatTakesThePlaceOfItsParentKeepsItsSubtree) {
  const NodeId above = add(kRootNode, "above");
  const NodeId other = add(above, "other");
  const NodeId moved = add(above, "moved");
  const NodeId child = add(moved, "child");
  set_value(above, 3, "of the parent");
  set_value(other, 3, "of its other child");
  set_value(child, 3, "below the moved");
  // The registry client refuses this, since it deletes the other children; a store does not.
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.find(above, "moved", &node); !status.ok()) return status;
    if (Status status = update.unlink(above, "moved"); !status.ok()) return status;
    if (Status status = remove(update, kRootNode, "above"); !status.ok()) return status;
    return update.insert(kRootNode, "above", node);
  })));
  EXPECT_EQ(id_of(kRootNode, "above"), moved);
  EXPECT_EQ(names_below(moved), "child");
  EXPECT_EQ(value_of(child), "below the moved");
  const Totals found = totals();
  EXPECT_EQ(found.nodes, 3u);
  EXPECT_EQ(found.values, 1u);
}

TEST_P(StoreContract, UnlinkingWhatIsNotThereFails) {
  EXPECT_TRUE(store_->write([](Update& update) { return update.unlink(kRootNode, "a"); }).is(PRTKV_NO_SUCH_KEY));
}

TEST_P(StoreContract, ADiscardedSubtreeLeavesNothing) {
  const NodeId top = add(kRootNode, "top");
  NodeId parent = top;
  for (int depth = 0; depth < 10; ++depth) {
    for (const char* name : {"a", "b", "c"}) set_value(add(parent, name), 3, "value");
    parent = id_of(parent, "b");
  }
  const NodeId kept = add(kRootNode, "kept");
  set_value(kept, 3, "1234");
  EXPECT_TRUE(done(store_->write([&](Update& update) { return remove(update, kRootNode, "top"); })));
  EXPECT_EQ(names_below(kRootNode), "kept");
  EXPECT_EQ(names_below(top), "");
  const Totals found = totals();
  EXPECT_EQ(found.nodes, 2u);
  EXPECT_EQ(found.values, 1u);
  EXPECT_EQ(found.value_bytes, 4u);
}

TEST_P(StoreContract, ASubtreeCanBeBuiltBottomUp) {
  NodeId top = kNoNode;
  NodeId child = kNoNode;
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    top = node.id;
    if (Status status = make(update, top, "child", &child); !status.ok()) return status;
    if (Status status = set(update, child, 3, "deep"); !status.ok()) return status;
    if (Status status = set(update, top, 3, "high"); !status.ok()) return status;
    return update.insert(kRootNode, "top", node);
  })));
  EXPECT_EQ(id_of(kRootNode, "top"), top);
  EXPECT_EQ(id_of(top, "child"), child);
  EXPECT_EQ(value_of(child), "deep");
  EXPECT_EQ(value_of(top), "high");
  EXPECT_EQ(totals().nodes, 3u);
}

TEST_P(StoreContract, AFailedUpdateChangesNothing) {
  const NodeId kept = add(kRootNode, "kept", 1);
  set_value(kept, 3, "former");
  const Status status = store_->write([&](Update& update) -> Status {
    NodeId id = kNoNode;
    EXPECT_TRUE(done(make(update, kRootNode, "new", &id)));
    EXPECT_TRUE(done(set(update, kept, 1, "later")));
    EXPECT_TRUE(done(update.set_security(kRootNode, "kept", distinct_security(2))));
    EXPECT_TRUE(done(update.unlink(kRootNode, "kept")));
    return {PRTKV_ACCESS_DENIED, "changed my mind"};
  });
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
  EXPECT_EQ(status.text(), "changed my mind");
  EXPECT_EQ(names_below(kRootNode), "kept");
  EXPECT_EQ(id_of(kRootNode, "kept"), kept);
  EXPECT_EQ(value_of(kept), "former");
}

TEST_P(StoreContract, AnExceptionPassesThroughAndChangesNothing) {
  EXPECT_THROW((void)store_->write([&](Update& update) -> Status {
    NodeId id = kNoNode;
    EXPECT_TRUE(done(make(update, kRootNode, "new", &id)));
    throw std::runtime_error("no memory, say");
  }),
               std::runtime_error);
  EXPECT_THROW((void)store_->read([&](View&) -> Status { throw std::runtime_error("no memory, say"); }),
               std::runtime_error);
  EXPECT_EQ(names_below(kRootNode), "");
  add(kRootNode, "a");
  EXPECT_EQ(names_below(kRootNode), "a");
}

TEST_P(StoreContract, AnUpdateSeesWhatItWrote) {
  const NodeId a = add(kRootNode, "a");
  set_value(a, 3, "former");
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    NodeId b = kNoNode;
    EXPECT_TRUE(done(make(update, kRootNode, "b", &b)));
    EXPECT_TRUE(done(update.set_security(kRootNode, "b", distinct_security(6))));
    EXPECT_TRUE(done(set(update, a, 3, "later")));
    EXPECT_TRUE(done(move(update, kRootNode, "a", b, "under b")));
    Node node;
    EXPECT_TRUE(done(update.find(kRootNode, "b", &node)));
    EXPECT_EQ(node.id, b);
    EXPECT_TRUE(same(node.security, distinct_security(6)));
    EXPECT_TRUE(update.find(kRootNode, "a", &node).is(PRTKV_NO_SUCH_KEY));
    EXPECT_TRUE(done(update.find(b, "under b", &node)));
    EXPECT_EQ(node.id, a);
    Value value;
    EXPECT_TRUE(done(update.value(a, &value)));
    EXPECT_EQ(text_of(value), "later");
    bool answer = false;
    EXPECT_TRUE(done(update.has_children(b, &answer)));
    EXPECT_TRUE(answer);
    std::string names;
    EXPECT_TRUE(done(update.children(kRootNode, [&](std::string_view name, const Node&) -> Status {
      names.append(name).append(" ");
      return {};
    })));
    EXPECT_EQ(names, "b ");
    return {};
  })));
}

TEST_P(StoreContract, BeforeShowsTheTreeAsTheUpdateFoundIt) {
  const NodeId a = add(kRootNode, "a");
  set_value(a, 3, "former");
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    NodeId b = kNoNode;
    EXPECT_TRUE(done(make(update, kRootNode, "b", &b)));
    EXPECT_TRUE(done(set(update, a, 3, "later")));
    EXPECT_TRUE(done(update.unlink(kRootNode, "a")));
    Node node;
    EXPECT_TRUE(done(update.before().find(kRootNode, "a", &node)));
    EXPECT_EQ(node.id, a);
    EXPECT_TRUE(update.before().find(kRootNode, "b", &node).is(PRTKV_NO_SUCH_KEY));
    Value value;
    EXPECT_TRUE(done(update.before().value(a, &value)));
    EXPECT_EQ(text_of(value), "former");
    return update.discard(a);
  })));
  EXPECT_EQ(names_below(kRootNode), "b");
}

TEST_P(StoreContract, AVisitMayChangeTheTreeItWalksThrough) {
  const NodeId parent = add(kRootNode, "p");
  const NodeId trash = add(kRootNode, "trash");
  constexpr int count = 60;
  for (int i = 100; i < 100 + count; ++i) add(parent, std::to_string(i));
  int visits = 0;
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    visits = 0;
    return update.children(parent, [&](std::string_view name, const Node& node) -> Status {
      ++visits;
      const std::string kept(name);
      if (Status status = move(update, parent, name, trash, kept); !status.ok()) return status;
      return set(update, node.id, 3, std::string(200, 'v'));
    });
  })));
  EXPECT_EQ(visits, count);
  EXPECT_EQ(names_below(parent), "");
  EXPECT_EQ(totals().values, static_cast<std::uint64_t>(count));
}

TEST_P(StoreContract, AReadSeesOneStateHoweverLongItTakes) {
  const NodeId a = add(kRootNode, "a");
  set_value(a, 3, "former");
  bool first_run = true;
  EXPECT_TRUE(done(store_->read_all([&](View& view) -> Status {
    Node node;
    EXPECT_TRUE(done(view.find(kRootNode, "a", &node)));
    if (std::exchange(first_run, false)) {
      std::async(std::launch::async, [&] {
        set_value(a, 3, "later");
        add(kRootNode, "b");
      }).get();
    }
    Value value;
    EXPECT_TRUE(done(view.value(a, &value)));
    EXPECT_EQ(text_of(value), "former");
    EXPECT_TRUE(view.find(kRootNode, "b", &node).is(PRTKV_NO_SUCH_KEY));
    return {};
  })));
  EXPECT_EQ(value_of(a), "later");
}

TEST_P(StoreContract, AReadGivesBackWhatItsFunctionReturned) {
  for (const auto& run : {&Store::read, &Store::read_all}) {
    const Status status = (store_.get()->*run)([](View&) { return Status(PRTKV_ACCESS_DENIED, "no"); });
    EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
    EXPECT_EQ(status.text(), "no");
  }
}

// A store that cannot tell always returns 0.
TEST_P(StoreContract, TheStructureNumberChangesWhenANodeIsRemovedOrMoved) {
  const auto structure = [&] {
    std::uint64_t number = 0;
    EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
      number = view.structure();
      return {};
    })));
    return number;
  };
  add(kRootNode, "a");
  add(kRootNode, "b");
  const std::uint64_t first = structure();
  const auto is_new = [&](std::uint64_t former) { return first == 0 ? structure() == 0 : structure() != former; };
  const NodeId b = id_of(kRootNode, "b");
  EXPECT_TRUE(done(store_->write([&](Update& update) { return move(update, kRootNode, "a", b, "a"); })));
  EXPECT_TRUE(is_new(first));
  const std::uint64_t second = structure();
  EXPECT_TRUE(done(store_->write([&](Update& update) { return remove(update, b, "a"); })));
  EXPECT_TRUE(is_new(second));
  const std::uint64_t third = structure();
  const std::shared_ptr<Store> other = factory_->open_again();
  EXPECT_TRUE(done(other->write([&](Update& update) { return remove(update, kRootNode, "b"); })));
  EXPECT_TRUE(is_new(third));
}

TEST_P(StoreContract, AnotherStoreSeesWhatWasCommitted) {
  const std::shared_ptr<Store> other = factory_->open_again();
  ASSERT_NE(other, nullptr);
  const NodeId a = add(kRootNode, "a");
  set_value(a, 3, "value");
  store_ = other;
  EXPECT_EQ(id_of(kRootNode, "a"), a);
  EXPECT_EQ(value_of(a), "value");
}

TEST_P(StoreContract, OneWriteHoldsManyChanges) {
  constexpr std::size_t count = 500;
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    for (std::size_t i = 0; i < count; ++i) {
      NodeId id = kNoNode;
      if (Status status = make(update, kRootNode, std::to_string(i), &id); !status.ok()) return status;
    }
    return {};
  })));
  EXPECT_EQ(totals().nodes, count + 1);
}

TEST_P(StoreContract, WritersOfManyThreadsLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 15;
  const NodeId counter = add(kRootNode, "counter");
  set_value(counter, 1, "0");
  const auto count_up = [&](Store& store) {
    for (int i = 0; i < kWrites; ++i) {
      EXPECT_TRUE(done(store.write([&](Update& update) -> Status {
        Value value;
        if (Status status = update.value(counter, &value); !status.ok()) return status;
        return set(update, counter, 1, std::to_string(std::stoi(text_of(value)) + 1));
      })));
    }
  };
  const std::shared_ptr<Store> other = factory_->open_again();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([&, i] { count_up(i % 2 == 0 ? *store_ : *other); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(value_of(counter), std::to_string(kThreads * kWrites));
}

TEST_P(StoreContract, TwoCreatorsOfOneNodeOneWins) {
  constexpr int kThreads = 4;
  std::atomic<int> created{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      NodeId id = kNoNode;
      const Status status = store_->write([&](Update& update) { return make(update, kRootNode, "one", &id); });
      ++(status.ok() ? created : refused);
      EXPECT_TRUE(status.ok() || status.is(PRTKV_KEY_EXISTS)) << status.text();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(created, 1);
  EXPECT_EQ(refused, kThreads - 1);
}

TEST_P(StoreContract, ReadersSeeEveryStateWhole) {
  // A writer keeps two values equal; no reader may ever see them differ.
  const NodeId a = add(kRootNode, "a");
  const NodeId b = add(kRootNode, "b");
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        EXPECT_TRUE(done(store_->read([&](View& view) -> Status {
          Value left;
          Value right;
          if (Status status = view.value(a, &left); !status.ok()) return status;
          const std::string kept = text_of(left);
          if (Status status = view.value(b, &right); !status.ok()) return status;
          EXPECT_EQ(kept, text_of(right));
          return {};
        })));
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
      if (Status status = set(update, a, 1, std::to_string(i)); !status.ok()) return status;
      return set(update, b, 1, std::to_string(i));
    })));
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
}

TEST_P(StoreContract, ACheckCountsWhatTheRootReaches) {
  const NodeId a = add(kRootNode, "a");
  const NodeId b = add(a, "b");
  set_value(a, 3, "12345");
  set_value(b, 1, "");
  set_value(kRootNode, 1, "123");
  const Totals found = totals();
  EXPECT_EQ(found.nodes, 3u);
  EXPECT_EQ(found.values, 3u);
  EXPECT_EQ(found.value_bytes, 8u);
}

TEST_P(StoreContract, ACheckFindsWhatHangsOnNothingAndRepairRemovesIt) {
  const NodeId kept = add(kRootNode, "kept");
  set_value(kept, 3, "kept");
  NodeId top = kNoNode;
  NodeId child = kNoNode;
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    if (Status status = update.new_id(&top); !status.ok()) return status;
    if (Status status = make(update, top, "child", &child); !status.ok()) return status;
    NodeId grandchild = kNoNode;
    if (Status status = make(update, child, "grandchild", &grandchild); !status.ok()) return status;
    if (Status status = set(update, child, 3, "lost"); !status.ok()) return status;
    return set(update, top, 3, "lost");
  })));
  std::vector<Finding> findings;
  const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
  Totals found;
  ASSERT_TRUE(done(store_->check(false, collect, &found)));
  ASSERT_EQ(findings.size(), 2u);
  EXPECT_EQ(findings[0].kind, Finding::Kind::kOrphan);
  EXPECT_EQ(findings[0].parent, top);
  EXPECT_EQ(findings[0].id, child);
  EXPECT_EQ(findings[0].name, "child");
  EXPECT_EQ(findings[1].kind, Finding::Kind::kOrphanValue);
  EXPECT_EQ(findings[1].id, top);
  EXPECT_EQ(found.nodes, 2u);
  EXPECT_EQ(found.values, 1u);

  findings.clear();
  const ChangeDescription repair{
      .author = "ada", .note = "mended", .changes = {{.kind = Change::Kind::kChangedAtOrBelow}}};
  ASSERT_TRUE(done(store_->check(
      &repair, collect, [](const CheckProgress&) {}, &found)));
  EXPECT_EQ(findings.size(), 2u);
  std::vector<ChangeRecord> log;
  LogPosition position;
  const auto keep = [&](const ChangeRecord& record) { return log.push_back(record), Status(); };
  ASSERT_TRUE(done(store_->changes({.newest_first = true}, keep, &position)));
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(static_cast<const ChangeDescription&>(log[0]), repair);
  EXPECT_EQ(totals().nodes, 2u);
  EXPECT_EQ(names_below(top), "");
  EXPECT_EQ(value_of(child), "");
  EXPECT_EQ(value_of(kept), "kept");
}

TEST_P(StoreContract, ACheckFindsTwoNodesOfOneIdAndTouchesNeither) {
  const NodeId a = add(kRootNode, "a");
  ASSERT_TRUE(done(store_->write([&](Update& update) { return update.insert(kRootNode, "b", Node{a, {}}); })));
  for (const bool repair : {false, true}) {
    std::string names;
    Totals found;
    ASSERT_TRUE(done(store_->check(
        repair,
        [&](const Finding& finding) {
          EXPECT_EQ(finding.kind, Finding::Kind::kDuplicateId);
          EXPECT_EQ(finding.id, a);
          names += finding.name;
        },
        &found)));
    EXPECT_EQ(names, "ab");
  }
  EXPECT_EQ(names_below(kRootNode), "a b");
}

TEST_P(StoreContract, ACheckFindsALoopAndRepairRemovesIt) {
  const NodeId a = add(kRootNode, "a");
  const NodeId b = add(a, "b");
  add(b, "c");
  // The registry client never does this: it looks at the ancestors first.
  ASSERT_TRUE(done(store_->write([&](Update& update) { return move(update, kRootNode, "a", b, "a"); })));
  std::string names;
  Totals found;
  ASSERT_TRUE(done(store_->check(
      true,
      [&](const Finding& finding) {
        EXPECT_EQ(finding.kind, Finding::Kind::kOrphan);
        names += finding.name;
      },
      &found)));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, "ab");
  EXPECT_EQ(totals().nodes, 1u);
}

TEST_P(StoreContract, ADamagedNodeIsReportedAndItsSiblingsAreNot) {
  const NodeId a = add(kRootNode, "a");
  add(kRootNode, "b");
  const NodeId c = add(kRootNode, "c");
  damage_node(kRootNode, "b");
  Node node;
  EXPECT_TRUE(store_->read([&](View& view) { return view.find(kRootNode, "b", &node); }).is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(id_of(kRootNode, "a"), a);
  EXPECT_EQ(id_of(kRootNode, "c"), c);
}

TEST_P(StoreContract, ChildrenEndAtADamagedOneOrPassOverIt) {
  for (const char* name : {"a", "b", "c"}) add(kRootNode, name);
  damage_node(kRootNode, "b");
  std::string seen;
  const auto visit = [&](std::string_view name, const Node&) -> Status {
    seen += name;
    return {};
  };
  const auto pass_over = [&](std::string_view name, const Status& damage) -> Status {
    EXPECT_TRUE(damage.is(PRTKV_STORAGE_FAILED));
    seen.append("-").append(name).append("-");
    return {};
  };
  const auto end = [&](std::string_view, const Status&) { return Status(PRTKV_UNKNOWN); };
  const auto see = [&](View& view) {
    EXPECT_TRUE(view.children(kRootNode, visit).is(PRTKV_STORAGE_FAILED));
    seen.clear();
    EXPECT_TRUE(done(view.children_with_damage(kRootNode, visit, pass_over)));
    EXPECT_EQ(seen, "a-b-c");
    EXPECT_TRUE(view.children_with_damage(kRootNode, visit, end).is(PRTKV_UNKNOWN));
    seen.clear();
    return Status();
  };
  EXPECT_TRUE(done(store_->read(see)));
  EXPECT_TRUE(done(store_->read_all(see)));
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    if (Status status = see(update); !status.ok()) return status;
    return see(update.before());
  })));
}

TEST_P(StoreContract, OnlyADamagedNodeIsRemovedAsDamaged) {
  const NodeId sound = add(kRootNode, "sound");
  add(add(kRootNode, "damaged"), "below");
  damage_node(kRootNode, "damaged");
  const auto remove_damaged = [&](const char* name) {
    return store_->write([&](Update& update) { return update.remove_damaged(kRootNode, name); }).code();
  };
  EXPECT_EQ(remove_damaged("sound"), PRTKV_KEY_EXISTS);
  EXPECT_EQ(remove_damaged("absent"), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(remove_damaged("damaged"), PRTKV_DONE);
  EXPECT_EQ(remove_damaged("damaged"), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(names_below(kRootNode), "sound");
  EXPECT_EQ(id_of(kRootNode, "sound"), sound);
  EXPECT_FALSE(findings(true).empty()) << "what was below it";
  EXPECT_EQ(totals().nodes, 2u);
}

TEST_P(StoreContract, ADamagedNodeCanBeReplacedWithinOneUpdate) {
  add(kRootNode, "a");
  damage_node(kRootNode, "a");
  NodeId anew = kNoNode;
  EXPECT_TRUE(done(store_->write([&](Update& update) -> Status {
    if (Status status = update.remove_damaged(kRootNode, "a"); !status.ok()) return status;
    if (Status status = make(update, kRootNode, "a", &anew); !status.ok()) return status;
    return set(update, anew, 3, "anew");
  })));
  EXPECT_EQ(id_of(kRootNode, "a"), anew);
  EXPECT_EQ(value_of(anew), "anew");
  totals();
}

TEST_P(StoreContract, ASubtreeWithDamageCanBeDiscarded) {
  const NodeId top = add(kRootNode, "top");
  for (const char* name : {"a", "b", "c"}) set_value(add(add(top, name), "below"), 3, "value");
  damage_node(top, "b");
  damage_value(id_of(id_of(top, "c"), "below"));
  EXPECT_TRUE(done(store_->write([&](Update& update) { return remove(update, kRootNode, "top"); })));
  EXPECT_EQ(names_below(kRootNode), "");
  findings(true);  // what is below the damaged node hangs on nothing
  const Totals found = totals();
  EXPECT_EQ(found.nodes, 1u);
  EXPECT_EQ(found.values, 0u);
}

TEST_P(StoreContract, ADamagedValueCanBeReplacedAndRemoved) {
  const NodeId a = add(kRootNode, "a");
  set_value(a, 3, "former");
  damage_value(a);
  Value value;
  EXPECT_TRUE(store_->read([&](View& view) { return view.value(a, &value); }).is(PRTKV_STORAGE_FAILED));
  set_value(a, 3, "later");
  EXPECT_EQ(value_of(a), "later");
  damage_value(a);
  set_value(a, 0, "");
  EXPECT_EQ(value_of(a), "");
  EXPECT_EQ(totals().values, 0u);
}

TEST_P(StoreContract, ARepairGivesADamagedRootARecordWithoutRights) {
  const NodeId a = add(kRootNode, "a");
  damage_node(kNoNode, "");
  const std::vector<Finding> found = findings(true);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].kind, Finding::Kind::kDamagedNode);
  EXPECT_EQ(totals().nodes, 2u);
  Node root;
  EXPECT_TRUE(done(store_->read([&](View& view) { return view.find(kNoNode, "", &root); })));
  EXPECT_EQ(root.id, kRootNode);
  EXPECT_TRUE(same(root.security, sec_attr{}));
  EXPECT_EQ(id_of(kRootNode, "a"), a);
}

}  // namespace tkv::store
