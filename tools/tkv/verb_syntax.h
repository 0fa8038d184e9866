// What the values of verbs are built from: options and operands, and those that several verbs share.
#ifndef TKV_TOOLS_TKV_VERB_SYNTAX_H
#define TKV_TOOLS_TKV_VERB_SYNTAX_H

#include <array>

#include "verbs.h"

namespace tkv::command {

constexpr Option flag(const char* names, const char* text, bool Arguments::*target) {
  return {names, nullptr, text, target, nullptr};
}

constexpr Option valued(const char* names, const char* argument, const char* text,
                        std::optional<std::string> Arguments::*target, Candidates candidates = Candidates::kNone) {
  return {names, argument, text, nullptr, target, candidates};
}

constexpr Operand one(const char* name, const char* text, bool required, std::optional<std::string> Arguments::*target,
                      Candidates candidates = Candidates::kKeys) {
  return {name, text, required, target, nullptr, candidates};
}

constexpr Operand many(const char* name, const char* text, bool required, std::vector<std::string> Arguments::*target,
                       Candidates candidates = Candidates::kKeys) {
  return {name, text, required, nullptr, target, candidates};
}

inline constexpr Option kParents = flag("-p,--parents", "Create missing parents too", &Arguments::parents);
inline constexpr Option kOwner = valued("--owner", "NAME", "Owner of a key that is created; default: the caller",
                                        &Arguments::owner, Candidates::kUsers);
inline constexpr Option kGroup = valued("--group", "NAME", "Group of a key that is created; default: the caller's",
                                        &Arguments::group, Candidates::kGroups);
inline constexpr Option kMode =
    valued("--mode", "MODE", "Rights of a key that is created, as for chmod; default: 0x3f,0x3f,0x3", &Arguments::mode);
inline constexpr Option kInherit =
    flag("--inherit", "Take rights and group of a key that is created from its parent", &Arguments::inherit);
inline constexpr Option kNullEnds =
    flag("-0,--null", "End each line with NUL instead of newline", &Arguments::null_ends);
inline constexpr Option kSkipDamaged =
    flag("--skip-damaged", "Leave out what cannot be read, and say so", &Arguments::skip_damaged);
inline constexpr Option kDryRun = flag("-n,--dry-run", "Print the difference, change nothing", &Arguments::dry_run);
inline constexpr Option kAt =
    valued("--at", "REVISION|TIME", "Read a former state: 17, 2026-02-28T12:30:05Z, '2 hours ago'", &Arguments::state);
inline constexpr Option kNote = valued("--note", "TEXT", "What the change is for; tkv log shows it", &Arguments::note);

inline constexpr std::array kKeyOrRoot{one("KEY", "Full name; default: the root", false, &Arguments::key)};
inline constexpr std::array kKeys{many("KEY", "Full names", true, &Arguments::keys)};
inline constexpr std::array kFromTo{one("FROM", "Full name of the key", true, &Arguments::from),
                                    one("TO", "Its new full name; the parent must exist", true, &Arguments::to)};

}  // namespace tkv::command

#endif
