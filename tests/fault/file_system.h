// Small file systems for tests: a tmpfs, or an ext4 in an image file. They are mounted in a mount namespace of this
// process, so that they disappear with it whatever happens. Only root can mount them; `obstacle` says why others
// cannot.
#ifndef TKV_TESTS_FAULT_FILE_SYSTEM_H
#define TKV_TESTS_FAULT_FILE_SYSTEM_H

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "temporary_directory.h"

namespace tkv {

class SmallFileSystem {
 public:
  enum class Kind { kTmpfs, kExt4 };

  SmallFileSystem(Kind kind, std::size_t size) : kind_(kind), size_(size) {
    if (!mount_privately()) return;
    std::filesystem::create_directory(path());
    if (kind_ == Kind::kExt4 && !(make_image() && attach())) return;
    mount();
  }
  ~SmallFileSystem() {
    unmount();
    detach();
  }
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;

  // Why there is no file system; empty if there is one.
  const std::string& obstacle() const { return obstacle_; }
  std::string path() const { return directory_ / "mounted"; }
  std::string operator/(const std::string& name) const { return path() + "/" + name; }

  // Simulates a power cut: what is not durable is lost at the next mount. ext4 only.
  bool cut_power() {
    const int root = open(path().c_str(), O_RDONLY | O_CLOEXEC);
    if (root < 0) return false;
    constexpr unsigned long kShutdown = 0x8004587d;
    std::uint32_t without_log = 2;
    const bool done = ioctl(root, kShutdown, &without_log) == 0;
    close(root);
    return done;
  }

  bool remount() {
    unmount();
    if (loop_ >= 0) ioctl(loop_, BLKFLSBUF, 0);  // the cache of the device, which a power cut would have lost
    mount();
    return mounted_;
  }

  // Fills the file system up to `left` free bytes, or frees the space again if `left` is empty.
  void fill(std::optional<std::size_t> left) {
    const std::string ballast = *this / "ballast";
    std::filesystem::remove(ballast);
    if (!left) return;
    std::ofstream file(ballast, std::ios::binary);
    const std::string block(4096, 'b');
    const auto available = [&] { return std::filesystem::space(path()).available; };
    while (available() > *left && file.write(block.data(), static_cast<std::streamsize>(block.size())).flush())
      continue;
  }

 private:
  bool fail(const std::string& what) {
    obstacle_ = what + ": " + std::strerror(errno);
    return false;
  }

  bool mount_privately() {
    if (geteuid() != 0) {
      obstacle_ = "only root can mount a file system";
      return false;
    }
    if (unshare(CLONE_NEWNS) != 0) return fail("cannot have mounts of its own");
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("cannot keep mounts to itself");
    return true;
  }

  bool make_image() {
    const int image = open(image_path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (image < 0 || ftruncate(image, static_cast<off_t>(size_)) != 0) return fail("cannot make an image");
    close(image);
    const std::string command = "mkfs.ext4 -q -F -m 0 '" + image_path() + "' >/dev/null 2>&1";
    const int status = std::system(command.c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    obstacle_ = "mkfs.ext4 failed: is the package e2fsprogs installed?";
    return false;
  }

  bool attach() {
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) return fail("no loop devices");
    const int image = open(image_path().c_str(), O_RDWR | O_CLOEXEC);
    for (int attempt = 0; attempt < 20 && loop_ < 0; ++attempt) {
      const int number = ioctl(control, LOOP_CTL_GET_FREE);
      if (number < 0) break;
      device_ = "/dev/loop" + std::to_string(number);
      if (access(device_.c_str(), F_OK) != 0) (void)mknod(device_.c_str(), S_IFBLK | 0600, makedev(7, number));
      loop_ = open(device_.c_str(), O_RDWR | O_CLOEXEC);
      if (loop_ < 0) break;
      if (ioctl(loop_, LOOP_SET_FD, image) != 0) {  // another process was faster
        close(loop_);
        loop_ = -1;
      }
    }
    const bool attached = loop_ >= 0 || fail("cannot attach a loop device");
    close(image);
    close(control);
    return attached;
  }

  void mount() {
    const std::string size = "size=" + std::to_string(size_);
    const int result = kind_ == Kind::kTmpfs ? ::mount("tmpfs", path().c_str(), "tmpfs", 0, size.c_str())
                                             : ::mount(device_.c_str(), path().c_str(), "ext4", 0, nullptr);
    mounted_ = result == 0 || fail("cannot mount");
  }

  void unmount() {
    if (mounted_) umount2(path().c_str(), 0);
    mounted_ = false;
  }

  void detach() {
    if (loop_ < 0) return;
    ioctl(loop_, LOOP_CLR_FD, 0);
    close(loop_);
  }

  std::string image_path() const { return directory_ / "image"; }

  const Kind kind_;
  const std::size_t size_;
  TemporaryDirectory directory_;
  std::string obstacle_;
  std::string device_;
  int loop_ = -1;
  bool mounted_ = false;
};

}  // namespace tkv

#endif
