// Context: what a verb works with: the configured registry, the place for data and messages, and the common options.
#ifndef TKV_TOOLS_TKV_CONTEXT_H
#define TKV_TOOLS_TKV_CONTEXT_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "arguments.h"
#include "outcome.h"
#include "output.h"
#include "registry/client.h"
#include "registry/open_client.h"
#include "terminal.h"

namespace tkv::command {

// Reports a failure on standard error. An outcome without a text says nothing.
void complain(const Outcome& outcome, bool json);

class Context {
 public:
  Context(const Arguments& arguments, Terminal terminal, Output& output)
      : arguments_(arguments), terminal_(terminal), output_(output) {}
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Opens the registry for a verb that only reads, and the state that --at names. Fails with Exit::kNotFound if there
  // is none.
  Outcome open_to_read();

  // Opens the registry for a verb that changes existing keys. Fails with Exit::kNotFound if there is none.
  Outcome open_to_change();

  // Opens the registry, creating it if there is none, as the library does.
  Outcome open_or_create();

  registry::Client& client() { return *client_; }

  // The state that --at names or, without it, the present.
  registry::KeyReader& reader() {
    if (past_) return *past_;
    return *client_;
  }
  const Terminal& terminal() const { return terminal_; }
  Output& output() { return output_; }
  bool json() const { return arguments_.json; }

  // Prints one text as a line of data, safe for a terminal.
  void print(std::string_view text) { output_.line(for_output(terminal_, text)); }

  // Reports a failure in the form that was asked for.
  void complain(const Outcome& outcome) const { command::complain(outcome, json()); }

  // Tells whether several keys may be deleted without asking.
  bool deletes_unasked() const { return arguments_.yes; }

  // Asks on the terminal whether several keys may be deleted. Fails with Exit::kConflict if the answer is no or nobody
  // can be asked.
  Outcome allow_deleting(std::uint64_t keys, const std::string& what);

  // The same for whatever `doing` says: "this undoes change 17".
  Outcome allow(const std::string& doing);

  // Gives what the verb changes a note in the log, unless --note does. Before the registry is opened.
  void suggest_note(std::string note) { suggested_note_ = std::move(note); }

  // The note for the log. Fails with Exit::kUsage if that of --note is too long.
  Outcome find_note(std::string* note) const;

 private:
  Outcome open(bool create, bool read_only);

  const Arguments& arguments_;
  Terminal terminal_;
  Output& output_;
  std::string suggested_note_;
  std::shared_ptr<registry::Client> client_;
  std::unique_ptr<registry::Snapshot> past_;
};

// Opens the registry of a configuration. Fails with Exit::kNotFound if there is none and `options` create none.
Outcome open_registry(registry::Configuration configuration, const registry::OpenOptions& options,
                      std::shared_ptr<registry::Client>* client);

// Counts a key and the keys below it, as far as the caller may list them. Fails with Exit::kNotFound if there is no
// such key.
Outcome count_keys(registry::Client& client, const Terminal& terminal, const std::string& name, std::uint64_t* keys);

// Converts the name of a key from the command line to the registry's form; "." is the root. Fails with Exit::kUsage.
Outcome key_name(const std::string& typed, std::string* name);

// The name of a key as people write it: "." for the root.
std::string shown_name(std::string_view name);

// "1 key", "3 keys".
std::string counted(std::uint64_t count, const char* noun);

}  // namespace tkv::command

#endif
