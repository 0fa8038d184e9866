// Leaves in a registry what an interrupted or faulty program might: a value of no key, and keys that hang on nothing.
#include <cstdio>
#include <span>
#include <string_view>

#include "lmdb_store.h"

namespace {

using tkv::Status;
using tkv::store::Node;
using tkv::store::NodeId;
using tkv::store::Update;

Status leave(Update& update) {
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

}  // namespace

int main(int count, char** words) {
  if (count != 2) return 2;
  std::shared_ptr<tkv::store::Store> store;
  tkv::store::LmdbOptions options;
  options.directory = words[1];
  options.create = false;
  Status status = tkv::store::open_lmdb_store(options, &store);
  if (status.ok()) status = store->write([](Update& update) { return leave(update); });
  if (status.ok()) return 0;
  std::fprintf(stderr, "%s\n", status.text().c_str());
  return 1;
}
