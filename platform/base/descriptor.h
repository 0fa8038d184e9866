// Descriptor: an open file descriptor of this process, closed when the object is destroyed.
#ifndef TKV_PLATFORM_BASE_DESCRIPTOR_H
#define TKV_PLATFORM_BASE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace tkv {

class Descriptor {
 public:
  // Takes over the result of open(), including a failure; errno is still that of open().
  explicit Descriptor(int number) noexcept : number_(number) {}
  ~Descriptor() {
    if (is_open()) ::close(number_);
  }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool is_open() const { return number_ >= 0; }
  int number() const { return number_; }

 private:
  int number_;
};

}  // namespace tkv

#endif
