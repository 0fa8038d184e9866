// RecordWriter: the records of one write transaction, by their keys. LMDB makes the changes and, from the first one on,
// answers the reads; WriteCheck looks at each page before LMDB does. Until then, records are read as in a read
// transaction, which need not look at whole pages.
//
// Used by one thread.
#ifndef TKV_PLATFORM_STORE_LMDB_RECORD_WRITER_H
#define TKV_PLATFORM_STORE_LMDB_RECORD_WRITER_H

#include <lmdb.h>

#include <cstddef>
#include <span>

#include "base/status.h"
#include "store/lmdb/environment.h"
#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/lmdb/tree_cursor.h"
#include "store/lmdb/write_check.h"

namespace tkv::store {

inline std::span<const std::byte> bytes_of(const MDB_val& val) {
  return {static_cast<const std::byte*>(val.mv_data), val.mv_size};
}

class RecordWriter {
 public:
  RecordWriter(Environment& environment, const WriteTransaction& transaction)
      : environment_(environment),
        txn_(transaction.txn()),
        shows_former_(!transaction.is_inner()),
        check_(transaction.former()) {}
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  // Checks what every transaction depends on. Call first.
  Status begin() { return check_.check_free_list(); }

  // Looks up a record; `*found` tells whether there is one. It is valid until the next change.
  Status get(const Key& key, bool* found, std::span<const std::byte>* record);
  Status put(const Key& key, std::span<const std::byte> record, unsigned flags);
  // Returns PRTKV_NO_SUCH_KEY if there is no such record.
  Status remove(const Key& key);

  // Opens a cursor, to be closed by the caller.
  Status open_cursor(MDB_cursor** cursor);
  // Puts the cursor on the first entry whose key is not less than `key`.
  Status seek(MDB_cursor* cursor, const Key& key, MDB_val* found, MDB_val* data, bool* at_end);
  // Puts the cursor on the first entry behind `visited`, which may be gone by now.
  Status seek_behind(MDB_cursor* cursor, const Key& visited, MDB_val* found, MDB_val* data, bool* at_end);

  // The outcome of the LMDB call that made this transaction unusable; code 0 if none did.
  LmdbOutcome broken_by() const { return broken_by_; }

 private:
  Status succeeded(LmdbOutcome outcome, const char* doing);

  Environment& environment_;
  MDB_txn* const txn_;
  bool shows_former_;  // nothing was changed yet, by this transaction or one that it is within
  WriteCheck check_;
  LmdbOutcome broken_by_{0, 0};
};

}  // namespace tkv::store

#endif
