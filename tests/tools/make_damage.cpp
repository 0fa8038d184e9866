// Leaves in a registry what an interrupted or faulty program might, or a later release.
//
//   make_damage DIRECTORY orphans   a value of no key, and a key that hangs on nothing
//   make_damage DIRECTORY twins     below the root, keys "one" and "two" of one id, with a subkey "below"
//   make_damage DIRECTORY loop      below the root, a key "ring" with a subkey "ring" of the same id
//   make_damage DIRECTORY newer     the registry's record of itself, in a newer format
#include <lmdb.h>

#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "newer_record.h"
#include "store/lmdb/lmdb_store.h"
#include "store/record.h"

namespace {

using tkv::Status;
using tkv::store::kRootNode;
using tkv::store::Node;
using tkv::store::NodeId;
using tkv::store::Update;

Status leave_orphans(Update& update) {
  constexpr std::string_view kBytes = "lost";
  NodeId value = 0;
  NodeId top = 0;
  NodeId below = 0;
  if (Status status = update.new_id(&value); !status.ok()) return status;
  if (Status status = update.new_id(&top); !status.ok()) return status;
  if (Status status = update.new_id(&below); !status.ok()) return status;
  if (Status status = update.set_value(value, 3, std::as_bytes(std::span(kBytes))); !status.ok()) return status;
  return update.insert(top, "stray", Node{below, {}});
}

Status leave_twins(Update& update) {
  NodeId shared = 0;
  NodeId below = 0;
  if (Status status = update.new_id(&shared); !status.ok()) return status;
  if (Status status = update.new_id(&below); !status.ok()) return status;
  if (Status status = update.insert(kRootNode, "one", Node{shared, {}}); !status.ok()) return status;
  if (Status status = update.insert(kRootNode, "two", Node{shared, {}}); !status.ok()) return status;
  return update.insert(shared, "below", Node{below, {}});
}

Status leave_loop(Update& update) {
  NodeId ring = 0;
  if (Status status = update.new_id(&ring); !status.ok()) return status;
  if (Status status = update.insert(kRootNode, "ring", Node{ring, {}}); !status.ok()) return status;
  return update.insert(ring, "ring", Node{ring, {}});
}

// No process has the registry open.
int write_newer_format(const char* directory) {
  tkv::store::MetaRecord record = tkv::store::encode_meta({});
  tkv::store::set_version(&record, tkv::store::kRecordVersion + 1, tkv::store::kNoNode, "meta");
  char name[] = "M";
  MDB_val key{1, name};
  MDB_val data{record.size(), record.data()};
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi database = 0;
  int code = mdb_env_create(&env);
  if (code == 0) code = mdb_env_open(env, directory, 0, 0600);
  if (code == 0) code = mdb_txn_begin(env, nullptr, 0, &txn);
  if (code == 0) code = mdb_dbi_open(txn, nullptr, 0, &database);
  if (code == 0) code = mdb_put(txn, database, &key, &data, 0);
  if (code == 0) code = mdb_txn_commit(txn);
  if (code != 0) std::fprintf(stderr, "%s\n", mdb_strerror(code));
  return code == 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** words) {
  if (count == 3 && std::string_view(words[2]) == "newer") return write_newer_format(words[1]);
  const std::map<std::string, Status (*)(Update&)> kinds{
      {"orphans", leave_orphans}, {"twins", leave_twins}, {"loop", leave_loop}};
  const auto kind = count == 3 ? kinds.find(words[2]) : kinds.end();
  if (kind == kinds.end()) return 2;
  std::shared_ptr<tkv::store::Store> store;
  tkv::store::LmdbOptions options;
  options.directory = words[1];
  options.create = false;
  Status status = tkv::store::open_lmdb_store(options, &store);
  if (status.ok()) status = store->write([&](Update& update) { return kind->second(update); });
  if (status.ok()) return 0;
  std::fprintf(stderr, "%s\n", status.text().c_str());
  return 1;
}
