// Environment: the one LMDB environment that this process has open on a directory, and its transactions.
//
// LMDB's locks belong to the process: opening the files twice and closing them once would lose them. So all stores of
// a process that are opened on one directory take part in one environment, which ends with the last of them.
//
// An environment does not outlive a fork in the child: there, every operation fails with 7 and closing does nothing.
#ifndef TKV_PLATFORM_STORE_LMDB_ENVIRONMENT_H
#define TKV_PLATFORM_STORE_LMDB_ENVIRONMENT_H

#include <lmdb.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "store/lmdb/error.h"
#include "store/lmdb/lmdb_store.h"
#include "store/lmdb/reader_pool.h"

namespace tkv::store {

struct EnvironmentTable;

class Environment {
 public:
  // Finds or opens the environment of options.directory, whose files are ready, and takes part in it until what is held
  // goes away. Of several that are opened on one directory, the first one's map_size holds for all.
  struct Release {
    void operator()(Environment* environment) const { release(environment); }
  };
  using Held = std::unique_ptr<Environment, Release>;
  static Status acquire(const LmdbOptions& options, Held* environment);

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // 7 in a process that was forked from the one that opened the environment.
  Status check_process() const;

  // Translates how an LMDB call ended; as lmdb_status.
  Status failure(LmdbOutcome outcome, const char* doing) const;
  Status failure(int code, const char* doing) const;

  const std::string& directory() const { return directory_; }
  bool read_only() const { return read_only_; }

 private:
  friend class ReadTransaction;
  friend class WriteTransaction;
  friend struct EnvironmentTable;

  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const Identity&) const = default;
  };

  explicit Environment(const LmdbOptions& options);
  ~Environment();
  static Status open_anew(const LmdbOptions& options, EnvironmentTable& table, Held* environment);
  static void release(Environment* environment);

  Status open(bool read_only);
  void close_files();
  Status open_files();
  Status check_contents();
  Status check_state(bool* outdated);
  Status extend_short_file();

  int renew(ReaderSlot& slot);
  Status recover_read(int code, bool nested, unsigned attempt, std::uint64_t remaps);
  Status follow_growth(std::uint64_t remaps);
  Status free_reader_slots(bool nested);

  // For the holder of write_mutex_, outside transactions.
  Status grow();
  Status remap(std::size_t size);
  Status reopen();

  std::size_t map_size_to_open() const;

  const std::string directory_;
  const std::uint64_t fixed_map_size_;
  const std::uint64_t first_map_size_;
  const mode_t file_mode_;
  const unsigned fork_generation_;
  bool read_only_ = false;
  Identity directory_identity_;
  Identity file_identity_;
  int directory_handle_ = -1;  // keeps the directory's inode from being given to another
  std::size_t users_ = 0;      // guarded by the table of environments

  // Read by those who hold a reader slot or write_mutex_, changed with neither held by anybody else.
  MDB_env* env_ = nullptr;
  std::atomic<std::uint64_t> remaps_{0};  // how often the map was replaced
  ReaderPool readers_;
  std::mutex write_mutex_;  // held by the thread of this process that writes, or replaces the map
};

// What this thread is doing with environments, so that a function that uses the store that runs it is refused or let
// through instead of waiting for itself.
class Running {
 public:
  enum class Kind { kReading, kWriting };
  Running(const Environment* environment, Kind kind);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  static bool reads(const Environment* environment) { return is(environment, Kind::kReading); }
  static bool writes(const Environment* environment) { return is(environment, Kind::kWriting); }

 private:
  static bool is(const Environment* environment, Kind kind);

  const Environment* const environment_;
  const Kind kind_;
  Running* const outer_;
};

// A read transaction, from begin() to the end of its life, on one state of the registry.
class ReadTransaction {
 public:
  enum class Length { kShort, kLong };
  ReadTransaction(Environment& environment, Length length);
  ~ReadTransaction();
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

  Status begin();
  MDB_txn* txn() const { return slot_->txn; }
  ReaderSlot& slot() const { return *slot_; }

 private:
  Environment& environment_;
  const bool nested_;
  const bool wants_long_;
  const Running running_;
  bool long_ = false;  // announced as a long reader
  ReaderSlot* slot_ = nullptr;
};

// The right to write: one thread at a time in this process, and with begin() one in all processes.
class WriteTransaction {
 public:
  explicit WriteTransaction(Environment& environment);
  ~WriteTransaction();
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;

  Status begin();
  LmdbOutcome commit();
  void abort();

  // After a failure for want of room in the map: enlarges it, or says why that cannot be. Then begin() again.
  Status make_room();

  MDB_txn* txn() const { return txn_; }

 private:
  Environment& environment_;
  const std::unique_lock<std::mutex> lock_;
  const Running running_;
  MDB_txn* txn_ = nullptr;
};

}  // namespace tkv::store

#endif
