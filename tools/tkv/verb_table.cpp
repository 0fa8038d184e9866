#include <array>
#include <cstring>

#include "verbs.h"

namespace tkv::command {
namespace {

constexpr const char* kOwnerText = "Owner of the key; else the session's user";
constexpr const char* kGroupText = "Group of the key; else the session's group";
constexpr const char* kModeText = "Rights of the key, as for chmod; else 0x3f,0x3f,0x3";
constexpr const char* kInheritText = "Rights and group from the parent key";

constexpr Option flag(const char* names, const char* text, bool Arguments::*target) {
  return {names, nullptr, text, target, nullptr};
}

constexpr Option valued(const char* names, const char* argument, const char* text,
                        std::optional<std::string> Arguments::*target, Kind kind = Kind::kOther) {
  return {names, argument, text, nullptr, target, kind};
}

constexpr Operand one(const char* name, const char* text, bool required, std::optional<std::string> Arguments::*target,
                      Kind kind = Kind::kKey) {
  return {name, text, required, target, nullptr, kind};
}

constexpr Operand many(const char* name, const char* text, bool required, std::vector<std::string> Arguments::*target,
                       Kind kind = Kind::kKey) {
  return {name, text, required, nullptr, target, kind};
}

constexpr Option kParents = flag("-p,--parents", "Make missing parents too", &Arguments::parents);
constexpr Option kOwner = valued("--owner", "NAME", kOwnerText, &Arguments::owner, Kind::kUser);
constexpr Option kGroup = valued("--group", "NAME", kGroupText, &Arguments::group, Kind::kGroup);
constexpr Option kMode = valued("--mode", "MODE", kModeText, &Arguments::mode);
constexpr Option kInherit = flag("--inherit", kInheritText, &Arguments::inherit);
constexpr Option kNullEnds = flag("-0,--null", "End each line with a NUL instead", &Arguments::null_ends);

constexpr std::array kCommonOptions{
    flag("--json", "Print JSON; errors too, on standard error", &Arguments::json),
    flag("-q,--quiet", "No messages but errors, no progress", &Arguments::quiet),
    flag("--no-color", "No colours on a terminal", &Arguments::no_colour),
    flag("-y,--yes", "Do not ask before deleting several keys", &Arguments::yes),
    valued("--conf", "FILE", "Configuration file, instead of $TKV_CONF", &Arguments::configuration, Kind::kFile)};

constexpr std::array kOneKey{one("KEY", "Full name; the root when left out", false, &Arguments::key)};
constexpr std::array kKeys{many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kFromTo{one("FROM", "Full name of the key", true, &Arguments::from),
                             one("TO", "Its new full name; the parent must exist", true, &Arguments::to)};

constexpr std::array kGetOptions{
    valued("--as", "READING", "auto, text, list, number, hex or raw", &Arguments::reading, Kind::kReading),
    flag("-n,--no-newline", "No line end after the value", &Arguments::no_newline), kNullEnds};

constexpr std::array kSetOperands{one("KEY", "Full name", true, &Arguments::key),
                                  many("VALUE", "Text, elements or number", false, &Arguments::values, Kind::kFile)};
constexpr std::array kSetOptions{
    flag("-l,--list", "A list: each VALUE is an element, or each line of @FILE", &Arguments::list),
    flag("--int32", "A number of 4 bytes", &Arguments::int32),
    flag("--int64", "A number of 8 bytes", &Arguments::int64),
    flag("-b,--bytes", "Bytes as they stand in @FILE or on standard input", &Arguments::bytes),
    flag("--hex", "Bytes from hexadecimal digits", &Arguments::hex),
    valued("--type", "TYPE", "Type word for --bytes and --hex, else 4", &Arguments::type),
    flag("--literal", "No meaning for - and @ at the beginning of VALUE", &Arguments::literal),
    flag("--keep-newline", "Keep the last line end of a text that is read", &Arguments::keep_newline),
    flag("--new", "Only when the key does not exist", &Arguments::only_new),
    flag("--existing", "Only when the key exists", &Arguments::only_existing),
    kParents,
    kOwner,
    kGroup,
    kMode,
    kInherit};
constexpr std::array kCreateOptions{kParents, kOwner, kGroup, kMode, kInherit};

constexpr std::array kLsOptions{flag("-l,--long", "Rights, owner, group, type and size", &Arguments::long_lines),
                                flag("-f,--full", "Full names", &Arguments::full_names), kNullEnds};
constexpr std::array kTreeOptions{valued("-d,--depth", "LEVELS", "No deeper than this", &Arguments::depth),
                                  flag("-k,--keys", "Keys without values", &Arguments::no_values),
                                  flag("-l,--long", "Whole values, rights and owners", &Arguments::long_lines)};
constexpr std::array kRmOptions{flag("-r,--recursive", "With all subkeys", &Arguments::recursive),
                                flag("-f,--force", "A key that does not exist is no error", &Arguments::force)};
constexpr std::array kMvOptions{flag("--replace", "TO may exist: it goes away with its subkeys", &Arguments::replace)};
constexpr std::array kCpOptions{flag("-r,--recursive", "With all subkeys", &Arguments::recursive),
                                flag("--replace", "TO may exist: it goes away with its subkeys", &Arguments::replace),
                                flag("--own", "The copies belong to the session's user and group", &Arguments::own)};

constexpr std::array kChownOperands{one("OWNER", "OWNER, OWNER:GROUP or :GROUP", true, &Arguments::change, Kind::kUser),
                                    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kChmodOperands{
    one("MODE", "Three numbers, or changes by letters", true, &Arguments::change, Kind::kOther),
    many("KEY", "Full names", true, &Arguments::keys)};
constexpr std::array kBelow{flag("-R,--recursive", "All subkeys too", &Arguments::recursive)};

constexpr std::array kAccessOperands{one("USER", "Name of a user of this machine", true, &Arguments::user, Kind::kUser),
                                     one("KEY", "Full name", true, &Arguments::key)};
constexpr std::array kAccessOptions{
    flag("--why", "Which class grants or denies each right", &Arguments::why),
    valued("--need", "RIGHTS", "Fail with 4 unless all of these are granted", &Arguments::need)};

constexpr std::array kExportOptions{
    valued("-o,--output", "FILE", "Write here, whole or not at all", &Arguments::file, Kind::kFile)};
constexpr std::array kImportOperands{
    one("FILE", "An export; - or nothing is standard input", false, &Arguments::file, Kind::kFile)};
constexpr std::array kImportOptions{
    valued("--at", "KEY", "Put the top of the export here", &Arguments::at, Kind::kKey),
    flag("--merge", "Change keys that differ, keep those that the export lacks", &Arguments::merge),
    flag("--replace", "Afterwards the subtree is what the export says", &Arguments::replace),
    flag("-n,--dry-run", "Print the difference, change nothing", &Arguments::dry_run), kParents};

constexpr std::array kBackupOperands{
    one("TO", "A new file, or a directory for one; else the backup location", false, &Arguments::file, Kind::kFile)};
constexpr std::array kBackupOptions{valued("--key", "KEY", "Only this subtree", &Arguments::at, Kind::kKey)};
constexpr std::array kRestoreOperands{one("FILE", "A backup; - is standard input", true, &Arguments::file, Kind::kFile),
                                      one("KEY", "Only this subtree of it", false, &Arguments::key)};
constexpr std::array kRestoreOptions{flag("--overwrite", "Replace what is there", &Arguments::overwrite),
                                     flag("-n,--dry-run", "Print the difference, change nothing", &Arguments::dry_run)};
constexpr std::array kVerifyOperands{one("FILE", "A backup to verify instead of the registry; - is standard input",
                                         false, &Arguments::file, Kind::kFile)};
constexpr std::array kVerifyOptions{flag("--repair", "Remove what belongs to no key", &Arguments::repair)};
constexpr std::array kMigrateOperands{one("FROM", "Where the keys are", true, &Arguments::from, Kind::kFile),
                                      one("TO", "Where they are to be", true, &Arguments::to, Kind::kFile)};
constexpr std::array kMigrateOptions{
    flag("--overwrite", "Replace what TO holds, after a question", &Arguments::overwrite)};
constexpr std::array kHelpOperands{one("VERB", "What to tell of", false, &Arguments::key, Kind::kVerb)};
constexpr std::array kHelpOptions{
    flag("--man", "The manual page tkv(1), for man", &Arguments::manual),
    flag("--man-conf", "The manual page tkv.conf(5), for man", &Arguments::configuration_manual)};
constexpr std::array kCompletionOperands{one("SHELL", "bash, zsh or fish", true, &Arguments::key, Kind::kShell)};
constexpr std::array kCompleteOperands{many("WORD", "The words so far", false, &Arguments::words, Kind::kOther)};

constexpr std::span<const Option> kNoOptions;
constexpr std::span<const Operand> kNoOperands;

const Verb kVerbs[] = {
    {"get", "Print the value of a key",
     "Prints the value as text, one line; a list one element a line; types 1 and 2 as numbers; other bytes as text "
     "when\n"
     "they are printable, else in hexadecimal. A key without a value prints nothing. Several keys are printed one "
     "after\n"
     "the other.\n"
     "--as chooses: `text` and `list` and `number` insist on that reading (6 when the value has none), `text` also "
     "reads\n"
     "the text that a JVM stored under type 1 or 2; `hex` prints all bytes, `raw` writes them as they are.\n"
     "On a terminal control characters are shown, not sent.\n",
     "  tkv get SYSTEM.version.patch\n"
     "  tkv get --as raw app.certificate > certificate.der\n"
     "  tkv get --json app.limits\n",
     kKeys, kGetOptions, run_get},
    {"set", "Write the value of a key, and make the key when it is missing",
     "Without an option the value is a text: one VALUE, `-` for standard input, `@FILE` for a file's contents "
     "(without\n"
     "the last line end; --literal takes VALUE as it stands). A secret is better read than given as an argument, "
     "which\n"
     "other users of the machine can see.\n"
     "A list cannot hold an empty element or one with a NUL: an empty text ends a list for its readers. A list "
     "without\n"
     "elements can be stored. Numbers are signed, or 0x and hexadecimal digits; they are stored least significant "
     "byte\n"
     "first.\n"
     "A value is 1 MiB at the most. Options on owner and rights are for a key that is made; on an existing one they "
     "are\n"
     "refused (5), use chown and chmod.\n",
     "  tkv set app.greeting 'Good morning'\n"
     "  tkv set app.hosts --list alpha beta gamma\n"
     "  tkv set app.limit --int64 5000000000\n"
     "  tkv set app.secret --mode u=rw,g=,o= @/root/secret\n"
     "  openssl x509 -outform DER < cert.pem | tkv set app.certificate --bytes -\n",
     kSetOperands, kSetOptions, run_set},
    {"create", "Make keys without values",
     "The parent must exist, or is made with -p. An existing key is an error (5). Each key is made or not; when some "
     "are\n"
     "made and others not, the exit code is 9.\n",
     "  tkv create app\n"
     "  tkv create -p app.nodes.alpha --group operators --mode u=rlwscd,g=rlw,o=\n",
     kKeys, kCreateOptions, run_create},
    {"ls", "List the subkeys of a key", "In the order of their bytes, one a line. Needs the right to list.\n",
     "  tkv ls\n"
     "  tkv ls -l SYSTEM\n"
     "  tkv ls -0f app | xargs -0 -n1 tkv get\n",
     kOneKey, kLsOptions, run_ls},
    {"tree", "Show a key and everything below it",
     "Values are shown beside their keys, shortened to the line on a terminal. Keys whose subkeys or value the "
     "session\n"
     "may not see are marked.\n",
     "  tkv tree\n"
     "  tkv tree -d 1 SYSTEM\n",
     kOneKey, kTreeOptions, run_tree},
    {"stat", "Show type, size, owner, group and rights of keys",
     "Rights are shown in six columns for owner, group and others: r read, l list, w write, s security, c create\n"
     "subkeys, d delete or move; and as the numbers of the three masks.\n",
     "  tkv stat app.hosts\n"
     "  tkv stat --json app.hosts\n",
     kKeys, kNoOptions, run_stat},
    {"rm", "Delete keys",
     "A key with subkeys needs -r. Each KEY with everything below it goes away in one step, all or nothing. Before "
     "more\n"
     "than one key is deleted, a question is asked on the terminal; without a terminal --yes is needed.\n",
     "  tkv rm app.greeting\n"
     "  tkv rm -r --yes app\n",
     kKeys, kRmOptions, run_rm},
    {"mv", "Rename or move a key with everything below it",
     "In one step, whatever the size. TO is a full name, not a parent. An existing TO is an error (5) unless "
     "--replace.\n",
     "  tkv mv app.hosts app.nodes\n"
     "  tkv mv --replace staging live\n",
     kFromTo, kMvOptions, run_mv},
    {"cp", "Copy a key, with -r everything below it",
     "Values, owners, groups and rights are copied; with --own the copies belong to the session. TO is a full name, "
     "and\n"
     "an observer sees the whole copy or none of it.\n",
     "  tkv cp app.hosts app.hosts-before\n"
     "  tkv cp -r app app-test\n",
     kFromTo, kCpOptions, run_cp},
    {"chown", "Change owner and group of keys",
     "OWNER, OWNER:GROUP or :GROUP. Names are stored as given, at most 64 bytes. With -R each KEY and everything "
     "below\n"
     "it changes in one step. Needs the right s on every key.\n",
     "  tkv chown ada:operators app\n"
     "  tkv chown -R :operators app\n",
     kChownOperands, kBelow, run_chown},
    {"chmod", "Change the rights of keys",
     "MODE is three numbers, for owner, group and others, or clauses joined by commas: u, g, o (several, or a for "
     "all),\n"
     "then = + or -, then letters or a number. The letters: r read value and security, l list subkeys, w write the "
     "value,\n"
     "s change the security, c create subkeys, d delete or move. A class grants what its mask says, and what others "
     "get\n"
     "everybody gets.\n",
     "  tkv chmod u=rlwscd,g=rlw,o= app\n"
     "  tkv chmod -R g+c,o-l app\n"
     "  tkv chmod 0x3f,0x34,0x3 app\n",
     kChmodOperands, kBelow, run_chmod},
    {"access", "Show what a user may do with a key",
     "Prints the rights that the registry grants the user with all its groups. --why says for each right which class\n"
     "grants it or why none does. User root may do everything.\n",
     "  tkv access bob app.hosts --why\n"
     "  tkv access bob app.hosts --need rw && echo yes\n",
     kAccessOperands, kAccessOptions, run_access},
    {"conf", "Show the configuration in force",
     "Each setting with its value and where it came from, the kind of store, whether the location is usable, and the\n"
     "cluster word that the library reports (4 in a cluster, else 1).\n",
     "  tkv conf\n"
     "  tkv conf --json\n",
     kNoOperands, kNoOptions, run_conf},
    {"export", "Write a subtree as JSON",
     "Lossless: types, values, owners, groups and rights; texts that are not UTF-8 as marked base64. One key a line, "
     "in\n"
     "the order of names, so that two exports can be compared line by line. One state of the registry, whatever is\n"
     "written meanwhile.\n",
     "  tkv export app > app.json\n"
     "  tkv export | diff yesterday.json -\n",
     kOneKey, kExportOptions, run_export},
    {"import", "Bring a subtree to what an export says",
     "Everything in one transaction: all or nothing. Without --merge or --replace only new keys are added, and a key "
     "that\n"
     "exists and differs is an error (5). Owner, group, mode or value that an entry lacks stay as they are, or are "
     "the\n"
     "session's for a new key. --dry-run prints the lines that would go away (-) and come (+).\n",
     "  tkv import app.json\n"
     "  tkv import --replace --dry-run app.json\n"
     "  tkv export app | tkv import --at app-test\n",
     kImportOperands, kImportOptions, run_import},
    {"backup", "Write the registry into a backup file",
     "One state of the registry, while others go on writing. The file is hashed, written whole or not at all, opened\n"
     "again, checked and counted before success is reported; its name is printed. An existing file is not touched "
     "(5).\n"
     "Needs the rights to read and list everything.\n",
     "  tkv backup\n"
     "  tkv backup /mnt/safe/\n"
     "  tkv backup --key app app.backup\n",
     kBackupOperands, kBackupOptions, run_backup},
    {"restore", "Bring back a backup, or one subtree of it",
     "The backup is checked before anything is changed, and everything happens in one transaction. What is there is\n"
     "refused (5) unless --overwrite, which leaves exactly what the backup holds.\n",
     "  tkv restore /mnt/safe/tkv-20240229T120000Z.backup\n"
     "  tkv restore --overwrite nightly.backup app.nodes\n"
     "  tkv restore --overwrite --dry-run nightly.backup\n",
     kRestoreOperands, kRestoreOptions, run_restore},
    {"verify", "Read and check every record",
     "Checks each record's checksum and place, and counts. Damage is named, and the exit code is 8. --repair removes "
     "what\n"
     "belongs to no key; damaged keys stay as they are, to be restored or deleted. With FILE a backup is checked. "
     "Needs\n"
     "the rights to read and list the root; --repair needs all rights on it.\n",
     "  tkv verify\n"
     "  tkv verify nightly.backup\n",
     kVerifyOperands, kVerifyOptions, run_verify},
    {"migrate", "Copy a registry from one store to another",
     "FROM and TO are a directory, or etcd://host:port (several with commas between), or a configuration file that\n"
     "names the location with all that belongs to it. All keys are copied in batches, then both sides are compared "
     "entry\n"
     "by entry, and again when the source was changed meanwhile. Run it again after an interruption: it goes on where "
     "it\n"
     "was, by the key __tkv_migration that TO holds until it is complete. A TO that is not empty is refused (5) "
     "unless\n"
     "--overwrite. Stop those who write to FROM before the last run: what they write later stays behind.\n",
     "  tkv migrate /var/lib/tkv etcd://node1:2379,etcd://node2:2379,etcd://node3:2379\n"
     "  tkv migrate /etc/tkv/tkv.conf /etc/tkv/new.conf\n",
     kMigrateOperands, kMigrateOptions, run_migrate},
    {"help", "Show help, or the manual pages", "Without VERB, an overview.\n",
     "  tkv help set\n"
     "  tkv help --man | man -l -\n",
     kHelpOperands, kHelpOptions, run_help},
    {"completion", "Print the completion script of a shell",
     "It completes verbs, options, files, users, and the names of keys from the registry.\n",
     "  source <(tkv completion bash)\n"
     "  tkv completion zsh > \"${fpath[1]}/_tkv\"\n"
     "  tkv completion fish > ~/.config/fish/completions/tkv.fish\n",
     kCompletionOperands, kNoOptions, run_completion},
    {"complete", "Candidates for the last word", "", "", kCompleteOperands, kNoOptions, run_complete, true},
};

constexpr CommandText kText{"The operator's command for the cluster registry",
                            "  A full name: levels joined by dots, SYSTEM.version.patch. The root is written as a\n"
                            "  single dot.\n",
                            "  - reads standard input, @FILE reads a file, -- ends the options.\n"
                            "  Data goes to standard output, messages to standard error.\n",
                            "  0  done\n"
                            "  1  other failures: no space, no memory, unreadable configuration, unwritable output\n"
                            "  2  usage: the arguments, a name or a text that was read make no sense\n"
                            "  3  not found\n"
                            "  4  access denied\n"
                            "  5  exists, has subkeys, or another conflict; or the question was answered with no\n"
                            "  6  wrong type: the value has no such reading\n"
                            "  7  the registry is unreachable, or the time was up\n"
                            "  8  damaged\n"
                            "  9  partly done: some of what was asked for\n",
                            "  TKV_CONF        the configuration file, instead of /etc/tkv/tkv.conf\n"
                            "  TKV_MODULE_DIR  where the store for etcd is looked for first\n"
                            "  NO_COLOR        when set, no colours\n"};

}  // namespace

std::span<const Verb> all_verbs() { return kVerbs; }

const Verb* find_verb(std::string_view name) {
  for (const Verb& verb : kVerbs) {
    if (name == verb.name) return &verb;
  }
  return nullptr;
}

std::span<const Option> common_options() { return kCommonOptions; }

const CommandText& command_text() { return kText; }

}  // namespace tkv::command
