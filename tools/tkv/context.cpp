#include "context.h"

#include "characters.h"
#include "json.h"
#include "registry/name.h"
#include "state_argument.h"

namespace tkv::command {

Outcome Context::open_to_read() {
  StateArgument state;
  if (!arguments_.state) return open(false, true);
  if (Outcome parsed = StateArgument::parse(*arguments_.state, &state); !parsed.ok()) return parsed;
  Outcome opened = open(false, true);
  return opened.ok() ? state.open(*client_, &past_) : opened;
}

Outcome Context::open_to_change() { return open(false, false); }

Outcome Context::open_or_create() { return open(true, false); }

Outcome Context::open(bool create, bool read_only) {
  registry::Configuration configuration;
  if (Status status = registry::Configuration::read(&configuration); !status.ok()) return status;
  registry::OpenOptions options;
  options.create = create;
  options.read_only = read_only;
  if (Outcome found = find_note(&options.note); !found.ok()) return found;
  options.on_wait = [this](const std::string& message) { note(terminal_, "tkv: " + message); };
  return open_registry(std::move(configuration), options, &client_);
}

// A note that was written for the log is never cut off; a suggested one may be.
Outcome Context::find_note(std::string* note) const {
  *note = arguments_.note.value_or(suggested_note_);
  if (!arguments_.note || note->size() <= kMaxNoteSize) return {};
  return {Exit::kUsage, "--note: a note has at most " + std::to_string(kMaxNoteSize) + " bytes"};
}

Outcome open_registry(registry::Configuration configuration, const registry::OpenOptions& options,
                      std::shared_ptr<registry::Client>* client) {
  if (!options.create && registry::is_absent(configuration)) {
    return {Exit::kNotFound, "there is no registry in " + configuration.locations.front() +
                                 "; tkv create, set, import or restore creates one"};
  }
  return registry::open_client(std::move(configuration), options, client);
}

void complain(const Outcome& outcome, bool json) {
  if (outcome.text().empty()) return;
  const std::string text = utf8_for_people(outcome.text());
  if (!json) {
    say("tkv: " + text);
    return;
  }
  JsonObject error;
  error.raw("error", json_string(name_of(outcome.exit())))
      .number("exit", static_cast<std::uint64_t>(outcome.exit()))
      .raw("text", json_string(is_utf8(text) ? text : safe_lines(text)));
  say(error.str());
}

Outcome Context::allow_deleting(std::uint64_t keys, const std::string& what) {
  if (keys <= 1 || arguments_.yes) return {};
  return allow(what + " deletes " + counted(keys, "key"));
}

Outcome Context::allow(const std::string& doing) {
  if (arguments_.yes) return {};
  if (!terminal_.input || !terminal_.messages) {
    return {Exit::kConflict, doing + "; without a terminal to ask on, this needs --yes"};
  }
  if (confirm(terminal_, doing + ". Go on?")) return {};
  return {Exit::kConflict, "nothing was done"};
}

Outcome count_keys(registry::Client& client, const Terminal& terminal, const std::string& name, std::uint64_t* keys) {
  Progress progress(terminal, "count");
  registry::WalkOptions options;
  options.denied = registry::WalkOptions::Denied::kSkip;
  options.damaged = registry::WalkOptions::Damaged::kVisit;
  *keys = 0;
  return client.walk(name, options, [&](const registry::WalkEntry& entry) {
    if (entry.damaged != registry::WalkEntry::Part::kSubkeys) ++*keys;
    progress.show(*keys, 0);
    return Status();
  });
}

Outcome key_name(const std::string& typed, std::string* name) {
  *name = typed == "." ? "" : stored_from_utf8(typed);
  if (typed.empty()) return {Exit::kUsage, "the name of a key is empty; the root is written as '.'"};
  return registry::check_name(*name);
}

std::string shown_name(std::string_view name) { return name.empty() ? "." : utf8_for_people(name); }

std::string counted(std::uint64_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace tkv::command
