#include "store/lmdb/environment.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/thread_variable.h"
#include "store/lmdb/assertion.h"
#include "store/lmdb/error.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/reader_table.h"
#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

constexpr std::uint64_t kFirstMapSize = std::uint64_t{1} << 30;
constexpr std::uint64_t kLargestMapSize = std::uint64_t{1} << 40;
constexpr std::size_t kMapUnit = std::size_t{64} << 10;  // a multiple of every page size
static_assert(sizeof(std::size_t) == 8, "maps of this size need 64-bit addresses");

std::atomic<unsigned> fork_generation{0};

TKV_THREAD_LOCAL Running* innermost = nullptr;

bool address_space_left(std::size_t size) {
  void* const area = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) return false;
  munmap(area, size);
  return true;
}

}  // namespace

// The environments of this process. A fork empties the child's table without closing the environments, since closing
// them would free the parent's reader slots.
struct EnvironmentTable {
  std::mutex mutex;
  std::vector<Environment*> open;

  static EnvironmentTable& instance() {
    static EnvironmentTable& table = *make();
    return table;
  }

  Environment* find(const FileIdentity& directory) const {
    const auto found = std::find_if(open.begin(), open.end(), [&](const Environment* environment) {
      return environment->files_->directory() == directory;
    });
    return found == open.end() ? nullptr : *found;
  }

 private:
  static EnvironmentTable* make() {
    auto* const table = new EnvironmentTable;
    pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                   [] {
                     ++fork_generation;
                     for (Environment* environment : instance().open) {
                       environment->writers_.abandon_in_child();
                       environment->writer_lock_.close_in_child();
                       environment->meta_pages_.withdraw();
                     }
                     instance().open.clear();
                     instance().mutex.unlock();
                   });
    return table;
  }
};

Status Environment::acquire(const LmdbOptions& options, Held* environment) {
  EnvironmentTable& table = EnvironmentTable::instance();
  std::unique_ptr<const RegistryFiles> files;
  // Creating a registry waits for the disk, so the table is not locked yet. Several threads may create the same one.
  if (Status status = RegistryFiles::open(options, &files); !status.ok()) return status;
  const std::lock_guard lock(table.mutex);
  Environment* const open = table.find(files->directory());
  if (open == nullptr) return open_anew(options, std::move(files), table, environment);
  if (open->files_->data() != files->data() || open->files_->lock() != files->lock()) return open->files_replaced();
  if (open->read_only_ && !options.read_only) {
    return {PRTKV_ACCESS_DENIED, "the registry in '" + options.directory + "' is open for reading only"};
  }
  ++open->users_;
  environment->reset(open);
  return {};
}

// Leaves nothing open on failure: a later opening would then be the second one, and closing it would lose LMDB's locks.
Status Environment::open_anew(const LmdbOptions& options, std::unique_ptr<const RegistryFiles> files,
                              EnvironmentTable& table, Held* environment) {
  struct Delete {
    void operator()(Environment* failed) const { delete failed; }
  };
  table.open.reserve(table.open.size() + 1);
  std::unique_ptr<Environment, Delete> fresh(new Environment(options, std::move(files)));
  if (Status status = fresh->open(options.read_only); !status.ok()) return status;
  if (Status status = fresh->check_version(); !status.ok()) return status;
  fresh->meta_pages_.prepare(fresh->files_->data_file(), fresh->map_.page_size);
  fresh->users_ = 1;
  table.open.push_back(fresh.get());
  environment->reset(fresh.release());
  return {};
}

void Environment::release(Environment* environment) {
  EnvironmentTable& table = EnvironmentTable::instance();
  const std::lock_guard lock(table.mutex);
  if (environment->fork_generation_ != fork_generation) return;
  if (--environment->users_ > 0) return;
  std::erase(table.open, environment);
  delete environment;
}

