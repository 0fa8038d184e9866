// RequestWatch: counts the requests that a store sends, and loses those that a test wants lost. It sits in the store's
// channels as an interceptor.
#ifndef TKV_TESTS_ETCD_REQUEST_WATCH_H
#define TKV_TESTS_ETCD_REQUEST_WATCH_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

#include "store/etcd/cluster.h"

namespace tkv::store::etcd {

enum class Fate {
  kPass,
  kLoseRequest,  // it never arrives
  kLoseAnswer,   // it is carried out, and the answer never arrives
  kRefuse        // it is refused in a way that makes repeating it pointless
};

// Must outlive the stores that it watches. Thread-safe.
class RequestWatch {
 public:
  std::function<Interceptors()> interceptors();

  // Called with the method of each request before it is sent.
  void decide(std::function<Fate(const std::string& method)> decide);

  int count() const { return count_; }
  void reset() {
    count_ = 0;
    answered_ = 0;
  }
  std::size_t answered() const { return answered_; }  // bytes of all answers
  std::size_t largest_answer() const { return largest_answer_; }

 private:
  friend class WatchingInterceptor;
  friend class WatchingInterceptorFactory;

  Fate begin(const std::string& method);
  void note_answer(std::size_t bytes);

  std::mutex mutex_;
  std::function<Fate(const std::string& method)> decide_;
  std::atomic<int> count_{0};
  std::atomic<std::size_t> answered_{0};
  std::atomic<std::size_t> largest_answer_{0};
};

}  // namespace tkv::store::etcd

#endif
