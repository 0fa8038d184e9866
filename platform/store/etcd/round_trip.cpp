#include "store/etcd/round_trip.h"

#include <algorithm>

namespace tkv::store::etcd {

using std::chrono::microseconds;
using std::chrono::milliseconds;

void RoundTrip::note(microseconds time) {
  time = std::max(time, microseconds(1));
  if (!is_known()) {
    mean_ = time;
    deviation_ = time / 2;
    return;
  }
  const microseconds error = time - mean_;
  deviation_ += (std::chrono::abs(error) - deviation_) / 4;
  mean_ += error / 8;
}

milliseconds RoundTrip::patience(milliseconds slack) const {
  return std::chrono::ceil<milliseconds>(mean_ + std::max<microseconds>(4 * deviation_, slack));
}

}  // namespace tkv::store::etcd