Environment::Environment(const LmdbOptions& options, std::unique_ptr<const RegistryFiles> files)
    : directory_(options.directory),
      fixed_map_size_(options.map_size),
      first_map_size_(options.first_map_size == 0 ? kFirstMapSize : options.first_map_size),
      files_(std::move(files)),
      fork_generation_(fork_generation),
      writer_lock_(*files_) {}

Environment::~Environment() { close_files(); }

Status Environment::check_usable() const {
  if (fork_generation_ != fork_generation.load(std::memory_order_relaxed)) {
    return {PRTKV_UNUSABLE,
            "the registry in '" + directory_ + "' was opened before this process was forked; open it again"};
  }
  return files_replaced_.load(std::memory_order_relaxed) ? files_replaced() : Status();
}

Status Environment::files_replaced() const {
  return {PRTKV_UNUSABLE, "the registry's files in '" + directory_ +
                              "' were replaced or removed while this process had them open; close the registry and "
                              "open it again"};
}

// A write into files that other processes no longer find would be lost.
Status Environment::check_files() {
  if (!files_replaced_ && files_->are_in_place()) return {};
  files_replaced_ = true;
  meta_pages_.withdraw();
  return files_replaced();
}

// Reading the map beyond the end of the file would raise SIGBUS. A file that is truncated during a transaction still
// does that.
Status Environment::check_size(RegistryFiles::Askers askers) {
  const std::uint64_t seen = seen_size_.load();  // first: the file may grow at any time
  std::uint64_t size = 0;
  if (Status status = files_->data_size(&size, askers); !status.ok()) return status;
  if (size > seen) seen_size_.store(size);
  if (size >= seen) return {};
  meta_pages_.withdraw();
  return {PRTKV_STORAGE_FAILED, "the registry's file in '" + directory_ + "' was truncated from " +
                                    std::to_string(seen) + " to " + std::to_string(size) + " bytes"};
}

// As check_size, but looks at the file only once in a tick of the coarse clock: a system call would cost as much as all
// the rest of a cached read.
bool Environment::has_kept_its_size() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const std::int64_t tick = now.tv_sec * 1'000'000'000 + now.tv_nsec;
  if (size_checked_.load(std::memory_order_relaxed) == tick) return true;
  if (!check_size().ok()) return false;
  size_checked_.store(tick, std::memory_order_relaxed);
  return true;
}

namespace {

// Has the processor fetch both ends of a record, which is all of a short one. While a long one is copied, the processor
// fetches the rest by itself. It ignores addresses at which there is no memory.
void prefetch(std::uintptr_t map, const ValuePlace& place) {
  const std::uintptr_t begin = map + place.offset;
  for (const std::uintptr_t at : {begin, begin + place.record_size}) {
    __builtin_prefetch(reinterpret_cast<const void*>(at));  // NOLINT(performance-no-int-to-ptr): never dereferenced
  }
}

}  // namespace

std::uint64_t Environment::latest_state(const ValuePlace* copied_next) {
  if (copied_next != nullptr) prefetch(latest_map_.load(std::memory_order_relaxed), *copied_next);
  const bool usable = fork_generation_ == fork_generation.load(std::memory_order_relaxed) &&
                      !files_replaced_.load(std::memory_order_relaxed);
  if (!usable || !has_kept_its_size()) return 0;
  if (const std::uint64_t latest = meta_pages_.latest(); latest != 0) return latest;
  meta_pages_.open_if_often();
  ReaderSlot* const slot = readers_.try_claim();  // keeps the map from being replaced
  if (slot == nullptr) return 0;
  const std::uint64_t latest = meta_pages_.latest_or_in(map_.address);
  readers_.release(*slot);
  return latest;
}

std::shared_ptr<const StateMemory> Environment::state_memory() {
  if (fork_generation_ != fork_generation) return nullptr;
  meta_pages_.open();
  return meta_pages_.memory();
}

