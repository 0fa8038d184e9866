#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "context.h"
#include "difference.h"
#include "input.h"
#include "json.h"
#include "place.h"
#include "records.h"
#include "registry/access.h"
#include "registry/name.h"
#include "state_argument.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Difference;
using registry::KeyChange;
using registry::KeyRecord;
using registry::Subtree;

// One of the two subtrees that are compared.
struct Side {
  enum class Kind { kKey, kExport, kPlace };

  std::string word;  // as typed
  Kind kind = Kind::kKey;
  KeyAtState key;  // of kKey
  Subtree subtree;
};

bool names_path(const std::string& word) {
  const auto begins = [&](const char* with) { return word.starts_with(with); };
  return begins("/") || begins("./") || begins("../") || begins("etcd://");
}

// Parses an export. A file without one may be a configuration file: `*is_export` receives false then. An export without
// keys is refused: it does not say that there are none, but that they could not be read.
Outcome read_export(const Terminal& terminal, const std::string& path, Subtree* subtree, bool* is_export) {
  std::string text;
  if (Outcome read = read_file(path, std::numeric_limits<std::size_t>::max(), &text); !read.ok()) return read;
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  *is_export = begin != std::string::npos && text[begin] == '{';
  if (!*is_export) return {};
  Progress progress(terminal, "read export");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
  const Outcome parsed = parse_export(text, show, subtree);
  if (!parsed.ok()) return {parsed.exit(), shown_path(path) + ": " + parsed.text()};
  if (!subtree->keys.empty()) return {};
  return {Exit::kUsage,
          shown_path(path) + " holds no key, like the export of a damaged key; there is nothing to compare"};
}

Outcome read_named_export(const Terminal& terminal, Side* side) {
  bool is_export = false;
  const std::string path = side->word == "-" ? side->word : side->word.substr(1);
  side->kind = Side::Kind::kExport;
  Outcome read = read_export(terminal, path, &side->subtree, &is_export);
  return !read.ok() || is_export ? read : Outcome(Exit::kUsage, shown_path(path) + " is not an export");
}

// Finds out what a word names. Exports are read at once.
Outcome recognize(const Terminal& terminal, Side* side) {
  if (names_input(side->word)) return read_named_export(terminal, side);
  if (!names_path(side->word)) return parse_key_at_state(side->word, &side->key);
  bool is_export = false;
  if (is_regular_file(side->word)) {
    if (Outcome read = read_export(terminal, side->word, &side->subtree, &is_export); !read.ok()) return read;
  }
  side->kind = is_export ? Side::Kind::kExport : Side::Kind::kPlace;
  return {};
}

// The key that a side is about, if it says so itself.
std::optional<std::string> top_of(const Side& side) {
  if (side.kind == Side::Kind::kPlace) return std::nullopt;
  return side.kind == Side::Kind::kKey ? side.key.name : side.subtree.top;
}

Outcome read_subtree(const Terminal& terminal, registry::KeyReader& reader, const std::string& top, Subtree* subtree) {
  Progress progress(terminal, "read");
  registry::WalkOptions options;
  options.values = true;
  subtree->top = top;
  return reader.walk(top, options, [&](const registry::WalkEntry& entry) {
    subtree->keys.push_back(record_of(entry));
    progress.show(subtree->keys.size(), 0);
    return Status();
  });
}

Outcome read_key(Context& context, Side* side) {
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (!side->key.state) return read_subtree(context.terminal(), context.client(), side->key.name, &side->subtree);
  std::unique_ptr<registry::Snapshot> past;
  if (Outcome opened = side->key.state->open(context.client(), &past); !opened.ok()) return opened;
  return read_subtree(context.terminal(), *past, side->key.name, &side->subtree);
}

Outcome read_place(Context& context, const std::string& top, Side* side) {
  std::shared_ptr<registry::Client> client;
  if (Outcome allowed = demand_own_rights("the registry " + side->word); !allowed.ok()) return allowed;
  if (Outcome opened = open_place(side->word, {false, true}, &client); !opened.ok()) return opened;
  const Outcome read = read_subtree(context.terminal(), *client, top, &side->subtree);
  return read.ok() ? read : Outcome(read.exit(), side->word + ": " + read.text());
}

// Reads what is not read yet. A registry that stands alone is compared where the other side is.
Outcome read_side(Context& context, const Side& other, Side* side) {
  if (side->kind == Side::Kind::kExport) return {};
  if (side->kind == Side::Kind::kKey) return read_key(context, side);
  return read_place(context, top_of(other).value_or(""), side);
}

