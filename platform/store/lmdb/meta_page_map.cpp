#include "store/lmdb/meta_page_map.h"

#include <sys/mman.h>

#include <cstddef>

namespace tkv::store {

MetaPageMap::~MetaPageMap() {
  if (address_ != nullptr) munmap(address_, size_);
}

void MetaPageMap::open(int file, std::size_t page_size) {
  void* const address = mmap(nullptr, kMetaPages * page_size, PROT_READ, MAP_SHARED, file, 0);
  if (address == MAP_FAILED) return;
  address_ = address;
  size_ = kMetaPages * page_size;
  for (std::size_t page = 0; page < kMetaPages; ++page) {
    const auto* const number =
        static_cast<const std::byte*>(address) + page * page_size + offsetof(MetaPage, transaction);
    numbers_[page] = reinterpret_cast<const std::uint64_t*>(number);
  }
}

}  // namespace tkv::store
