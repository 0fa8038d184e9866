// Side: one of the systems that are measured natively.
#ifndef TKV_BENCH_SIDE_H
#define TKV_BENCH_SIDE_H

#include <cstdint>
#include <memory>
#include <string>

#include "dataset.h"

namespace tkv::bench {

// A store in a directory of its own. Operations return a number that depends on what they read, and throw
// std::runtime_error on failure. Not thread-safe; each thread uses a side of its own.
class Side {
 public:
  Side() = default;
  virtual ~Side() = default;
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  virtual void open_store() = 0;
  virtual void close_store() = 0;

  // Creates the store and writes the whole dataset. The store must not be open.
  virtual void fill(const Dataset& dataset) = 0;

  virtual uint64_t read(const char* name) = 0;
  virtual uint64_t list(const std::string& name) = 0;  // the number of subkeys
  virtual uint64_t write(const char* name, const char* text) = 0;
  virtual uint64_t open_key(const char* name) = 0;  // and closes it again

  // Whether a key has the expected value.
  virtual bool reads(const std::string& name, const std::string& expected) = 0;

  // Another user of the same open store, for another thread. It must be destroyed before this one.
  virtual std::unique_ptr<Side> another() = 0;

  // Whether the side has the operation that a scenario measures.
  virtual bool has(const std::string& scenario) const { return scenario != "open-key" && scenario != "trace-off"; }

  // Whether this is the negative control, whose answers are empty.
  virtual bool is_control() const { return false; }
};

// `name` is "tkv", "lmdb" or "control". The registry is at the location that TKV_CONF configures.
std::unique_ptr<Side> side_of(const std::string& name, const std::string& directory);

}  // namespace tkv::bench

#endif
