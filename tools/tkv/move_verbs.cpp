#include "context.h"
#include "description.h"
#include "json.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

Outcome ask_for_replacement(Context& context, const std::string& name) {
  std::uint64_t keys = 0;
  if (context.deletes_unasked()) return {};
  const Outcome counted_keys = count_keys(context.client(), context.terminal(), name, &keys);
  if (!counted_keys.ok()) return counted_keys.exit() == Exit::kNotFound ? Outcome() : counted_keys;
  return context.allow_deleting(keys, "replacing " + registry::describe(name));
}

// What mv and cp do first: take the names, open the registry, ask about a target that would be deleted.
Outcome begin_transfer(Context& context, const Arguments& arguments, std::string* from, std::string* to) {
  if (Outcome named = key_name(*arguments.from, from); !named.ok()) return named;
  if (Outcome named = key_name(*arguments.to, to); !named.ok()) return named;
  if (Outcome opened = context.open_to_change(); !opened.ok()) return opened;
  return arguments.replace ? ask_for_replacement(context, *to) : Outcome();
}

Outcome run_mv(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome begun = begin_transfer(context, arguments, &from, &to); !begun.ok()) return begun;
  registry::KeyId id = registry::kAnyKey;
  const Status status = context.client().move(from, "", to, arguments.replace, &id);
  if (status.ok() && context.json()) context.output().line(done("mv", from).text("to", to).str());
  return status;
}

Outcome run_cp(Context& context, const Arguments& arguments) {
  std::string from;
  std::string to;
  if (Outcome begun = begin_transfer(context, arguments, &from, &to); !begun.ok()) return begun;
  Progress progress(context.terminal(), "cp");
  const auto show = [&](std::uint64_t keys) { progress.show(keys, 0); };
  const registry::CopyOptions options{arguments.recursive, arguments.replace, arguments.own};
  const Status status = context.client().copy(from, to, options, show);
  if (status.ok() && context.json()) context.output().line(done("cp", from).text("to", to).str());
  return status;
}

constexpr Option kReplace = flag("--replace", "If TO exists, delete it with its subkeys", &Arguments::replace);
constexpr std::array kMvOptions{kReplace, kNote};
constexpr std::array kCpOptions{flag("-r,--recursive", "Copy subkeys too", &Arguments::recursive), kReplace,
                                flag("--own", "Give the copies to the caller's user and group", &Arguments::own),
                                kNote};

}  // namespace

constinit const Verb kMvVerb{
    .name = "mv",
    .summary = "Rename or move a key with everything below it",
    .details = R"(TO is the new full name, not the new parent. A TO that exists is an error (exit
code 5) unless --replace is given. The move is one transaction, whatever the
size of the subtree.
)",
    .examples = R"(  tkv mv app.hosts app.nodes
  tkv mv --replace staging live
)",
    .operands = kFromTo,
    .options = kMvOptions,
    .run = run_mv};

constinit const Verb kCpVerb{.name = "cp",
                             .summary = "Copy a key, with -r everything below it",
                             .details = R"(Values, owners, groups and rights are copied; with --own the copies belong to
the caller. TO is a full name. Others see the whole copy or none of it.
)",
                             .examples = R"(  tkv cp app.hosts app.hosts-before
  tkv cp -r app app-test
)",
                             .operands = kFromTo,
                             .options = kCpOptions,
                             .run = run_cp};

}  // namespace tkv::command
