#include "data_writer.h"

#include "registry/access.h"

namespace tkv::java {

void write_security(const sec_attr& security, DataWriter& to) {
  to.word32(security.user_perm);
  to.word32(security.group_perm);
  to.word32(security.other_perm);
  to.text(registry::user_of(security));
  to.text(registry::group_of(security));
}

}  // namespace tkv::java
