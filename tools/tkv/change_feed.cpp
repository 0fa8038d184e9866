#include "change_feed.h"

#include <chrono>
#include <utility>
#include <vector>

namespace tkv::command {
namespace {

constexpr std::size_t kAtOnce = 256;                     // changes that are read before they are passed on
constexpr prtkv_result kEnough = PRTKV_NO_MORE_SUBKEYS;  // ends a visit
constexpr std::chrono::milliseconds kLongestWait = std::chrono::minutes(10);
constexpr std::chrono::milliseconds kBeforeNextTry{500};

}  // namespace

Outcome ChangeFeed::run(const ChangeReceiver& receiver) {
  while (!stop_.made()) {
    Outcome outcome = pass_on(receiver);
    context_.output().flush();
    if (outcome.ok() && !stop_.made()) outcome = wait_for_change();
    if (!outcome.ok() && !can_try_again(outcome)) return outcome;
  }
  return {};
}

// Reads the changes that there are and passes them on. After a failure, goes on behind the last one that was read.
Outcome ChangeFeed::pass_on(const ChangeReceiver& receiver) {
  bool is_more = true;
  while (is_more && !stop_.made()) {
    std::vector<ChangeRecord> records;
    LogPosition position;
    const Status status = context_.client().changes_since(
        query_,
        [&](const ChangeRecord& record) -> Status {
          records.push_back(record);
          return records.size() < kAtOnce ? PRTKV_DONE : kEnough;
        },
        &position);
    is_more = status.is(kEnough);
    if (!status.ok() && !is_more) return status;
    if (std::exchange(reported_, false)) note(context_.terminal(), "tkv: the registry can be reached again");
    if (!position.complete) {
      if (Outcome told = receiver.lost(position.revision); !told.ok()) return told;
    }
    for (const ChangeRecord& record : records) {
      if (stop_.made()) return {};
      if (Outcome passed = receiver.change(record); !passed.ok()) return passed;
      query_.range.after = record.revision;
    }
    if (!is_more) query_.range.after = position.revision;
  }
  return {};
}

Outcome ChangeFeed::wait_for_change() {
  Revision latest = 0;
  return context_.client().wait(query_.range.after, kLongestWait, stop_.token(), &latest);
}

bool ChangeFeed::can_try_again(const Outcome& outcome) {
  if (outcome.exit() != Exit::kUnreachable) return false;
  if (!std::exchange(reported_, true)) {
    note(context_.terminal(), "tkv: " + outcome.text() + "; trying again until it can be reached");
  }
  stop_.wait_for(kBeforeNextTry);
  return true;
}

}  // namespace tkv::command
