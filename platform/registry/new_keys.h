// Creating keys along with what they lack: security and ancestors.
#ifndef TKV_PLATFORM_REGISTRY_NEW_KEYS_H
#define TKV_PLATFORM_REGISTRY_NEW_KEYS_H

#include <string_view>

#include "registry/client.h"
#include "registry/tree.h"

namespace tkv::registry {

// The security of a key that is created under one with the security `parent`. Returns PRTKV_INVALID_ARGUMENT for names
// that do not fit.
Status security_below(const sec_attr& parent, const NewKeySecurity& rules, sec_attr* security);

// What keys created under `parent` inherit from: the security of `parent` or, if that does not exist yet, of its
// nearest ancestor that does. Needs TKV_RIGHT_READ on that key. Without inheritance, needs no right and leaves zeros.
Status inherited_security(Reader& tree, std::string_view parent, const NewKeySecurity& rules, sec_attr* security);

// Creates a key with the security that the rules give it. Its parent exists.
Status create_key(Writer& tree, std::string_view name, const TypedValue& value, const NewKeySecurity& rules);

// Creates the ancestors of `name` that do not exist, without values.
Status create_parents(Writer& tree, std::string_view name, const NewKeySecurity& rules);

// As Client::put, for one key.
Status put_value(Writer& tree, std::string_view name, const TypedValue& value, const PutOptions& options);

}  // namespace tkv::registry

#endif
