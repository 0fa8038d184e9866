#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "change_details.h"
#include "change_feed.h"
#include "change_text.h"
#include "characters.h"
#include "context.h"
#include "json.h"
#include "state_argument.h"
#include "stop_request.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

constexpr std::size_t kAtOnce = 256;                     // changes that are read before they are shown
constexpr prtkv_result kEnough = PRTKV_NO_MORE_SUBKEYS;  // ends a visit
constexpr const char* kPastIsLost = "older changes are no longer retained";

// What to show of the log.
struct LogRequest {
  registry::ChangeQuery query;
  std::optional<std::uint64_t> count;  // of changes, the newest ones
  std::optional<std::string> author;
  std::optional<StateArgument> since;
  bool patch = false;

  bool wants(const ChangeRecord& record) const { return !author || *author == record.author; }
};

Outcome parse_request(const Arguments& arguments, LogRequest* request) {
  if (Outcome named = key_name(arguments.key.value_or("."), &request->query.name); !named.ok()) return named;
  request->author = arguments.author;
  request->patch = arguments.patch;
  if (arguments.number) {
    const std::string& text = *arguments.number;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), request->count.emplace());
    if (error != std::errc() || end != text.data() + text.size()) {
      return {Exit::kUsage, "-n " + text + ": write a number of changes"};
    }
  }
  if (!arguments.since) return {};
  return StateArgument::parse(*arguments.since, &request->since.emplace());
}

class LogPrinter {
 public:
  LogPrinter(Context& context, bool patch) : context_(context), patch_(patch) {}

  // Prints a change as one line or, with --patch, as a paragraph.
  Outcome print(const ChangeRecord& record) {
    std::string json;
    if (context_.json()) {
      if (Outcome made = to_json(record, &json); !made.ok()) return made;
      context_.output().line(json);
      return {};
    }
    if (patch_) return print_paragraph(record);
    const Terminal& terminal = context_.terminal();
    const auto shown = [&](Ink ink, const std::string& text) {
      return painted(terminal, ink, for_output(terminal, utf8_for_people(text)));
    };
    std::string line = shown(Ink::kValue, std::to_string(record.revision)) + "  " +
                       shown(Ink::kFaint, shown_time(record.time) + "  " + record.author) + "  " +
                       for_output(terminal, changes_text(record));
    if (!record.note.empty()) line += "  " + shown(Ink::kFaint, "(" + record.note + ")");
    context_.output().line(line);
    return {};
  }

  Outcome to_json(const ChangeRecord& record, std::string* json) {
    std::vector<std::string> changes;
    JsonObject object;
    add_author(record, &object);
    if (patch_) {
      bool retained = false;
      std::vector<ChangeDetails> details;
      if (Outcome read = read_details(context_.client(), record, &details, &retained); !read.ok()) return read;
      changes = details_json(details);
      object.flag("retained", retained);
    }
    for (const Change& change : record.changes) {
      if (patch_) break;
      JsonObject single;
      add_change(change, &single);
      changes.push_back(single.str());
    }
    *json = object.raw("changes", json_array(changes)).str();
    return {};
  }

 private:
  Outcome print_paragraph(const ChangeRecord& record) {
    std::vector<ChangeDetails> details;
    bool retained = false;
    if (Outcome read = read_details(context_.client(), record, &details, &retained); !read.ok()) return read;
    if (!first_) context_.output().line("");
    first_ = false;
    const Terminal& terminal = context_.terminal();
    context_.output().line(painted(terminal, Ink::kValue, "revision " + std::to_string(record.revision)));
    context_.print("author   " + utf8_for_people(author_text(record)));
    context_.print("time     " + shown_time(record.time));
    if (!record.note.empty()) context_.print("note     " + utf8_for_people(record.note));
    if (!retained) context_.print("(the state before this change is no longer retained)");
    print_details(context_, details);
    return {};
  }

  Context& context_;
  const bool patch_;
  bool first_ = true;
};

// Passes on the newest changes first, as many as were asked for, in the registry's order read backwards. `*complete` is
// false if there were more that are no longer retained.
Outcome visit_newest(Context& context, const LogRequest& request,
                     const std::function<Outcome(const ChangeRecord& record)>& take, bool* complete) {
  registry::ChangeQuery query = request.query;
  std::uint64_t left = request.count.value_or(std::numeric_limits<std::uint64_t>::max());
  query.range.newest_first = true;
  *complete = true;
  while (left > 0 && !context.output().closed_early()) {
    std::vector<ChangeRecord> records;
    std::uint64_t visited = 0;
    Revision last = 0;
    LogPosition position;
    const Status status = context.client().changes_since(
        query,
        [&](const ChangeRecord& record) -> Status {
          last = record.revision;
          if (request.wants(record)) records.push_back(record);
          return ++visited < kAtOnce && records.size() < left ? PRTKV_DONE : kEnough;
        },
        &position);
    if (!status.ok() && !status.is(kEnough)) return status;
    for (const ChangeRecord& record : records) {
      if (Outcome taken = take(record); !taken.ok()) return taken;
    }
    left -= records.size();
    if (status.ok()) {
      *complete = position.complete;
      return {};
    }
    query.range.up_to = last - 1;
  }
  return {};
}

