#include "store/lmdb/writer_page.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace tkv::store {
namespace {

constexpr std::size_t kMapSize = 128;  // the kernel maps a whole page
constexpr std::uint32_t kSleeper = 1;
constexpr std::size_t kTurns = 2;           // after the bells of both bytes
constexpr std::uint32_t kMostTurns = 1000;  // the file may hold anything

void futex(std::uint32_t* word, int operation, std::uint32_t value, const timespec* timeout) {
  (void)syscall(SYS_futex, word, operation, value, timeout, nullptr, 0);
}

bool is_number_of_turns(std::uint32_t word) { return word > 0 && word <= kMostTurns; }

// A child that inherited the map would keep the parent's lock alive.
std::byte* map_file(int file) {
  void* const map = mmap(nullptr, kMapSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (map == MAP_FAILED) return nullptr;
  if (madvise(map, kMapSize, MADV_DONTFORK) == 0) return static_cast<std::byte*>(map);
  munmap(map, kMapSize);
  return nullptr;
}

}  // namespace

WriterPage::~WriterPage() {
  if (map_ != nullptr) munmap(map_, kMapSize);
}

// No call tells the size sooner than lseek(). Nothing depends on the position.
void WriterPage::refresh(int file) {
  is_usable_ = lseek(file, 0, SEEK_END) > 0;
  if (is_usable_ && map_ == nullptr) map_ = map_file(file);
  is_usable_ = is_usable_ && map_ != nullptr;
}

std::uint32_t* WriterPage::word(std::size_t index) const {
  return reinterpret_cast<std::uint32_t*>(map_ + kWordsOffset) + index;
}

bool WriterPage::names(std::string_view holder) const {
  return is_usable_ && std::memcmp(map_, holder.data(), kHolderSize) == 0;
}

std::uint32_t WriterPage::announce(off_t byte) const {
  if (!is_usable_) return 0;
  return __atomic_or_fetch(word(static_cast<std::size_t>(byte)), kSleeper, __ATOMIC_SEQ_CST);
}

void WriterPage::sleep(off_t byte, std::uint32_t announced, std::chrono::microseconds longest) const {
  if (!is_usable_) return std::this_thread::sleep_for(longest);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(longest);
  const timespec timeout{seconds.count(), std::chrono::nanoseconds(longest - seconds).count()};
  futex(word(static_cast<std::size_t>(byte)), FUTEX_WAIT, announced, &timeout);
}

// The increment takes away the sleeper's bit. Whoever wakes up sets it again for those who still sleep.
void WriterPage::ring(off_t byte) const {
  if (!is_usable_) return;
  std::uint32_t* const bell = word(static_cast<std::size_t>(byte));
  std::uint32_t was = __atomic_load_n(bell, __ATOMIC_SEQ_CST);
  if ((was & kSleeper) == 0) return;
  if (!__atomic_compare_exchange_n(bell, &was, was + 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return;
  futex(bell, FUTEX_WAKE, 1, nullptr);
}

void WriterPage::offer_turns(std::uint32_t turns) const {
  if (!is_usable_ || __atomic_load_n(word(kTurns), __ATOMIC_SEQ_CST) == turns) return;  // the page may stay clean
  __atomic_store_n(word(kTurns), turns, __ATOMIC_SEQ_CST);
}

bool WriterPage::has_turns() const {
  return is_usable_ && is_number_of_turns(__atomic_load_n(word(kTurns), __ATOMIC_SEQ_CST));
}

bool WriterPage::take_turn() const {
  if (!is_usable_) return false;
  std::uint32_t left = __atomic_load_n(word(kTurns), __ATOMIC_SEQ_CST);
  return is_number_of_turns(left) &&
         __atomic_compare_exchange_n(word(kTurns), &left, left - 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

}  // namespace tkv::store
