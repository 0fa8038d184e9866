#include <string>
#include <vector>

#include "backup_file.h"
#include "backup_text.h"
#include "characters.h"
#include "context.h"
#include "input.h"
#include "json.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::CheckResult;
using registry::Damage;

std::string json_names(const std::vector<std::string>& names) {
  std::vector<std::string> texts;
  texts.reserve(names.size());
  for (const std::string& name : names) texts.push_back(json_text(name));
  return json_array(texts);
}

Outcome verify_file(Context& context, const std::string& path) {
  if (path != "-") {
    if (Outcome allowed = demand_own_rights("the file " + path); !allowed.ok()) return allowed;
  }
  BackupContents contents;
  std::vector<std::string> without_value;
  Progress progress(context.terminal(), "verify");
  std::uint64_t keys = 0;
  Outcome read = read_backup(path, &contents, [&](registry::KeyRecord&& record) {
    progress.show(++keys, 0);
    if (!record.has_value) without_value.push_back(std::move(record.name));
    return Outcome();
  });
  if (!read.ok()) return read;
  if (context.json()) {
    JsonObject object = totals_json(shown_path(path), contents.totals, contents.hash);
    object.text("top", contents.head.top).number("taken", contents.head.taken).flag("sound", true);
    object.raw("left_out", json_names(contents.left_out)).raw("values_left_out", json_names(without_value));
    context.output().line(object.str());
    return {};
  }
  context.print("file         " + shown_path(path));
  context.print("taken        " + utc(contents.head.taken, "%Y-%m-%d %H:%M:%S UTC"));
  context.print("top          " + shown_name(contents.head.top));
  context.print("keys         " + std::to_string(contents.totals.keys));
  context.print("values       " + std::to_string(contents.totals.values));
  context.print("value bytes  " + std::to_string(contents.totals.value_bytes));
  for (const std::string& name : contents.left_out) context.print("left out     " + registry::describe(name));
  for (const std::string& name : without_value) {
    context.print("left out     the value of " + registry::describe(name));
  }
  context.print("xxh3-128     " + contents.hash);
  return {};
}

bool is_about_value(const Damage& damage) {
  return damage.kind == Damage::Kind::kDamagedValue || damage.kind == Damage::Kind::kOrphanValue;
}

const char* kind_name(Damage::Kind kind) {
  switch (kind) {
    case Damage::Kind::kDamagedKey:
      return "damaged-key";
    case Damage::Kind::kDamagedValue:
      return "damaged-value";
    case Damage::Kind::kOrphan:
      return "orphan";
    case Damage::Kind::kOrphanValue:
      return "orphan-value";
    case Damage::Kind::kDuplicateId:
      return "duplicate-id";
    case Damage::Kind::kDamagedChange:
      return "damaged-change";
    case Damage::Kind::kUnfinishedChange:
      return "unfinished-change";
  }
  return "damage";
}

std::string damage_json(const Damage& damage) {
  JsonObject object;
  object.raw("kind", json_string(kind_name(damage.kind)));
  if (damage.name) object.text("name", *damage.name);
  return object.text("level", damage.level)
      .number("parent_id", damage.parent)
      .number("id", damage.id)
      .utf8("detail", utf8_for_people(damage.detail))
      .str();
}

std::string subject_of(const Damage& damage) {
  if (damage.name) return registry::describe(*damage.name);
  std::string id = "id " + std::to_string(damage.id);
  if (is_about_value(damage)) return id;
  if (damage.parent == registry::kAnyKey && damage.level.empty()) return "the registry";
  return "level '" + damage.level + "', " + id + " below id " + std::to_string(damage.parent);
}

std::string damage_line(const Damage& damage) {
  return std::string(kind_name(damage.kind)) + ": " + subject_of(damage) + ": " + damage.detail;
}

void print_result(Context& context, const CheckResult& result) {
  if (context.json()) {
    std::vector<std::string> damages;
    for (const Damage& damage : result.damages) damages.push_back(damage_json(damage));
    context.output().line(JsonObject()
                              .number("keys", result.keys)
                              .number("values", result.values)
                              .number("value_bytes", result.value_bytes)
                              .number("repaired", result.repaired)
                              .flag("sound", result.damages.empty())
                              .raw("findings", json_lines(damages))
                              .str());
    return;
  }
  for (const Damage& damage : result.damages) context.print(damage_line(damage));
  context.print("keys         " + std::to_string(result.keys));
  context.print("values       " + std::to_string(result.values));
  context.print("value bytes  " + std::to_string(result.value_bytes));
  if (result.repaired != 0) context.print("repaired     " + std::to_string(result.repaired));
  context.print("damage       " + (result.damages.empty() ? "none" : std::to_string(result.damages.size())));
}

Outcome check_registry(Context& context, bool repair, CheckResult* result) {
  Progress progress(context.terminal(), repair ? "repair" : "verify");
  const auto show = [&](const registry::CheckStep& step) { progress.show(step.done, step.total, step.reading); };
  return context.client().check(repair, show, result);
}

Outcome verify_registry(Context& context, bool repair) {
  CheckResult result;
  if (Outcome checked = check_registry(context, repair, &result); !checked.ok()) return checked;
  print_result(context, result);
  if (result.damages.empty()) return {};
  if (result.repaired != 0) return {Exit::kPartly, "some of the damage cannot be repaired without guessing"};
  return {Exit::kDamaged, "the registry is damaged"};
}

Outcome run_verify(Context& context, const Arguments& arguments) {
  if (arguments.file) {
    if (arguments.repair) return {Exit::kUsage, "a backup cannot be repaired"};
    return verify_file(context, *arguments.file);
  }
  if (Outcome opened = arguments.repair ? context.open_to_change() : context.open_to_read(); !opened.ok()) {
    return opened;
  }
  return verify_registry(context, arguments.repair);
}

constexpr std::array kOperands{one("FILE", "Verify this backup instead of the registry; - is standard input", false,
                                   &Arguments::file, Candidates::kFiles)};
constexpr std::array kOptions{flag("--repair", "Repair what can be repaired without guessing", &Arguments::repair)};

}  // namespace

constinit const Verb kVerifyVerb{
    .name = "verify",
    .summary = "Read and check every record",
    .details = R"(Checks the checksum and the place of each record, and counts keys and values.
Damage is named, and the exit code is 8. --repair removes records that belong
to no key, repairs the root and the registry's own records and, on etcd,
finishes large changes whose records are damaged. If it leaves any damage, the
exit code is 8 or, if it repaired some, 9. Damaged keys stay as they are:
restore or delete them. Needs the rights r and l on the root, --repair all
rights. With FILE, a backup is checked instead, and what it lacks is named.
)",
    .examples = R"(  tkv verify
  tkv verify nightly.backup
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_verify};

}  // namespace tkv::command
