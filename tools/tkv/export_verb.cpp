#include "atomic_file.h"
#include "context.h"
#include "description.h"
#include "input.h"
#include "json.h"
#include "records.h"
#include "sound_walk.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// What to export, and what was exported.
struct Export {
  std::string top;
  bool skip_damaged = false;
  std::uint64_t keys = 0;
  SkippedParts skipped;
};

// Writes the text of an export to whatever takes it.
Status write_export(Context& context, Export* job, FunctionRef<Status(std::string_view text)> take) {
  Progress progress(context.terminal(), "export");
  const auto write_key = [&](const registry::WalkEntry& entry) {
    progress.show(++job->keys, 0);
    return take((job->keys == 1 ? "" : ",\n") + record_line(record_of(entry)));
  };
  if (Status taken = take(export_head(job->top)); !taken.ok()) return taken;
  const Status walked = walk_sound_keys(context, job->top, job->skip_damaged, &job->skipped, write_key);
  return walked.ok() ? take(export_tail(job->skipped.keys)) : walked;
}

// Prints nothing unless everything that was asked for could be read: half an export is no export.
Outcome export_to_output(Context& context, Export* job) {
  std::string text;
  const Status status = write_export(context, job, [&](std::string_view part) {
    text += part;
    return Status();
  });
  if (status.ok()) context.output().write(text);
  return status;
}

Outcome export_to_file(Context& context, const std::string& path, Export* job) {
  AtomicFile file;
  Outcome written;
  if (Outcome opened = file.open(path, AtomicFile::Existing::kReplace); !opened.ok()) return opened;
  const Status status = write_export(context, job, [&](std::string_view text) {
    written = file.write(text);
    return written.ok() ? Status() : Status(PRTKV_UNKNOWN, written.text());
  });
  if (!written.ok()) return written;
  if (!status.ok()) return status;
  if (Outcome placed = file.commit(); !placed.ok()) return placed;
  if (context.json()) {
    context.output().line(done("export", job->top).utf8("file", path).number("keys", job->keys).str());
  }
  return {};
}

Outcome run_export(Context& context, const Arguments& arguments) {
  Export job;
  job.skip_damaged = arguments.skip_damaged;
  if (Outcome named = key_name(arguments.key.value_or("."), &job.top); !named.ok()) return named;
  const bool to_file = arguments.file && *arguments.file != "-";
  if (to_file) {
    if (Outcome allowed = demand_own_rights("--output"); !allowed.ok()) return allowed;
  }
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  Outcome exported = to_file ? export_to_file(context, *arguments.file, &job) : export_to_output(context, &job);
  return exported.ok() ? job.skipped.outcome("export") : exported;
}

constexpr std::array kOptions{
    valued("-o,--output", "FILE", "Write to this file, whole or not at all", &Arguments::file, Candidates::kFiles),
    kSkipDamaged, kAt};

}  // namespace

constinit const Verb kExportVerb{
    .name = "export",
    .summary = "Write a subtree as JSON",
    .details = R"(The export is lossless: types, values, owners, groups and rights, with texts
that are not UTF-8 as marked base64. It has one key per line, parents before
their subkeys, so two exports can be compared with diff. It shows one state of
the registry, whatever is written meanwhile.

A damaged key is an error (exit code 8). --skip-damaged leaves damage out, names
it, and exits with 9: a key that cannot be read is missing with its subkeys, one
whose value cannot be read has no value. The export names what it lacks, which an
import leaves as it is. If the top itself cannot be read, the export holds no
key, and importing it changes nothing.
)",
    .examples = R"(  tkv export app > app.json
  tkv export | diff yesterday.json -
)",
    .operands = kKeyOrRoot,
    .options = kOptions,
    .run = run_export};

}  // namespace tkv::command
