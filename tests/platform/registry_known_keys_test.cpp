// What a session knows of the keys that it has read before is never taken for true after others have changed them. On
// the embedded store, since the store in memory does not number its states.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "lmdb_files.h"
#include "prtkv.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

class KnownToASession : public ::testing::Test {
 protected:
  void SetUp() override {
    options_.directory = directory_ / "registry";
    options_.root_security = open_to_all();
    ASSERT_EQ(store::open_lmdb_store(options_, &store_).text(), "done");
    bob_ = std::make_unique<Context>(client_on(store_, person("bob", {"users"})));
    other_ = std::make_unique<Context>(client_on(store_, superuser()));
    make("a", "value of a");
    make("b", "value of b");
  }

  // By the other session.
  void make(const char* name, const std::string& text) {
    prtkv_key key = 0;
    std::int32_t word = 0;
    EXPECT_EQ(prtkv_create_n_set_key(*other_, other_->open(""), name, &key, &word, PRTKV_TYPE_TEXT, open_to_all(),
                                     text.data(), static_cast<std::uint32_t>(text.size())),
              PRTKV_DONE);
  }
  void remove(const char* name) { EXPECT_EQ(prtkv_delete_key(*other_, other_->open(name), 1), PRTKV_DONE); }
  void move(const char* from, const char* to) {
    prtkv_key moved = 0;
    EXPECT_EQ(prtkv_move_key(*other_, other_->open(from), other_->open(""), to, &moved, 0), PRTKV_DONE);
  }
  static int set(const Context& session, prtkv_key key, const std::string& text) {
    return prtkv_set_value(session, key, PRTKV_TYPE_TEXT, text.data(), static_cast<std::uint32_t>(text.size()));
  }

  // The value's text as bob reads it, or "code N".
  std::string value(prtkv_key key) {
    char buffer[64];
    std::uint32_t size = sizeof buffer;
    std::int32_t type = 0;
    const int code = prtkv_get_value(*bob_, key, &type, buffer, &size);
    return code == PRTKV_DONE ? std::string(buffer, size) : "code " + std::to_string(code);
  }
  std::string value(const char* name) {
    prtkv_key key = 0;
    const int opened = prtkv_open_key(*bob_, &key, name);
    if (opened != PRTKV_DONE) return "open: code " + std::to_string(opened);
    std::string text = value(key);
    EXPECT_EQ(prtkv_close_key(*bob_, key), PRTKV_DONE);
    return text;
  }

  // Reads a key until the session knows it, and returns a handle that knows it as well.
  prtkv_key know(const char* name) {
    for (int times = 0; times < 3; ++times) EXPECT_EQ(value(name), std::string("value of ") + name);
    const prtkv_key key = bob_->open(name);
    EXPECT_EQ(value(key), std::string("value of ") + name);
    return key;
  }

  const TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  store::LmdbOptions options_;
  std::shared_ptr<store::Store> store_;
  std::unique_ptr<Context> bob_;
  std::unique_ptr<Context> other_;
};

TEST_F(KnownToASession, AValueWrittenByAnotherSessionIsRead) {
  const prtkv_key held = know("a");
  for (const char* text : {"VALUE OF A", "shorter", "longer than it was before", ""}) {
    ASSERT_EQ(set(*other_, other_->open("a"), text), PRTKV_DONE);
    EXPECT_EQ(value("a"), text);
    EXPECT_EQ(value(held), text);
  }
}

TEST_F(KnownToASession, AValueWrittenByAnotherProcessIsRead) {
  const prtkv_key held = know("a");
  ASSERT_EQ(store::in_child([&] {
              std::shared_ptr<store::Store> fresh;
              if (!store::open_lmdb_store(options_, &fresh).ok()) return 1;
              const Context session(client_on(fresh, superuser()));
              return set(session, session.open("a"), "elsewhere");
            }),
            0);
  EXPECT_EQ(value("a"), "elsewhere");
  EXPECT_EQ(value(held), "elsewhere");
}

TEST_F(KnownToASession, ADeletedKeyIsGone) {
  const prtkv_key held = know("a");
  remove("a");
  EXPECT_EQ(value("a"), "open: code 4");
  EXPECT_EQ(value(held), "code 4");
  EXPECT_EQ(set(*bob_, held, "lost"), PRTKV_NO_SUCH_KEY);
}

TEST_F(KnownToASession, AKeyThatWasCreatedAnewIsAnotherOne) {
  const prtkv_key held = know("a");
  remove("a");
  make("a", "anew");
  EXPECT_EQ(value("a"), "anew");
  EXPECT_EQ(value(held), "code 4");
  EXPECT_EQ(set(*bob_, held, "of the former key"), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(value("a"), "anew");
}

TEST_F(KnownToASession, AnotherIdThanTheKnownOneNamesNoKey) {
  const auto client = client_on(store_, superuser());
  KnownKey known;
  ASSERT_TRUE(client->look_up("a", &known).ok());
  const KeyId id = known.id;
  EXPECT_TRUE(client->look_up({"a", id}, &known).ok());
  EXPECT_TRUE(client->look_up({"a", id + 1}, &known).is(PRTKV_NO_SUCH_KEY));
  EXPECT_EQ(known.id, id);
}

TEST_F(KnownToASession, KeysThatWereExchangedAreFoundUnderTheirNewNames) {
  const prtkv_key held = know("a");
  know("b");
  move("a", "c");
  move("b", "a");
  move("c", "b");
  EXPECT_EQ(value("a"), "value of b");
  EXPECT_EQ(value("b"), "value of a");
  EXPECT_EQ(value(held), "code 4");
  ASSERT_EQ(set(*bob_, bob_->open("a"), "written to the key of this name"), PRTKV_DONE);
  EXPECT_EQ(value("b"), "value of a");
}

TEST_F(KnownToASession, RightsThatWereTakenAwayAndGivenBackCount) {
  const prtkv_key held = know("a");
  ASSERT_EQ(prtkv_set_key_security(*other_, other_->open("a"), owned_by("alice", "staff", 0x3f, 0, 0)), PRTKV_DONE);
  const std::string denied = "code " + std::to_string(PRTKV_ACCESS_DENIED);
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(value("a"), denied);
    EXPECT_EQ(value(held), denied);
  }
  ASSERT_EQ(prtkv_set_key_security(*other_, other_->open("a"), open_to_all()), PRTKV_DONE);
  EXPECT_EQ(value("a"), "value of a");
  EXPECT_EQ(value(held), "value of a");
}

}  // namespace
}  // namespace tkv::registry
