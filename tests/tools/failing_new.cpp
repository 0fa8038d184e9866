// A library to preload: from the allocation by operator new with the number $FAILING_NEW on, all fail. It counts from
// the program's first call of signal(), which the command makes before it looks at its arguments.
#include <dlfcn.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false};
std::atomic<long> made{0};

bool fails() {
  static const char* const number = std::getenv("FAILING_NEW");
  return counting && number != nullptr && ++made >= std::atol(number);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) sighandler_t signal(int number, sighandler_t handler) noexcept {
  counting = true;
  return reinterpret_cast<decltype(&signal)>(::dlsym(RTLD_NEXT, "signal"))(number, handler);
}

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
  void* block = fails() ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

__attribute__((visibility("default"))) void operator delete(void* block) noexcept { std::free(block); }
__attribute__((visibility("default"))) void operator delete(void* block, std::size_t) noexcept { std::free(block); }
