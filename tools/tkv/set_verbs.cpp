#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "context.h"
#include "description.h"
#include "input.h"
#include "key_by_key.h"
#include "new_key_options.h"
#include "state_argument.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Condition;
using registry::Operation;
using registry::PutOptions;
using registry::TypedValue;

Outcome parse_set(const Arguments& arguments, std::string* name, NewKeyOptions* new_key, TypedValue* value) {
  if (Outcome named = key_name(*arguments.key, name); !named.ok()) return named;
  if (arguments.only_new && arguments.only_existing) return {Exit::kUsage, "--new and --existing exclude each other"};
  if (Outcome parsed = NewKeyOptions::parse(arguments, new_key); !parsed.ok()) return parsed;
  if (arguments.only_existing && new_key->given()) {
    return {Exit::kUsage, "--existing creates no key; --owner, --group, --mode and --inherit do not go with it"};
  }
  return value_from_arguments(arguments, value);
}

// What --if-value is compared with: a value of the same type as the one that is written.
Outcome parse_expected(const Arguments& arguments, TypedValue* value) {
  Arguments expected = arguments;
  expected.values = {*arguments.if_value};
  expected.literal = true;
  expected.hex = arguments.hex || arguments.bytes;
  expected.bytes = false;
  if (expected.list) {
    expected.values.clear();
    for (std::string_view rest = *arguments.if_value; !rest.empty();) {
      const std::size_t end = rest.find('\n');
      expected.values.emplace_back(rest.substr(0, end));
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
  }
  Outcome parsed = value_from_arguments(expected, value);
  return parsed.ok() ? parsed : Outcome(parsed.exit(), "--if-value: " + parsed.text());
}

// The conditions that --if-revision, --if-value and --if-absent put.
Outcome parse_conditions(const Arguments& arguments, const std::string& name, std::vector<Condition>* conditions) {
  if (arguments.if_absent) conditions->push_back({.kind = Condition::Kind::kAbsent, .name = name});
  if (arguments.if_revision) {
    Condition& condition = conditions->emplace_back();
    condition.kind = Condition::Kind::kRevision;
    condition.name = name;
    Outcome parsed = parse_revision("--if-revision", *arguments.if_revision, &condition.revision);
    if (!parsed.ok()) return parsed;
  }
  if (arguments.if_value) {
    Condition& condition = conditions->emplace_back();
    condition.kind = Condition::Kind::kValue;
    condition.name = name;
    if (Outcome parsed = parse_expected(arguments, &condition.value); !parsed.ok()) return parsed;
  }
  const bool wants_key = arguments.if_revision || arguments.if_value;
  if (wants_key && (arguments.if_absent || arguments.only_new)) {
    return {Exit::kUsage, "--if-revision and --if-value are about a key that exists"};
  }
  if (arguments.if_absent && arguments.only_existing) {
    return {Exit::kUsage, "--if-absent and --existing exclude each other"};
  }
  return {};
}

Outcome set_if(Context& context, const registry::NamedValue& key, const PutOptions& options,
               std::vector<Condition> conditions) {
  registry::Batch batch{.conditions = std::move(conditions), .new_keys = options.security};
  Operation put{.name = key.name, .value = key.value, .create_parents = options.create_parents};
  if (options.key == PutOptions::Key::kMustBeNew) put.kind = Operation::Kind::kCreate;
  batch.operations.push_back(std::move(put));
  registry::CommitResult result;
  const Status status = context.client().commit(batch, &result);
  if (status.ok() && context.json()) {
    context.output().line(done("set", key.name).number("revision", result.revision).str());
  }
  return status;
}

Outcome run_set(Context& context, const Arguments& arguments) {
  registry::NamedValue key;
  NewKeyOptions new_key;
  std::vector<Condition> conditions;
  if (Outcome parsed = parse_set(arguments, &key.name, &new_key, &key.value); !parsed.ok()) return parsed;
  if (Outcome parsed = parse_conditions(arguments, key.name, &conditions); !parsed.ok()) return parsed;
  if (Outcome opened = arguments.only_existing ? context.open_to_change() : context.open_or_create(); !opened.ok()) {
    return opened;
  }
  registry::Client& client = context.client();
  const bool must_be_new = arguments.only_new || new_key.given();
  PutOptions options;
  if (must_be_new) options.key = PutOptions::Key::kMustBeNew;
  if (arguments.only_existing) options.key = PutOptions::Key::kMustExist;
  options.create_parents = arguments.parents;
  options.security = new_key.security(client.identity());
  if (!conditions.empty()) return set_if(context, key, options, std::move(conditions));
  Status status = client.put(std::span(&key, 1), options);
  if (status.is(PRTKV_KEY_EXISTS) && !arguments.only_new) {
    return {Exit::kConflict, status.text() + "; change its owner and rights with chown and chmod"};
  }
  // `put` leaves an existing key alone if there is no value; here none was asked for.
  const bool clear = key.value == TypedValue{} && !must_be_new;
  if (status.ok() && clear) status = client.write_value(key.name, key.value.type, key.value.span());
  if (status.ok() && context.json()) context.output().line(done("set", key.name).str());
  return status;
}

Outcome run_create(Context& context, const Arguments& arguments) {
  std::vector<std::string> names;
  NewKeyOptions new_key;
  if (Outcome named = key_names(arguments.keys, &names); !named.ok()) return named;
  if (Outcome parsed = NewKeyOptions::parse(arguments, &new_key); !parsed.ok()) return parsed;
  if (Outcome opened = context.open_or_create(); !opened.ok()) return opened;
  PutOptions options;
  options.key = PutOptions::Key::kMustBeNew;
  options.create_parents = arguments.parents;
  options.security = new_key.security(context.client().identity());
  return each_key(context, names, [&](const std::string& name, std::string* json) -> Outcome {
    const registry::NamedValue key{name, {}};
    *json = done("create", name).str();
    return context.client().put(std::span(&key, 1), options);
  });
}

constexpr std::array kSetOperands{
    one("KEY", "Full name", true, &Arguments::key),
    many("VALUE", "Text, list elements or number", false, &Arguments::values, Candidates::kFiles)};
constexpr std::array kSetOptions{
    flag("-l,--list", "Store a list: each VALUE, or each line of @FILE, is an element", &Arguments::list),
    flag("--int32", "Store a number of 4 bytes", &Arguments::int32),
    flag("--int64", "Store a number of 8 bytes", &Arguments::int64),
    flag("-b,--bytes", "Store the bytes of @FILE or standard input unchanged", &Arguments::bytes),
    flag("--hex", "Store bytes given as hexadecimal digits", &Arguments::hex),
    valued("--type", "TYPE", "Type word for --bytes and --hex; default: 4", &Arguments::type),
    flag("--literal", "Give - and @ at the beginning of VALUE no meaning", &Arguments::literal),
    flag("--keep-newline", "Keep the last newline of a text read from a file", &Arguments::keep_newline),
    flag("--new", "Fail if the key exists", &Arguments::only_new),
    flag("--existing", "Fail if the key does not exist", &Arguments::only_existing),
    flag("--if-absent", "Only if the key does not exist", &Arguments::if_absent),
    valued("--if-revision", "REVISION", "Only if this was the last change of the key", &Arguments::if_revision),
    valued("--if-value", "VALUE", "Only if the key has this value", &Arguments::if_value),
    kParents,
    kOwner,
    kGroup,
    kMode,
    kInherit,
    kNote};
constexpr std::array kCreateOptions{kParents, kOwner, kGroup, kMode, kInherit, kNote};

}  // namespace

