// ChangeFeed: passes changes on as they are made, in their order, none twice and none lost in silence.
//
// A registry that cannot be reached for a while, such as an etcd cluster that is being restarted, is reported once and
// waited for.
#ifndef TKV_TOOLS_TKV_CHANGE_FEED_H
#define TKV_TOOLS_TKV_CHANGE_FEED_H

#include <functional>

#include "base/change.h"
#include "context.h"
#include "outcome.h"
#include "registry/client.h"
#include "stop_request.h"

namespace tkv::command {

// May use the client. A failure ends the feed, except Exit::kUnreachable: the same is then passed on again later.
struct ChangeReceiver {
  // Called for each change.
  std::function<Outcome(const ChangeRecord& record)> change;

  // Called when changes that should have come next are no longer retained: after the changes before them and before all
  // later ones. `revision` is that of the latest state.
  std::function<Outcome(Revision revision)> lost;
};

class ChangeFeed {
 public:
  // Begins after `query.range.after`. With `query.range.only_complete`, what is left of a range of which changes were
  // lost is not passed on either: the feed continues after the revision that `lost` receives.
  ChangeFeed(Context& context, registry::ChangeQuery query, const StopRequest& stop)
      : context_(context), query_(std::move(query)), stop_(stop) {}

  // Runs until a stop is requested, which is no failure.
  Outcome run(const ChangeReceiver& receiver);

 private:
  Outcome pass_on(const ChangeReceiver& receiver);
  Outcome wait_for_change();
  bool can_try_again(const Outcome& outcome);

  Context& context_;
  registry::ChangeQuery query_;
  const StopRequest& stop_;
  bool reported_ = false;  // that the registry cannot be reached
};

}  // namespace tkv::command

#endif
