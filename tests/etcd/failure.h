// Assertions about operations that fail.
#ifndef TKV_TESTS_ETCD_FAILURE_H
#define TKV_TESTS_ETCD_FAILURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "base/status.h"
#include "etcd_cluster.h"

namespace tkv::store::etcd {

// Whether a status has the code, and its message all of the words.
inline testing::AssertionResult says(const Status& status, prtkv_result code, const std::vector<std::string>& words) {
  if (!status.is(code)) return testing::AssertionFailure() << status.code() << " " << status.text();
  for (const std::string& word : words) {
    if (status.text().find(word) == std::string::npos) {
      return testing::AssertionFailure() << "'" << word << "' is not in: " << status.text();
    }
  }
  return testing::AssertionSuccess();
}

// Repeats an operation with a short deadline until it fails as it should: a busy machine may use the deadline up before
// anything has answered.
inline testing::AssertionResult ends_in(const std::function<Status()>& operation, prtkv_result code,
                                        const std::vector<std::string>& words) {
  testing::AssertionResult result = testing::AssertionFailure();
  eventually([&] {
    const Status status = operation();
    if (status.ok()) {
      result = testing::AssertionFailure() << "it succeeded";
      return true;
    }
    result = says(status, code, words);
    return static_cast<bool>(result);
  });
  return result;
}

}  // namespace tkv::store::etcd

#endif