namespace {

std::uint64_t map_bytes(MDB_env* env) {
  MDB_envinfo info{};
  mdb_env_info(env, &info);
  return info.me_mapsize;
}

// With std::memcpy, the compiler would make use of a bound of the size that it knows, and copy with an instruction
// ("rep movs") that takes about 25 ns to start.
bool copy_bytes(const FileMap& map, std::uint64_t offset, std::span<std::byte> copy) {
  const bool exists = map.address != nullptr && offset <= map.size && copy.size() <= map.size - offset;
  if (exists) std::memmove(copy.data(), map.address + offset, copy.size());
  return exists;
}

}  // namespace

bool Environment::copy_from_latest(std::uint64_t state, std::uint64_t offset, std::span<std::byte> copy) {
  const std::uint64_t latest = latest_state(nullptr);
  if (latest != state && latest != state + 1) return false;
  ReaderSlot* const slot = readers_.try_claim();  // keeps the map from being replaced
  if (slot == nullptr) return false;
  bool copied = false;
  if (latest == state) {
    copied = (first_state_.copy(state, offset, copy) || copy_bytes(map_, offset, copy)) &&
             meta_pages_.is_still(state, map_.address);
  } else if (begin_glance(*slot)) {
    copied = slot->state.transaction == state && copy_bytes(map_, offset, copy);
    end_read(*slot);
  }
  readers_.release(*slot);
  return copied;
}

bool Environment::copy_unchanged(std::uint64_t* state, ValuePlace* place, std::span<std::byte> copy) {
  const std::uint64_t latest = latest_state(place);
  ReaderSlot* const slot = latest == 0 ? nullptr : readers_.try_claim();
  if (slot == nullptr) return false;
  const bool is_known_to_hold =
      *state == latest || (slot->pages.state() == latest && slot->pages.has_kept(*state, *place));
  bool copied = false;
  if (is_known_to_hold) {
    copied = copy_bytes(map_, place->offset, copy) && meta_pages_.is_still(latest, map_.address);
    if (copied) *state = latest;
  } else if (begin_glance(*slot)) {
    follow(*slot);
    const bool holds = slot->pages.recognizes(slot->state, *state, place);
    copied = holds && copy_bytes(map_, place->offset, copy);
    if (holds) *state = slot->state.transaction;
    end_read(*slot);
  }
  readers_.release(*slot);
  return copied;
}

// A write replaces the page of its value, and mostly leaves the page of the node: then the value alone is looked up.
std::uint64_t Environment::unchanged_until(std::uint64_t state, NodeId id, ValuePlace* place) {
  const std::uint64_t latest = latest_state(place);
  ReaderSlot* const slot = latest == 0 ? nullptr : readers_.try_claim();
  if (slot == nullptr) return 0;
  bool holds = state == latest || (slot->pages.state() == latest && slot->pages.has_kept(state, *place));
  std::uint64_t until = latest;
  if (!holds && begin_glance(*slot)) {
    follow(*slot);
    holds = slot->pages.recognizes(slot->state, state, place);
    if (!holds && slot->pages.has_kept_node(state, *place)) {
      const std::uint32_t node_page = place->node_page;
      *place = place_of_value(slot->state, id);
      place->node_page = node_page;
      holds = true;
    }
    until = slot->state.transaction;
    end_read(*slot);
  }
  readers_.release(*slot);
  return holds ? until : 0;
}

void follow(ReaderSlot& slot) {
  if (slot.pages.state() != slot.state.transaction) slot.pages.follow(slot.state, structure_of(slot));
}

// Begins a short transaction for a reader that has another way if that does not work at once.
bool Environment::begin_glance(ReaderSlot& slot) {
  if (slot.txn == nullptr || map_.address == nullptr || mdb_txn_renew(slot.txn) != 0) return false;
  const std::uint64_t transaction = mdb_txn_id(slot.txn);
  if (slot.state.transaction == transaction) {
    if (slot.state.in_file != nullptr) slot.state.use_map();
    return true;
  }
  if (slot.state.in_file != nullptr) slot.state.in_file->give_up();
  MetaPage meta{};
  bool certain = false;
  copy_meta_page(map_, transaction, &meta, &certain);
  if (certain && load_state(map_, meta, transaction, &slot.state).ok()) return true;
  end_read(slot);
  return false;
}

