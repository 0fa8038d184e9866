// The security of keys that a verb makes.
#ifndef TKV_TOOLS_TKV_NEW_KEY_SECURITY_H
#define TKV_TOOLS_TKV_NEW_KEY_SECURITY_H

#include "arguments.h"
#include "base/identity.h"
#include "masks.h"
#include "outcome.h"
#include "sec_attr.h"

namespace tkv::command {

// What --owner, --group, --mode and --inherit ask for. Without any: the session's user and group, with all rights for
// both and 0x3 for others.
class NewKeySecurity {
 public:
  static Outcome parse(const Arguments& arguments, NewKeySecurity* security);

  bool asked_for() const { return asked_for_; }
  bool inherits() const { return inherits_; }

  // `parent` is looked at with --inherit: its rights and group are the key's; others never inherit all rights.
  Outcome make(const Identity& identity, const sec_attr& parent, sec_attr* security) const;

  // What entries of imports take when they say nothing.
  static sec_attr of_session(const Identity& identity);

 private:
  bool asked_for_ = false;
  bool inherits_ = false;
  Ownership ownership_;
  bool has_mode_ = false;
  Mode mode_;
};

}  // namespace tkv::command

#endif
