#include "store/store_kinds.h"

#include <iterator>

#include "store/etcd/kind.h"
#include "store/lmdb/kind.h"

namespace tkv::store {
namespace {

constexpr const StoreKind* kKinds[] = {&kLmdbKind, &kEtcdKind};

}  // namespace

std::span<const StoreKind* const> store_kinds() { return kKinds; }

const StoreKind& kind_of_location(std::string_view location) {
  for (const StoreKind* kind : kKinds) {
    if (*kind->scheme != '\0' && location.starts_with(kind->scheme)) return *kind;
  }
  return *kKinds[0];
}

}  // namespace tkv::store
