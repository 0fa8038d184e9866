// RegistryMark: the key that marks a prefix as that of a registry.
#ifndef TKV_PLATFORM_STORE_ETCD_REGISTRY_MARK_H
#define TKV_PLATFORM_STORE_ETCD_REGISTRY_MARK_H

#include <optional>
#include <string>

#include "base/status.h"

namespace tkv::store::etcd {

// The mark's value, one field per line, for people who look at it with etcdctl.
struct RegistryMark {
  // Of the keys under the prefix. Registries of format 1 have no mark; those of format 2 have no log, and releases that
  // know no other format would not write it.
  static constexpr int kFormat = 3;

  int format = kFormat;
  std::string incarnation;  // made when the registry is, never used again

  static RegistryMark make();
  std::string print() const;

  // Nothing if this is not a mark. A mark of a later format parses, whatever else it says.
  static std::optional<RegistryMark> parse(const std::string& text);
};

// What is wrong if the mark under `key` does not parse, and what to do about it.
Status damaged_mark(const std::string& key);

}  // namespace tkv::store::etcd

#endif
