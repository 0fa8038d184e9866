// The repair of the records of large changes that are under way (see claims.h, redo_log.h and build.h). Afterwards, any
// session can finish these changes or remove what is left of them.
//
//   - A claim that cannot be read is removed if its change was not decided: either the key of its build still exists,
//     which the deciding transaction would have removed, or there are no batches.
//   - The decision of one that was decided is put anew, so that its batches are carried out from the first one on.
//     Nobody has been able to write in the subtree meanwhile, so those that had been carried out change nothing.
//   - A batch that is damaged or missing is replaced by an empty one, and the rest of the change is made. Nobody can
//     tell what the batch would have changed: the change is half made, and is reported.
//   - A build whose record is damaged is removed. Its session, if it goes on, begins the change anew. What was staged
//     belongs to nobody, and is found by the check.
//
// Each repair compares the revisions of what it rests on.
#ifndef TKV_PLATFORM_STORE_ETCD_CHANGE_REPAIR_H
#define TKV_PLATFORM_STORE_ETCD_CHANGE_REPAIR_H

#include <string>
#include <vector>

#include "store/etcd/core.h"
#include "store/store.h"

namespace tkv::store::etcd {

// A change of which a part is lost.
struct HalfMadeChange {
  NodeId top = kNoNode;  // of the subtree that it is about
  Revision ticket = 0;   // in the records that it has put
  std::string detail;    // what is lost and what to do, for people
};

// `description` is what the log is to tell of a repair that gives up a part of a change. `half_made` receives these
// changes, also if the repair fails later on; those that an interrupted repair has left are among them. Returns
// PRTKV_BUSY if the records were changed again and again meanwhile.
Status repair_changes(Core& core, const ChangeDescription& description, std::vector<HalfMadeChange>* half_made);

}  // namespace tkv::store::etcd

#endif
