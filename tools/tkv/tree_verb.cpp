#include <charconv>
#include <limits>
#include <vector>

#include "characters.h"
#include "context.h"
#include "json.h"
#include "masks.h"
#include "records.h"
#include "registry/access.h"
#include "registry/name.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

constexpr std::size_t kUnlimited = 0;  // columns: no terminal, so nobody looks at them
constexpr std::size_t kFewestValueColumns = 16;

// A key of the tree, with what the caller may know of it.
struct Leaf {
  registry::KeyRecord key;
  std::size_t depth = 0;
  bool readable = false;
  bool subkeys_hidden = false;
  bool last = false;  // of its siblings
};

std::size_t columns_in(std::string_view utf8) {
  std::size_t columns = 0;
  for (const char byte : utf8) columns += (static_cast<unsigned char>(byte) & 0xc0) != 0x80 ? 1 : 0;
  return columns;
}

Outcome parse_depth(const std::optional<std::string>& text, std::size_t* depth) {
  *depth = std::numeric_limits<std::size_t>::max();
  if (!text) return {};
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *depth);
  if (error == std::errc() && end == text->data() + text->size()) return {};
  return {Exit::kUsage, "--depth " + *text + ": the depth must be a number of levels"};
}

Outcome read_tree(Context& context, const std::string& top, const registry::WalkOptions& options,
                  std::vector<Leaf>* leaves) {
  return context.reader().walk(top, options, [&](const registry::WalkEntry& entry) {
    Leaf leaf;
    leaf.key = record_of(entry);
    leaf.key.has_value = options.values;
    leaf.depth = entry.depth;
    leaf.readable = (entry.rights & TKV_RIGHT_READ) != 0;
    leaf.subkeys_hidden = entry.subkeys_hidden && entry.depth < options.depth;
    leaves->push_back(std::move(leaf));
    return Status();
  });
}

// Marks each key that no sibling follows.
void mark_last(std::vector<Leaf>* leaves) {
  std::vector<bool> seen;  // by depth: whether a later sibling was met
  for (std::size_t at = leaves->size(); at-- > 0;) {
    Leaf& leaf = (*leaves)[at];
    seen.resize(std::max(seen.size(), leaf.depth + 1), false);
    leaf.last = !seen[leaf.depth];
    seen[leaf.depth] = true;
    seen.resize(leaf.depth + 1);
  }
}

class TreePrinter {
 public:
  TreePrinter(Context& context, const Arguments& arguments) : context_(context), arguments_(arguments) {
    width_ = context.terminal().output ? Terminal::columns(80) : kUnlimited;
    if (arguments.long_lines) width_ = kUnlimited;
  }

  void print(const Leaf& leaf) {
    open_.resize(leaf.depth);
    std::string branches;
    for (std::size_t level = 1; level < leaf.depth; ++level) branches += open_[level] ? "│   " : "    ";
    if (leaf.depth > 0) branches += leaf.last ? "└── " : "├── ";
    open_.push_back(leaf.depth > 0 && !leaf.last);
    const std::string name =
        safe(leaf.depth == 0 ? shown_name(leaf.key.name) : utf8_for_people(registry::last_level(leaf.key.name)));
    const std::string value = value_beside(leaf, columns_in(branches) + columns_in(name) + 3);
    const Terminal& terminal = context_.terminal();
    context_.output().line(painted(terminal, Ink::kFaint, branches) + painted(terminal, Ink::kKey, name) +
                           (value.empty() ? "" : " = " + painted(terminal, Ink::kValue, value)) + marks(leaf));
  }

 private:
  std::string value_beside(const Leaf& leaf, std::size_t before) const {
    if (!leaf.readable) return "";
    if (leaf.key.value.type == kTypeNone && leaf.key.value.bytes.empty()) return "";
    if (width_ == kUnlimited) return one_line(leaf.key.value, 0);
    return one_line(leaf.key.value, std::max(kFewestValueColumns, width_ > before ? width_ - before - 1 : 0));
  }

  std::string marks(const Leaf& leaf) const {
    std::string text;
    if (arguments_.long_lines && leaf.readable) {
      text = "  (" + std::string(registry::user_of(leaf.key.security)) + ":" +
             std::string(registry::group_of(leaf.key.security)) + " " + mode_of(leaf.key.security) + ")";
    }
    if (!leaf.readable && !arguments_.no_values) text += "  (value: access denied)";
    if (leaf.subkeys_hidden) text += "  (subkeys: access denied)";
    return painted(context_.terminal(), Ink::kFaint, safe(text));
  }

  Context& context_;
  const Arguments& arguments_;
  std::size_t width_ = 0;
  std::vector<bool> open_;  // by depth: whether the branch goes on below
};

std::string leaf_json(const Leaf& leaf) {
  if (!leaf.readable) {
    JsonObject object;
    object.text("name", leaf.key.name).flag("denied", true);
    if (leaf.subkeys_hidden) object.flag("subkeys_denied", true);
    return object.str();
  }
  std::string line = record_line(leaf.key);
  if (leaf.subkeys_hidden) line.insert(line.size() - 1, ",\"subkeys_denied\":true");
  return line;
}

Outcome run_tree(Context& context, const Arguments& arguments) {
  std::string top;
  registry::WalkOptions options;
  std::vector<Leaf> leaves;
  if (Outcome named = key_name(arguments.key.value_or("."), &top); !named.ok()) return named;
  if (Outcome parsed = parse_depth(arguments.depth, &options.depth); !parsed.ok()) return parsed;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  options.denied = registry::WalkOptions::Denied::kSkip;
  options.values = !arguments.no_values;
  if (Outcome read = read_tree(context, top, options, &leaves); !read.ok()) return read;
  if (context.json()) {
    std::vector<std::string> objects;
    objects.reserve(leaves.size());
    for (const Leaf& leaf : leaves) objects.push_back(leaf_json(leaf));
    context.output().line(json_lines(objects));
    return {};
  }
  mark_last(&leaves);
  TreePrinter printer(context, arguments);
  for (const Leaf& leaf : leaves) printer.print(leaf);
  return {};
}

constexpr std::array kOptions{valued("-d,--depth", "LEVELS", "Descend at most this many levels", &Arguments::depth),
                              flag("-k,--keys", "Show keys without their values", &Arguments::no_values),
                              flag("-l,--long", "Show whole values, owners and rights", &Arguments::long_lines), kAt};

}  // namespace

constinit const Verb kTreeVerb{
    .name = "tree",
    .summary = "Show a key and everything below it",
    .details = R"(Values are shown beside their keys; on a terminal they are shortened to fit the
line. Keys whose subkeys or value the caller may not see are marked.
)",
    .examples = R"(  tkv tree
  tkv tree -d 1 SYSTEM
)",
    .operands = kKeyOrRoot,
    .options = kOptions,
    .run = run_tree};

}  // namespace tkv::command
