// Short functions for what tests do with a store. Paths like "a.b" begin at the root; "" is the root.
#ifndef TKV_TESTS_ETCD_TREE_H
#define TKV_TESTS_ETCD_TREE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "store/store.h"

namespace tkv::store::etcd {

inline testing::AssertionResult done(const Status& status) {
  if (status.ok()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << status.code() << " " << status.text();
}

inline std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

inline std::string text_of(const Value& value) {
  return {reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()};
}

// Follows a path level by level, as the registry client does.
inline Status follow(View& view, std::string_view path, Node* node) {
  if (Status status = view.find(kNoNode, "", node); !status.ok()) return status;
  while (!path.empty()) {
    const auto dot = path.find('.');
    if (Status status = view.find(node->id, path.substr(0, dot), node); !status.ok()) return status;
    path.remove_prefix(dot == std::string_view::npos ? path.size() : dot + 1);
  }
  return {};
}

inline std::pair<std::string_view, std::string_view> split(std::string_view path) {
  const auto dot = path.rfind('.');
  if (dot == std::string_view::npos) return {"", path};
  return {path.substr(0, dot), path.substr(dot + 1)};
}

// A read and a write of one key each, as the registry client makes them.
inline Status open_key(Store& store, std::string_view path, NodeId* id = nullptr) {
  Node node;
  Status status = store.read([&](View& view) { return follow(view, path, &node); });
  if (id != nullptr) *id = node.id;
  return status;
}

inline Status read_key(Store& store, std::string_view path, std::string* text) {
  return store.read([&](View& view) -> Status {
    Node node;
    if (Status status = follow(view, path, &node); !status.ok()) return status;
    Value value;
    if (Status status = view.value(node.id, &value); !status.ok()) return status;
    *text = text_of(value);
    return {};
  });
}

inline Status write_key(Store& store, std::string_view path, std::string_view text) {
  return store.write([&](Update& update) -> Status {
    Node node;
    if (Status status = follow(update, path, &node); !status.ok()) return status;
    return update.set_value(node.id, 3, bytes_of(text));
  });
}

inline Status create_key(Store& store, std::string_view path, std::string_view text = {}) {
  return store.write([&](Update& update) -> Status {
    const auto [parent_path, name] = split(path);
    Node parent;
    if (Status status = follow(update, parent_path, &parent); !status.ok()) return status;
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(parent.id, name, node); !status.ok()) return status;
    return text.empty() ? Status() : update.set_value(node.id, 3, bytes_of(text));
  });
}

inline Status delete_key(Update& update, std::string_view path) {
  const auto [parent_path, name] = split(path);
  Node parent;
  Node node;
  if (Status status = follow(update, parent_path, &parent); !status.ok()) return status;
  if (Status status = update.find(parent.id, name, &node); !status.ok()) return status;
  if (Status status = update.unlink(parent.id, name); !status.ok()) return status;
  return update.discard(node.id);
}

inline Status delete_key(Store& store, std::string_view path) {
  return store.write([&](Update& update) { return delete_key(update, path); });
}

inline Status move_key(Store& store, std::string_view from, std::string_view to) {
  return store.write([&](Update& update) -> Status {
    const auto [from_path, from_name] = split(from);
    const auto [to_path, to_name] = split(to);
    Node from_parent;
    Node to_parent;
    Node node;
    if (Status status = follow(update, from_path, &from_parent); !status.ok()) return status;
    if (Status status = update.find(from_parent.id, from_name, &node); !status.ok()) return status;
    if (Status status = follow(update, to_path, &to_parent); !status.ok()) return status;
    if (Status status = update.unlink(from_parent.id, from_name); !status.ok()) return status;
    return update.insert(to_parent.id, to_name, node);
  });
}

// Builds a key with `count` subkeys, each with a value, and attaches it to the root at the end.
inline Status build_keys(
    Store& store, std::string_view name, int count, FunctionRef<void(int)> before_key = [](int) {}) {
  return store.write([&](Update& update) -> Status {
    Node top;
    if (Status status = update.new_id(&top.id); !status.ok()) return status;
    for (int i = 0; i < count; ++i) {
      before_key(i);
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(top.id, "k" + std::to_string(i), node); !status.ok()) return status;
      if (Status status = update.set_value(node.id, 3, bytes_of("v" + std::to_string(i))); !status.ok()) return status;
    }
    return update.insert(kRootNode, name, top);
  });
}

// Gives all subkeys of a key the same value.
inline Status change_keys(Store& store, std::string_view name, std::string_view text) {
  return store.write([&](Update& update) -> Status {
    Node top;
    if (Status status = follow(update, name, &top); !status.ok()) return status;
    return update.children(
        top.id, [&](std::string_view, const Node& node) { return update.set_value(node.id, 3, bytes_of(text)); });
  });
}

// Checks the store, fails the test on any finding, and returns the totals.
inline Totals totals_of(Store& store) {
  Totals totals;
  EXPECT_TRUE(done(store.check(
      false, [](const Finding& finding) { ADD_FAILURE() << "'" << finding.name << "': " << finding.detail; },
      &totals)));
  return totals;
}

}  // namespace tkv::store::etcd

#endif
