// A key that one session reads until it knows it, and another session that changes it: on the embedded store, since the
// store in memory does not number its states.
#ifndef TKV_TESTS_PLATFORM_TWO_SESSIONS_H
#define TKV_TESTS_PLATFORM_TWO_SESSIONS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "prtkv.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {

class TwoSessions : public ::testing::Test {
 protected:
  void SetUp() override {
    options_.directory = directory_ / "registry";
    options_.root_security = open_to_all();
    ASSERT_EQ(store::open_lmdb_store(options_, &store_).text(), "done");
    reader_ = std::make_unique<Context>(client_on(store_, person("bob", {"users"})));
    writer_ = std::make_unique<Context>(client_on(store_, superuser()));
  }

  // Creates a key below the root in the writer's session.
  void make(const char* name, std::string_view text) const {
    prtkv_key key = 0;
    std::int32_t word = 0;
    EXPECT_EQ(prtkv_create_n_set_key(*writer_, writer_->open(""), name, &key, &word, PRTKV_TYPE_TEXT, open_to_all(),
                                     text.data(), static_cast<std::uint32_t>(text.size())),
              PRTKV_DONE);
  }

  static int set(const Context& session, prtkv_key key, std::string_view text) {
    return prtkv_set_value(session, key, PRTKV_TYPE_TEXT, text.data(), static_cast<std::uint32_t>(text.size()));
  }

  // The value's text as the reader sees it, or "code N".
  std::string value(prtkv_key key) const {
    char buffer[64];
    std::uint32_t size = sizeof buffer;
    std::int32_t type = 0;
    const int code = prtkv_get_value(*reader_, key, &type, buffer, &size);
    return code == PRTKV_DONE ? std::string(buffer, size) : "code " + std::to_string(code);
  }
  std::string value(const char* name) const {
    prtkv_key key = 0;
    const int opened = prtkv_open_key(*reader_, &key, name);
    if (opened != PRTKV_DONE) return "open: code " + std::to_string(opened);
    std::string text = value(key);
    EXPECT_EQ(prtkv_close_key(*reader_, key), PRTKV_DONE);
    return text;
  }

  // Reads a key until the reader's session knows it, and returns a handle that knows it as well.
  prtkv_key know(const char* name, std::string_view expected) const {
    for (int times = 0; times < 3; ++times) EXPECT_EQ(value(name), expected);
    const prtkv_key key = reader_->open(name);
    EXPECT_EQ(value(key), expected);
    return key;
  }

  const TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  store::LmdbOptions options_;
  std::shared_ptr<store::Store> store_;
  std::unique_ptr<Context> reader_;
  std::unique_ptr<Context> writer_;
};

}  // namespace tkv::registry

#endif
