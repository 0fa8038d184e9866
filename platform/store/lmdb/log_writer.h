// LogWriter: adds a change to the log in one write transaction, and removes what is no longer to be retained.
//
// Used by one thread, for one change.
#ifndef TKV_PLATFORM_STORE_LMDB_LOG_WRITER_H
#define TKV_PLATFORM_STORE_LMDB_LOG_WRITER_H

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "store/change_content.h"
#include "store/lmdb/file.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/log.h"
#include "store/lmdb/record_writer.h"
#include "store/record.h"
#include "store/store.h"

namespace tkv::store {

class LogWriter {
 public:
  // `former` is the state before the transaction.
  LogWriter(RecordWriter& records, const FileState& former, const Retention& retention)
      : records_(records), former_(former), retention_(retention) {}
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Keeps the record under a key, or that there is none, as the former one. Call before it is replaced or removed.
  Status keep_former(const Key& key);

  // Logs the change, with a revision of its own, and drops some of the oldest ones. The last call.
  Status log(const ChangeDescription& description, Meta* meta);

  // Rewrites the changes that hold a former value of one of the nodes. See Store::purge.
  Status purge(std::span<const NodeId> nodes, const ChangeDescription& description, Meta* meta, std::uint64_t* removed);

 private:
  Status put_content(Revision revision, std::span<const std::byte> content, std::uint32_t* parts);
  Status trim(std::uint32_t parts);
  Status trim_next(std::uint32_t* parts);
  Status check_retained(Revision revision, bool* retained);
  Status purge_change(Revision revision, const std::set<std::string, std::less<>>& keys, std::uint64_t* removed);
  Status remove_content(Revision revision, std::uint32_t* parts);

  RecordWriter& records_;
  const FileState& former_;
  const Retention& retention_;
  Meta* meta_ = nullptr;   // during log() and purge()
  std::int64_t time_ = 0;  // of the change
  FormerRecords formers_;
  std::unordered_set<std::string> kept_;  // keys of formers_
  bool hides_past_ = false;               // formers_ became too large
  std::vector<std::byte> record_;
};

}  // namespace tkv::store

#endif