std::uint64_t structure_of(ReaderSlot& slot) {
  if (slot.structure_state == slot.state.transaction) return slot.structure;
  Meta meta;
  if (!find_meta(slot.state, &meta).ok()) return 0;
  slot.structure_state = slot.state.transaction;
  slot.structure = meta.structure;
  return meta.structure;
}

Status Environment::failure(LmdbOutcome outcome, const char* doing) const {
  if (outcome.code == 0) return {};  // without allocating: the change may already be durable
  return lmdb_status(outcome, std::string(doing) + " in '" + directory_ + "'");
}

Status Environment::failure(int code, const char* doing) const { return failure(LmdbOutcome{code, code}, doing); }

Status Environment::open(bool read_only) {
  if (Status status = files_->prepare_lock_file(); !status.ok()) return status;
  Status status = open_files();
  if (read_only && status.is(PRTKV_ACCESS_DENIED)) {
    read_only_ = true;
    status = open_files();
  }
  return status;
}

// The configured size, or else enough for the file to double at least once.
Status Environment::map_size_to_open(std::size_t* size) const {
  if (fixed_map_size_ != 0) {
    *size = (std::max(fixed_map_size_, std::uint64_t{1}) + kMapUnit - 1) / kMapUnit * kMapUnit;
    return {};
  }
  std::uint64_t used = 0;
  if (Status status = files_->data_size(&used); !status.ok()) return status;
  *size = used < first_map_size_ / 2 ? first_map_size_ : std::bit_ceil(used * 2);
  return {};
}

Status Environment::open_files() {
  std::size_t map_size = 0;
  if (Status status = map_size_to_open(&map_size); !status.ok()) return status;
  if (int code = mdb_env_create(&env_); code != 0) return failure(code, "cannot open the registry");
  mdb_env_set_assert(env_, &throw_lmdb_assertion);
  mdb_env_set_maxreaders(env_, kMaxReaders);
  mdb_env_set_mapsize(env_, map_size);
  Status status = files_->open_environment(env_, MDB_NOTLS | (read_only_ ? MDB_RDONLY : 0u));
  int dead_readers = 0;
  if (status.ok()) status = failure(mdb_reader_check(env_, &dead_readers), "cannot open the registry");
  if (status.ok()) status = check_contents();
  if (!status.ok()) close_files();
  return status;
}

void Environment::close_files() {
  map_ = FileMap{};
  readers_.for_each([](ReaderSlot& slot) {
    if (slot.txn != nullptr) mdb_txn_abort(slot.txn);
    slot.txn = nullptr;
    slot.structure_state = 0;
    slot.state = FileState{};
    slot.pages = UnchangedPages();
  });
  first_state_ = FirstState();
  if (env_ != nullptr) mdb_env_close(env_);
  env_ = nullptr;
}

// Other processes may make the registry grow beyond the map at any time, even while its contents are being checked. A
// damaged file may claim the same; in that case mapping it again does not make the map larger.
Status Environment::check_contents() try {
  Status status = read_contents();
  bool follows = true;
  while (!status.ok() && follows && is_outgrown()) {
    const std::uint64_t mapped = map_bytes(env_);
    if (int code = mdb_env_set_mapsize(env_, 0); code != 0) return failure(code, "cannot map the registry");
    follows = map_bytes(env_) > mapped;
    status = read_contents();
  }
  return status;
} catch (const LmdbAssertion& broken) {
  return Status(PRTKV_STORAGE_FAILED, broken.what()).about("the registry in '" + directory_ + "' is damaged");
}

