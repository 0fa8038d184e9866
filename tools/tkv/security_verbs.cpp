#include <grp.h>

#include <optional>
#include <vector>

#include "base/identity.h"
#include "base/name_service.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "key_by_key.h"
#include "masks.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// Applies a change to each of the keys, one after the other.
Outcome change_keys(Context& context, const Arguments& arguments, const char* verb,
                    const registry::SecurityChange& change) {
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    Progress progress(context.terminal(), verb);
    const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
    *json = done(verb, name).str();
    return context.client().change_security(name, change, arguments.recursive, show);
  });
}

// True in doubt: if the name service fails, too.
bool is_group_or_number(const std::string& name) {
  if (name.find_first_not_of("0123456789") == std::string::npos) return true;
  bool exists = true;
  const auto ask = [&](group* record, char* buffer, std::size_t size, group** found) {
    return ::getgrnam_r(name.c_str(), record, buffer, size, found);
  };
  const auto take = [&](const group* found) { exists = found != nullptr; };
  return ask_name_service<group>(ask, take) != 0 || exists;
}

// Names are stored as given, so that a registry can speak of users of other machines. One that this machine does not
// know is most often a typing error.
void warn_about_unknown_names(const Context& context, const registry::SecurityChange& change) {
  std::optional<Identity> user;
  if (change.owner && identity_of_user(*change.owner, &user).ok() && !user) {
    note(context.terminal(), "tkv: warning: there is no user '" + *change.owner + "' on this machine");
  }
  if (change.group && !is_group_or_number(*change.group)) {
    note(context.terminal(), "tkv: warning: there is no group '" + *change.group + "' on this machine");
  }
}

Outcome run_chown(Context& context, const Arguments& arguments) {
  registry::SecurityChange change;
  if (Outcome parsed = parse_ownership(*arguments.change, &change); !parsed.ok()) return parsed;
  warn_about_unknown_names(context, change);
  return change_keys(context, arguments, "chown", change);
}

Outcome run_chmod(Context& context, const Arguments& arguments) {
  registry::SecurityChange change;
  if (Outcome parsed = parse_mode(*arguments.change, &change); !parsed.ok()) return parsed;
  return change_keys(context, arguments, "chmod", change);
}

constexpr std::array kChownOperands{
    one("OWNER", "OWNER, OWNER:GROUP or :GROUP", true, &Arguments::change, Candidates::kUsers),
    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kChmodOperands{
    one("MODE", "Three numbers, or clauses of letters", true, &Arguments::change, Candidates::kNone),
    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kOptions{flag("-R,--recursive", "Change all subkeys too", &Arguments::recursive), kNote};

}  // namespace

constinit const Verb kChownVerb{
    .name = "chown",
    .summary = "Change owner and group of keys",
    .details = R"(OWNER is OWNER, OWNER:GROUP or :GROUP. Names are stored as given; they have at
most 64 bytes. With -R, each KEY is changed with its subtree in one
transaction. Needs the right s (change security) on every key.
)",
    .examples = R"(  tkv chown ada:operators app
  tkv chown -R :operators app
)",
    .operands = kChownOperands,
    .options = kOptions,
    .run = run_chown};

constinit const Verb kChmodVerb{
    .name = "chmod",
    .summary = "Change the rights of keys",
    .details = R"(MODE is either three numbers, for owner, group and others, or a list of clauses
separated by commas. A clause has three parts: u (owner), g (group), o (others),
several of these, or a (all); then =, + or -; then letters or a number. The
letters are r (read value and security), l (list subkeys), w (write the value),
s (change security), c (create subkeys) and d (delete or move).

Rights add up: what others have, everybody has. With -R, each KEY is changed
with its subtree in one transaction. Needs the right s on every key.
)",
    .examples = R"(  tkv chmod u=rlwscd,g=rlw,o= app
  tkv chmod -R g+c,o-l app
  tkv chmod 0x3f,0x34,0x3 app
)",
    .operands = kChmodOperands,
    .options = kOptions,
    .run = run_chmod};

}  // namespace tkv::command
