// Plain LMDB: full names as keys, texts with their NUL as values. The registry's store is compared with it: the same
// library and the same durability, and nothing else.
#ifndef TKV_BENCH_BARE_LMDB_H
#define TKV_BENCH_BARE_LMDB_H

#include <lmdb.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tkv::bench {

// Throws std::runtime_error if LMDB fails. Not thread-safe; another_reader() serves another thread.
class BareLmdb {
 public:
  // Opens the store, creating it if it does not exist. A process must not open a directory twice.
  explicit BareLmdb(const std::string& directory) : is_owner_(true) {
    std::filesystem::create_directories(directory);
    require(mdb_env_create(&environment_));
    require(mdb_env_set_mapsize(environment_, kMapSize));
    require(mdb_env_open(environment_, directory.c_str(), MDB_NOTLS, 0600));
    MDB_txn* transaction = nullptr;
    require(mdb_txn_begin(environment_, nullptr, 0, &transaction));
    require(mdb_dbi_open(transaction, nullptr, 0, &database_));
    require(mdb_txn_commit(transaction));
    add_reader();
  }
  ~BareLmdb() {
    if (reader_ != nullptr) mdb_txn_abort(reader_);
    if (environment_ != nullptr && is_owner_) mdb_env_close(environment_);
  }
  BareLmdb(const BareLmdb&) = delete;
  BareLmdb& operator=(const BareLmdb&) = delete;

  // Another reader of this store, for another thread. It must be destroyed first.
  std::unique_ptr<BareLmdb> another_reader() const {
    return std::unique_ptr<BareLmdb>(new BareLmdb(environment_, database_));
  }

  // Calls `use` with the value's text, which is valid during the call, or with null if the name does not exist.
  template <typename Use>
  auto get(const char* name, const Use& use) {
    const Reading reading(reader_);
    MDB_val key = name_of(name);
    MDB_val value{};
    const int code = mdb_get(reader_, database_, &key, &value);
    if (code != MDB_NOTFOUND) require(code);
    return use(code == 0 ? static_cast<const char*>(value.mv_data) : nullptr);
  }

  // The levels directly below a name, which must have no levels below them.
  std::vector<std::string> subkeys(const std::string& name) {
    const Reading reading(reader_);
    const std::string prefix = name + ".";
    std::vector<std::string> names;
    MDB_cursor* cursor = nullptr;
    require(mdb_cursor_open(reader_, database_, &cursor));
    MDB_val key = name_of(prefix.c_str());
    MDB_val value{};
    int code = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
    while (code == 0 && key.mv_size > prefix.size() && std::memcmp(key.mv_data, prefix.data(), prefix.size()) == 0) {
      names.emplace_back(static_cast<const char*>(key.mv_data) + prefix.size(), key.mv_size - prefix.size());
      code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
    }
    mdb_cursor_close(cursor);
    return names;
  }

  // Durable on return, except between begin() and commit().
  void put(const char* name, const char* text) {
    const bool alone = writer_ == nullptr;
    if (alone) begin();
    MDB_val key = name_of(name);
    MDB_val value{std::strlen(text) + 1, const_cast<char*>(text)};
    require(mdb_put(writer_, database_, &key, &value, 0));
    if (alone) commit();
  }
  void begin() { require(mdb_txn_begin(environment_, nullptr, 0, &writer_)); }
  void commit() {
    MDB_txn* const finished = writer_;
    writer_ = nullptr;
    require(mdb_txn_commit(finished));
  }

 private:
  static constexpr std::size_t kMapSize = std::size_t{1} << 33;

  BareLmdb(MDB_env* environment, MDB_dbi database) : environment_(environment), database_(database) { add_reader(); }

  void add_reader() {
    require(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader_));
    mdb_txn_reset(reader_);
  }

  // The pooled reader, in use.
  class Reading {
   public:
    explicit Reading(MDB_txn* reader) : reader_(reader) { require(mdb_txn_renew(reader)); }
    ~Reading() { mdb_txn_reset(reader_); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

   private:
    MDB_txn* reader_;
  };

  static MDB_val name_of(const char* name) { return {std::strlen(name), const_cast<char*>(name)}; }
  static void require(int code) {
    if (code != 0) throw std::runtime_error(mdb_strerror(code));
  }

  bool is_owner_ = false;
  MDB_env* environment_ = nullptr;
  MDB_dbi database_ = 0;
  MDB_txn* reader_ = nullptr;
  MDB_txn* writer_ = nullptr;
};

}  // namespace tkv::bench

#endif