Status Environment::read_contents() {
  if (Status status = extend_short_file(); !status.ok()) return status;
  FirstState first;
  if (Status status = locate_map(env_, directory_.c_str(), &map_, &first); !status.ok()) return status;
  latest_map_.store(reinterpret_cast<std::uintptr_t>(map_.address), std::memory_order_relaxed);
  first_state_ = std::move(first);
  readers_.for_each([this](ReaderSlot& slot) {
    slot.state = first_state_.state;
    slot.structure_state = first_state_.decoded.ok() ? first_state_.state.transaction : 0;
    slot.structure = first_state_.meta.structure;
  });
  return {};
}

// Whether the file has pages beyond the map, in which case LMDB refuses to begin a transaction.
bool Environment::is_outgrown() const {
  MDB_envinfo info{};
  MDB_stat pages{};
  mdb_env_info(env_, &info);
  mdb_env_stat(env_, &pages);
  return info.me_last_pgno >= info.me_mapsize / pages.ms_psize;
}

// A registry of a newer format is not touched. A damaged record is left to those who need it, and to a repair.
Status Environment::check_version() const {
  if (!first_state_.decoded.is(PRTKV_UNUSABLE)) return {};
  return Status(first_state_.decoded)
      .about("the record of the registry itself")
      .about("the file in '" + directory_ + "'");
}

Status Environment::status(const FileState& state, StoreStatus* status) const {
  *status = {};
  if (Status sized = files_->data_size(&status->bytes); !sized.ok()) return sized;
  status->max_bytes = fixed_map_size_;
  status->max_readers = kMaxReaders;
  std::vector<TableReader> readers;
  if (const int code = list_readers(env_, &readers); code != 0) {
    return failure(code, "cannot list the readers of the registry");
  }
  status->readers = static_cast<std::uint32_t>(readers.size());
  const Descriptor times = files_->open_commit_times();
  if (times.is_open()) status->long_readers = find_long_readers(readers, state, CommitTimes(times.number()));
  return {};
}

int Environment::file() const {
  int file = -1;
  mdb_env_get_fd(env_, &file);
  return file;
}

// LMDB need not write the last pages of its file if they are free, so the file may be shorter than its meta page says.
// A truncated file looks the same, and reading beyond its end would raise SIGBUS. The file is therefore extended: the
// missing part reads as zeroes, which are neither a valid page nor a valid record. The write lock keeps others out.
Status Environment::extend_short_file() {
  int file_handle = -1;
  struct stat file {};
  MDB_envinfo info{};
  MDB_stat pages{};
  mdb_env_get_fd(env_, &file_handle);
  mdb_env_info(env_, &info);
  mdb_env_stat(env_, &pages);
  const auto too_short = [&] {
    if (fstat(file_handle, &file) != 0) return false;
    const auto size = static_cast<std::uint64_t>(file.st_size);
    seen_size_.store(std::max(size, seen_size_.load()));
    return size < (std::uint64_t{info.me_last_pgno} + 1) * pages.ms_psize;
  };
  if (!too_short()) return {};
  if (read_only_) {
    return {PRTKV_STORAGE_FAILED,
            "the registry's file in '" + directory_ +
                "' is shorter than its meta page says, and cannot be extended without write access"};
  }
  MDB_txn* txn = nullptr;
  if (const int code = mdb_txn_begin(env_, nullptr, 0, &txn); code != 0) {
    return failure(code, "cannot write to the registry");
  }
  mdb_env_info(env_, &info);
  int error = 0;
  if (too_short() && ftruncate(file_handle, static_cast<off_t>((info.me_last_pgno + 1) * pages.ms_psize)) != 0) {
    error = errno;
  }
  mdb_txn_abort(txn);
  return failure(error, "cannot extend the registry's file");
}

