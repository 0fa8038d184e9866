// Lets the n-th system call or allocation of a program fail.
//
// The calls that fail are the program's own: a program's symbols come before libc's, for LMDB too. For one source of a
// program only.
#ifndef TKV_TESTS_FAULT_FAILING_CALLS_H
#define TKV_TESTS_FAULT_FAILING_CALLS_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <new>
#include <utility>

#include "base/status.h"

namespace tkv::fault {

enum class Call { kNone, kOpen, kMap, kWrite, kSync, kAllocate };

inline Call failing = Call::kNone;
inline int calls_left = 0;  // until one fails
inline bool has_failed = false;

inline bool fails(Call call) {
  if (failing != call || --calls_left != 0) return false;
  has_failed = true;
  return true;
}

inline int fail_with(int error) {
  errno = error;
  return -1;
}

}  // namespace tkv::fault

extern "C" {

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  return tkv::fault::fails(tkv::fault::Call::kAllocate) ? nullptr : __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  return tkv::fault::fails(tkv::fault::Call::kAllocate) ? nullptr : __libc_calloc(count, size);
}
#endif

[[gnu::visibility("default")]] int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (tkv::fault::fails(tkv::fault::Call::kOpen)) return tkv::fault::fail_with(EMFILE);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

[[gnu::visibility("default")]] void* mmap(void* address, std::size_t size, int protection, int flags, int file,
                                          off_t offset) noexcept {
  if (tkv::fault::fails(tkv::fault::Call::kMap)) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, file, offset));
}

[[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  return tkv::fault::fails(tkv::fault::Call::kWrite) ? tkv::fault::fail_with(EIO)
                                                     : syscall(SYS_pwrite64, file, bytes, size, offset);
}

[[gnu::visibility("default")]] ssize_t writev(int file, const struct iovec* parts, int count) {
  return tkv::fault::fails(tkv::fault::Call::kWrite) ? tkv::fault::fail_with(EIO)
                                                     : syscall(SYS_writev, file, parts, count);
}

[[gnu::visibility("default")]] int fdatasync(int file) {
  return tkv::fault::fails(tkv::fault::Call::kSync) ? tkv::fault::fail_with(EIO)
                                                    : static_cast<int>(syscall(SYS_fdatasync, file));
}

}  // extern "C"

namespace tkv::fault {

// Runs `work` while the n-th call of this kind fails. A failure may also come as an exception.
template <typename Work>
Status with_failure(Call call, int nth, Work work) {
  has_failed = false;
  calls_left = nth;
  failing = call;
  Status status;
  try {
    status = work();
  } catch (const std::bad_alloc&) {
    status = PRTKV_OUT_OF_MEMORY;
  }
  failing = Call::kNone;
  return status;
}

}  // namespace tkv::fault

#endif
