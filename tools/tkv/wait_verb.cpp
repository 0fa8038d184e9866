#include <charconv>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "context.h"
#include "description.h"
#include "json.h"
#include "registry/name.h"
#include "values.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLongestWait = std::chrono::hours(24);
constexpr milliseconds kPauseAfterFailure{1000};

struct Unit {
  std::string_view name;
  double milliseconds;
};
constexpr Unit kUnits[] = {{"", 1e3}, {"ms", 1}, {"s", 1e3}, {"m", 60e3}, {"h", 3600e3}, {"d", 86400e3}};
constexpr double kMostMilliseconds = 1e12;

bool parse_timeout(std::string_view text, milliseconds* timeout) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  for (const Unit& each : kUnits) {
    if (unit != each.name) continue;
    const double found = number * each.milliseconds;
    const bool fits = error == std::errc() && found >= 0 && found <= kMostMilliseconds;
    if (fits) *timeout = milliseconds(static_cast<std::int64_t>(found));
    return fits;
  }
  return false;
}

// What is waited for, and how long.
struct Wish {
  std::string name;
  const std::optional<std::string>& value;
  std::optional<Clock::time_point> deadline;

  milliseconds left() const {
    if (!deadline) return kLongestWait;
    return std::min(kLongestWait, std::chrono::ceil<milliseconds>(*deadline - Clock::now()));
  }
};

Status look(registry::Client& client, const Wish& wish, bool* fulfilled) {
  registry::KeyId id = registry::kAnyKey;
  registry::TypedValue value;
  const Status status = wish.value ? client.read_value(wish.name, &value) : client.find(wish.name, &id);
  *fulfilled = status.ok() && (!wish.value || reads_as(value, *wish.value));
  return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

// Looks again after each change of the registry, until there is nothing more to wait for. `*seen` is the revision of a
// state before the next look.
Status wait_for(registry::Client& client, const Wish& wish, Revision* seen, bool* fulfilled) {
  for (;;) {
    if (Status looked = look(client, wish, fulfilled); !looked.ok() || *fulfilled) return looked;
    const milliseconds left = wish.left();
    if (left.count() <= 0) return {};
    if (Status waited = client.wait(*seen, left, {}, seen); !waited.ok()) return waited;
  }
}

// A cluster that answered once may answer again.
Status wait_through_failures(Context& context, const Wish& wish, bool* fulfilled) {
  registry::Client& client = context.client();
  Revision seen = 0;
  bool told = false;
  if (Status status = client.revision(&seen); !status.ok()) return status;
  for (;;) {
    Status status = wait_for(client, wish, &seen, fulfilled);
    if (!status.is(PRTKV_UNREACHABLE) || wish.left().count() <= 0) return status;
    if (!told) note(context.terminal(), "tkv: still waiting: " + status.text());
    told = true;
    std::this_thread::sleep_for(std::min(wish.left(), kPauseAfterFailure));
  }
}

Outcome run_wait(Context& context, const Arguments& arguments) {
  Wish wish{{}, arguments.value, {}};
  milliseconds timeout{};
  bool fulfilled = false;
  if (Outcome named = key_name(*arguments.key, &wish.name); !named.ok()) return named;
  if (arguments.timeout) {
    if (!parse_timeout(*arguments.timeout, &timeout)) {
      return {Exit::kUsage, "--timeout " + *arguments.timeout + ": write seconds, or 500ms, 30s, 5m, 2h or 1d"};
    }
    wish.deadline = Clock::now() + timeout;
  }
  if (Outcome opened = context.open_to_read(); !opened.ok()) return opened;
  if (Status waited = wait_through_failures(context, wish, &fulfilled); !waited.ok()) return waited;
  if (!fulfilled) {
    return {Exit::kUnreachable, registry::describe(wish.name) +
                                    (wish.value ? " did not get the value" : " did not come into being") +
                                    " within the timeout of " + *arguments.timeout};
  }
  if (context.json()) context.output().line(done("wait", wish.name).str());
  return {};
}

constexpr std::array kOperands{one("KEY", "Full name", true, &Arguments::key)};
constexpr std::array kOptions{
    valued("--value", "TEXT", "Wait until the key has this value", &Arguments::value),
    valued("--timeout", "TIME", "Give up after this time: seconds, or 500ms, 30s, 5m, 2h, 1d", &Arguments::timeout)};

}  // namespace

constinit const Verb kWaitVerb{
    .name = "wait",
    .summary = "Wait until a key exists or has a value",
    .details = R"(Ends at once if the key exists already, and otherwise as soon as anybody creates
it; with --value, when its value is TEXT: the text, the number, or the lines of a
list, as get prints them. Needs no right or, with --value, the right r (read).

Without --timeout it waits for as long as it takes, also while an etcd cluster
does not answer. When the time is over, the exit code is 7.
)",
    .examples = R"(  tkv wait app.ready
  tkv wait app.state --value running --timeout 5m
)",
    .operands = kOperands,
    .options = kOptions,
    .run = run_wait};

}  // namespace tkv::command