int Environment::renew(ReaderSlot& slot) {
  if (env_ == nullptr || map_.address == nullptr) return MDB_PANIC;
  if (slot.txn != nullptr) return mdb_txn_renew(slot.txn);
  return mdb_txn_begin(env_, nullptr, MDB_RDONLY, &slot.txn);
}

// A transaction that is only reset keeps its slot in LMDB's reader table, which is faster. Once half of the table is in
// use, slots are kept only while reading, so that idle sessions cannot use up the table.
void Environment::end_read(ReaderSlot& slot) {
  MDB_envinfo info{};
  mdb_env_info(env_, &info);
  if (info.me_numreaders <= kMaxReaders / 2) {
    mdb_txn_reset(slot.txn);
    return;
  }
  mdb_txn_abort(slot.txn);
  slot.txn = nullptr;
}

// Called when a read transaction could not begin. Returns success if the caller should try again. A nested one does not
// come here for growth.
//
// After a write that failed, another thread may open the files anew and fail to write again, any number of times before
// this one gets to read. Each time counts as an attempt; there is no lack of progress in that.
Status Environment::recover_read(int code, bool nested, unsigned attempt, std::uint64_t remaps) {
  constexpr unsigned kAttempts = 4;
  constexpr unsigned kAttemptsBesideFailingWrites = 10'000;
  if (code == MDB_MAP_RESIZED) return follow_growth(remaps);
  if (attempt >= (code == MDB_PANIC ? kAttemptsBesideFailingWrites : kAttempts)) {
    return failure(code, "cannot read the registry");
  }
  if (code == MDB_READERS_FULL) return free_reader_slots(nested);
  if (code != MDB_PANIC || nested || Running::writes(this)) return failure(code, "cannot read the registry");
  const std::lock_guard lock(write_mutex_);
  return remaps_ == remaps ? reopen() : Status();
}

Status Environment::follow_growth(std::uint64_t remaps) {
  const std::lock_guard lock(write_mutex_);
  return remaps_ == remaps ? remap(0) : Status();
}

// Frees slots in LMDB's reader table: those of dead processes, or else those kept by idle threads of this process.
Status Environment::free_reader_slots(bool nested) {
  ReaderSlot& held = readers_.claim(nested);  // keeps env_ open
  int dead_readers = 0;
  const int code = env_ == nullptr ? MDB_PANIC : mdb_reader_check(env_, &dead_readers);
  if (code == 0 && dead_readers == 0) {
    readers_.for_each_free([](ReaderSlot& slot) {
      if (slot.txn != nullptr) mdb_txn_abort(slot.txn);
      slot.txn = nullptr;
    });
  }
  readers_.release(held);
  return failure(code, "cannot read the registry");
}

Status Environment::grow() {
  // Dead readers keep pages from being reused. Without them there may be enough room.
  int dead_readers = 0;
  if (mdb_reader_check(env_, &dead_readers) == 0 && dead_readers > 0) return {};
  MDB_envinfo info{};
  mdb_env_info(env_, &info);
  const std::uint64_t size = info.me_mapsize;
  const std::string subject = "the registry in '" + directory_ + "' is " + std::to_string(size) + " bytes in size";
  if (fixed_map_size_ != 0) return {PRTKV_STORAGE_FULL, subject + ", the limit set by map_size"};
  if (size > kLargestMapSize / 2) return {PRTKV_STORAGE_FULL, subject + " and cannot grow any further"};
  if (!address_space_left(size * 2)) {
    return {PRTKV_OUT_OF_MEMORY, subject + ", and this process lacks the address space to double it"};
  }
  return remap(size * 2);
}

// If LMDB cannot map the file, it has unmapped it already: the next transaction then opens the files anew.
Status Environment::remap(std::size_t size) {
  Status status;
  readers_.with_no_readers([&] {
    map_ = FileMap{};
    if (mdb_env_set_mapsize(env_, size) == 0) status = check_contents();
    ++remaps_;
  });
  return status;
}

