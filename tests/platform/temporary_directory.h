// A fresh directory, removed with its contents when the object is destroyed: below $TMPDIR or, for tests that write
// much and need no disk, in memory if there is room.
#ifndef TKV_TESTS_PLATFORM_TEMPORARY_DIRECTORY_H
#define TKV_TESTS_PLATFORM_TEMPORARY_DIRECTORY_H

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tkv {

class TemporaryDirectory {
 public:
  enum class Where { kOnDisk, kInMemory };

  explicit TemporaryDirectory(Where where = Where::kOnDisk) : path_((base(where) / "tkv-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path_);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  static std::filesystem::path base(Where where) {
    constexpr std::uintmax_t kRoom = 512 * 1024 * 1024;
    std::error_code none;
    const std::filesystem::path memory = "/dev/shm";
    if (where == Where::kInMemory && std::filesystem::space(memory, none).available >= kRoom && !none) return memory;
    return std::filesystem::temp_directory_path();
  }

  std::string path_;
};

}  // namespace tkv

#endif
