#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "change_feed.h"
#include "change_text.h"
#include "characters.h"
#include "context.h"
#include "event_command.h"
#include "input.h"
#include "json.h"
#include "state_argument.h"
#include "stop_request.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

// One change of one key, or, without `change`, the news that changes were lost and everything is to be read anew.
struct Event {
  enum class Value { kNone, kExact, kNewer };  // of this revision, or of a later one: this state is not retained

  const ChangeRecord& record;
  const Change* change = nullptr;
  std::string name = {};
  Value has_value = Value::kNone;
  TypedValue value = {};

  const char* kind() const { return change == nullptr ? "resync" : kind_name(change->kind); }
};

bool brings_value(const Event& event) {
  return event.change == nullptr || event.change->kind == Change::Kind::kCreated ||
         event.change->kind == Change::Kind::kValue;
}

// Reads the value that the event is about. One that is not there, or that the caller may not read, is none.
Outcome read_value(registry::Client& client, Event* event) {
  std::unique_ptr<registry::Snapshot> state;
  if (!brings_value(*event)) return {};
  Status status = client.at(event->record.revision, &state);
  const registry::KeyRef key(event->name, event->change == nullptr ? registry::kAnyKey : event->change->id);
  const bool is_retained = status.ok();
  if (is_retained) status = state->read_value(key, &event->value);
  if (status.is(PRTKV_INVALID_ARGUMENT)) status = client.read_value(key, &event->value);
  if (status.is(PRTKV_NO_SUCH_KEY) || status.is(PRTKV_ACCESS_DENIED)) return {};
  if (!status.ok()) return status;
  event->has_value = is_retained ? Event::Value::kExact : Event::Value::kNewer;
  return {};
}

std::string event_json(const Event& event) {
  JsonObject object;
  if (event.change == nullptr) {
    object.number("revision", event.record.revision).raw("kind", "\"resync\"").text("name", event.name);
  } else {
    add_author(event.record, &object);
    add_change(*event.change, &object);
  }
  if (event.has_value != Event::Value::kNone) add_value(event.value, &object);
  if (event.has_value == Event::Value::kNewer) object.flag("newer", true);
  return object.str();
}

void print_event(Context& context, const Event& event) {
  if (context.json()) return context.output().line(event_json(event));
  std::string line = std::to_string(event.record.revision) + "  ";
  if (event.change == nullptr) {
    line += "resync " + shown_name(event.name);
  } else {
    line += shown_time(event.record.time) + "  " + event.record.author + "  " + change_text(*event.change);
  }
  const std::string value = event.has_value == Event::Value::kNone ? "" : one_line(event.value, 0);
  if (!value.empty()) line += " = " + value;
  if (!event.record.note.empty()) line += "  (" + event.record.note + ")";
  context.print(utf8_for_people(line));
}

// A text as the value of a variable, which cannot contain a NUL.
std::string for_variable(std::string text) {
  std::erase(text, '\0');
  return text;
}

// The name of a key in UTF-8. U+0000 stays as the registry stores it.
std::string name_for_variable(const std::string& name) {
  std::string shown = shown_name(name);
  return shown.find('\0') == std::string::npos ? shown : name;
}

const char* value_kind(Event::Value value) {
  return value == Event::Value::kExact ? "exact" : value == Event::Value::kNewer ? "newer" : "none";
}

std::vector<std::string> variables_of(const Event& event) {
  const ChangeRecord& record = event.record;
  const bool is_change = event.change != nullptr;
  const bool is_move = is_change && event.change->kind == Change::Kind::kMoved;
  const bool has_value = event.has_value != Event::Value::kNone;
  return {"TKV_REVISION=" + std::to_string(record.revision),
          std::string("TKV_KIND=") + event.kind(),
          "TKV_KEY=" + name_for_variable(event.name),
          "TKV_FROM=" + (is_move ? name_for_variable(event.change->from) : ""),
          "TKV_TIME=" + (is_change ? exact_time(record.time) : ""),
          "TKV_AUTHOR=" + for_variable(record.author),
          "TKV_HOST=" + for_variable(record.host),
          "TKV_PROGRAM=" + for_variable(record.program),
          "TKV_PROCESS=" + (is_change ? std::to_string(record.process) : ""),
          "TKV_NOTE=" + for_variable(record.note),
          std::string("TKV_VALUE=") + value_kind(event.has_value),
          "TKV_TYPE=" + (has_value ? type_name(event.value.type) : "")};
}

class Watch {
 public:
  Watch(Context& context, std::string name, const std::optional<EventCommand>& command, const StopRequest& stop)
      : context_(context), name_(std::move(name)), command_(command), stop_(stop) {}

  Outcome run(Revision after, bool initial) {
    if (initial) {
      if (Outcome told = resync(after); !told.ok()) return told;
    }
    const registry::ChangeQuery query{.range = {.after = after, .only_complete = true}, .name = name_};
    return ChangeFeed(context_, query, stop_)
        .run({.change = [this](const ChangeRecord& record) { return tell_all(record); },
              .lost = [this](Revision revision) { return resync(revision); }});
  }

 private:
  // Goes on where it was if the registry could not be reached in the midst of a record.
  Outcome tell_all(const ChangeRecord& record) {
    if (std::exchange(current_, record.revision) != record.revision) told_ = 0;
    for (; told_ < record.changes.size() && !stop_.made(); ++told_) {
      const Change& change = record.changes[told_];
      if (Outcome told = tell({.record = record, .change = &change, .name = change.name}); !told.ok()) return told;
    }
    return {};
  }

