#include "verbs.h"

#include "verb_syntax.h"

namespace tkv::command {
namespace {

constexpr const Verb* kVerbs[] = {
    &kGetVerb,     &kSetVerb,        &kCreateVerb,  &kLsVerb,   &kTreeVerb,   &kFindVerb,   &kWaitVerb,
    &kStatVerb,    &kRmVerb,         &kMvVerb,      &kCpVerb,   &kChownVerb,  &kChmodVerb,  &kEditVerb,
    &kAccessVerb,  &kConfVerb,       &kStatusVerb,  &kDiffVerb, &kExportVerb, &kImportVerb, &kBackupVerb,
    &kRestoreVerb, &kVerifyVerb,     &kMigrateVerb, &kLogVerb,  &kWatchVerb,  &kUndoVerb,   &kHistoryVerb,
    &kHelpVerb,    &kCompletionVerb, &kCompleteVerb};

constexpr std::array kCommonOptions{
    flag("--json", "Print JSON; failures too, on standard error", &Arguments::json),
    flag("-q,--quiet", "Print no messages but errors, and no progress", &Arguments::quiet),
    flag("--no-color", "Use no colours on a terminal", &Arguments::no_colour),
    flag("-y,--yes", "Delete several keys, undo, or purge without asking", &Arguments::yes),
    valued("--conf", "FILE", "Configuration file, instead of $TKV_CONF", &Arguments::configuration,
           Candidates::kFiles)};

constexpr CommandText kText{.summary = "The operator's command for the cluster registry",
                            .names = R"(  A key is named by its full name: levels joined by dots, SYSTEM.version.patch.
  The root is written as a single dot.
)",
                            .arguments = R"(  - reads standard input, @FILE reads a file, -- ends the options.
  Data goes to standard output, messages to standard error.
)",
                            .environment = R"(  TKV_CONF        configuration file, instead of /etc/tkv/tkv.conf
  TKV_MODULE_DIR  directory of the etcd store in a build tree
  NO_COLOR        if set, no colours
)"};

}  // namespace

std::span<const Verb* const> all_verbs() { return kVerbs; }

const Verb* find_verb(std::string_view name) {
  for (const Verb* verb : kVerbs) {
    if (name == verb->name) return verb;
  }
  return nullptr;
}

std::span<const Option> common_options() { return kCommonOptions; }

const CommandText& command_text() { return kText; }

}  // namespace tkv::command
