// Descriptor: an open file of this process, closed at the end of its life.
#ifndef TKV_PLATFORM_BASE_DESCRIPTOR_H
#define TKV_PLATFORM_BASE_DESCRIPTOR_H

#include <unistd.h>

namespace tkv {

class Descriptor {
 public:
  // Takes over what open() gave, failures included: errno is still open()'s.
  explicit Descriptor(int number) noexcept : number_(number) {}
  ~Descriptor() {
    if (is_open()) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool is_open() const { return number_ >= 0; }
  int number() const { return number_; }

 private:
  const int number_;
};

}  // namespace tkv

#endif