Outcome show_as_json(Context& context, const LogRequest& request) {
  LogPrinter printer(context, request.patch);
  std::vector<std::string> objects;
  bool complete = true;
  Outcome visited = visit_newest(
      context, request, [&](const ChangeRecord& record) { return printer.to_json(record, &objects.emplace_back()); },
      &complete);
  if (visited.ok()) {
    context.output().line(JsonObject().flag("complete", complete).raw("changes", json_lines(objects)).str());
  }
  return visited;
}

Outcome show(Context& context, const LogRequest& request) {
  LogPrinter printer(context, request.patch);
  bool complete = true;
  if (context.json()) return show_as_json(context, request);
  Outcome visited = visit_newest(
      context, request, [&](const ChangeRecord& record) { return printer.print(record); }, &complete);
  if (visited.ok() && !complete) note(context.terminal(), std::string("tkv: note: ") + kPastIsLost);
  return visited;
}

// Shows the newest changes that were asked for, the oldest of them first, and then those that come.
Outcome follow(Context& context, LogRequest request, const StopRequest& stop) {
  LogPrinter printer(context, request.patch);
  std::vector<ChangeRecord> newest;
  bool complete = true;
  if (request.count || !request.since) {
    if (Status asked = context.client().revision(&request.query.range.up_to); !asked.ok()) return asked;
    const Revision latest = request.query.range.up_to;
    if (request.count) {
      Outcome visited = visit_newest(
          context, request,
          [&](const ChangeRecord& record) {
            newest.push_back(record);
            return Outcome();
          },
          &complete);
      if (!visited.ok()) return visited;
    }
    request.query.range = {.after = latest};
  }
  for (auto record = newest.rbegin(); record != newest.rend(); ++record) {
    if (Outcome printed = printer.print(*record); !printed.ok()) return printed;
  }
  const auto lost = [&](Revision) {
    note(context.terminal(), std::string("tkv: note: ") + kPastIsLost + "; some are missing here");
    return Outcome();
  };
  const auto change = [&](const ChangeRecord& record) {
    return request.wants(record) ? printer.print(record) : Outcome();
  };
  Outcome ended = ChangeFeed(context, request.query, stop).run({change, lost});
  context.output().notice_reader();
  return ended;
}

Outcome run_log(Context& context, const Arguments& arguments) {
  LogRequest request;
  std::optional<StopRequest> stop;
  if (Outcome parsed = parse_request(arguments, &request); !parsed.ok()) return parsed;
  if (arguments.follow) stop.emplace(StopRequest::OutputReader::kWatched);
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (request.since) {
    Outcome found = request.since->find_before(context.client(), &request.query.range.after);
    if (!found.ok()) return found;
  }
  return stop ? follow(context, request, *stop) : show(context, request);
}

constexpr std::array kOperands{one("KEY", "Only changes of this key and of keys below it", false, &Arguments::key)};
constexpr std::array kOptions{
    valued("-n,--number", "N", "Show the newest N changes", &Arguments::number),
    valued("--since", "REVISION|TIME", "Only changes after this revision, or since this time", &Arguments::since),
    valued("--author", "USER", "Only changes by this user", &Arguments::author, Candidates::kUsers),
    flag("-p,--patch", "Show the values before and after", &Arguments::patch),
    flag("-f,--follow", "Go on with changes as they are made", &Arguments::follow)};

}  // namespace

constinit const Verb kLogVerb{
    .name = "log",
    .summary = "Show the changes of the registry: when, by whom, what",
    .details = R"(Prints one change per line, newest first: revision, time (UTC), user, what was
done to which keys, and the note in parentheses. A change of more than 1,000
keys is shown as "subtree" and the key at or below which they are. --patch shows
host, program and process, too, and the values and rights that were removed (-)
and added (+), written as tree writes them.

Of a key that was created, moved or deleted, the caller must be allowed to list
the key above; values need the right to read the key. Each right is needed as of
the change and today. Everything else is left out. If changes that were asked for
are no longer retained, the log says so at its end; with --json, "complete" is
false.

--follow prints changes from now on, oldest first; -n and --since begin with
former ones. With --json, each change is one line. SIGINT and SIGTERM end it with
exit code 0. A cluster that cannot be reached is waited for.

A time is written as for --at: 2026-02-28T12:30:05Z, or '2 hours ago'.
)",
    .examples = R"(  tkv log -n 10
  tkv log --patch --since '2 hours ago' app.limits
  tkv log --json --author ada
  tkv log --follow app
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_log};

}  // namespace tkv::command
