// RegistryMark: the key that marks a prefix as that of a registry.
#ifndef TKV_PLATFORM_STORE_ETCD_REGISTRY_MARK_H
#define TKV_PLATFORM_STORE_ETCD_REGISTRY_MARK_H

#include <optional>
#include <string>

namespace tkv::store::etcd {

// The mark's value, one field per line, for people who look at it with etcdctl.
struct RegistryMark {
  static constexpr int kFormat = 2;  // of the keys under the prefix; registries of format 1 have no mark

  int format = kFormat;
  std::string incarnation;  // made when the registry is, never used again

  static RegistryMark make();
  std::string print() const;

  // Nothing if this is not a mark. A mark of a later format parses, whatever else it says.
  static std::optional<RegistryMark> parse(const std::string& text);
};

}  // namespace tkv::store::etcd

#endif
