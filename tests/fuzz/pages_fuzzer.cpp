// Whatever a registry's file contains, opening, checking, reading and writing it must return.
//
// The input is a list of patches to a sound file: page, offset within it, and the replacing bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace {

using namespace tkv;
using namespace tkv::store;

constexpr std::size_t kPage = 4096;
constexpr NodeId kNodes = 60;

struct Registry {
  TemporaryDirectory place{TemporaryDirectory::Where::kInMemory};
  std::string sound;  // the bytes of its file

  std::string file() const { return place / "data.mdb"; }
};

std::shared_ptr<Store> open(const Registry& registry) {
  LmdbOptions options;
  options.directory = registry.place.path();
  std::shared_ptr<Store> store;
  return open_lmdb_store(options, &store).ok() ? store : nullptr;
}

// Keys of several levels, values within pages and beyond them, and pages that were freed.
Status fill(Update& update) {
  NodeId parent = kRootNode;
  for (NodeId i = 0; i < kNodes; ++i) {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(parent, "level" + std::to_string(i), node); !status.ok()) return status;
    const std::vector<std::byte> value(i % 20 == 0 ? 9000 : 30 * i);
    if (Status status = update.set_value(node.id, 3, value); !status.ok()) return status;
    if (i % 7 == 0) parent = node.id;
  }
  return {};
}

void make(Registry* made) {
  auto store = open(*made);
  if (store == nullptr || !store->write([](Update& update) { return fill(update); }).ok()) std::abort();
  if (!store->write([](Update& update) { return update.set_value(2, 3, {}); }).ok()) std::abort();
  store.reset();
  std::ifstream file(made->file(), std::ios::binary);
  made->sound.assign(std::istreambuf_iterator<char>(file), {});
}

// Each patch is page, offset in two bytes, length, and so many bytes.
std::string patched(std::string bytes, const std::uint8_t* data, std::size_t size) {
  while (size > 4) {
    const std::size_t at = data[0] % (bytes.size() / kPage) * kPage + (data[1] + std::size_t{256} * data[2]) % kPage;
    const std::size_t length = std::min({static_cast<std::size_t>(data[3] % 9), size - 4, bytes.size() - at});
    for (std::size_t i = 0; i < length; ++i) bytes[at + i] = static_cast<char>(data[4 + i]);
    data += 4 + length;
    size -= 4 + length;
  }
  return bytes;
}

void use(Store& store) {
  Totals totals;
  static_cast<void>(store.check(
      false, [](const Finding&) {}, &totals));
  const auto read = [](View& view) -> Status {
    for (NodeId id = 1; id < kNodes + 2; ++id) {
      Value value;
      static_cast<void>(view.value(id, &value));
      static_cast<void>(view.children(id, [](std::string_view, const Node&) { return Status(); }));
    }
    return {};
  };
  static_cast<void>(store.read(read));
  const auto write = [](Update& update) -> Status {
    for (NodeId id = 1; id < kNodes + 2; ++id) {
      if (Status status = update.set_value(id, 1, std::vector<std::byte>(11 * id)); !status.ok()) return status;
    }
    return {};
  };
  static_cast<void>(store.write(write));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Registry kept;
  if (kept.sound.empty()) make(&kept);
  std::ofstream(kept.file(), std::ios::binary | std::ios::trunc) << patched(kept.sound, data, size);
  if (const auto store = open(kept); store != nullptr) use(*store);
  return 0;
}
