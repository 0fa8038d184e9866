#include <vector>

#include "changes.h"
#include "context.h"
#include "input.h"
#include "json.h"
#include "key_by_key.h"
#include "key_maker.h"
#include "registry/access.h"
#include "verbs.h"

namespace tkv::command {
namespace {

using registry::Writer;

// What verbs that change something print with --json.
JsonObject done(const char* did, const std::string& name) {
  JsonObject object;
  object.raw("done", json_string(did)).text("name", name);
  return object;
}

Status make_key(Writer& writer, const std::string& name, const StoredValue& value, const Arguments& arguments,
                const NewKeySecurity& security) {
  const KeyMaker maker(security);
  if (arguments.parents) {
    if (Status made = maker.make_parents(writer, name); !made.ok()) return made;
  }
  return maker.make(writer, name, value);
}

Status key_exists(const std::string& name) { return {PRTKV_KEY_EXISTS, registry::describe(name) + " exists"}; }

Status set_existing(Writer& writer, const std::string& name, const StoredValue& value, const Arguments& arguments,
                    const NewKeySecurity& security) {
  if (arguments.only_new) return key_exists(name);
  if (security.asked_for()) {
    return {PRTKV_KEY_EXISTS,
            registry::describe(name) + " exists: its owner and rights are changed by chown and chmod"};
  }
  return writer.set_value(name, value.type, value.span());
}

// Asks once for all that is going to be deleted. Keys that do not exist are left to the deletion itself.
Outcome ask_for_removal(Context& context, const std::vector<std::string>& names, bool recursive) {
  if (context.deletes_unasked()) return {};
  if (!recursive) return context.allow_deleting(names.size(), "this");
  std::uint64_t keys = 0;
  for (const std::string& name : names) {
    std::uint64_t below = 0;
    Outcome counted = count_keys(context.registry(), context.terminal(), name, &below);
    if (!counted.ok() && counted.exit() != Exit::kNotFound) return counted;
    keys += below;
  }
  return context.allow_deleting(keys, "this");
}

Outcome ask_for_replacement(Context& context, const std::string& name) {
  std::uint64_t keys = 0;
  if (context.deletes_unasked()) return {};
  const Outcome counted_keys = count_keys(context.registry(), context.terminal(), name, &keys);
  if (!counted_keys.ok()) return counted_keys.exit() == Exit::kNotFound ? Outcome() : counted_keys;
  return context.allow_deleting(keys, "replacing " + registry::describe(name));
}

// What mv and cp do first: names, registry, question.
Outcome begin_transfer(Context& context, const Arguments& arguments, std::string* from, std::string* to) {
  if (Outcome named = key_name(*arguments.from, from); !named.ok()) return named;
  if (Outcome named = key_name(*arguments.to, to); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return arguments.replace ? ask_for_replacement(context, *to) : Outcome();
}

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

}  // namespace

Outcome run_set(Context& context, const Arguments& arguments) {
  std::string name;
  StoredValue value;
  NewKeySecurity security;
  if (Outcome named = key_name(*arguments.key, &name); !named.ok()) return named;
  if (arguments.only_new && arguments.only_existing) return {Exit::kUsage, "--new and --existing exclude each other"};
  if (Outcome parsed = NewKeySecurity::parse(arguments, &security); !parsed.ok()) return parsed;
  if (Outcome read = value_from_arguments(arguments, &value); !read.ok()) return read;
  if (Outcome opened = arguments.only_existing ? context.open_to_change() : context.open_or_make(); !opened.ok()) {
    return opened;
  }
  const Status status = context.registry().write([&](Writer& writer) -> Status {
    bool exists = false;
    if (Status asked = writer.exists(name, &exists); !asked.ok()) return asked;
    if (exists) return set_existing(writer, name, value, arguments, security);
    if (arguments.only_existing) return {PRTKV_NO_SUCH_KEY, registry::describe(name) + " does not exist"};
    return make_key(writer, name, value, arguments, security);
  });
  if (status.ok() && context.json()) context.output().line(done("set", name).str());
  return status;
}

Outcome run_create(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  NewKeySecurity security;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome parsed = NewKeySecurity::parse(arguments, &security); !parsed.ok()) return parsed;
  if (Outcome opened = context.open_or_make(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    if (name.empty()) return key_exists(name);
    *json = done("create", name).str();
    return context.registry().write([&](Writer& writer) { return make_key(writer, name, {}, arguments, security); });
  });
}

Outcome run_rm(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (Outcome allowed = ask_for_removal(context, names, arguments.recursive); !allowed.ok()) return allowed;
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    Progress progress(context.terminal(), "rm");
    const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
    const Status status = context.registry().write([&](Writer& writer) {
      writer.follow(show);
      return writer.remove(name, arguments.recursive);
    });
    const bool missing = arguments.force && status.is(PRTKV_NO_SUCH_KEY);
    *json = missing ? done("rm", name).flag("existed", false).str() : done("rm", name).str();
    if (status.is(PRTKV_HAS_SUBKEYS)) return {Exit::kConflict, status.text() + "; -r deletes them too"};
    return missing ? Outcome() : Outcome(status);
  });
}

Outcome run_mv(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome begun = begin_transfer(context, arguments, &from, &to); !begun.ok()) return begun;
  const Status status = context.registry().write([&](Writer& writer) {
    store::NodeId moved = store::kNoNode;
    return writer.move(from, "", to, arguments.replace, &moved);
  });
  if (status.ok() && context.json()) context.output().line(done("mv", from).text("to", to).str());
  return status;
}

Outcome run_cp(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome begun = begin_transfer(context, arguments, &from, &to); !begun.ok()) return begun;
  Progress progress(context.terminal(), "cp");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
  const Status status = context.registry().write([&](Writer& writer) -> Status {
    store::NodeId id = store::kNoNode;
    writer.follow(show);
    if (!arguments.own) return writer.copy(from, "", to, arguments.recursive, arguments.replace, &id);
    return copy_as_own(writer, from, to, arguments.recursive, arguments.replace);
  });
  if (status.ok() && context.json()) context.output().line(done("cp", from).text("to", to).str());
  return status;
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

}  // namespace tkv::command
