#include <vector>

#include "context.h"
#include "description.h"
#include "json.h"
#include "key_by_key.h"
#include "masks.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Writer;

// Changes the security records of a key, or of everything below it too, in one transaction.
Status change_security(Context& context, const char* verb, const std::string& name, bool recursive,
                       FunctionRef<void(sec_attr* security)> change) {
  Progress progress(context.terminal(), verb);
  const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
  const auto changed = [&](const registry::Entry& key) {
    sec_attr security = key.node.security;
    change(&security);
    return security;
  };
  return context.registry().write([&](Writer& writer) -> Status {
    writer.follow(show);
    if (recursive) return writer.set_security_below(name, changed);
    registry::Place place;
    if (Status found = writer.resolve(name, &place); !found.ok()) return found;
    change(&place.node.security);
    return writer.set_security(name, place.node.security);
  });
}

Outcome run_chown(Context& context, const Arguments& arguments) {
  Ownership ownership;
  std::vector<std::string> names;
  sec_attr trial{};
  if (Outcome parsed = Ownership::parse(*arguments.change, &ownership); !parsed.ok()) return parsed;
  if (Outcome fits = ownership.apply_to(&trial); !fits.ok()) return fits;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    *json = done("chown", name).str();
    return change_security(context, "chown", name, arguments.recursive, [&](sec_attr* security) {
      (void)ownership.apply_to(security).ok();  // the names were tried above
    });
  });
}

Outcome run_chmod(Context& context, const Arguments& arguments) {
  Mode mode;
  std::vector<std::string> names;
  if (Outcome parsed = Mode::parse(*arguments.change, &mode); !parsed.ok()) return parsed;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    *json = done("chmod", name).str();
    return change_security(context, "chmod", name, arguments.recursive,
                           [&](sec_attr* security) { mode.apply_to(security); });
  });
}

constexpr std::array kChownOperands{
    one("OWNER", "OWNER, OWNER:GROUP or :GROUP", true, &Arguments::change, Candidates::kUsers),
    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kChmodOperands{
    one("MODE", "Three numbers, or clauses of letters", true, &Arguments::change, Candidates::kNone),
    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kOptions{flag("-R,--recursive", "Change all subkeys too", &Arguments::recursive)};

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
