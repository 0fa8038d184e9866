#include "store/lmdb/meta_page_map.h"

#include <sys/mman.h>

#include <cstddef>

namespace tkv::store {
namespace {

std::size_t offset_of_number(std::size_t page, std::size_t page_size) {
  return page * page_size + offsetof(MetaPage, transaction);
}

const std::uint64_t* number_in(const std::byte* map, std::size_t page, std::size_t page_size) {
  return reinterpret_cast<const std::uint64_t*>(map + offset_of_number(page, page_size));
}

}  // namespace

class MetaPageMap::Pages final : public StateMemory {
 public:
  Pages() = default;
  ~Pages() override {
    if (address_ != nullptr) munmap(address_, size());
  }

  // Call once, before anyone else knows this object.
  bool map(int file, std::size_t page_size) {
    void* const address = mmap(nullptr, kMetaPages * page_size, PROT_READ, MAP_SHARED, file, 0);
    if (address == MAP_FAILED) return false;
    address_ = static_cast<std::byte*>(address);
    page_size_ = page_size;
    return true;
  }

  const std::uint64_t* number(std::size_t page) const { return number_in(address_, page, page_size_); }

  std::span<const std::byte> bytes() const override {
    const std::size_t first = offset_of_number(0, page_size_);
    const std::size_t last = offset_of_number(kMetaPages - 1, page_size_);
    return {address_ + first, last - first + sizeof(std::uint64_t)};
  }

  // Replaces the file's pages with empty ones in one step, since others may be reading. If there is no memory for that,
  // the file's pages stay.
  void withdraw() const noexcept {
    (void)mmap(address_, size(), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
  }

 private:
  std::size_t size() const { return kMetaPages * page_size_; }

  std::byte* address_ = nullptr;
  std::size_t page_size_ = 0;
};

MetaPageMap::MetaPageMap() : pages_(std::make_shared<Pages>()) {}

// Nobody else can come to hold memory that this object alone holds now.
MetaPageMap::~MetaPageMap() {
  if (pages_.use_count() > 1) withdraw();
}

void MetaPageMap::prepare(int file, std::size_t page_size) {
  file_ = file;
  page_size_ = page_size;
}

void MetaPageMap::open() noexcept {
  const std::lock_guard lock(mutex_);
  if (is_open() || withdrawn_ || !pages_->map(file_, page_size_)) return;
  for (std::size_t page = kMetaPages; page-- > 0;) numbers_[page] = pages_->number(page);
  if (withdrawn_) pages_->withdraw();  // by a thread that did not see the pages yet
}

void MetaPageMap::withdraw() noexcept {
  withdrawn_ = true;
  if (is_open()) pages_->withdraw();
}

std::shared_ptr<const StateMemory> MetaPageMap::memory() const { return is_open() ? pages_ : nullptr; }

void MetaPageMap::open_if_often() noexcept {
  constexpr unsigned kOften = 64;
  if (calls_.fetch_add(1, std::memory_order_relaxed) == kOften) open();
}

std::uint64_t MetaPageMap::latest_or_in(const std::byte* map) const {
  const std::uint64_t latest_here = latest();
  if (latest_here != 0 || map == nullptr || withdrawn_) return latest_here;
  return later_of(number_in(map, 0, page_size_), number_in(map, 1, page_size_));
}

}  // namespace tkv::store
