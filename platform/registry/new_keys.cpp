#include "registry/new_keys.h"

#include <algorithm>
#include <iterator>

#include "registry/name.h"

namespace tkv::registry {
namespace {

constexpr Rights kMostInheritedByOthers = TKV_RIGHT_READ | TKV_RIGHT_LIST;

Status write_existing(Writer& tree, std::string_view name, const TypedValue& value, PutOptions::Key key) {
  if (key == PutOptions::Key::kMustBeNew) return {PRTKV_KEY_EXISTS, describe(name) + " exists"};
  if (value == TypedValue{}) return {};
  return tree.write_value(name, value.type, value.span());
}

}  // namespace

Status security_below(const sec_attr& parent, const NewKeySecurity& rules, sec_attr* security) {
  sec_attr result = rules.initial;
  if (rules.inherit) {
    result = parent;
    std::copy(std::begin(rules.initial.user_name), std::end(rules.initial.user_name), result.user_name);
    if (result.other_perm == TKV_RIGHT_ALL) result.other_perm = kMostInheritedByOthers;
  }
  if (Status status = rules.change.apply(&result); !status.ok()) return status;
  *security = result;
  return {};
}

Status inherited_security(Reader& tree, std::string_view parent, const NewKeySecurity& rules, sec_attr* security) {
  *security = {};
  if (!rules.inherit) return {};
  Status status = tree.security(parent, security);
  while (status.is(PRTKV_NO_SUCH_KEY) && !parent.empty()) {
    parent = parent_of(parent);
    status = tree.security(parent, security);
  }
  return status;
}

Status create_key(Writer& tree, std::string_view name, const TypedValue& value, const NewKeySecurity& rules) {
  sec_attr above{};
  sec_attr security{};
  KeyId id = kAnyKey;
  if (Status status = inherited_security(tree, parent_of(name), rules, &above); !status.ok()) return status;
  if (Status status = security_below(above, rules, &security); !status.ok()) return status;
  return tree.create("", name, security, value.type, value.span(), &id);
}

Status create_parents(Writer& tree, std::string_view name, const NewKeySecurity& rules) {
  for (std::size_t end = name.find('.'); end != std::string_view::npos; end = name.find('.', end + 1)) {
    const std::string_view parent = name.substr(0, end);
    bool exists = false;
    if (Status status = tree.exists(parent, &exists); !status.ok()) return status;
    if (exists) continue;
    if (Status status = create_key(tree, parent, {}, rules); !status.ok()) return status;
  }
  return {};
}

Status put_value(Writer& tree, std::string_view name, const TypedValue& value, const PutOptions& options) {
  bool exists = false;
  Status found = tree.exists(name, &exists);
  if (found.is(PRTKV_STORAGE_FAILED) && options.key == PutOptions::Key::kAny) {
    if (Status status = tree.remove_damaged(name, found); !status.ok()) return status;
  } else if (!found.ok()) {
    return found;
  }
  if (exists) return write_existing(tree, name, value, options.key);
  if (options.key == PutOptions::Key::kMustExist) return {PRTKV_NO_SUCH_KEY, describe(name) + " does not exist"};
  if (options.create_parents) {
    if (Status status = create_parents(tree, name, options.security); !status.ok()) return status;
  }
  return create_key(tree, name, value, options.security);
}

}  // namespace tkv::registry
