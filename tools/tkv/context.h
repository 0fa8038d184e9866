// Context: what a verb works with: the registry that is configured, where data and messages go, what was asked for.
#ifndef TKV_TOOLS_TKV_CONTEXT_H
#define TKV_TOOLS_TKV_CONTEXT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "arguments.h"
#include "outcome.h"
#include "output.h"
#include "registry/open_store.h"
#include "registry/registry.h"
#include "terminal.h"

namespace tkv::command {

// Says why something failed; nothing for an outcome without a text.
void complain(const Outcome& outcome, bool json);

class Context {
 public:
  Context(const Arguments& arguments, Terminal terminal, Output& output)
      : arguments_(arguments), terminal_(terminal), output_(output) {}
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Opens the registry for a verb that only reads: none is made. 3 when there is none.
  Outcome open_to_read();

  // Opens the registry for a verb that changes keys that are there.
  Outcome open_to_change();

  // As the library does: a fresh registry is made when there is none.
  Outcome open_or_make();

  registry::Registry& registry() { return *registry_; }
  const Terminal& terminal() const { return terminal_; }
  Output& output() { return output_; }
  bool json() const { return arguments_.json; }

  // Prints one text as a line of data, safe for a terminal.
  void print(std::string_view text) { output_.line(for_output(terminal_, text)); }

  // Says why something failed, in the form that was asked for.
  void complain(const Outcome& outcome) const { command::complain(outcome, json()); }

  // Several keys may be deleted without a question.
  bool deletes_unasked() const { return arguments_.yes; }

  // Tells whether several keys may be deleted. Asks on a terminal; 5 with the reason when the answer is no.
  Outcome allow_deleting(std::uint64_t keys, const std::string& what);

 private:
  Outcome open(bool create, bool read_only);

  const Arguments& arguments_;
  Terminal terminal_;
  Output& output_;
  std::shared_ptr<registry::Registry> registry_;
};

// Opens a registry by its configuration. 3 when there is none and none is to be made.
Outcome open_registry(registry::Configuration configuration, const registry::OpenOptions& options,
                      std::shared_ptr<registry::Registry>* registry);

// How many keys there are at and below a key, as far as the session can see them. 3 when it does not exist.
Outcome count_keys(registry::Registry& registry, const Terminal& terminal, const std::string& name,
                   std::uint64_t* keys);

// The name of a key as the registry keeps it: "." is the root.
Outcome key_name(const std::string& typed, std::string* name);

// The name of a key for people: "." for the root.
std::string shown_name(std::string_view name);

// "1 key", "3 keys".
std::string counted(std::uint64_t count, const char* noun);

}  // namespace tkv::command

#endif
