// A fresh directory below $TMPDIR, gone with all its contents at the end of its life.
#ifndef TKV_TESTS_PLATFORM_TEMPORARY_DIRECTORY_H
#define TKV_TESTS_PLATFORM_TEMPORARY_DIRECTORY_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tkv {

class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_((std::filesystem::temp_directory_path() / "tkv-test-XXXXXX").string()) {
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
  std::string path_;
};

}  // namespace tkv

#endif