constinit const Verb kSetVerb{.name = "set",
                              .summary = "Write the value of a key, creating the key if needed",
                              .details = R"(Without an option, the value is a text. VALUE is the text itself, - for
standard input, or @FILE for the contents of a file. The last newline of a
text that is read is dropped. --literal takes VALUE as it stands. Read secrets
from a file or standard input: other users of the machine can see arguments.

A list can hold neither an empty element nor one with a NUL, since readers take
an empty text for the end of the list. A list without elements can be stored.
Numbers are signed, or 0x and hexadecimal digits; they are stored least
significant byte first. A value holds at most 1 MiB.

Options about owner and rights apply to a key that is created. For a key that
exists they are refused (exit code 5): use chown and chmod.

With --if-absent, --if-revision or --if-value, the value is written only if that
holds when it is written, whatever others do; otherwise nothing is changed and
the exit code is 5. stat shows the revision. --if-value takes a value of the type
that is written, as get prints it: of a list, one element per line; with --bytes
and --hex, hexadecimal digits. Needs the right r. With --json, "revision" is that
of the change.
)",
                              .examples = R"(  tkv set app.greeting 'Good morning'
  tkv set app.hosts --list alpha beta gamma
  tkv set app.limit --int64 5000000000
  tkv set app.secret --mode u=rw,g=,o= @/root/secret
  tkv set app.count --int64 8 --if-value 7
  openssl x509 -outform DER < cert.pem | tkv set app.certificate --bytes -
)",
                              .operands = kSetOperands,
                              .options = kSetOptions,
                              .run = run_set};

constinit const Verb kCreateVerb{
    .name = "create",
    .summary = "Create keys without values",
    .details = R"(The parent must exist unless -p is given. A key that exists is an error (exit
code 5). Keys are created one by one; if some could be created and others not,
the exit code is 9.
)",
    .examples = R"(  tkv create app
  tkv create -p app.nodes.alpha --group operators --mode u=rlwscd,g=rlw,o=
)",
    .operands = kKeys,
    .options = kCreateOptions,
    .run = run_create};

}  // namespace tkv::command
