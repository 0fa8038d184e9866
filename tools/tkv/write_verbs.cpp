#include <vector>

#include "access.h"
#include "changes.h"
#include "context.h"
#include "input.h"
#include "json.h"
#include "new_key_security.h"
#include "verbs.h"

namespace tkv::command {
namespace {

using registry::Reader;
using registry::Writer;

std::span<const std::byte> bytes_of(const StoredValue& value) { return std::as_bytes(std::span(value.bytes)); }

// What verbs that change something print with --json, when it is done.
void report(Context& context, const char* did, const std::string& name, const char* more = nullptr,
            const std::string& other = "") {
  if (!context.json()) return;
  JsonObject object;
  object.raw("done", json_string(did)).text("name", name);
  if (more != nullptr) object.text(more, other);
  context.output().line(object.str());
}

// Makes a key with what stands for it in `security`, and with `parents` what is missing above it.
class KeyMaker {
 public:
  KeyMaker(const NewKeySecurity& security, bool parents) : security_(security), parents_(parents) {}

  // The outcome of the last make, when that says more than its Status.
  Status make(Writer& writer, const std::string& name, const StoredValue& value) {
    if (parents_) {
      if (Status made = make_parents(writer, name); !made.ok()) return made;
    }
    sec_attr security{};
    if (Status found = security_for(writer, name, &security); !found.ok()) return found;
    store::NodeId id = store::kNoNode;
    return writer.create_and_set("", name, security, value.type, bytes_of(value), &id);
  }

 private:
  Status make_parents(Writer& writer, const std::string& name) {
    for (std::size_t end = name.find('.'); end != std::string::npos; end = name.find('.', end + 1)) {
      const std::string parent = name.substr(0, end);
      bool exists = false;
      if (Status asked = writer.exists(parent, &exists); !asked.ok()) return asked;
      if (exists) continue;
      sec_attr security{};
      store::NodeId id = store::kNoNode;
      if (Status found = security_for(writer, parent, &security); !found.ok()) return found;
      if (Status made = writer.create("", parent, security, &id); !made.ok()) return made;
    }
    return {};
  }

  Status security_for(Writer& writer, const std::string& name, sec_attr* security) {
    sec_attr parent{};
    if (security_.inherits()) {
      Status status = writer.security(registry::parent_of(name), &parent);
      if (!status.ok()) return status;
    }
    const Outcome made = security_.make(writer.identity(), security_.inherits() ? &parent : nullptr, security);
    return made.ok() ? Status() : Status(PRTKV_INVALID_ARGUMENT, made.text());
  }

  const NewKeySecurity& security_;
  bool parents_;
};

Status key_exists(const std::string& name) { return {PRTKV_KEY_EXISTS, registry::describe(name) + " exists"}; }

Status set_existing(Writer& writer, const std::string& name, const StoredValue& value, const Arguments& arguments,
                    const NewKeySecurity& security) {
  if (arguments.only_new) return key_exists(name);
  if (security.asked_for()) {
    return {PRTKV_KEY_EXISTS,
            registry::describe(name) + " exists: its owner and rights are changed by chown and chmod"};
  }
  return writer.set_value(name, value.type, bytes_of(value));
}

// How many keys a recursive deletion takes, as far as the session can see them.
Outcome count_keys(Context& context, const std::string& name, std::uint64_t* keys) {
  return context.registry().read_all([&](Reader& reader) {
    *keys = 0;
    return reader.walk(name, registry::Hidden::kSkip, [&](const registry::Entry&) {
      ++*keys;
      return Status();
    });
  });
}

// Names of operands, all of them before anything is done.
Outcome key_names(const std::vector<std::string>& typed, std::vector<std::string>* names) {
  for (const std::string& word : typed) {
    names->emplace_back();
    if (Outcome named = key_name(word, &names->back()); !named.ok()) return named;
  }
  return {};
}

// Works on key after key, whatever became of the one before, and says what went wrong with which.
Outcome each_key(Context& context, const std::vector<std::string>& names,
                 FunctionRef<Outcome(const std::string& name)> work) {
  if (names.size() == 1) return work(names.front());
  Tally tally;
  for (const std::string& name : names) {
    const Outcome outcome = work(name);
    tally.add(outcome);
    context.complain(outcome);
  }
  return tally.sum();
}

// Asks once for all that is going to be deleted. Keys that do not exist are left to the deletion itself.
Outcome ask_for_removal(Context& context, const std::vector<std::string>& names, bool recursive) {
  std::uint64_t keys = 0;
  for (const std::string& name : names) {
    std::uint64_t below = 1;
    if (recursive) {
      const Outcome counted_keys = count_keys(context, name, &below);
      if (!counted_keys.ok()) below = 0;
    }
    keys += below;
  }
  return context.allow_deleting(keys, "this");
}

Outcome ask_for_replacement(Context& context, const std::string& name) {
  std::uint64_t keys = 0;
  const Outcome counted_keys = count_keys(context, name, &keys);
  if (!counted_keys.ok()) return counted_keys.exit() == Exit::kNotFound ? Outcome() : counted_keys;
  return context.allow_deleting(keys, "replacing " + registry::describe(name));
}

Outcome two_names(const Arguments& arguments, std::string* from, std::string* to) {
  if (Outcome named = key_name(*arguments.from, from); !named.ok()) return named;
  return key_name(*arguments.to, to);
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
    return KeyMaker(security, arguments.parents).make(writer, name, value);
  });
  if (status.ok()) report(context, "set", name);
  return status;
}

