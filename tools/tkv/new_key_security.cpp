#include "new_key_security.h"

namespace tkv::command {
namespace {
constexpr std::int32_t kOthers = TKV_RIGHT_READ | TKV_RIGHT_LIST;
}

Outcome NewKeySecurity::parse(const Arguments& arguments, NewKeySecurity* security) {
  security->ownership_ = {arguments.owner, arguments.group};
  security->inherits_ = arguments.inherit;
  security->has_mode_ = arguments.mode.has_value();
  security->asked_for_ = arguments.owner || arguments.group || arguments.mode || arguments.inherit;
  return arguments.mode ? Mode::parse(*arguments.mode, &security->mode_) : Outcome();
}

Outcome NewKeySecurity::make(const Identity& identity, const sec_attr& parent, sec_attr* security) const {
  *security = of_session(identity);
  if (inherits_) {
    const sec_attr own = *security;
    *security = parent;
    std::copy(std::begin(own.user_name), std::end(own.user_name), security->user_name);
    if (security->other_perm == TKV_RIGHT_ALL) security->other_perm = kOthers;
  }
  if (has_mode_) mode_.apply_to(security);
  return ownership_.apply_to(security);
}

sec_attr NewKeySecurity::of_session(const Identity& identity) {
  sec_attr security = registry::default_security(identity);
  security.user_perm = TKV_RIGHT_ALL;
  security.group_perm = TKV_RIGHT_ALL;
  security.other_perm = kOthers;
  return security;
}

}  // namespace tkv::command
