// Access to the files of an embedded registry without the store, and to the registry from other processes.
#ifndef TKV_TESTS_PLATFORM_LMDB_FILES_H
#define TKV_TESTS_PLATFORM_LMDB_FILES_H

#include <gtest/gtest.h>
#include <lmdb.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "store/lmdb/lmdb_store.h"

namespace tkv::store {

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Replaces every occurrence of `pattern` with as many bytes of `replacement`. Returns the number of occurrences.
inline int replace_in_file(const std::string& path, std::string_view pattern, std::string_view replacement) {
  std::string bytes = read_file(path);
  int count = 0;
  for (std::size_t at = 0; (at = bytes.find(pattern, at)) != std::string::npos; at += pattern.size(), ++count)
    bytes.replace(at, pattern.size(), replacement);
  std::FILE* const file = std::fopen(path.c_str(), "r+b");  // in place, so that open sessions see it
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
  return count;
}

// Runs `change` in a plain LMDB write transaction on a registry that nobody has open.
inline void with_plain_lmdb(const std::string& directory, const std::function<void(MDB_txn*, MDB_dbi)>& change,
                            unsigned database_flags = 0) {
  MDB_env* env = nullptr;
  ASSERT_EQ(mdb_env_create(&env), 0);
  ASSERT_EQ(mdb_env_open(env, directory.c_str(), 0, 0600), 0);
  MDB_txn* txn = nullptr;
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  MDB_dbi database = 0;
  ASSERT_EQ(mdb_dbi_open(txn, nullptr, database_flags, &database), 0);
  change(txn, database);
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
}

inline MDB_val val_of(std::string_view bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

// Runs `child` in a forked process and returns its exit status: the return value of `child`, 128 plus the number of the
// signal that ended it, or 100 after an exception.
inline int in_child(const std::function<int()>& child) {
  const pid_t process = fork();
  if (process == 0) {
    try {
      _exit(child());
    } catch (...) {
      _exit(100);
    }
  }
  int status = 0;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Opens, or fails the test.
inline std::shared_ptr<Store> open_or_fail(const LmdbOptions& options) {
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options, &store);
  EXPECT_TRUE(status.ok()) << status.code() << " " << status.text();
  return store;
}

inline Status set_text(Store& store, NodeId id, std::string_view text) {
  return store.write(
      [&](Update& update) { return update.set_value(id, 3, std::as_bytes(std::span(text.data(), text.size()))); });
}

inline Status get_text(Store& store, NodeId id, std::string* text) {
  return store.read([&](View& view) -> Status {
    Value value;
    if (Status status = view.value(id, &value); !status.ok()) return status;
    text->assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
    return {};
  });
}

// The value of a node, or a failed test.
inline std::string text_of(Store& store, NodeId id = kRootNode) {
  std::string text;
  const Status status = get_text(store, id, &text);
  EXPECT_TRUE(status.ok()) << status.text();
  return text;
}

// Checks the whole registry and fails the test on any finding.
inline Totals expect_sound(Store& store) {
  Totals totals;
  const Status status = store.check(
      false, [](const Finding& finding) { ADD_FAILURE() << finding.name << ": " << finding.detail; }, &totals);
  EXPECT_TRUE(status.ok()) << status.text();
  return totals;
}

inline Status add_node(Store& store, NodeId parent, std::string_view name, NodeId* id) {
  return store.write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    *id = node.id;
    return update.insert(parent, name, node);
  });
}

}  // namespace tkv::store

#endif
