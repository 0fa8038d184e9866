#include "atomic_file.h"
#include "context.h"
#include "entry.h"
#include "json.h"
#include "verb_syntax.h"

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

Outcome run_export(Context& context, const Arguments& arguments) {
  std::string top;
  if (Outcome named = key_name(arguments.key.value_or("."), &top); !named.ok()) return named;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (arguments.file && *arguments.file != "-") return export_to_file(context, top, *arguments.file);
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