  Outcome resync(Revision revision) {
    ChangeRecord record;
    record.revision = revision;
    return tell({.record = record, .name = name_});
  }

  Outcome tell(Event event) {
    if (Outcome read = read_value(context_.client(), &event); !read.ok()) return read;
    if (!command_) {
      print_event(context_, event);
      return {};
    }
    std::string failure;
    Outcome ran = command_->run(variables_of(event), event.value.bytes, &failure);
    if (ran.ok() && !failure.empty() && !stop_.made()) {
      context_.complain(
          {Exit::kOther, "revision " + std::to_string(event.record.revision) + ": the command " + failure});
    }
    return ran;
  }

  Context& context_;
  const std::string name_;
  const std::optional<EventCommand>& command_;
  const StopRequest& stop_;
  Revision current_ = 0;  // whose events are being told
  std::size_t told_ = 0;  // of these
};

Outcome parse_limit(const std::optional<std::string>& text, std::optional<std::chrono::seconds>* limit) {
  constexpr unsigned kLongest = 1'000'000;
  unsigned seconds = 0;
  if (!text) return {};
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), seconds);
  if (error != std::errc() || end != text->data() + text->size() || seconds == 0 || seconds > kLongest) {
    return {Exit::kUsage, "--exec-timeout " + *text + ": write a number of seconds, from 1 to 1000000"};
  }
  *limit = std::chrono::seconds(seconds);
  return {};
}

Outcome find_begin(Context& context, const std::optional<StateArgument>& since, Revision* after) {
  return since ? since->find_before(context.client(), after) : Outcome(context.client().revision(after));
}

Outcome run_watch(Context& context, const Arguments& arguments) {
  std::string name;
  std::optional<StateArgument> since;
  std::optional<std::chrono::seconds> limit;
  std::optional<EventCommand> command;
  Revision after = 0;
  if (Outcome named = key_name(*arguments.key, &name); !named.ok()) return named;
  if (arguments.command_timeout && !arguments.command) return {Exit::kUsage, "--exec-timeout needs --exec"};
  if (arguments.since && arguments.initial) return {Exit::kUsage, "--since and --initial exclude each other"};
  if (Outcome parsed = parse_limit(arguments.command_timeout, &limit); !parsed.ok()) return parsed;
  if (arguments.since) {
    if (Outcome parsed = StateArgument::parse(*arguments.since, &since.emplace()); !parsed.ok()) return parsed;
  }
  if (arguments.command) {
    if (Outcome allowed = demand_own_rights("--exec"); !allowed.ok()) return allowed;
  }
  const StopRequest stop(arguments.command ? StopRequest::OutputReader::kIgnored : StopRequest::OutputReader::kWatched);
  if (arguments.command) command.emplace(*arguments.command, limit, stop);
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Outcome found = find_begin(context, since, &after); !found.ok()) return found;
  Outcome ended = Watch(context, name, command, stop).run(after, arguments.initial);
  if (!command) context.output().notice_reader();
  return ended;
}

constexpr std::array kOperands{one("KEY", "The key; keys below it are watched too", true, &Arguments::key)};
constexpr std::array kOptions{
    valued("--exec", "COMMAND", "Run this shell command for each event", &Arguments::command),
    valued("--exec-timeout", "SECONDS", "End a COMMAND that runs longer", &Arguments::command_timeout),
    flag("--initial", "Begin with a resync event", &Arguments::initial),
    valued("--since", "REVISION|TIME", "Begin with the changes after this revision, or since this time",
           &Arguments::since)};

}  // namespace

constinit const Verb kWatchVerb{.name = "watch",
                                .summary = "Wait for changes of a key, and act on them",
                                .details = R"(Each change of KEY, or of a key below it, is an event, in the order of the
changes. Without --exec, it is printed as a line or, with --json, as an object.
The caller gets the events that tkv log shows. SIGINT, SIGTERM and SIGHUP end the
watch with exit code 0. A cluster that cannot be reached is waited for; no event
comes twice and none is left out. If changes were lost because the history no
longer has them, there is one event "resync": read everything anew. --initial
begins with it, --since with former changes.

COMMAND is run by sh, one event at a time. Its standard input is the value of a
key that was created or written, as tkv get --as raw prints it; of a resync, the
value of KEY. Its environment has

  TKV_REVISION  of the change
  TKV_KIND      created, value, security, moved, deleted, subtree, purged, or
                resync
  TKV_KEY       full name of the key; of a resync, KEY
  TKV_FROM      of a move: the full name before
  TKV_TIME, TKV_AUTHOR, TKV_HOST, TKV_PROGRAM, TKV_PROCESS, TKV_NOTE
                as tkv log --json shows them; empty for a resync
  TKV_VALUE     standard input is "exact": the value after this change; "newer":
                a later one, since this state is not retained; or "none"
  TKV_TYPE      of the value: text, list, int32, int64, bytes, none or a number

A COMMAND that fails is reported, and the watch goes on. While one runs, later
events wait in the history. --exec-timeout ends it with SIGTERM and, 5 seconds
later, SIGKILL; so does a signal to the watch.
)",
                                .examples = R"(  tkv watch app.nodes
  tkv watch --initial app.limit --exec 'cat > /run/app/limit'
  tkv watch app --exec 'logger "$TKV_AUTHOR: $TKV_KIND $TKV_KEY"'
)",
                                .operands = kOperands,
                                .options = kOptions,
                                .run = run_watch};

}  // namespace tkv::command