Status Environment::reopen() {
  Status status;
  readers_.with_no_readers([&] {
    close_files();
    status = open_files();
    ++remaps_;
  });
  return status;
}

Running::Running(const Environment* environment, Kind kind)
    : environment_(environment), kind_(kind), outer_(innermost) {
  if (kind == Kind::kReading) {
    if (Running* const writing = find(environment, Kind::kWriting)) writing->was_read_within_ = true;
  }
  innermost = this;
}

Running::~Running() { innermost = outer_; }

Running* Running::find(const Environment* environment, Kind kind) {
  for (Running* running = innermost; running != nullptr; running = running->outer_)
    if (running->environment_ == environment && running->kind_ == kind) return running;
  return nullptr;
}

ReaderSlot* Running::slot_of_reader(const Environment* environment) {
  for (Running* running = innermost; running != nullptr; running = running->outer_)
    if (running->environment_ == environment && running->slot_ != nullptr) return running->slot_;
  return nullptr;
}

ReadTransaction::ReadTransaction(Environment& environment, Length length)
    : environment_(environment),
      outer_slot_(Running::slot_of_reader(&environment)),
      wants_long_(length == Length::kLong && outer_slot_ == nullptr),
      running_(&environment, Running::Kind::kReading) {}

ReadTransaction::~ReadTransaction() {
  // In a child forked meanwhile, the transaction belongs to the parent and locks may never be released.
  if (environment_.fork_generation_ != fork_generation) return;
  if (slot_ != nullptr && slot_ != outer_slot_) {
    if (slot_->state.in_file != nullptr) slot_->state.in_file->end_use();
    environment_.end_read(*slot_);
    environment_.readers_.release(*slot_);
  }
  announce(false);
}

// Announces a long reader, or ends the announcement.
void ReadTransaction::announce(bool begins) {
  if (!wants_long_ || long_ == begins) return;
  begins ? environment_.readers_.begin_long() : environment_.readers_.end_long();
  long_ = begins;
}

Status ReadTransaction::begin() {
  if (Status status = environment_.check_usable(); !status.ok()) return status;
  if (Status status = environment_.check_size(); !status.ok()) return status;
  const bool nested = outer_slot_ != nullptr;
  MetaPage copy{};
  std::uint64_t copied = 0;
  for (unsigned attempt = 0;; ++attempt) {
    announce(true);
    const std::uint64_t remaps = environment_.remaps_;
    ReaderSlot& slot = environment_.readers_.claim(nested);
    const int code = environment_.renew(slot);
    if (code == 0) {
      Loading loading = Loading::kDone;
      Status status = load_state(slot, &copy, &copied, &loading);
      if (status.ok() && loading == Loading::kDone) {
        if (slot.state.in_file != nullptr && !slot.state.in_file->begin_use()) slot.state.use_map();
        slot_ = &slot;
        running_.has_slot(slot);
        return {};
      }
      environment_.end_read(slot);
      environment_.readers_.release(slot);
      if (!status.ok()) return status;
      continue;
    }
    environment_.readers_.release(slot);
    if (nested && code == MDB_MAP_RESIZED) {
      slot_ = outer_slot_;
      return {};
    }
    announce(false);  // replacing the map waits for every long reader
    if (Status status = environment_.recover_read(code, nested, attempt, remaps); !status.ok()) return status;
  }
}

// Makes the slot's state that of its transaction, unless it is already. `*copied` is the transaction whose meta page an
// earlier attempt has copied, perhaps torn, to `*copy`: that this reader still sees it proves that it was not.
Status ReadTransaction::load_state(ReaderSlot& slot, MetaPage* copy, std::uint64_t* copied, Loading* loading) {
  const std::uint64_t transaction = mdb_txn_id(slot.txn);
  if (slot.state.transaction == transaction) return {};
  if (slot.state.in_file != nullptr) slot.state.in_file->give_up();
  if (*copied != transaction) {
    bool certain = false;
    copy_meta_page(environment_.map_, transaction, copy, &certain);
    *copied = transaction;
    if (!certain) {
      *loading = Loading::kBeginAgain;
      return {};
    }
  }
  return store::load_state(environment_.map_, *copy, transaction, &slot.state);
}

