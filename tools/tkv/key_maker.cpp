#include "key_maker.h"

namespace tkv::command {

Status KeyMaker::make(registry::Writer& writer, const std::string& name, const StoredValue& value) const {
  sec_attr parent{};
  sec_attr security{};
  store::NodeId id = store::kNoNode;
  if (security_.inherits()) {
    if (Status found = writer.security(registry::parent_of(name), &parent); !found.ok()) return found;
  }
  const Outcome secured = security_.make(writer.identity(), parent, &security);
  if (!secured.ok()) return {PRTKV_INVALID_ARGUMENT, secured.text()};
  return writer.create_and_set("", name, security, value.type, value.span(), &id);
}

Status KeyMaker::make_parents(registry::Writer& writer, const std::string& name) const {
  for (std::size_t end = name.find('.'); end != std::string::npos; end = name.find('.', end + 1)) {
    const std::string parent = name.substr(0, end);
    bool exists = false;
    if (Status asked = writer.exists(parent, &exists); !asked.ok()) return asked;
    if (exists) continue;
    if (Status made = make(writer, parent, {}); !made.ok()) return made;
  }
  return {};
}

}  // namespace tkv::command
