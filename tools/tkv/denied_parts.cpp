#include "denied_parts.h"

#include "characters.h"
#include "context.h"
#include "registry/name.h"

namespace tkv::command {

void DeniedParts::Part::say(const Terminal& terminal, const std::string& what) const {
  if (count == 0) return;
  const std::string more = count == 1 ? "" : " and of " + counted(count - 1, "other key");
  note(terminal, "tkv: note: access denied to " + what + " of " + utf8_for_people(registry::describe(first)) + more);
}

void DeniedParts::say(const Terminal& terminal) const {
  subkeys_.say(terminal, "the subkeys");
  values_.say(terminal, "the value");
}

}  // namespace tkv::command
