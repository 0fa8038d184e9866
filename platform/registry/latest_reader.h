// LatestReader: reads the present, and tells the number of the state that was read.
#ifndef TKV_PLATFORM_REGISTRY_LATEST_READER_H
#define TKV_PLATFORM_REGISTRY_LATEST_READER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string_view>

#include "base/status.h"
#include "registry/client.h"
#include "registry/known_keys.h"

namespace tkv::registry {

// A value, or that there is no such key.
struct LatestValue {
  bool exists = false;
  std::int32_t type = 0;
  std::size_t size = 0;     // of its bytes, also if there was no room for them
  std::uint64_t state = 0;  // that was read; zero if it is not known
};

// What is found out about a key that is read repeatedly is kept, as by a session: a change of the registry then costs
// such a read little, unless it is a change of that key. Nothing of a value is kept.
//
// Any thread may call. Threads do not wait for each other: while one looks up what is known, another reads its key as
// if nothing were known.
class LatestReader {
 public:
  // The client must live longer.
  explicit LatestReader(Client& client) : client_(client) {}

  // Reads a value. That the key does not exist is not a failure. If the bytes do not fit into `buffer`, none are
  // copied, and the type is not set. Needs TKV_RIGHT_READ.
  Status read_value(std::string_view name, std::span<std::byte> buffer, LatestValue* found);

 private:
  KnownKey recall(std::string_view name, std::size_t hash);
  void note(std::string_view name, std::size_t hash, const KnownKey& known);
  Status read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, LatestValue* found);
  std::uint64_t state_of_absence(std::uint64_t shown_before);

  Client& client_;
  std::atomic<std::uint64_t> shown_{0};  // the number of a state that reading has shown
  std::mutex mutex_;
  KnownKeys keys_;  // guarded by mutex_
};

}  // namespace tkv::registry

#endif
