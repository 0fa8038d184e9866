#include <limits>
#include <string>

#include "context.h"
#include "difference.h"
#include "input.h"
#include "json.h"
#include "records.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Difference;
using registry::MergeMode;
using registry::Subtree;

Outcome read_import(const Terminal& terminal, const Arguments& arguments, Subtree* wanted) {
  const std::string path = arguments.file.value_or("-");
  std::string text;
  if (Outcome read = read_file(path, std::numeric_limits<std::size_t>::max(), &text); !read.ok()) return read;
  Progress progress(terminal, "read import");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
  if (Outcome parsed = parse_export(text, show, wanted); !parsed.ok()) {
    return {parsed.exit(), shown_path(path) + ": " + parsed.text()};
  }
  if (!arguments.at) return {};
  std::string top;
  if (Outcome named = key_name(*arguments.at, &top); !named.ok()) return named;
  return rebase(wanted, top);
}

Outcome run_import(Context& context, const Arguments& arguments) {
  Subtree wanted;
  Difference difference;
  if (arguments.merge && arguments.replace) return {Exit::kUsage, "--merge and --replace exclude each other"};
  const MergeMode mode = arguments.merge     ? MergeMode::kMerge
                         : arguments.replace ? MergeMode::kReplace
                                             : MergeMode::kAdd;
  if (Outcome read = read_import(context.terminal(), arguments, &wanted); !read.ok()) return read;
  context.suggest_note("import of " + shown_path(arguments.file.value_or("-")));
  if (Outcome opened = arguments.dry_run ? context.open_to_read() : context.open_or_create(); !opened.ok()) {
    return opened;
  }
  if (mode == MergeMode::kReplace) name_left_out(context, "left as it is", wanted);
  if (wanted.keys.empty()) return report_nothing(context, "import", wanted, arguments.dry_run);
  Outcome compared = find_difference(context, wanted, mode, &difference);
  if (mode == MergeMode::kAdd && compared.exit() == Exit::kConflict) {
    compared = {Exit::kConflict,
                compared.text() + "; --merge changes what differs, --replace makes everything the same"};
  }
  // A conflict is a part of the difference that was asked for.
  if (arguments.dry_run && (compared.ok() || !difference.changes.empty())) print_difference(context, difference);
  if (!compared.ok()) return compared;
  if (arguments.dry_run) return outcome_of_dry_run(difference);
  const std::uint64_t removed = difference.count(registry::KeyChange::Kind::kRemove);
  if (Outcome allowed = context.allow_deleting(removed, "the import"); !allowed.ok()) return allowed;
  std::uint64_t changes = 0;
  Outcome applied = apply_difference(context, wanted, {mode, arguments.parents, difference}, &changes);
  if (applied.ok()) report_changes(context, "import", wanted, changes);
  return applied;
}

constexpr std::array kOperands{
    one("FILE", "An export; default, and -: standard input", false, &Arguments::file, Candidates::kFiles)};
constexpr std::array kOptions{
    valued("--at", "KEY", "Import the top of the export as this key", &Arguments::at, Candidates::kKeys),
    flag("--merge", "Change keys that differ, keep keys that the export lacks", &Arguments::merge),
    flag("--replace", "Make the subtree exactly what the export says", &Arguments::replace),
    kDryRun,
    kParents,
    kNote};

}  // namespace

constinit const Verb kImportVerb{
    .name = "import",
    .summary = "Make a subtree what an export says",
    .details = R"(The import is one transaction, all or nothing. Without --merge or --replace it
only adds keys, and a key that exists and differs is an error (exit code 5).
An owner, group, mode or value that an entry lacks stays as it is; a new key
gets the caller's. What an export lacks since it was damaged (export
--skip-damaged) stays as it is. --dry-run prints the lines that would be removed
(-) and added (+).
)",
    .examples = R"(  tkv import app.json
  tkv import --replace --dry-run app.json
  tkv export app | tkv import --at app-test
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_import};

}  // namespace tkv::command