// What one of two records of a key leaves out is taken from the other.
void fill_gaps(const KeyRecord& from, KeyRecord* to) {
  const auto copy = [](const char(&name)[TKV_NAME_SIZE], char(&target)[TKV_NAME_SIZE]) {
    std::copy(std::begin(name), std::end(name), target);
  };
  if (!to->has_owner && from.has_owner) copy(from.security.user_name, to->security.user_name);
  if (!to->has_group && from.has_group) copy(from.security.group_name, to->security.group_name);
  if (!to->has_mode && from.has_mode) {
    to->security.user_perm = from.security.user_perm;
    to->security.group_perm = from.security.group_perm;
    to->security.other_perm = from.security.other_perm;
  }
  if (!to->has_value && from.has_value) to->value = from.value;
  to->has_owner |= from.has_owner;
  to->has_group |= from.has_group;
  to->has_mode |= from.has_mode;
  to->has_value |= from.has_value;
}

void compare_keys(KeyRecord before, KeyRecord after, Difference* difference) {
  fill_gaps(after, &before);
  fill_gaps(before, &after);
  if (before.value == after.value && registry::same_security(before.security, after.security)) return;
  difference->changes.push_back({KeyChange::Kind::kChange, std::move(before), std::move(after)});
}

// Goes through two subtrees with the same top side by side. What either of them may have had counts as equal.
void compare(Subtree* first, Subtree* second, Difference* difference) {
  auto left = first->keys.begin();
  auto right = second->keys.begin();
  while (left != first->keys.end() || right != second->keys.end()) {
    const bool at_end = right == second->keys.end();
    if (at_end || (left != first->keys.end() && registry::name_before(left->name, right->name))) {
      KeyRecord& removed = *left++;
      if (second->may_have_had(removed.name)) continue;
      difference->changes.push_back({KeyChange::Kind::kRemove, std::move(removed), {}});
    } else if (left == first->keys.end() || left->name != right->name) {
      KeyRecord& added = *right++;
      if (first->may_have_had(added.name)) continue;
      difference->changes.push_back({KeyChange::Kind::kAdd, {}, std::move(added)});
    } else {
      compare_keys(std::move(*left++), std::move(*right++), difference);
    }
  }
}

Outcome run_diff(Context& context, const Arguments& arguments) {
  Difference difference;
  Side first;
  Side second;
  first.word = *arguments.from;
  second.word = *arguments.to;
  for (Side* side : {&first, &second}) {
    if (Outcome known = recognize(context.terminal(), side); !known.ok()) return known;
  }
  if (Outcome read = read_side(context, second, &first); !read.ok()) return read;
  if (Outcome read = read_side(context, first, &second); !read.ok()) return read;
  if (Outcome renamed = rebase(&second.subtree, first.subtree.top); !renamed.ok()) return renamed;
  compare(&first.subtree, &second.subtree, &difference);
  for (const Side* side : {&first, &second}) name_left_out(context, "not compared", side->subtree);
  print_difference(context, difference);
  return outcome_of_dry_run(difference);
}

constexpr std::array kOperands{
    one("A", "KEY, KEY@REVISION, KEY@TIME, @FILE, - or another registry", true, &Arguments::from),
    one("B", "What to compare it with, likewise", true, &Arguments::to)};

}  // namespace

constinit const Verb kDiffVerb{
    .name = "diff",
    .summary = "Compare two subtrees, states, exports or registries",
    .details = R"(Prints what turns A into B, in the lines of an export: those that B lacks (-) and
those that it has instead (+). The exit code is that of diff(1): 0 if nothing
differs, 1 if something does, and above 1 if they cannot be compared.

A and B are each a key and everything below it, now or, with @REVISION or @TIME,
in a former state (see --at of get); an export, @FILE or - for standard input; or
another registry: a directory, etcd://host:port, or a configuration file, each
written with a slash (./new.conf). Of another registry, the key that the other
side names is compared or, if it names none, everything.

If A and B are different keys, those below B are shown with the names that they
would have below A. What an export leaves out of a key counts as equal, and so do
keys that it lacks since they were damaged. An export that holds no key, because
its top was damaged, cannot be compared.
)",
    .examples = R"(  tkv diff app@17 app
  tkv diff 'app@2 hours ago' app@now
  tkv diff app @yesterday.json
  tkv diff app app-test
  tkv diff . /etc/tkv/new.conf
)",
    .operands = kOperands,
    .options = {},
    .run = run_diff,
    .exits_as_diff = true};

}  // namespace tkv::command
