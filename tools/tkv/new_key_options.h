// The options about the security of keys that a verb creates: --owner, --group, --mode and --inherit.
#ifndef TKV_TOOLS_TKV_NEW_KEY_OPTIONS_H
#define TKV_TOOLS_TKV_NEW_KEY_OPTIONS_H

#include "arguments.h"
#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

// The security of keys that are created without any of these options: it gives all rights to the caller's user and
// group, and read and list to others.
registry::NewKeySecurity default_security(const Identity& identity);

class NewKeyOptions {
 public:
  static Outcome parse(const Arguments& arguments, NewKeyOptions* options);

  bool given() const { return given_; }

  registry::NewKeySecurity security(const Identity& identity) const;

 private:
  bool given_ = false;
  bool inherit_ = false;
  registry::SecurityChange change_;
};

}  // namespace tkv::command

#endif
