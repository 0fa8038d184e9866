#include "new_key_options.h"

#include "masks.h"

namespace tkv::command {

registry::NewKeySecurity default_security(const Identity& identity) {
  registry::NewKeySecurity security;
  security.initial = registry::default_security(identity);
  security.initial.user_perm = TKV_RIGHT_ALL;
  security.initial.group_perm = TKV_RIGHT_ALL;
  security.initial.other_perm = TKV_RIGHT_READ | TKV_RIGHT_LIST;
  return security;
}

Outcome NewKeyOptions::parse(const Arguments& arguments, NewKeyOptions* options) {
  options->given_ = arguments.owner || arguments.group || arguments.mode || arguments.inherit;
  options->inherit_ = arguments.inherit;
  if (arguments.mode) {
    if (Outcome parsed = parse_mode(*arguments.mode, &options->change_); !parsed.ok()) return parsed;
  }
  options->change_.owner = arguments.owner;
  options->change_.group = arguments.group;
  return {};
}

registry::NewKeySecurity NewKeyOptions::security(const Identity& identity) const {
  registry::NewKeySecurity security = default_security(identity);
  security.inherit = inherit_;
  security.change = change_;
  return security;
}

}  // namespace tkv::command
