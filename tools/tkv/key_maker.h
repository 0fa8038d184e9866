// KeyMaker: makes keys, and with them the keys above that are missing.
#ifndef TKV_TOOLS_TKV_KEY_MAKER_H
#define TKV_TOOLS_TKV_KEY_MAKER_H

#include <string>

#include "new_key_security.h"
#include "registry/tree.h"
#include "values.h"

namespace tkv::command {

class KeyMaker {
 public:
  // Keys get what stands for them in `security`, which lives as long as this.
  explicit KeyMaker(const NewKeySecurity& security) : security_(security) {}

  // 55 when the key exists, 4 when its parent does not.
  Status make(registry::Writer& writer, const std::string& name, const StoredValue& value) const;

  // Makes the keys above a name that are missing.
  Status make_parents(registry::Writer& writer, const std::string& name) const;

 private:
  const NewKeySecurity& security_;
};

}  // namespace tkv::command

#endif
