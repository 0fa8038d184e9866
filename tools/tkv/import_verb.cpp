#include <limits>
#include <string>

#include "changes.h"
#include "context.h"
#include "difference.h"
#include "input.h"
#include "json.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

Outcome read_import(const Arguments& arguments, Snapshot* wanted) {
  const std::string path = arguments.file.value_or("-");
  std::string text;
  if (Outcome read = read_file(path, std::numeric_limits<std::size_t>::max(), &text); !read.ok()) return read;
  if (Outcome parsed = parse_export(text, wanted); !parsed.ok()) {
    return {parsed.exit(), shown_path(path) + ": " + parsed.text()};
  }
  if (!arguments.at) return {};
  std::string top;
  if (Outcome named = key_name(*arguments.at, &top); !named.ok()) return named;
  return rebase(wanted, top);
}

Outcome run_import(Context& context, const Arguments& arguments) {
  Snapshot wanted;
  Plan plan;
  if (arguments.merge && arguments.replace) return {Exit::kUsage, "--merge and --replace exclude each other"};
  const Manner manner = arguments.merge ? Manner::kMerge : arguments.replace ? Manner::kReplace : Manner::kAdd;
  if (Outcome read = read_import(arguments, &wanted); !read.ok()) return read;
  if (Outcome opened = arguments.dry_run ? context.open_to_read() : context.open_or_make(); !opened.ok()) return opened;
  // A conflict is part of the difference that is asked for.
  Outcome planned = plan_for(context, wanted, manner, &plan);
  if (arguments.dry_run && (planned.ok() || !plan.changes.empty())) print_difference(context, plan);
  if (!planned.ok() || arguments.dry_run) return planned;
  if (Outcome allowed = context.allow_deleting(plan.count(Change::Kind::kRemove), "the import"); !allowed.ok())
    return allowed;
  std::uint64_t changes = 0;
  Outcome done = bring_in(context, wanted, manner, arguments.parents, plan, &changes);
  if (done.ok()) report_changes(context, "import", wanted, changes);
  return done;
}

constexpr std::array kOperands{
    one("FILE", "An export; default, and -: standard input", false, &Arguments::file, Candidates::kFiles)};
constexpr std::array kOptions{
    valued("--at", "KEY", "Import the top of the export as this key", &Arguments::at, Candidates::kKeys),
    flag("--merge", "Change keys that differ, keep keys that the export lacks", &Arguments::merge),
    flag("--replace", "Make the subtree exactly what the export says", &Arguments::replace), kDryRun, kParents};

}  // namespace

constinit const Verb kImportVerb{
    .name = "import",
    .summary = "Make a subtree what an export says",
    .details = R"(The import is one transaction, all or nothing. Without --merge or --replace it
only adds keys, and a key that exists and differs is an error (exit code 5).
An owner, group, mode or value that an entry lacks stays as it is; a new key
gets the caller's. --dry-run prints the lines that would be removed (-) and
added (+).
)",
    .examples = R"(  tkv import app.json
  tkv import --replace --dry-run app.json
  tkv export app | tkv import --at app-test
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_import};

}  // namespace tkv::command
