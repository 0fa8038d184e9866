// Makes random updates to the embedded store and to the one in memory: the two must stay equal.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "lmdb_files.h"
#include "memory_store.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

// Makes one random update, which depends only on the seed and the state. Appends what it read.
class RandomUpdate {
 public:
  RandomUpdate(unsigned seed, std::string* trace) : random_(seed), trace_(*trace) {}

  Status operator()(Update& update) {
    const int steps = 1 + below(40);
    for (int i = 0; i < steps; ++i) {
      const Status status = step(update);
      trace_ += std::to_string(status.code()) + " ";
      if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY) && !status.is(PRTKV_KEY_EXISTS)) return status;
    }
    return below(8) == 0 ? Status(PRTKV_ACCESS_DENIED, "in vain") : Status();
  }

 private:
  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  std::string some_name() {
    return std::string(static_cast<std::size_t>(1 + below(3) * below(80)), 'a') + std::to_string(below(60));
  }

  // Returns a node at a random depth.
  Node some_node(Update& update, NodeId* parent, std::string* name) {
    Node node;
    EXPECT_TRUE(update.find(kNoNode, "", &node).ok());
    *parent = kNoNode;
    name->clear();
    for (int depth = below(5); depth > 0; --depth) {
      std::vector<std::pair<std::string, Node>> children;
      EXPECT_TRUE(update
                      .children(node.id,
                                [&](std::string_view child, const Node& found) -> Status {
                                  children.emplace_back(child, found);
                                  return {};
                                })
                      .ok());
      if (children.empty()) break;
      *parent = node.id;
      const auto& [chosen, found] = children[random_() % children.size()];
      *name = chosen;
      node = found;
    }
    return node;
  }

  bool is_within(Update& update, NodeId top, NodeId wanted) {
    bool found = top == wanted;
    EXPECT_TRUE(update
                    .children(top,
                              [&](std::string_view, const Node& child) -> Status {
                                found = found || is_within(update, child.id, wanted);
                                return {};
                              })
                    .ok());
    return found;
  }

  Status step(Update& update) {
    NodeId parent = kNoNode;
    std::string name;
    const Node node = some_node(update, &parent, &name);
    switch (below(8)) {
      case 0:
      case 1:
      case 2: {
        Node fresh;
        fresh.security.user_perm = below(64);
        if (Status status = update.new_id(&fresh.id); !status.ok()) return status;
        return update.insert(node.id, some_name(), fresh);
      }
      case 3:
      case 4: {
        static constexpr int kSizes[] = {0, 10, 100, 1000, 1990, 2040, 5000, 30000};
        const std::string text(static_cast<std::size_t>(kSizes[below(8)]), static_cast<char>('a' + below(26)));
        return update.set_value(node.id, below(3), std::as_bytes(std::span(text)));
      }
      case 5: {
        sec_attr security{};
        security.other_perm = below(64);
        return update.set_security(parent, name, security);
      }
      case 6: {
        if (node.id == kRootNode || below(3) != 0) return {};
        if (Status status = update.unlink(parent, name); !status.ok()) return status;
        return update.discard(node.id);
      }
      default: {
        NodeId other = kNoNode;
        std::string ignored;
        const Node target = some_node(update, &other, &ignored);
        if (node.id == kRootNode || is_within(update, node.id, target.id)) return {};
        const std::string new_name = some_name();
        Node taken;
        if (update.find(target.id, new_name, &taken).ok()) return PRTKV_KEY_EXISTS;
        if (Status status = update.unlink(parent, name); !status.ok()) return status;
        return update.insert(target.id, new_name, node);
      }
    }
  }

  std::mt19937 random_;
  std::string& trace_;
};

// Returns the whole contents of a store as one text.
std::string contents(Store& store) {
  std::string text;
  const Status status = store.read_all([&](View& view) -> Status {
    text.clear();
    const std::function<Status(NodeId)> walk = [&](NodeId parent) {
      return view.children(parent, [&](std::string_view name, const Node& node) -> Status {
        Value value;
        if (Status found = view.value(node.id, &value); !found.ok()) return found;
        text.append(name).append(" ").append(std::to_string(node.id)).append(" ");
        text.append(reinterpret_cast<const char*>(&node.security), sizeof node.security);
        text.append(std::to_string(value.type)).append(":");
        text.append(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()).append("(");
        Status below = walk(node.id);
        text.append(")\n");
        return below;
      });
    };
    return walk(kNoNode);
  });
  EXPECT_TRUE(status.ok()) << status.text();
  return text;
}

class LmdbModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(LmdbModel, StaysTheSameAsAStoreInMemory) {
  const TemporaryDirectory directory(TemporaryDirectory::Where::kInMemory);
  LmdbOptions options;
  options.directory = directory / "registry";
  options.first_map_size = 256 * 1024;
  auto lmdb = open_or_fail(options);
  MemoryStore memory;
  for (unsigned round = 0; round < 250; ++round) {
    const unsigned seed = GetParam() * 1000 + round;
    std::string lmdb_trace;
    std::string memory_trace;
    const Status lmdb_status = lmdb->write([&](Update& update) {
      lmdb_trace.clear();
      return RandomUpdate(seed, &lmdb_trace)(update);
    });
    const Status memory_status =
        memory.write([&](Update& update) { return RandomUpdate(seed, &memory_trace)(update); });
    ASSERT_EQ(lmdb_status.code(), memory_status.code()) << "seed " << seed << ": " << lmdb_status.text();
    ASSERT_EQ(lmdb_trace, memory_trace) << "seed " << seed;
    if (round % 10 != 0) continue;
    ASSERT_TRUE(contents(*lmdb) == contents(memory)) << "seed " << seed;
    lmdb.reset();
    lmdb = open_or_fail(options);
  }
  Totals lmdb_totals;
  Totals memory_totals;
  const auto sound = [](const Finding& finding) { ADD_FAILURE() << finding.name << ": " << finding.detail; };
  ASSERT_TRUE(lmdb->check(false, sound, &lmdb_totals).ok());
  ASSERT_TRUE(static_cast<Store&>(memory).check(false, sound, &memory_totals).ok());
  EXPECT_GT(lmdb_totals.nodes, 50u);
  EXPECT_EQ(lmdb_totals.nodes, memory_totals.nodes);
  EXPECT_EQ(lmdb_totals.values, memory_totals.values);
  EXPECT_EQ(lmdb_totals.value_bytes, memory_totals.value_bytes);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LmdbModel, ::testing::Range(1u, 7u));

}  // namespace
}  // namespace tkv::store
