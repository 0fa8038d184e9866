// The n-th system call or allocation fails, for every n: what is reported as failed has not happened, what is reported
// as done has, and the registry stays sound.
//
// The calls that fail are this program's own: a program's symbols take precedence over libc's, for LMDB too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <new>
#include <string>

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace {

enum class Call { kNone, kOpen, kMap, kWrite, kSync, kAllocate };

Call failing = Call::kNone;
int calls_left = 0;  // until one fails
bool has_failed = false;

bool fails(Call call) {
  if (failing != call || --calls_left != 0) return false;
  has_failed = true;
  return true;
}

int fail_with(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" {

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  return fails(Call::kAllocate) ? nullptr : __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  return fails(Call::kAllocate) ? nullptr : __libc_calloc(count, size);
}
#endif

[[gnu::visibility("default")]] int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (fails(Call::kOpen)) return fail_with(EMFILE);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

[[gnu::visibility("default")]] void* mmap(void* address, std::size_t size, int protection, int flags, int file,
                                          off_t offset) noexcept {
  if (fails(Call::kMap)) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, file, offset));
}

[[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  return fails(Call::kWrite) ? fail_with(EIO) : syscall(SYS_pwrite64, file, bytes, size, offset);
}

[[gnu::visibility("default")]] ssize_t writev(int file, const struct iovec* parts, int count) {
  return fails(Call::kWrite) ? fail_with(EIO) : syscall(SYS_writev, file, parts, count);
}

[[gnu::visibility("default")]] int fdatasync(int file) {
  return fails(Call::kSync) ? fail_with(EIO) : static_cast<int>(syscall(SYS_fdatasync, file));
}

}  // extern "C"

namespace tkv::store {
namespace {

struct FailingCall {
  const char* name;
  Call call;
};

class LmdbFailingCalls : public ::testing::TestWithParam<FailingCall> {
 protected:
  LmdbFailingCalls() { options_.directory = directory_ / "registry"; }
  ~LmdbFailingCalls() override { failing = Call::kNone; }

  // Runs `work` with the n-th call failing. A failure may also come as an exception.
  template <typename Work>
  Status with_failure(int nth, Work work) {
    has_failed = false;
    calls_left = nth;
    failing = GetParam().call;
    Status status;
    try {
      status = work();
    } catch (const std::bad_alloc&) {
      status = PRTKV_OUT_OF_MEMORY;
    }
    failing = Call::kNone;
    return status;
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

// A write of keys and values of several sizes, all of which carry the text.
Status write_text(Store& store, const std::string& text) {
  return store.write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(kRootNode, text, node); !status.ok()) return status;
    const std::string large(10'000, text.back());
    if (Status status = update.set_value(node.id, 3, std::as_bytes(std::span(large))); !status.ok()) return status;
    return update.set_value(kRootNode, 3, std::as_bytes(std::span(text)));
  });
}

TEST_P(LmdbFailingCalls, AWriteIsMadeOrNotAsReported) {
  constexpr int kMost = 2000;
  std::string present = "0";
  auto store = open_or_fail(options_);
  ASSERT_TRUE(write_text(*store, present).ok());
  int failed = 0;
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    const std::string text = std::to_string(nth);
    const Status status = with_failure(nth, [&] { return write_text(*store, text); });
    if (status.ok()) present = text;
    failed += !status.ok();
    EXPECT_EQ(text_of(*store), present) << nth << ": " << status.text();
    expect_sound(*store);
  } while (has_failed);
  if (GetParam().call == Call::kWrite || GetParam().call == Call::kSync) {
    EXPECT_GT(failed, 0);
  }
  store.reset();
  store = open_or_fail(options_);
  EXPECT_EQ(text_of(*store), present);
  expect_sound(*store);
}

TEST_P(LmdbFailingCalls, AnOpeningLeavesTheRegistryAsItWas) {
  constexpr int kMost = 2000;
  ASSERT_TRUE(write_text(*open_or_fail(options_), "former").ok());
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    std::shared_ptr<Store> store;
    const Status status = with_failure(nth, [&] { return open_lmdb_store(options_, &store); });
    EXPECT_EQ(status.ok(), store != nullptr) << nth << ": " << status.text();
    if (store != nullptr) {
      EXPECT_EQ(text_of(*store), "former");
    }
    store.reset();
    EXPECT_EQ(text_of(*open_or_fail(options_)), "former") << nth;
  } while (has_failed);
  expect_sound(*open_or_fail(options_));
}

TEST_P(LmdbFailingCalls, AWriteThatMakesTheMapGrowIsMadeOrNotAsReported) {
  constexpr int kMost = 3000;
  options_.first_map_size = 256 * 1024;
  const std::string large(600 * 1024, 'l');
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    LmdbOptions options = options_;
    options.directory = directory_ / std::to_string(nth);
    const auto store = open_or_fail(options);
    ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
    const Status status = with_failure(nth, [&] { return set_text(*store, kRootNode, large); });
    EXPECT_EQ(text_of(*store), status.ok() ? large : "former") << nth << ": " << status.text();
    expect_sound(*store);
    std::filesystem::remove_all(options.directory);
  } while (has_failed);
}

INSTANTIATE_TEST_SUITE_P(Calls, LmdbFailingCalls,
                         ::testing::Values(FailingCall{"Open", Call::kOpen}, FailingCall{"Map", Call::kMap},
                                           FailingCall{"Write", Call::kWrite}, FailingCall{"Sync", Call::kSync},
                                           FailingCall{"Allocate", Call::kAllocate}),
                         [](const auto& call) { return call.param.name; });

}  // namespace
}  // namespace tkv::store
