// RoundTrip: how long an endpoint takes to answer, estimated from its answers as TCP does (RFC 6298): a smoothed mean
// and a smoothed deviation.
//
// Threads. One at a time.
#ifndef TKV_PLATFORM_STORE_ETCD_ROUND_TRIP_H
#define TKV_PLATFORM_STORE_ETCD_ROUND_TRIP_H

#include <chrono>

namespace tkv::store::etcd {

class RoundTrip {
 public:
  bool is_known() const { return mean_.count() > 0; }

  // Takes in the time of one answer.
  void note(std::chrono::microseconds time);

  // How long to wait for an answer before it counts as lost: the mean, and beyond it four deviations, but at least
  // `slack`. Without a measurement it is `slack`.
  std::chrono::milliseconds patience(std::chrono::milliseconds slack) const;

 private:
  std::chrono::microseconds mean_{0};
  std::chrono::microseconds deviation_{0};
};

}  // namespace tkv::store::etcd

#endif
