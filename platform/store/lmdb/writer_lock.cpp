#include "store/lmdb/writer_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <string_view>

#include "store/lmdb/commit_times.h"
#include "store/lmdb/error.h"

namespace tkv::store {
namespace {

// These are shared with other processes. Do not change.
constexpr off_t kNextWriter = 0;
constexpr off_t kWriter = 1;

// Between two attempts, if nobody rings.
constexpr std::chrono::microseconds kFirstPause{50};
constexpr std::chrono::microseconds kLongestPause{5000};
constexpr std::chrono::microseconds kLongestPauseWithTurns{500};

// What the process that is next lets others write ahead of it: as many writes, for as long.
constexpr std::uint32_t kTurnsOfOthers = 32;
constexpr std::chrono::milliseconds kPatience{5};

// A process that is woken up seldom runs before that.
constexpr std::chrono::microseconds kTimeToWakeUp{50};

constexpr const char* kAnotherProcess = "another process";

int lock_bytes(int file, off_t first, off_t count, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = first;
  range.l_len = count;
  return fcntl(file, F_OFD_SETLK, &range) == 0 ? 0 : errno;
}

int lock_byte(int file, off_t byte, short type) { return lock_bytes(file, byte, 1, type); }

// Takes both bytes or none. A process that is next has one of them.
bool lock_both(int file) {
  static_assert(kWriter == kNextWriter + 1);
  return lock_bytes(file, kNextWriter, 2, F_WRLCK) == 0;
}

unsigned long pid_namespace() {
  struct stat status {};
  return stat("/proc/self/ns/pid", &status) == 0 ? static_cast<unsigned long>(status.st_ino) : 0;
}

std::string command_of_process() {
  char name[32] = {};
  const Descriptor file(open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
  const ssize_t count = file.is_open() ? read(file.number(), name, sizeof name - 1) : 0;
  std::string command(name, count > 0 ? static_cast<std::size_t>(count) : 0);
  while (!command.empty() && command.back() == '\n') command.pop_back();
  return command.empty() ? "unknown" : command;
}

// What names this process as the holder.
std::string name_of_process() {
  static const std::string command = command_of_process();
  std::string name = std::to_string(getpid()) + " " + std::to_string(pid_namespace()) + " " + command;
  name.resize(WriterPage::kHolderSize);
  return name;
}

// Other processes write this text; it may be anything.
std::string printable(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c < 0x20 || c > 0x7e || c == '%') c = '?';
  return result;
}

// Takes a number and the blank behind it off the front of `text`.
bool take_number(std::string_view* text, std::uint64_t* number) {
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
  if (error != std::errc() || end == text->data() + text->size() || *end != ' ') return false;
  text->remove_prefix(static_cast<std::size_t>(end + 1 - text->data()));
  return true;
}

}  // namespace

// The byte of the process that is next, while it waits for the other one.
class WriterLock::Place {
 public:
  explicit Place(WriterLock& lock) : lock_(lock) {}
  ~Place() {
    lock_.page_.offer_turns(0);
    (void)lock_byte(lock_.file_.number(), kNextWriter, F_UNLCK);
    lock_.page_.ring(kNextWriter);
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

 private:
  WriterLock& lock_;
};

Status WriterLock::acquire(WriterDeadline* deadline) {
  if (Status status = open_file(); !status.ok()) return status;
  writes_without_pause_ = WriterDeadline::Clock::now() - released_ < kTimeToWakeUp;
  page_.refresh(file_.number());
  if (!page_.take_turn() || lock_byte(file_.number(), kWriter, F_WRLCK) != 0) {
    const bool has_both = lock_both(file_.number());
    if (Status status = has_both ? Status() : take_byte(kNextWriter, deadline); !status.ok()) return status;
    const Place place(*this);
    if (Status status = has_both ? Status() : take_byte(kWriter, deadline); !status.ok()) return status;
  }
  name_holder();
  return {};
}

// A process that writes without a pause has the lock again before another one has woken up. As long as it may write
// ahead, it does not ring: the process that is next looks at the lock in short intervals meanwhile.
void WriterLock::release() {
  page_.refresh(file_.number());
  (void)lock_byte(file_.number(), kWriter, F_UNLCK);
  if (!writes_without_pause_ || !page_.has_turns()) page_.ring(kWriter);
  released_ = WriterDeadline::Clock::now();
}

void WriterLock::note_commit(std::uint64_t transaction) {
  const std::int64_t now = std::time(nullptr);
  if (now / CommitTimes::kInterval == noted_) return;
  noted_ = now / CommitTimes::kInterval;
  CommitTimes(file_.number()).note(transaction, now);
}

Status WriterLock::open_file() {
  if (file_.is_open()) return {};
  name_ = name_of_process();
  return files_.open_writer_lock(&file_);
}

Status WriterLock::take_byte(off_t byte, WriterDeadline* deadline) {
  if (lock_byte(file_.number(), byte, F_WRLCK) == 0) return {};
  const auto begin = WriterDeadline::Clock::now();
  bool offers_turns = byte == kWriter;
  if (offers_turns) page_.offer_turns(kTurnsOfOthers);
  for (auto pause = kFirstPause;; pause = std::min(pause * 2, offers_turns ? kLongestPauseWithTurns : kLongestPause)) {
    page_.refresh(file_.number());
    if (offers_turns && WriterDeadline::Clock::now() - begin >= kPatience) {
      page_.offer_turns(0);
      offers_turns = false;
    }
    const std::uint32_t announced = page_.announce(byte);
    const int error = lock_byte(file_.number(), byte, F_WRLCK);
    if (error == 0) return {};
    if (error != EAGAIN && error != EACCES && error != EINTR) {
      return lmdb_status(error, "cannot lock '" + files_.path() + "/writer.lock'");
    }
    if (deadline->has_passed()) return deadline->gave_up(holder());
    deadline->tell([&] { return holder(); });
    page_.sleep(byte, announced, pause);
  }
}

// Without the name, others wait for "another process".
void WriterLock::name_holder() const {
  if (!page_.names(name_)) (void)!pwrite(file_.number(), name_.data(), name_.size(), 0);
}

std::string WriterLock::holder() const {
  std::array<char, WriterPage::kHolderSize + 1> text{};
  if (pread(file_.number(), text.data(), WriterPage::kHolderSize, 0) < 0) return kAnotherProcess;
  std::string_view rest = text.data();
  std::uint64_t process = 0;
  std::uint64_t name_space = 0;
  if (!take_number(&rest, &process) || !take_number(&rest, &name_space)) return kAnotherProcess;
  const std::string who = "process " + std::to_string(process) + " (" + printable(rest) + ")";
  return name_space == pid_namespace() ? who : who + " in another container";
}

}  // namespace tkv::store
