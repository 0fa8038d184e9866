// SubkeyNames: the level names of a key's subkeys, in one block of memory.
#ifndef TKV_PLATFORM_REGISTRY_SUBKEY_NAMES_H
#define TKV_PLATFORM_REGISTRY_SUBKEY_NAMES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace tkv::registry {

// Adding a name allocates only when the block grows, reading one never. A name is shorter than 2^32 bytes.
//
// Any number of threads may read at once, as long as nobody adds.
class SubkeyNames {
 public:
  // How far a reader has come; at first, before all names.
  struct Position {
    std::size_t offset = 0;
    std::size_t passed = 0;  // names
  };

  SubkeyNames() = default;
  SubkeyNames(const SubkeyNames&) = delete;
  SubkeyNames& operator=(const SubkeyNames&) = delete;

  std::size_t count() const { return count_; }

  // The memory that they take.
  std::size_t bytes() const { return capacity_; }

  // Adds a name at the end. If it throws std::bad_alloc, nothing was added.
  void add(std::string_view level) {
    const auto size = static_cast<std::uint32_t>(level.size());
    const std::size_t end = end_of(end_, size);
    if (end > capacity_) grow(end);
    char* const at = block_.get() + end_;
    std::memcpy(at, &size, sizeof size);
    std::memcpy(at + sizeof size, level.data(), size);
    at[sizeof size + size] = '\0';
    end_ = end;
    ++count_;
  }

  void clear() {
    end_ = 0;
    count_ = 0;
  }

  // The name at a position that has not passed all of them. A NUL follows it.
  std::string_view at(const Position& position) const {
    const char* const name = block_.get() + position.offset;
    std::uint32_t size = 0;
    std::memcpy(&size, name, sizeof size);
    return {name + sizeof size, size};
  }

  // Passes the name that is at the position.
  static void advance(std::string_view passed, Position* position) {
    position->offset = end_of(position->offset, passed.size());
    ++position->passed;
  }

 private:
  static constexpr std::size_t kFirstBytes = 256;

  static std::size_t end_of(std::size_t offset, std::size_t size) { return offset + sizeof(std::uint32_t) + size + 1; }

  void grow(std::size_t needed) {
    const std::size_t capacity = std::max({needed, 2 * capacity_, kFirstBytes});
    auto larger = std::make_unique_for_overwrite<char[]>(capacity);
    if (end_ != 0) std::memcpy(larger.get(), block_.get(), end_);
    block_ = std::move(larger);
    capacity_ = capacity;
  }

  std::unique_ptr<char[]> block_;  // of each name the size, the bytes and a NUL
  std::size_t capacity_ = 0;
  std::size_t end_ = 0;
  std::size_t count_ = 0;
};

}  // namespace tkv::registry

#endif
