#include "store/lmdb/pages_in_file.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <span>

namespace tkv::store {

PagesInFile::PagesInFile(int file, std::size_t page_size)
    : file_(file), page_size_(page_size), bytes_(std::make_unique_for_overwrite<std::byte[]>(kMostPages * page_size)) {}

PagesInFile::~PagesInFile() { wipe(); }

bool PagesInFile::begin_use() {
  const std::lock_guard lock(mutex_);
  if (begun_ == kMostUses) return false;
  ++begun_;
  return true;
}

void PagesInFile::end_use() {
  const std::lock_guard lock(mutex_);
  ++ended_;
  wipe_if_over();
}

void PagesInFile::leave_out_further_uses() {
  const std::lock_guard lock(mutex_);
  ended_ += kMostUses - begun_;
  begun_ = kMostUses;
  wipe_if_over();
}

void PagesInFile::wipe_if_over() {
  if (ended_ < kMostUses) return;
  is_over_ = true;
  wipe();
}

// count_ if the page is not known.
std::size_t PagesInFile::index_of(std::uint64_t number) const {
  const auto known = std::span(numbers_).first(count_);
  return static_cast<std::size_t>(std::find(known.begin(), known.end(), number) - known.begin());
}

bool PagesInFile::read(std::uint64_t number, const std::byte** page) {
  const std::lock_guard lock(mutex_);
  const std::size_t index = index_of(number);
  *page = nullptr;
  if (bytes_ == nullptr || index == kMostPages) return true;
  std::byte* const bytes = bytes_.get() + index * page_size_;
  if (index == count_) {
    const ssize_t size = pread(file_, bytes, page_size_, static_cast<off_t>(number * page_size_));
    if (size != static_cast<ssize_t>(page_size_)) {
      error_ = size < 0 ? errno : ENODATA;
      return false;
    }
    numbers_[count_++] = number;
  }
  *page = bytes;
  return true;
}

bool PagesInFile::use_and_copy(std::uint64_t offset, std::span<std::byte> bytes) {
  if (!begin_use()) return false;
  bool is_known = false;
  {
    const std::lock_guard lock(mutex_);
    const std::size_t index = index_of(offset / page_size_);
    const std::size_t within = offset % page_size_;
    is_known = index < count_ && bytes.size() <= page_size_ - within;
    if (is_known) std::memcpy(bytes.data(), bytes_.get() + index * page_size_ + within, bytes.size());
  }
  end_use();
  return is_known;
}

bool PagesInFile::find(const std::byte* address, std::uint64_t* offset) const {
  const std::lock_guard lock(mutex_);
  const std::less<> before;
  if (bytes_ == nullptr || before(address, bytes_.get()) || !before(address, bytes_.get() + count_ * page_size_)) {
    return false;
  }
  const std::size_t at = static_cast<std::size_t>(address - bytes_.get());
  *offset = numbers_[at / page_size_] * page_size_ + at % page_size_;
  return true;
}

int PagesInFile::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

void PagesInFile::wipe() {
  const std::size_t pages = std::min(count_ + 1, kMostPages);  // also one that was read in part
  if (bytes_ != nullptr) ::explicit_bzero(bytes_.get(), pages * page_size_);
  bytes_.reset();
  count_ = 0;
}

}  // namespace tkv::store
