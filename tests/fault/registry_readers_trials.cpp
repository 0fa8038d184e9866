// Readers' trials: while processes write, delete, create, move and lock keys, others read them. No read may be behind a
// write that was acknowledged before the read began, whichever process was told of it; no value may be torn, belong to
// another key, or be older than one read before; and no read may get round a deletion, a move or a change of rights.
//
//   registry_readers_trials [--long]
//
// A writer notes in shared memory what it has been told is done, and what it is about to do. A reader looks there
// before and after each read. Signals stop the readers at random places, so that the registry changes in the middle of
// a read. Each circumstance is a trial of its own. Exits with 1 if a promise was broken.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "prtkv.h"
#include "registry/access.h"
#include "registry/contexts.h"
#include "registry/local_client.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace {

// A process that is to die dies at the first write of a meta page, after the write. One that is slow waits before it:
// the pages of the new state are in the file then, and the state is not.
std::atomic<bool> dies_after_meta_page{false};
std::atomic<bool> is_slow_before_meta_page{false};

}  // namespace

// LMDB's writes: a program's symbols come before libc's. The meta pages are written through a descriptor of their own.
extern "C" [[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  const bool is_meta_page = (fcntl(file, F_GETFL) & O_DSYNC) == O_DSYNC;
  if (is_meta_page && is_slow_before_meta_page) usleep(300);
  const ssize_t written = syscall(SYS_pwrite64, file, bytes, size, offset);
  if (is_meta_page && dies_after_meta_page) kill(getpid(), SIGKILL);
  return written;
}

namespace tkv::registry {
namespace {

constexpr int kKeys = 6;
constexpr std::size_t kLargestValue = 5000;
constexpr std::size_t kUsualSize = 48;
constexpr std::int32_t kOpenToReaders = TKV_RIGHT_READ | TKV_RIGHT_LIST;

// A period that begins and ends. A reader that finds the same number before and after its read knows whether the period
// lasted all the time (odd) or not at all (even).
class Period {
 public:
  void begin() {
    if (number_ % 2 == 0) ++number_;
  }
  void end() {
    if (number_ % 2 == 1) ++number_;
  }
  std::uint64_t number() const { return number_; }

 private:
  std::atomic<std::uint64_t> number_{0};
};

bool lasted(std::uint64_t before, std::uint64_t after) { return before == after && before % 2 == 1; }
bool was_absent(std::uint64_t before, std::uint64_t after) { return before == after && before % 2 == 0; }

// What is known of a key outside the registry.
struct Notes {
  std::atomic<std::uint64_t> started{0};       // the number of the latest value that a writer tried to write
  std::atomic<std::uint64_t> acknowledged{0};  // of the latest one that it was told is written
  Period perhaps_gone;                         // it may not exist under its name
  Period gone;                                 // it does not
  Period perhaps_closed;                       // it may not be readable
  Period closed;                               // it is not
};

struct Board {
  std::array<Notes, kKeys> keys;
  int keys_to_read = kKeys;
  std::atomic<bool> ends{false};
  std::atomic<int> readers{0};  // that have begun
  std::atomic<std::uint64_t> reads{0};
  std::atomic<int> failures{0};
  char first_failure[512] = "";

  [[gnu::format(printf, 2, 3)]] void fail(const char* format, ...) {
    if (failures.fetch_add(1) != 0) return;
    va_list rest;
    va_start(rest, format);
    std::vsnprintf(first_failure, sizeof first_failure, format, rest);
    va_end(rest);
  }
};

Board* new_board() {
  void* const memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return new (memory) Board;
}

std::string name_of(int key) { return "home.key" + std::to_string(key); }
std::string away_of(int key) { return "away.key" + std::to_string(key); }

// "key number size " and then letters that depend on all three.
std::string value_of(int key, std::uint64_t number, std::size_t size) {
  std::string value = std::to_string(key) + " " + std::to_string(number) + " " + std::to_string(size) + " ";
  while (value.size() < size) {
    value.push_back(static_cast<char>('a' + (number * 7 + value.size() * 3 + static_cast<std::size_t>(key)) % 26));
  }
  return value;
}

// The number of a value that is whole and belongs to the key.
std::optional<std::uint64_t> number_in(const std::string& value, int key) {
  int found_key = -1;
  unsigned long number = 0;
  unsigned long size = 0;
  if (std::sscanf(value.c_str(), "%d %lu %lu ", &found_key, &number, &size) != 3) return std::nullopt;
  if (found_key != key || value != value_of(key, number, size)) return std::nullopt;
  return number;
}

sec_attr security(std::int32_t other_mask) {
  sec_attr security{};
  security.user_perm = TKV_RIGHT_ALL;
  security.other_perm = other_mask;
  (void)set_user(&security, "alice");
  (void)set_group(&security, "staff");
  return security;
}

store::LmdbOptions options_in(const std::string& directory) {
  store::LmdbOptions options;
  options.directory = directory;
  options.first_map_size = 256 * 1024;
  options.root_security = security(kOpenToReaders);
  return options;
}

// A session of its own.
class OneSession {
 public:
  OneSession(const store::LmdbOptions& options, Identity identity) {
    if (Status status = store::open_lmdb_store(options, &store_); !status.ok()) {
      std::fprintf(stderr, "cannot open the registry: %s\n", status.text().c_str());
      _exit(2);
    }
    auto client = std::make_shared<LocalClient>(Configuration{}, std::move(identity), store_);
    if (!add_context(std::move(client), &ctx_).ok()) _exit(2);
  }
  ~OneSession() { prtkv_terminate(ctx_); }
  OneSession(const OneSession&) = delete;
  OneSession& operator=(const OneSession&) = delete;

  operator prtkv_ctx() const { return ctx_; }  // NOLINT(google-explicit-constructor): used as the C functions do

 private:
  std::shared_ptr<store::Store> store_;
  prtkv_ctx ctx_ = 0;
};

class KeyWriter {
 public:
  // Writes the keys with these numbers: every second one, from `first` on.
  KeyWriter(Board& board, const store::LmdbOptions& options, int first, unsigned seed)
      : board_(board), session_(options, Identity{"alice", {"staff"}, true}), first_(first), random_(seed) {}

  // Brings all keys into a known state, whatever another writer has left.
  void settle() {
    make("", "home");
    make("", "away");
    for (int key = first_; key < kKeys; key += 2) {
      Notes& notes = board_.keys[static_cast<std::size_t>(key)];
      notes.gone.end();
      notes.closed.end();
      notes.perhaps_gone.begin();
      remove_if_there(name_of(key));
      remove_if_there(away_of(key));
      create(key);
      notes.perhaps_gone.end();
      notes.perhaps_closed.end();
    }
  }

  // Writes values of one size to one key only.
  void repeat() { write(first_, kUsualSize); }

  void step() {
    const int key = some_key();
    const auto kind = random_() % 10;
    if (kind < 6) {
      write(key);
    } else if (kind < 7) {
      delete_and_create(key);
    } else if (kind < 8) {
      move_to_and_fro(key);
    } else {
      close_and_open(key);
    }
  }

 private:
  void require(std::int32_t code, const char* what) {
    if (code == PRTKV_DONE) return;
    char text[PRTKV_ERROR_TEXT_SIZE] = "";
    std::int32_t size = sizeof text;
    prtkv_get_last_error(session_, &code, text, &size);
    board_.fail("%s: %d %s", what, code, text);
    _exit(3);
  }

  int some_key() { return first_ + 2 * static_cast<int>(random_() % (kKeys / 2)); }

  prtkv_key open(const std::string& name) {
    prtkv_key key = 0;
    require(prtkv_open_key(session_, &key, name.c_str()), "open");
    return key;
  }

  void make(const char* parent, const char* name) {
    const prtkv_key above = open(parent);
    prtkv_key made = 0;
    std::int32_t word = 0;
    const std::int32_t code = prtkv_create_key(session_, above, name, &made, &word, security(kOpenToReaders));
    if (code != PRTKV_KEY_EXISTS) require(code, "create");
    if (made != 0) prtkv_close_key(session_, made);
    prtkv_close_key(session_, above);
  }

  void remove_if_there(const std::string& name) {
    prtkv_key key = 0;
    if (prtkv_open_key(session_, &key, name.c_str()) == PRTKV_DONE) {
      require(prtkv_delete_key(session_, key, 1), "delete");
    }
  }

  // Mostly of one size, so that values take each other's places in the file.
  std::size_t some_size() { return random_() % 4 == 0 ? 24 + random_() % (kLargestValue - 24) : kUsualSize; }

  std::string next_value(int key, std::size_t size, std::uint64_t* number) {
    *number = board_.keys[static_cast<std::size_t>(key)].started += 1;
    return value_of(key, *number, size);
  }

  void create(int key) {
    std::uint64_t number = 0;
    const std::string value = next_value(key, some_size(), &number);
    const prtkv_key above = open("home");
    prtkv_key made = 0;
    std::int32_t word = 0;
    require(prtkv_create_n_set_key(session_, above, name_of(key).c_str() + 5, &made, &word, PRTKV_TYPE_TEXT,
                                   security(kOpenToReaders), value.data(), static_cast<std::uint32_t>(value.size())),
            "create");
    board_.keys[static_cast<std::size_t>(key)].acknowledged = number;
    prtkv_close_key(session_, made);
    prtkv_close_key(session_, above);
  }

  void write(int key) { write(key, some_size()); }

  void write(int key, std::size_t size) {
    std::uint64_t number = 0;
    const std::string value = next_value(key, size, &number);
    const prtkv_key opened = open(name_of(key));
    require(prtkv_set_value(session_, opened, PRTKV_TYPE_TEXT, value.data(), static_cast<std::uint32_t>(value.size())),
            "set value");
    board_.keys[static_cast<std::size_t>(key)].acknowledged = number;
    prtkv_close_key(session_, opened);
  }

  // So that a state lasts for a while.
  void write_others(int key) {
    for (int other = first_; other < kKeys; other += 2)
      if (other != key) write(other);
  }

  void delete_and_create(int key) {
    Notes& notes = board_.keys[static_cast<std::size_t>(key)];
    const prtkv_key opened = open(name_of(key));
    notes.perhaps_gone.begin();
    require(prtkv_delete_key(session_, opened, 0), "delete");
    notes.gone.begin();
    write_others(key);
    notes.gone.end();
    create(key);
    notes.perhaps_gone.end();
  }

  void move(const std::string& from, const char* parent, int key) {
    const prtkv_key source = open(from);
    const prtkv_key above = open(parent);
    prtkv_key moved = 0;
    require(prtkv_move_key(session_, source, above, name_of(key).c_str() + 5, &moved, 0), "move");
    for (const prtkv_key each : {source, above, moved}) prtkv_close_key(session_, each);
  }

  void move_to_and_fro(int key) {
    Notes& notes = board_.keys[static_cast<std::size_t>(key)];
    notes.perhaps_gone.begin();
    move(name_of(key), "away", key);
    notes.gone.begin();
    write_others(key);
    notes.gone.end();
    move(away_of(key), "home", key);
    notes.perhaps_gone.end();
  }

  void allow(int key, std::int32_t mask) {
    const prtkv_key opened = open(name_of(key));
    require(prtkv_set_key_security(session_, opened, security(mask)), "set security");
    prtkv_close_key(session_, opened);
  }

  void close_and_open(int key) {
    Notes& notes = board_.keys[static_cast<std::size_t>(key)];
    notes.perhaps_closed.begin();
    allow(key, 0);
    notes.closed.begin();
    write_others(key);
    notes.closed.end();
    allow(key, kOpenToReaders);
    notes.perhaps_closed.end();
  }

  Board& board_;
  const OneSession session_;
  const int first_;
  std::mt19937 random_;
};

class KeyReader {
 public:
  KeyReader(Board& board, const store::LmdbOptions& options, unsigned seed)
      : board_(board), session_(options, Identity{"bob", {"users"}, false}), random_(seed) {}

  const OneSession& session() const { return session_; }

  void read_until_the_end() {
    ++board_.readers;
    while (!board_.ends && board_.failures == 0) {
      const int key = static_cast<int>(random_() % static_cast<unsigned>(board_.keys_to_read));
      read(key, random_() % 2 == 0);
      if (random_() % 64 == 0) close(key);
      if (random_() % 4 == 0) list();
      ++board_.reads;
    }
  }

 private:
  struct Kept {
    prtkv_key handle = 0;
    std::uint64_t perhaps_gone = 0;  // the period's number before it was opened
  };

  void close(int key) {
    Kept& kept = kept_[static_cast<std::size_t>(key)];
    if (kept.handle != 0) prtkv_close_key(session_, kept.handle);
    kept.handle = 0;
  }

  // Reads with a handle opened for this read, or with one that has been open for a while.
  void read(int key, bool fresh) {
    const Notes& notes = board_.keys[static_cast<std::size_t>(key)];
    Kept& kept = kept_[static_cast<std::size_t>(key)];
    std::uint64_t perhaps_gone = notes.perhaps_gone.number();
    const std::uint64_t acknowledged = notes.acknowledged;
    const std::uint64_t gone = notes.gone.number();
    const std::uint64_t perhaps_closed = notes.perhaps_closed.number();
    const std::uint64_t closed = notes.closed.number();
    if (fresh) close(key);
    std::int32_t code = PRTKV_DONE;
    if (kept.handle == 0) {
      kept.perhaps_gone = perhaps_gone;
      code = prtkv_open_key(session_, &kept.handle, name_of(key).c_str());
    }
    perhaps_gone = kept.perhaps_gone;
    std::string value(kLargestValue, '\0');
    std::int32_t type = 0;
    auto size = static_cast<std::uint32_t>(value.size());
    if (code == PRTKV_DONE) code = prtkv_get_value(session_, kept.handle, &type, value.data(), &size);
    value.resize(code == PRTKV_DONE ? size : 0);
    if (code == PRTKV_NO_SUCH_KEY) {
      if (was_absent(perhaps_gone, notes.perhaps_gone.number())) board_.fail("key %d is there, and was not found", key);
      close(key);
    } else if (code == PRTKV_ACCESS_DENIED) {
      if (was_absent(perhaps_closed, notes.perhaps_closed.number())) {
        board_.fail("key %d may be read, and was not", key);
      }
    } else if (code != PRTKV_DONE) {
      char text[PRTKV_ERROR_TEXT_SIZE] = "";
      auto text_size = static_cast<std::int32_t>(sizeof text);
      prtkv_get_last_error(session_, &code, text, &text_size);
      board_.fail("reading key %d failed: %s", key, text);
    } else {
      if (lasted(gone, notes.gone.number())) board_.fail("key %d was read when it was gone", key);
      if (lasted(closed, notes.closed.number())) board_.fail("key %d was read without the right", key);
      check(key, value, acknowledged);
    }
  }

  // Lists the keys, with a handle that was opened after the list before this one or for this one.
  void list() {
    std::array<std::uint64_t, kKeys> perhaps_gone{};
    std::array<std::uint64_t, kKeys> gone{};
    std::array<bool, kKeys> listed{};
    for (std::size_t key = 0; key < kKeys; ++key) {
      perhaps_gone[key] = board_.keys[key].perhaps_gone.number();
      gone[key] = board_.keys[key].gone.number();
    }
    std::int32_t code = home_ == 0 ? prtkv_open_key(session_, &home_, "home") : PRTKV_DONE;
    while (code == PRTKV_DONE) {
      char level[PRTKV_SUBKEY_NAME_SIZE];
      std::uint32_t size = sizeof level;
      std::int32_t remaining = 0;
      code = prtkv_enum_subkey(session_, home_, level, &size, &remaining);
      const int key = code == PRTKV_DONE ? level[size - 1] - '0' : 0;
      if (code == PRTKV_DONE && key < kKeys) listed[static_cast<std::size_t>(key)] = true;
    }
    if (code != PRTKV_NO_MORE_SUBKEYS) board_.fail("listing the keys gave %d", code);
    for (int key = 0; key < board_.keys_to_read; ++key) {
      const auto at = static_cast<std::size_t>(key);
      const Notes& notes = board_.keys[at];
      if (!listed[at] && was_absent(perhaps_gone[at], notes.perhaps_gone.number())) {
        board_.fail("key %d is there, and was not listed", key);
      }
      if (listed[at] && lasted(gone[at], notes.gone.number())) board_.fail("key %d was listed when it was gone", key);
    }
    prtkv_close_key(session_, home_);
    home_ = 0;
    if (random_() % 2 == 0) prtkv_open_key(session_, &home_, "home");
  }

  void check(int key, const std::string& value, std::uint64_t acknowledged) {
    std::uint64_t& last = last_[static_cast<std::size_t>(key)];
    const auto number = number_in(value, key);
    if (!number) return board_.fail("key %d has the value '%.100s'", key, value.c_str());
    if (*number < acknowledged) {
      board_.fail("key %d has value %lu, and %lu was acknowledged", key, *number, acknowledged);
    }
    if (*number < last) board_.fail("key %d has value %lu after %lu", key, *number, last);
    last = *number;
  }

  Board& board_;
  const OneSession session_;
  std::mt19937 random_;
  std::array<Kept, kKeys> kept_;
  prtkv_key home_ = 0;
  std::array<std::uint64_t, kKeys> last_{};
};

// Stops the calling thread for a moment, again and again, wherever it is, as long as this object lives.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action {};
    action.sa_handler = [](int) {
      static thread_local long turn = 0;
      const timespec pause{0, ++turn % 4 * 700'000};
      nanosleep(&pause, nullptr);
    };
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    struct sigevent event {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR1;
    event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
    if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0) std::abort();
    const itimerspec interval{{0, 1'130'000}, {0, 1'130'000}};
    timer_settime(timer_, 0, &interval, nullptr);
  }
  ~Interruptions() { timer_delete(timer_); }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  timer_t timer_{};
};

pid_t start(const std::function<void()>& body) {
  const pid_t process = fork();
  if (process != 0) return process;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  body();
  _exit(0);
}

bool ended_well(pid_t process) {
  int status = 0;
  return waitpid(process, &status, 0) == process && status == 0;
}

void read_on(Board& board, const store::LmdbOptions& options, unsigned seed) {
  KeyReader reader(board, options, seed);
  const Interruptions interruptions;
  reader.read_until_the_end();
}

// Waits until each reader has read for a while.
void let_them_read(const Board& board) {
  constexpr std::uint64_t kReads = 300;
  const std::uint64_t before = board.reads;
  for (int waits = 0; board.reads < before + kReads && board.failures == 0 && waits < 100'000; ++waits) usleep(100);
}

void write_steps(Board& board, const store::LmdbOptions& options, int first, int steps) {
  KeyWriter writer(board, options, first, static_cast<unsigned>(first + 1));
  for (int step = 0; step < steps && board.failures == 0; ++step) writer.step();
}

struct Circumstance {
  const char* name;
  bool read_only = false;    // the readers' sessions
  bool grows = false;        // another process makes the registry grow
  bool writers_die = false;  // after writing a meta page, before the commit is published
  bool one_key = false;      // one writer, which is slow, and one key that is written and read
  bool forks = false;        // a reader forks, and its child reads with a session of its own
};

constexpr Circumstance kCircumstances[] = {
    {.name = "writers and readers"},
    {.name = "readers that opened for reading only", .read_only = true},
    {.name = "a slow writer of one key", .one_key = true},
    {.name = "a process that makes the registry grow", .grows = true},
    {.name = "writers that die between meta page and publication", .writers_die = true},
    {.name = "a reader that forks", .forks = true},
};

class Trial {
 public:
  Trial(const Circumstance& circumstance, int steps) : circumstance_(circumstance), steps_(steps) {}

  bool passes() {
    settle();
    if (circumstance_.one_key) board_.keys_to_read = 1;
    start_readers();
    if (circumstance_.writers_die) {
      write_and_die();
    } else if (circumstance_.one_key) {
      write_one_key();
    } else {
      write();
    }
    let_them_read(board_);
    board_.ends = true;
    for (const pid_t reader : readers_)
      if (!ended_well(reader)) board_.fail("a reader ended badly");
    std::printf("%-55s %9lu reads  %s\n", circumstance_.name, board_.reads.load(),
                board_.failures == 0 ? "as promised" : board_.first_failure);
    return board_.failures == 0;
  }

 private:
  void settle() {
    for (const int first : {0, 1}) {
      if (!ended_well(start([&] { KeyWriter(board_, options_, first, 0).settle(); }))) {
        board_.fail("a writer ended badly");
      }
    }
  }

  void start_readers() {
    store::LmdbOptions options = options_;
    options.read_only = circumstance_.read_only;
    readers_.push_back(start([&] {
      std::thread other([&] { read_on(board_, options, 11); });
      read_on(board_, options, 12);
      other.join();
    }));
    readers_.push_back(start([&] { circumstance_.forks ? read_and_fork(options) : read_on(board_, options, 13); }));
    for (int waits = 0; board_.readers < 3 && board_.failures == 0 && waits < 100'000; ++waits) usleep(100);
    let_them_read(board_);
  }

  // What the child inherits serves it no longer, whether a key is known or not.
  void read_and_fork(const store::LmdbOptions& options) {
    OneSession inherited(options, Identity{"bob", {"users"}, false});
    prtkv_key key = 0;
    for (int times = 0; times < 3; ++times) prtkv_open_key(inherited, &key, "home");
    const pid_t child = start([&] {
      prtkv_key again = 0;
      char value[100];
      std::int32_t type = 0;
      std::uint32_t size = sizeof value;
      if (prtkv_open_key(inherited, &again, "home") != PRTKV_UNUSABLE ||
          prtkv_get_value(inherited, key, &type, value, &size) != PRTKV_UNUSABLE) {
        board_.fail("a child reads through its parent's session");
      }
      read_on(board_, options, 14);
    });
    read_on(board_, options, 15);
    if (!ended_well(child)) board_.fail("the child of a reader ended badly");
  }

  void write() {
    std::vector<pid_t> writers;
    writers.push_back(start([&] {  // readers beside a writer in one process
      std::thread reader([&] { read_on(board_, options_, 16); });
      write_steps(board_, options_, 0, steps_);
      board_.ends = true;
      reader.join();
    }));
    writers.push_back(start([&] { write_steps(board_, options_, 1, steps_); }));
    if (circumstance_.grows) writers.push_back(start([&] { grow(); }));
    for (const pid_t writer : writers)
      if (!ended_well(writer)) board_.fail("a writer ended badly");
  }

  void write_one_key() {
    const pid_t writer = start([&] {
      is_slow_before_meta_page = true;
      KeyWriter one(board_, options_, 0, 1);
      for (int step = 0; step < 8 * steps_ && board_.failures == 0; ++step) one.repeat();
    });
    if (!ended_well(writer)) board_.fail("the writer ended badly");
  }

  void grow() {
    OneSession session(options_, Identity{"alice", {"staff"}, true});
    const std::string value(kLargestValue, 'v');
    prtkv_key root = 0;
    prtkv_key made = 0;
    std::int32_t word = 0;
    prtkv_open_key(session, &root, "");
    for (int number = 0; number < 2 * steps_ && board_.failures == 0; ++number) {
      const std::string name = "bulk" + std::to_string(number);
      const std::int32_t code =
          prtkv_create_n_set_key(session, root, name.c_str(), &made, &word, PRTKV_TYPE_TEXT, security(0), value.data(),
                                 static_cast<std::uint32_t>(value.size()));
      if (code != PRTKV_DONE) board_.fail("the registry does not grow: %d", code);
      prtkv_close_key(session, made);
    }
  }

  void write_and_die() {
    const int rounds = steps_ / 25;
    for (int round = 0; round < rounds && board_.failures == 0; ++round) {
      const pid_t writer = start([&] {
        KeyWriter each(board_, options_, round % 2, static_cast<unsigned>(round));
        each.settle();
        for (int step = 0; step < 10; ++step) each.step();
        dies_after_meta_page = true;
        each.step();
      });
      int status = 0;
      waitpid(writer, &status, 0);
      if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) board_.fail("a writer did not die as it should");
      let_them_read(board_);
    }
  }

  const Circumstance& circumstance_;
  const int steps_;
  const TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  const store::LmdbOptions options_ = options_in(directory_ / "registry");
  Board& board_ = *new_board();
  std::vector<pid_t> readers_;
};

}  // namespace
}  // namespace tkv::registry

int main(int count, char** arguments) {
  const bool is_long = count == 2 && std::strcmp(arguments[1], "--long") == 0;
  bool passed = true;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  for (const auto& circumstance : tkv::registry::kCircumstances) {
    passed = tkv::registry::Trial(circumstance, is_long ? 20'000 : 250).passes() && passed;
  }
  return passed ? 0 : 1;
}
