#include "store/lmdb/record_writer.h"

namespace tkv::store {

Status RecordWriter::succeeded(LmdbOutcome outcome, const char* doing) {
  const bool survived = outcome.code == 0 || outcome.code == MDB_KEYEXIST || outcome.code == MDB_NOTFOUND;
  if (!survived && broken_by_.code == 0) broken_by_ = outcome;  // every later call fails because of it
  return outcome.code == 0 ? Status() : environment_.failure(outcome, doing);
}

Status RecordWriter::get(const Key& key, bool* found, std::span<const std::byte>* record) {
  if (shows_former_) return check_.find_former(key, found, record);
  if (Status status = check_.before_access(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  MDB_val data{};
  const int code = mdb_get(txn_, kDatabase, &key_val, &data);
  *found = code == 0;
  if (*found) *record = bytes_of(data);
  return code == MDB_NOTFOUND ? Status() : succeeded({code, code}, "cannot read the registry");
}

Status RecordWriter::put(const Key& key, std::span<const std::byte> record, unsigned flags) {
  shows_former_ = false;
  if (Status status = check_.before_access(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  MDB_val data{record.size(), const_cast<std::byte*>(record.data())};
  const auto write = [&] { return mdb_put(txn_, kDatabase, &key_val, &data, flags); };
  return succeeded(lmdb_outcome(write), "cannot write to the registry");
}

Status RecordWriter::remove(const Key& key) {
  shows_former_ = false;
  if (Status status = check_.before_removal(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  const auto erase = [&] { return mdb_del(txn_, kDatabase, &key_val, nullptr); };
  return succeeded(lmdb_outcome(erase), "cannot remove from the registry");
}

Status RecordWriter::open_cursor(MDB_cursor** cursor) {
  const int code = mdb_cursor_open(txn_, kDatabase, cursor);
  return code == 0 ? Status() : succeeded({code, code}, "cannot read the registry");
}

Status RecordWriter::seek(MDB_cursor* cursor, const Key& key, MDB_val* found, MDB_val* data, bool* at_end) {
  if (Status status = check_.before_step(key); !status.ok()) return status;
  *found = key.val();
  const int code = mdb_cursor_get(cursor, found, data, MDB_SET_RANGE);
  *at_end = code == MDB_NOTFOUND;
  return *at_end ? Status() : succeeded({code, code}, "cannot read the registry");
}

Status RecordWriter::seek_behind(MDB_cursor* cursor, const Key& visited, MDB_val* found, MDB_val* data, bool* at_end) {
  if (Status status = seek(cursor, visited, found, data, at_end); !status.ok() || *at_end) return status;
  if (compare_keys(bytes_of(*found), visited.bytes()) != 0) return {};
  const int code = mdb_cursor_get(cursor, found, data, MDB_NEXT);
  *at_end = code == MDB_NOTFOUND;
  return *at_end ? Status() : succeeded({code, code}, "cannot read the registry");
}

}  // namespace tkv::store
