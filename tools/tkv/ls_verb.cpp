#include <algorithm>
#include <string>
#include <vector>

#include "characters.h"
#include "context.h"
#include "description.h"
#include "json.h"
#include "masks.h"
#include "records.h"
#include "registry/access.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// A subkey as it is listed.
struct Row {
  std::string level;
  registry::KeyInfo info;

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

void print_rows(Context& context, const std::string& parent, const std::vector<Row>& rows, const Arguments& arguments) {
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
    print_name(context, arguments.full_names ? child_name(parent, row.level) : row.level);
    if (arguments.long_lines && row.info.has_subkeys) context.output().write(".");
    context.output().write(arguments.null_ends ? std::string_view("\0", 1) : "\n");
  }
}

std::string row_json(const std::string& parent, const Row& row, bool described) {
  JsonObject object;
  object.text("level", row.level).text("name", child_name(parent, row.level));
  if (!described || !row.readable()) return object.str();
  add_security(row.info.security, &object);
  object.raw("type", json_string(type_name(row.info.type)))
      .number("size", row.info.size)
      .flag("subkeys", row.info.has_subkeys);
  return object.str();
}

Outcome run_ls(Context& context, const Arguments& arguments) {
  std::string name;
  std::vector<Row> rows;
  if (Outcome named = key_name(arguments.key.value_or("."), &name); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  const Status listed = context.reader().list(name, arguments.long_lines, [&](const registry::Subkey& subkey) {
    rows.push_back({std::string(subkey.level), subkey.info});
    return Status();
  });
  if (!listed.ok()) return listed;
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(rows.size());
    for (const Row& row : rows) objects.push_back(row_json(name, row, arguments.long_lines));
    context.output().line(json_lines(objects));
  } else {
    print_rows(context, name, rows, arguments);
  }
  return {};
}

constexpr std::array kOptions{flag("-l,--long", "Show rights, owner, group, type and size", &Arguments::long_lines),
                              flag("-f,--full", "Print full names", &Arguments::full_names), kNullEnds, kAt};

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
