// Environment: this process's only LMDB environment on a directory, and its transactions.
//
// LMDB's file locks belong to the process: closing a second descriptor of the lock file would release them. All stores
// that a process opens on one directory therefore share one environment, which is closed with the last of them.
//
// An environment cannot be used in a forked child: every operation returns PRTKV_UNUSABLE, and closing it does nothing.
#ifndef TKV_PLATFORM_STORE_LMDB_ENVIRONMENT_H
#define TKV_PLATFORM_STORE_LMDB_ENVIRONMENT_H

#include <lmdb.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "store/lmdb/error.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/lmdb_store.h"
#include "store/lmdb/meta_page_map.h"
#include "store/lmdb/reader_pool.h"
#include "store/lmdb/registry_files.h"
#include "store/lmdb/write_queue.h"
#include "store/lmdb/writer_lock.h"

namespace tkv::store {

struct EnvironmentTable;

class Environment {
 public:
  // Opens the environment of options.directory, creating the registry if the options ask for it, or shares the one that
  // this process already has open. The last `Held` that is destroyed closes it. The map_size of the first opening
  // applies to all.
  struct Release {
    void operator()(Environment* environment) const { release(environment); }
  };
  using Held = std::unique_ptr<Environment, Release>;
  static Status acquire(const LmdbOptions& options, Held* environment);

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // Returns PRTKV_UNUSABLE in a process that was forked from the one that opened the environment, and after the
  // registry's files were found replaced or truncated.
  Status check_usable() const;

  // Translates the result of an LMDB call like lmdb_status, adding the directory to the message.
  Status failure(LmdbOutcome outcome, const char* doing) const;
  Status failure(int code, const char* doing) const;

  const std::string& directory() const { return directory_; }

  // See Store::is_own.
  bool is_own() const { return files_->are_own(); }

  // Fills in the sizes and the readers. For use within a transaction, whose state this is.
  Status status(const FileState& state, StoreStatus* status) const;

  // The data file, for use within a transaction.
  int file() const;

  // Through which a thread comes to write. Only the leader begins a transaction that is not within another.
  WriteQueue& writers() { return writers_; }

  // See Store::latest_state. 0 in a forked child, where the meta pages cannot be mapped, and after the registry's files
  // were found replaced or truncated. A truncated file is noticed when the coarse clock next ticks.
  std::uint64_t latest_state(const ValuePlace* copied_next);

  // See Store::state_memory. Shows zero from when the environment is closed.
  std::shared_ptr<const StateMemory> state_memory();

  // Copies bytes of the data file that belong to the state of this number. Returns true if that state was the latest
  // throughout: LMDB overwrites no page of a state before the second commit after it; or if a transaction that began
  // meanwhile has shown that state, as while the next one is being made durable. `copy` is unspecified otherwise.
  bool copy_from_latest(std::uint64_t state, std::uint64_t offset, std::span<std::byte> copy);

  // As copy_from_latest, of the record at `place`, if that is known to hold in the latest state, which `*state` then
  // receives.
  bool copy_unchanged(std::uint64_t* state, ValuePlace* place, std::span<std::byte> copy);

  // See Store::unchanged_until.
  std::uint64_t unchanged_until(std::uint64_t state, NodeId id, ValuePlace* place);

  // A descriptor of the data file to watch it by. It belongs to the environment.
  int data_file() const { return files_->data_file(); }

  // Returns PRTKV_UNUSABLE if the registry's files were replaced or removed, now and from then on.
  Status check_files();

 private:
  friend class ReadTransaction;
  friend class WriteTransaction;
  friend struct EnvironmentTable;

  Environment(const LmdbOptions& options, std::unique_ptr<const RegistryFiles> files);
  ~Environment();
  static Status open_anew(const LmdbOptions& options, std::unique_ptr<const RegistryFiles> files,
                          EnvironmentTable& table, Held* environment);
  static void release(Environment* environment);

  Status open(bool read_only);
  void close_files();
  Status open_files();
  Status check_contents();
  Status read_contents();
  bool is_outgrown() const;
  Status check_version() const;
  Status extend_short_file();
  Status check_size(RegistryFiles::Askers askers = RegistryFiles::Askers::kAny);
  bool has_kept_its_size();
  Status files_replaced() const;

  bool begin_glance(ReaderSlot& slot);

  int renew(ReaderSlot& slot);
  void end_read(ReaderSlot& slot);
  Status recover_read(int code, bool nested, unsigned attempt, std::uint64_t remaps);
  Status follow_growth(std::uint64_t remaps);
  Status free_reader_slots(bool nested);

  // The caller holds write_mutex_ and has no transaction open.
  Status grow();
  Status remap(std::size_t size);
  Status reopen();

  Status map_size_to_open(std::size_t* size) const;

