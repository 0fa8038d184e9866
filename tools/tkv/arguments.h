// Arguments: the command line as plain fields. Texts are the bytes that the shell passed.
#ifndef TKV_TOOLS_TKV_ARGUMENTS_H
#define TKV_TOOLS_TKV_ARGUMENTS_H

#include <optional>
#include <string>
#include <vector>

namespace tkv::command {

struct Arguments {
  // With every verb.
  bool json = false;
  bool quiet = false;
  bool no_colour = false;
  bool yes = false;
  std::optional<std::string> configuration;  // file instead of $TKV_CONF

  // Operands.
  std::optional<std::string> key;
  std::vector<std::string> keys;
  std::vector<std::string> values;
  std::optional<std::string> file;
  std::optional<std::string> user;
  std::optional<std::string> change;  // of owner or mode
  std::optional<std::string> from;
  std::optional<std::string> to;
  std::vector<std::string> words;

  // Options that several verbs share.
  bool recursive = false;
  bool parents = false;
  bool replace = false;
  bool overwrite = false;
  bool null_ends = false;
  bool dry_run = false;
  std::optional<std::string> owner;
  std::optional<std::string> group;
  std::optional<std::string> mode;
  bool inherit = false;
  std::optional<std::string> state;  // to read
  std::optional<std::string> since;
  std::optional<std::string> note;  // for the log

  // get
  std::optional<std::string> reading;
  bool no_newline = false;
  // set
  bool list = false;
  bool int32 = false;
  bool int64 = false;
  bool bytes = false;
  bool hex = false;
  bool literal = false;
  bool keep_newline = false;
  bool only_new = false;
  bool only_existing = false;
  std::optional<std::string> type;
  std::optional<std::string> if_revision;
  std::optional<std::string> if_value;
  bool if_absent = false;
  // ls, tree
  bool long_lines = false;
  bool full_names = false;
  bool no_values = false;
  std::optional<std::string> depth;
  // find
  std::optional<std::string> pattern;
  bool search_values = false;
  // wait
  std::optional<std::string> value;
  std::optional<std::string> timeout;
  // rm
  bool force = false;
  // cp
  bool own = false;
  // access
  bool why = false;
  std::optional<std::string> need;
  // export, import, backup
  std::optional<std::string> at;
  bool merge = false;
  bool skip_damaged = false;
  // verify
  bool repair = false;
  // status
  bool quick = false;
  // log
  std::optional<std::string> number;
  std::optional<std::string> author;
  bool patch = false;
  bool follow = false;
  // watch
  std::optional<std::string> command;
  std::optional<std::string> command_timeout;
  bool initial = false;
  // undo, history
  std::optional<std::string> revision;
  std::optional<std::string> action;
  // help
  bool manual = false;
  bool configuration_manual = false;
};

}  // namespace tkv::command

#endif
