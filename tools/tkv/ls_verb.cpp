#include <algorithm>
#include <string>
#include <vector>

#include "characters.h"
#include "context.h"
#include "denied_parts.h"
#include "description.h"
#include "json.h"
#include "masks.h"
#include "records.h"
#include "registry/access.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// A key as it is listed.
struct Row {
  std::string name;
  registry::KeyInfo info;
  bool subkeys_denied = false;

  bool readable() const { return (info.rights & TKV_RIGHT_READ) != 0; }
};

std::string padded_left(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// The columns before the name. What the caller may not read is shown as "?".
std::string described(const Row& row, std::size_t owner_width, std::size_t group_width) {
  const sec_attr& security = row.info.security;
  const auto shown = [&](std::string_view text) { return row.readable() ? std::string(text) : "?"; };
  const std::string rights =
      columns_of(security.user_perm) + " " + columns_of(security.group_perm) + " " + columns_of(security.other_perm);
  return padded(shown(rights), rights.size()) + " " + padded(shown(registry::user_of(security)), owner_width) + " " +
         padded(shown(registry::group_of(security)), group_width) + " " + padded(shown(type_name(row.info.type)), 5) +
         " " + padded_left(shown(std::to_string(row.info.size)), 7) + " ";
}

void print_name(Context& context, std::string_view name) {
  context.output().write(painted(context.terminal(), Ink::kKey, for_output(context.terminal(), utf8_for_people(name))));
}

void print_rows(Context& context, const std::vector<Row>& rows, const Arguments& arguments) {
  const bool full_names = arguments.full_names || arguments.recursive;
  std::size_t owner_width = 0;
  std::size_t group_width = 0;
  for (const Row& row : rows) {
    owner_width = std::max(owner_width, registry::user_of(row.info.security).size());
    group_width = std::max(group_width, registry::group_of(row.info.security).size());
  }
  for (const Row& row : rows) {
    if (arguments.long_lines) {
      context.output().write(for_output(context.terminal(), described(row, owner_width, group_width)));
    }
    print_name(context, full_names ? row.name : registry::last_level(row.name));
    if (arguments.long_lines && row.info.has_subkeys) context.output().write(".");
    context.output().write(arguments.null_ends ? std::string_view("\0", 1) : "\n");
  }
}

std::string row_json(const Row& row, bool described) {
  JsonObject object;
  object.text("level", registry::last_level(row.name)).text("name", row.name);
  if (described && row.readable()) {
    add_security(row.info.security, &object);
    object.raw("type", json_string(type_name(row.info.type)))
        .number("size", row.info.size)
        .flag("subkeys", row.info.has_subkeys);
  }
  if (row.subkeys_denied) object.flag("subkeys_denied", true);
  return object.str();
}

Status read_subkeys(registry::KeyReader& reader, const std::string& top, bool described, std::vector<Row>* rows) {
  return reader.list(top, described, [&](const registry::Subkey& subkey) {
    rows->push_back({child_name(top, subkey.level), subkey.info});
    return Status();
  });
}

registry::KeyInfo info_of(const registry::WalkEntry& entry) {
  registry::KeyInfo info;
  info.rights = entry.rights;
  info.security = entry.security;
  info.type = entry.type;
  info.size = entry.value.size();
  info.has_subkeys = entry.subkeys_hidden;
  return info;
}

// Reads the keys below `top` on one state. As for a list of its subkeys, the right to list those of `top` is needed.
Status read_keys_below(registry::KeyReader& reader, const std::string& top, bool described, std::vector<Row>* rows,
                       DeniedParts* denied) {
  registry::WalkOptions options;
  std::size_t depth = 0;  // of the last row
  options.denied = registry::WalkOptions::Denied::kSkip;
  options.values = described;
  return reader.walk(top, options, [&](const registry::WalkEntry& entry) -> Status {
    if (entry.depth == 0) {
      if ((entry.rights & TKV_RIGHT_LIST) != 0) return {};
      return {PRTKV_ACCESS_DENIED, registry::describe(top) + ": access denied, its subkeys may not be listed"};
    }
    if (entry.depth > depth && !rows->empty()) rows->back().info.has_subkeys = true;
    if (entry.subkeys_hidden) denied->add_subkeys(entry.name);
    rows->push_back({std::string(entry.name), info_of(entry), entry.subkeys_hidden});
    depth = entry.depth;
    return {};
  });
}

Outcome run_ls(Context& context, const Arguments& arguments) {
  std::string name;
  std::vector<Row> rows;
  DeniedParts denied;
  if (Outcome named = key_name(arguments.key.value_or("."), &name); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  registry::KeyReader& reader = context.reader();
  const Status listed = arguments.recursive ? read_keys_below(reader, name, arguments.long_lines, &rows, &denied)
                                            : read_subkeys(reader, name, arguments.long_lines, &rows);
  if (!listed.ok()) return listed;
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(rows.size());
    for (const Row& row : rows) objects.push_back(row_json(row, arguments.long_lines));
    context.output().line(json_lines(objects));
  } else {
    print_rows(context, rows, arguments);
  }
  denied.say(context.terminal());
  return {};
}

constexpr std::array kOptions{
    flag("-l,--long", "Show rights, owner, group, type and size", &Arguments::long_lines),
    flag("-f,--full", "Print full names", &Arguments::full_names),
    flag("-R,--recursive", "List all keys below KEY, by their full names", &Arguments::recursive), kNullEnds, kAt};

}  // namespace

constinit const Verb kLsVerb{
    .name = "ls",
    .summary = "List the subkeys of a key",
    .details = R"(Prints one subkey per line, in byte order. Needs the right l (list) on the key.
With -l, a dot after the name marks a key that has subkeys itself, and ? stands
for what the caller may not read.

With -R, each key comes before its subkeys, and all are of one state of the
registry. Subkeys that the caller may not list are left out, and a note says of
which keys.
)",
    .examples = R"(  tkv ls
  tkv ls -l SYSTEM
  tkv ls -0f app | xargs -0 -n1 tkv get
  tkv ls -R app
)",
    .operands = kKeyOrRoot,
    .options = kOptions,
    .run = run_ls};

}  // namespace tkv::command
