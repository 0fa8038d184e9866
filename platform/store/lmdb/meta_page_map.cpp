#include "store/lmdb/meta_page_map.h"

#include <sys/mman.h>

#include <cstddef>

namespace tkv::store {
namespace {

std::size_t offset_of_number(std::size_t page, std::size_t page_size) {
  return page * page_size + offsetof(MetaPage, transaction);
}

}  // namespace

class MetaPageMap::Pages final : public StateMemory {
 public:
  Pages(void* address, std::size_t page_size) : address_(address), page_size_(page_size) {}
  ~Pages() override { munmap(address_, size()); }

  std::span<const std::byte> bytes() const override {
    const std::size_t first = offset_of_number(0, page_size_);
    const std::size_t last = offset_of_number(kMetaPages - 1, page_size_);
    return {static_cast<const std::byte*>(address_) + first, last - first + sizeof(std::uint64_t)};
  }

  // Replaces the file's pages with empty ones in one step, since others may be reading. If there is no memory for that,
  // the file's pages stay.
  void withdraw() const noexcept {
    (void)mmap(address_, size(), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
  }

 private:
  std::size_t size() const { return kMetaPages * page_size_; }

  void* const address_;
  const std::size_t page_size_;
};

// Nobody else can come to hold memory that this object alone holds now.
MetaPageMap::~MetaPageMap() {
  if (memory_.use_count() > 1) withdraw();
}

void MetaPageMap::open(int file, std::size_t page_size) {
  void* const address = mmap(nullptr, kMetaPages * page_size, PROT_READ, MAP_SHARED, file, 0);
  if (address == MAP_FAILED) return;
  try {
    memory_ = std::make_shared<const Pages>(address, page_size);
  } catch (const std::bad_alloc&) {
    munmap(address, kMetaPages * page_size);
    throw;
  }
  for (std::size_t page = 0; page < kMetaPages; ++page) {
    const auto* const number = static_cast<const std::byte*>(address) + offset_of_number(page, page_size);
    numbers_[page] = reinterpret_cast<const std::uint64_t*>(number);
  }
}

void MetaPageMap::withdraw() noexcept {
  if (memory_ != nullptr) static_cast<const Pages&>(*memory_).withdraw();
}

}  // namespace tkv::store