  const std::string directory_;
  const std::uint64_t fixed_map_size_;
  const std::uint64_t first_map_size_;
  const std::unique_ptr<const RegistryFiles> files_;
  const unsigned fork_generation_;
  bool read_only_ = false;
  std::size_t users_ = 0;  // guarded by the table of environments
  std::atomic<bool> files_replaced_{false};
  std::atomic<std::uint64_t> seen_size_{0};    // of the data file, in bytes; it never shrinks
  std::atomic<std::int64_t> size_checked_{0};  // by has_kept_its_size(), the coarse clock's time
  MetaPageMap meta_pages_;
  std::atomic<std::uintptr_t> latest_map_{0};  // the latest address of map_; there may be no memory by now

  // Reading it requires a reader slot or write_mutex_. Changing it requires write_mutex_ and a closed reader pool.
  MDB_env* env_ = nullptr;
  FileMap map_;                           // of env_; without an address while it has to be opened anew
  FirstState first_state_;                // in this map
  std::atomic<std::uint64_t> remaps_{0};  // number of times the map was replaced
  ReaderPool readers_;
  WriteQueue writers_;
  WriterLock writer_lock_;  // taken before write_mutex_, so that nobody waits long for the mutex
  std::mutex write_mutex_;  // held by the thread of this process that writes or replaces the map
};

// View::structure() of the state that the slot's transaction sees. Read once for each state.
std::uint64_t structure_of(ReaderSlot& slot);

// Brings what the slot knows of pages to the state that its transaction shows.
void follow(ReaderSlot& slot);

// Records on the stack which transactions this thread has open, so that a function that calls back into the store that
// runs it is refused or let through instead of deadlocking.
class Running {
 public:
  enum class Kind { kReading, kWriting };
  Running(const Environment* environment, Kind kind);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  static bool reads(const Environment* environment) { return find(environment, Kind::kReading) != nullptr; }
  static bool writes(const Environment* environment) { return find(environment, Kind::kWriting) != nullptr; }

  // The slot of the innermost read transaction that has one, or null if there is none.
  static ReaderSlot* slot_of_reader(const Environment* environment);
  void has_slot(ReaderSlot& slot) { slot_ = &slot; }

  // Whether a read transaction was begun within this one, which is a write transaction.
  bool was_read_within() const { return was_read_within_; }

 private:
  static Running* find(const Environment* environment, Kind kind);

  const Environment* const environment_;
  const Kind kind_;
  Running* const outer_;
  ReaderSlot* slot_ = nullptr;
  bool was_read_within_ = false;
};

// A read transaction: one state of the registry, from begin() until destruction. Within another one of the same thread,
// it sees the state of that one if another process has made the registry grow since: the map cannot be replaced while
// it is being read.
class ReadTransaction {
 public:
  enum class Length { kShort, kLong };
  ReadTransaction(Environment& environment, Length length);
  ~ReadTransaction();
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

  Status begin();
  const FileState& state() const { return slot_->state; }
  ReaderSlot& slot() const { return *slot_; }

 private:
  enum class Loading { kDone, kBeginAgain };
  void announce(bool begins);
  Status load_state(ReaderSlot& slot, MetaPage* copy, std::uint64_t* copied, Loading* loading);

  Environment& environment_;
  ReaderSlot* const outer_slot_;  // of the transaction that this one is within, or null
  const bool wants_long_;
  Running running_;
  bool long_ = false;  // announced to the pool as a long reader
  ReaderSlot* slot_ = nullptr;
};

// A write transaction: exclusive on this node from begin() until destruction. For the leader of the writers or, within
// the leader's transaction, for a guest.
class WriteTransaction {
 public:
  WriteTransaction(Environment& environment, WriterDeadline* deadline);
  // Within another transaction, which does nothing until this one has ended. What it commits takes effect with that.
  explicit WriteTransaction(WriteTransaction& outer);
  ~WriteTransaction();
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;

  // Waits for writers in other processes until the deadline. Returns PRTKV_BUSY if that was not long enough.
  Status begin();

  // Fails with PRTKV_UNUSABLE, and without committing, if the registry's files were replaced. `outcome` receives the
  // result of LMDB's call.
  Status commit(LmdbOutcome* outcome);
  void abort();

  // Enlarges the map after MDB_MAP_FULL, or returns why that is impossible. On success, call begin() again. Not within
  // another transaction.
  Status make_room();

  MDB_txn* txn() const { return txn_; }
  bool is_inner() const { return outer_ != nullptr; }

  // Within another transaction: this thread has read the state before that one, which is not the state before this one.
  // What it has decided upon that must not be committed.
  bool has_seen_former_state() const { return is_inner() && running_.was_read_within(); }

  // The state before the transaction or, within another one, before that.
  const FileState& former() const { return former_; }

 private:
  Status lock();
  Status load_former();
  Status begin_within(const WriteTransaction& outer);

  Environment& environment_;
  WriteTransaction* const outer_ = nullptr;
  WriterDeadline* const deadline_ = nullptr;
  bool has_lock_ = false;  // the environment's writer_lock_
  std::unique_lock<std::mutex> mutex_lock_;
  Running running_;
  MDB_txn* txn_ = nullptr;
  FileState former_;
};

}  // namespace tkv::store

#endif