WriteTransaction::WriteTransaction(Environment& environment, WriterDeadline* deadline)
    : environment_(environment), deadline_(deadline), running_(&environment, Running::Kind::kWriting) {}

WriteTransaction::WriteTransaction(WriteTransaction& outer)
    : environment_(outer.environment_),
      outer_(&outer),
      running_(&outer.environment_, Running::Kind::kWriting),
      former_(outer.former_) {}

WriteTransaction::~WriteTransaction() {
  abort();
  // In a child forked meanwhile, the locks are the parent's.
  if (environment_.fork_generation_ != fork_generation) {
    mutex_lock_.release();
    return;
  }
  if (mutex_lock_.owns_lock()) mutex_lock_.unlock();
  if (has_lock_) environment_.writer_lock_.release();
}

Status WriteTransaction::lock() {
  if (has_lock_) return {};
  if (Status status = environment_.writer_lock_.acquire(deadline_); !status.ok()) return status;
  has_lock_ = true;
  mutex_lock_ = std::unique_lock(environment_.write_mutex_);
  return {};
}

Status WriteTransaction::begin() {
  if (Status status = environment_.check_usable(); !status.ok()) return status;
  if (outer_ != nullptr) return begin_within(*outer_);
  if (Status status = lock(); !status.ok()) return status;
  if (Status status = environment_.check_size(RegistryFiles::Askers::kOne); !status.ok()) return status;
  constexpr unsigned kAttempts = 4;
  for (unsigned attempt = 0;; ++attempt) {
    const int code =
        environment_.map_.address == nullptr ? MDB_PANIC : mdb_txn_begin(environment_.env_, nullptr, 0, &txn_);
    if (code == 0) return load_former();
    txn_ = nullptr;
    Status status = environment_.failure(code, "cannot write to the registry");
    if (code == MDB_MAP_RESIZED) status = environment_.remap(0);
    if (code == MDB_PANIC && attempt < kAttempts) status = environment_.reopen();
    if (!status.ok()) return status;
  }
}

Status WriteTransaction::begin_within(const WriteTransaction& outer) {
  const int code = mdb_txn_begin(environment_.env_, outer.txn_, 0, &txn_);
  if (code != 0) txn_ = nullptr;
  return environment_.failure(code, "cannot write to the registry");
}

// Nobody else writes a meta page while this transaction is alive.
Status WriteTransaction::load_former() {
  if (environment_.first_state_.pages != nullptr) environment_.first_state_.pages->give_up();
  const std::uint64_t transaction = mdb_txn_id(txn_) - 1;
  MetaPage meta{};
  bool certain = false;
  copy_meta_page(environment_.map_, transaction, &meta, &certain);
  Status status = store::load_state(environment_.map_, meta, transaction, &former_);
  if (!status.ok()) abort();
  return status;
}

Status WriteTransaction::commit(LmdbOutcome* outcome) {
  if (!is_inner()) {
    if (Status status = environment_.check_files(); !status.ok()) return status;
  }
  *outcome = lmdb_outcome([&] { return mdb_txn_commit(txn_); });  // if it throws, txn_ is still to be aborted
  txn_ = nullptr;
  if (outcome->code == 0 && !is_inner()) environment_.writer_lock_.note_commit(former_.transaction + 1);
  return environment_.failure(*outcome, "cannot write to the registry");
}

void WriteTransaction::abort() {
  if (txn_ != nullptr && environment_.fork_generation_ == fork_generation) mdb_txn_abort(txn_);
  txn_ = nullptr;
}

Status WriteTransaction::make_room() {
  abort();
  return environment_.grow();
}

}  // namespace tkv::store
