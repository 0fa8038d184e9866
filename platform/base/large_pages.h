// LargePages: an allocator for large tables that are read at random places.
//
// Where the kernel offers large pages to whoever asks for them, such a read then misses the processor's cache of page
// addresses far less often, which would cost about as much as missing the cache of memory itself.
#ifndef TKV_PLATFORM_BASE_LARGE_PAGES_H
#define TKV_PLATFORM_BASE_LARGE_PAGES_H

#include <sys/mman.h>

#include <cstddef>
#include <new>

namespace tkv {

template <typename Type>
class LargePages {
 public:
  using value_type = Type;

  LargePages() = default;
  template <typename Other>
  LargePages(const LargePages<Other>& /*other*/) {}  // NOLINT(google-explicit-constructor): as containers convert it

  // Throws std::bad_alloc.
  Type* allocate(std::size_t count) {
    const std::size_t size = count * sizeof(Type);
    void* const memory = ::operator new(size, alignment(size));
    if (size >= kSize) (void)madvise(memory, size, MADV_HUGEPAGE);  // a failure only makes reading slower
    return static_cast<Type*>(memory);
  }

  void deallocate(Type* memory, std::size_t count) { ::operator delete(memory, alignment(count * sizeof(Type))); }

  bool operator==(const LargePages& /*other*/) const { return true; }

 private:
  static constexpr std::size_t kSize = std::size_t{2} << 20;

  static std::align_val_t alignment(std::size_t size) { return std::align_val_t(size < kSize ? alignof(Type) : kSize); }
};

}  // namespace tkv

#endif