Outcome run_create(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  NewKeySecurity security;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome parsed = NewKeySecurity::parse(arguments, &security); !parsed.ok()) return parsed;
  if (Outcome opened = context.open_or_make(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name) -> Outcome {
    if (name.empty()) return key_exists(name);
    const Status status = context.registry().write(
        [&](Writer& writer) { return KeyMaker(security, arguments.parents).make(writer, name, {}); });
    if (status.ok()) report(context, "create", name);
    return status;
  });
}

Outcome run_rm(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (Outcome allowed = ask_for_removal(context, names, arguments.recursive); !allowed.ok()) return allowed;
  return each_key(context, names, [&](const std::string& name) -> Outcome {
    const Status status =
        context.registry().write([&](Writer& writer) { return writer.remove(name, arguments.recursive); });
    if (arguments.force && status.is(PRTKV_NO_SUCH_KEY)) return {};
    if (status.is(PRTKV_HAS_SUBKEYS)) return {Exit::kConflict, status.text() + "; -r deletes them too"};
    if (status.ok()) report(context, "rm", name);
    return status;
  });
}

Outcome run_mv(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome named = two_names(arguments, &from, &to); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (arguments.replace) {
    if (Outcome allowed = ask_for_replacement(context, to); !allowed.ok()) return allowed;
  }
  const Status status = context.registry().write([&](Writer& writer) {
    store::NodeId moved = store::kNoNode;
    return writer.move(from, "", to, arguments.replace, &moved);
  });
  if (status.ok()) report(context, "mv", from, "to", to);
  return status;
}

Outcome run_cp(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome named = two_names(arguments, &from, &to); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  if (arguments.replace) {
    if (Outcome allowed = ask_for_replacement(context, to); !allowed.ok()) return allowed;
  }
  const Status status = context.registry().write([&](Writer& writer) -> Status {
    store::NodeId id = store::kNoNode;
    if (!arguments.own) return writer.copy(from, "", to, arguments.recursive, arguments.replace, &id);
    return copy_as_own(writer, from, to, arguments.recursive, arguments.replace);
  });
  if (status.ok()) report(context, "cp", from, "to", to);
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
  return each_key(context, names, [&](const std::string& name) -> Outcome {
    const Status status = change_security(context.registry(), name, arguments.recursive, [&](sec_attr* security) {
      (void)ownership.apply_to(security).ok();  // the names were tried above
    });
    if (status.ok()) report(context, "chown", name);
    return status;
  });
}

Outcome run_chmod(Context& context, const Arguments& arguments) {
  Mode mode;
  std::vector<std::string> names;
  if (Outcome parsed = Mode::parse(*arguments.change, &mode); !parsed.ok()) return parsed;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return each_key(context, names, [&](const std::string& name) -> Outcome {
    const Status status = change_security(context.registry(), name, arguments.recursive,
                                          [&](sec_attr* security) { mode.apply_to(security); });
    if (status.ok()) report(context, "chmod", name);
    return status;
  });
}

}  // namespace tkv::command
