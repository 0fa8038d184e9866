#include <array>
#include <optional>
#include <vector>

#include "base/identity.h"
#include "characters.h"
#include "context.h"
#include "json.h"
#include "masks.h"
#include "registry/access.h"
#include "registry/name.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::AccessReason;

constexpr std::array<std::int32_t, 6> kRights{TKV_RIGHT_READ,     TKV_RIGHT_LIST,   TKV_RIGHT_WRITE,
                                              TKV_RIGHT_SECURITY, TKV_RIGHT_CREATE, TKV_RIGHT_DELETE};

struct Question {
  std::string name;
  sec_attr security{};
  Identity user;
  AccessReason reason;
};

Outcome find_user(const std::string& name, Identity* user) {
  std::optional<Identity> found;
  if (Status status = identity_of_user(name, &found); !status.ok()) return status;
  if (!found) return {Exit::kNotFound, "there is no user '" + name + "' on this machine"};
  *user = std::move(*found);
  return {};
}

std::string named(std::string_view name) { return name.empty() ? "nobody" : "'" + std::string(name) + "'"; }

// The classes through which the user has a right.
std::vector<std::string> granting(const Question& question, std::int32_t right) {
  std::vector<std::string> classes;
  if (question.reason.superuser) classes.emplace_back("superuser");
  if ((question.reason.owner_grants & right) != 0) classes.emplace_back("owner");
  if ((question.reason.group_grants & right) != 0) classes.emplace_back("group");
  if ((question.reason.other_grants & right) != 0) classes.emplace_back("other");
  return classes;
}

std::string joined(const std::vector<std::string>& texts, const char* between) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : between) + text;
  return all;
}

// Why a right is denied: the classes that have it, none of which the user belongs to.
std::string denial(const Question& question, std::int32_t right) {
  const sec_attr& security = question.security;
  std::vector<std::string> holders;
  if ((security.user_perm & right) != 0) holders.push_back("the owner, " + named(registry::user_of(security)));
  if ((security.group_perm & right) != 0) holders.push_back("the group, " + named(registry::group_of(security)));
  if (holders.empty()) return "no class has it";
  return "only " + joined(holders, ", and ") + (holders.size() == 1 ? ", has it" : ", have it");
}

std::string answer_json(const Question& question, bool why) {
  JsonObject object;
  object.text("name", question.name)
      .text("user", question.user.user)
      .raw("rights", json_string(columns_of(question.reason.granted)))
      .number("mask", static_cast<std::uint64_t>(question.reason.granted));
  if (!why) return object.str();
  JsonObject reasons;
  for (const std::int32_t right : kRights) {
    std::vector<std::string> classes;
    for (const std::string& each : granting(question, right)) classes.push_back(json_string(each));
    JsonObject one;
    one.flag("granted", (question.reason.granted & right) != 0).raw("by", json_array(classes));
    reasons.raw(registry::right_name(right), one.str());
  }
  return object.raw("why", reasons.str()).str();
}

void print_why(Context& context, const Question& question) {
  const sec_attr& security = question.security;
  context.print("owner  " + columns_of(security.user_perm) + "  " + std::string(registry::user_of(security)));
  context.print("group  " + columns_of(security.group_perm) + "  " + std::string(registry::group_of(security)));
  context.print("other  " + columns_of(security.other_perm));
  context.print("user   " + question.user.user + ", in " + joined(question.user.groups, ", "));
  for (const std::int32_t right : kRights) {
    std::string label = registry::right_name(right);
    label.resize(9, ' ');
    const std::vector<std::string> classes = granting(question, right);
    context.print(label +
                  (classes.empty() ? "denied   " + denial(question, right) : "granted  by " + joined(classes, ", ")));
  }
}

Outcome run_access(Context& context, const Arguments& arguments) {
  Question question;
  std::int32_t need = 0;
  if (arguments.need) {
    if (Outcome parsed = parse_rights(*arguments.need, &need); !parsed.ok()) return parsed;
  }
  if (Outcome given = key_name(*arguments.key, &question.name); !given.ok()) return given;
  if (Outcome found = find_user(*arguments.user, &question.user); !found.ok()) return found;
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Status read = context.client().read_security(question.name, &question.security); !read.ok()) return read;
  question.reason = registry::explain_access(question.user, question.security);
  if (context.json()) {
    context.output().line(answer_json(question, arguments.why));
  } else {
    context.print(columns_of(question.reason.granted));
    if (arguments.why) print_why(context, question);
  }
  const std::int32_t missing = need & ~question.reason.granted;
  if (missing == 0) return {};
  return {Exit::kDenied, "'" + question.user.user + "' lacks rights on " + registry::describe(question.name) + ": " +
                             columns_of(missing)};
}

constexpr std::array kOperands{
    one("USER", "Name of a user of this machine", true, &Arguments::user, Candidates::kUsers),
    one("KEY", "Full name", true, &Arguments::key)};
constexpr std::array kOptions{
    flag("--why", "Show which class grants or denies each right", &Arguments::why),
    valued("--need", "RIGHTS", "Exit with 4 unless all of these rights are granted", &Arguments::need)};

}  // namespace

constinit const Verb kAccessVerb{
    .name = "access",
    .summary = "Show what a user may do with a key",
    .details = R"(Prints the rights that the registry grants the user with all its groups. --why
shows for each right which class grants it, or why none does. User root may do
everything.
)",
    .examples = R"(  tkv access bob app.hosts --why
  tkv access bob app.hosts --need rw && echo yes
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_access};

}  // namespace tkv::command
