#include <limits>
#include <string>

#include "atomic_file.h"
#include "changes.h"
#include "characters.h"
#include "context.h"
#include "difference.h"
#include "input.h"
#include "json.h"
#include "key_maker.h"
#include "new_key_security.h"
#include "registry/name.h"
#include "verbs.h"

namespace tkv::command {
namespace {

using registry::Reader;

// The text of an export, key after key, to whatever takes it.
Status write_export(Reader& reader, const std::string& top, Progress& progress, std::uint64_t* keys,
                    FunctionRef<Status(std::string_view text)> take) {
  *keys = 0;
  if (Status taken = take(export_head(top)); !taken.ok()) return taken;
  Status walked = reader.walk(top, registry::Hidden::kFail, [&](const registry::Entry& key) -> Status {
    store::Value value;
    if (Status read = reader.value(key, &value); !read.ok()) return read;
    progress.show(++*keys, 0);
    return take((*keys == 1 ? "" : ",\n") + entry_line(copied(key, value)));
  });
  return walked.ok() ? take(export_tail()) : walked;
}

// Printed only when all of it could be read: half an export is no export.
Outcome export_to_output(Context& context, const std::string& top) {
  std::string text;
  std::uint64_t keys = 0;
  const Status read = context.registry().read_all([&](Reader& reader) {
    Progress progress(context.terminal(), "export");  // gone before the text is printed
    text.clear();
    return write_export(reader, top, progress, &keys, [&](std::string_view part) {
      text += part;
      return Status();
    });
  });
  if (read.ok()) context.output().write(text);
  return read;
}

Outcome export_to_file(Context& context, const std::string& top, const std::string& path) {
  AtomicFile file;
  Outcome written;
  std::uint64_t keys = 0;
  Progress progress(context.terminal(), "export");
  if (Outcome opened = file.open(path, AtomicFile::Existing::kReplace); !opened.ok()) return opened;
  const Status read = context.registry().read_all([&](Reader& reader) {
    return write_export(reader, top, progress, &keys, [&](std::string_view text) {
      written = file.write(text);
      return written.ok() ? Status() : Status(PRTKV_UNKNOWN, written.text());
    });
  });
  if (!written.ok()) return written;
  if (!read.ok()) return read;
  if (Outcome placed = file.commit(); !placed.ok()) return placed;
  if (context.json()) {
    JsonObject object;
    object.raw("done", "\"export\"").text("name", top).utf8("file", path).number("keys", keys);
    context.output().line(object.str());
  }
  return {};
}

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

}  // namespace

Outcome run_export(Context& context, const Arguments& arguments) {
  std::string top;
  if (Outcome named = key_name(arguments.key.value_or("."), &top); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (arguments.file && *arguments.file != "-") return export_to_file(context, top, *arguments.file);
  return export_to_output(context, top);
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

}  // namespace tkv::command
