#include <span>
#include <vector>

#include "context.h"
#include "description.h"
#include "input.h"
#include "key_by_key.h"
#include "new_key_options.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

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

Outcome run_set(Context& context, const Arguments& arguments) {
  registry::NamedValue key;
  NewKeyOptions new_key;
  if (Outcome parsed = parse_set(arguments, &key.name, &new_key, &key.value); !parsed.ok()) return parsed;
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
    kParents,
    kOwner,
    kGroup,
    kMode,
    kInherit};
constexpr std::array kCreateOptions{kParents, kOwner, kGroup, kMode, kInherit};

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
)",
                              .examples = R"(  tkv set app.greeting 'Good morning'
  tkv set app.hosts --list alpha beta gamma
  tkv set app.limit --int64 5000000000
  tkv set app.secret --mode u=rw,g=,o= @/root/secret
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
