#include <algorithm>
#include <vector>

#include "characters.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "masks.h"
#include "registry/access.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Reader;

struct Subkey {
  std::string level;
  sec_attr security{};
  bool readable = false;
  registry::Stat stat;
};

Outcome read_subkeys(Context& context, const std::string& name, bool described, std::vector<Subkey>* subkeys) {
  return context.registry().read_all([&](Reader& reader) -> Status {
    subkeys->clear();
    Status status = reader.list(name, [&](std::string_view level, const store::Node& node) {
      const registry::Rights rights = registry::rights_of(reader.identity(), node.security);
      subkeys->push_back({std::string(level), node.security, (rights & TKV_RIGHT_READ) != 0, {}});
      return Status();
    });
    for (Subkey& subkey : *subkeys) {
      if (!status.ok() || !described || !subkey.readable) continue;
      status = reader.stat(child_name(name, subkey.level), &subkey.stat);
    }
    return status;
  });
}

std::string padded_left(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// The columns before the name. What the session may not read is not told.
std::string described(const Subkey& subkey, std::size_t owner_width, std::size_t group_width) {
  const sec_attr& security = subkey.security;
  const auto told = [&](std::string_view text) { return subkey.readable ? std::string(text) : "?"; };
  const std::string rights =
      columns_of(security.user_perm) + " " + columns_of(security.group_perm) + " " + columns_of(security.other_perm);
  return padded(told(rights), rights.size()) + " " + padded(told(registry::user_of(security)), owner_width) + " " +
         padded(told(registry::group_of(security)), group_width) + " " + padded(told(type_name(subkey.stat.type)), 5) +
         " " + padded_left(told(std::to_string(subkey.stat.size)), 7) + " ";
}

void print_name(Context& context, std::string_view name) {
  context.output().write(painted(context.terminal(), Ink::kKey, for_output(context.terminal(), utf8_for_people(name))));
}

void print_subkeys(Context& context, const std::string& parent, const std::vector<Subkey>& subkeys,
                   const Arguments& arguments) {
  std::size_t owner_width = 0;
  std::size_t group_width = 0;
  for (const Subkey& subkey : subkeys) {
    owner_width = std::max(owner_width, registry::user_of(subkey.security).size());
    group_width = std::max(group_width, registry::group_of(subkey.security).size());
  }
  for (const Subkey& subkey : subkeys) {
    if (arguments.long_lines) {
      context.output().write(for_output(context.terminal(), described(subkey, owner_width, group_width)));
    }
    print_name(context, arguments.full_names ? child_name(parent, subkey.level) : subkey.level);
    if (arguments.long_lines && subkey.stat.has_subkeys) context.output().write(".");
    context.output().write(arguments.null_ends ? std::string_view("\0", 1) : "\n");
  }
}

std::string subkey_json(const std::string& parent, const Subkey& subkey, bool described) {
  JsonObject object;
  object.text("level", subkey.level).text("name", child_name(parent, subkey.level));
  if (!described || !subkey.readable) return object.str();
  add_security(subkey.security, &object);
  object.raw("type", json_string(type_name(subkey.stat.type)))
      .number("size", subkey.stat.size)
      .flag("subkeys", subkey.stat.has_subkeys);
  return object.str();
}

Outcome run_ls(Context& context, const Arguments& arguments) {
  std::string name;
  std::vector<Subkey> subkeys;
  if (Outcome named = key_name(arguments.key.value_or("."), &name); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Outcome read = read_subkeys(context, name, arguments.long_lines, &subkeys); !read.ok()) return read;
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(subkeys.size());
    for (const Subkey& subkey : subkeys) objects.push_back(subkey_json(name, subkey, arguments.long_lines));
    context.output().line(json_lines(objects));
  } else {
    print_subkeys(context, name, subkeys, arguments);
  }
  return {};
}

constexpr std::array kOptions{flag("-l,--long", "Show rights, owner, group, type and size", &Arguments::long_lines),
                              flag("-f,--full", "Print full names", &Arguments::full_names), kNullEnds};

}  // namespace

constinit const Verb kLsVerb{
    .name = "ls",
    .summary = "List the subkeys of a key",
    .details = R"(Prints one subkey per line, in byte order. Needs the right l (list) on the key.
With -l, a dot after the name marks a key that has subkeys itself, and ? stands
for what the caller may not read.
)",
    .examples = R"(  tkv ls
  tkv ls -l SYSTEM
  tkv ls -0f app | xargs -0 -n1 tkv get
)",
    .operands = kKeyOrRoot,
    .options = kOptions,
    .run = run_ls};

}  // namespace tkv::command
