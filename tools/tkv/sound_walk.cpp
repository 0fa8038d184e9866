#include "sound_walk.h"

#include "registry/name.h"

namespace tkv::command {
namespace {

using Part = registry::WalkEntry::Part;

const char* name_of(Part part) {
  if (part == Part::kValue) return "the value of ";
  return part == Part::kSubkeys ? "subkeys of " : "";
}

// Nothing below a damaged top can be found: its id is part of the damaged record. The root's id is known, but not who
// may list its subkeys.
std::string left_out(const registry::WalkEntry& entry) {
  const bool is_top = entry.damaged == Part::kRecord && entry.depth == 0;
  const std::string what = name_of(entry.damaged) + registry::describe(entry.name);
  const std::string text = "left out: " + what + (is_top ? ", the top, with everything below it: " : ": ");
  const bool is_root = is_top && entry.name.empty();
  return text + entry.damage->text() + (is_root ? "; tkv verify --repair gives the root a new record" : "");
}

}  // namespace

Outcome SkippedParts::outcome(const char* what) const {
  if (count == 0) return {};
  return {Exit::kPartly, std::string("the ") + what + " is incomplete: " + counted(count, "damaged part") +
                             " left out; tkv verify names all damage"};
}

Status walk_sound_keys(Context& context, const std::string& top, bool skip_damaged, SkippedParts* skipped,
                       FunctionRef<Status(const registry::WalkEntry& entry)> visit) {
  registry::WalkOptions options;
  options.values = true;
  if (skip_damaged) options.damaged = registry::WalkOptions::Damaged::kVisit;
  return context.reader().walk(top, options, [&](const registry::WalkEntry& entry) -> Status {
    if (entry.damaged == Part::kNone) return visit(entry);
    ++skipped->count;
    context.complain({Exit::kDamaged, left_out(entry)});
    if (entry.damaged == Part::kValue) return visit(entry);
    skipped->keys.emplace_back(entry.name);
    return {};
  });
}

}  // namespace tkv::command
