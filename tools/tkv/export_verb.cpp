#include "atomic_file.h"
#include "context.h"
#include "description.h"
#include "input.h"
#include "json.h"
#include "records.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// Writes the text of an export to whatever takes it, and counts its keys.
Status write_export(Context& context, const std::string& top, std::uint64_t* keys,
                    FunctionRef<Status(std::string_view text)> take) {
  Progress progress(context.terminal(), "export");
  registry::WalkOptions options;
  options.values = true;
  *keys = 0;
  if (Status taken = take(export_head(top)); !taken.ok()) return taken;
  const Status walked = context.client().walk(top, options, [&](const registry::WalkEntry& entry) {
    progress.show(++*keys, 0);
    return take((*keys == 1 ? "" : ",\n") + record_line(record_of(entry)));
  });
  return walked.ok() ? take(export_tail()) : walked;
}

// Prints nothing unless everything could be read: half an export is no export.
Outcome export_to_output(Context& context, const std::string& top) {
  std::string text;
  std::uint64_t keys = 0;
  const Status status = write_export(context, top, &keys, [&](std::string_view part) {
    text += part;
    return Status();
  });
  if (status.ok()) context.output().write(text);
  return status;
}

Outcome export_to_file(Context& context, const std::string& top, const std::string& path) {
  AtomicFile file;
  Outcome written;
  std::uint64_t keys = 0;
  if (Outcome opened = file.open(path, AtomicFile::Existing::kReplace); !opened.ok()) return opened;
  const Status status = write_export(context, top, &keys, [&](std::string_view text) {
    written = file.write(text);
    return written.ok() ? Status() : Status(PRTKV_UNKNOWN, written.text());
  });
  if (!written.ok()) return written;
  if (!status.ok()) return status;
  if (Outcome placed = file.commit(); !placed.ok()) return placed;
  if (context.json()) context.output().line(done("export", top).utf8("file", path).number("keys", keys).str());
  return {};
}

Outcome run_export(Context& context, const Arguments& arguments) {
  std::string top;
  if (Outcome named = key_name(arguments.key.value_or("."), &top); !named.ok()) return named;
  const bool to_file = arguments.file && *arguments.file != "-";
  if (to_file) {
    if (Outcome allowed = demand_own_rights("--output"); !allowed.ok()) return allowed;
  }
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (to_file) return export_to_file(context, top, *arguments.file);
  return export_to_output(context, top);
}

constexpr std::array kOptions{
    valued("-o,--output", "FILE", "Write to this file, whole or not at all", &Arguments::file, Candidates::kFiles)};

}  // namespace

constinit const Verb kExportVerb{
    .name = "export",
    .summary = "Write a subtree as JSON",
    .details = R"(The export is lossless: types, values, owners, groups and rights, with texts
that are not UTF-8 as marked base64. It has one key per line, parents before
their subkeys, so two exports can be compared with diff. It shows one state of
the registry, whatever is written meanwhile.
)",
    .examples = R"(  tkv export app > app.json
  tkv export | diff yesterday.json -
)",
    .operands = kKeyOrRoot,
    .options = kOptions,
    .run = run_export};

}  // namespace tkv::command
