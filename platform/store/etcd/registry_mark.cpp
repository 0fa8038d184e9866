#include "store/etcd/registry_mark.h"

#include <sstream>

#include "store/etcd/token.h"

namespace tkv::store::etcd {

RegistryMark RegistryMark::make() { return {kFormat, random_token()}; }

std::string RegistryMark::print() const {
  return "format " + std::to_string(format) + "\nincarnation " + incarnation + "\n";
}

std::optional<RegistryMark> RegistryMark::parse(const std::string& text) {
  std::istringstream words(text);
  std::string field;
  RegistryMark mark;
  if (!(words >> field >> mark.format) || field != "format" || mark.format < 1) return {};
  if (mark.format > kFormat) return mark;
  if (!(words >> field >> mark.incarnation) || field != "incarnation" || !is_token(mark.incarnation)) return {};
  return mark;
}

// Nobody can tell which format the registry has: only people know which releases have used it.
Status damaged_mark(const std::string& key) {
  return {PRTKV_STORAGE_FAILED, "the key '" + key +
                                    "' in etcd, which says which format the registry has, is damaged. If no later "
                                    "release of TKV has written to the registry, type: etcdctl del " +
                                    key + "; the next session that may write puts the key anew"};
}

}  // namespace tkv::store::etcd
