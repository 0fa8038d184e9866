// What a session knows of the keys that it has read before is never taken for true after others have changed them.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lmdb_files.h"
#include "prtkv.h"
#include "registry/tree.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "two_sessions.h"

namespace tkv::registry {
namespace {

class KnownToASession : public TwoSessions {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(TwoSessions::SetUp());
    make("a", "value of a");
    make("b", "value of b");
  }

  void remove(const char* name) { EXPECT_EQ(prtkv_delete_key(*writer_, writer_->open(name), 1), PRTKV_DONE); }
  void move(const char* from, const char* to) {
    prtkv_key moved = 0;
    EXPECT_EQ(prtkv_move_key(*writer_, writer_->open(from), writer_->open(""), to, &moved, 0), PRTKV_DONE);
  }

  prtkv_key know(const char* name) { return TwoSessions::know(name, std::string("value of ") + name); }
};

TEST_F(KnownToASession, AValueWrittenByAnotherSessionIsRead) {
  const prtkv_key held = know("a");
  for (const char* text : {"VALUE OF A", "shorter", "longer than it was before", ""}) {
    ASSERT_EQ(set(*writer_, writer_->open("a"), text), PRTKV_DONE);
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
  EXPECT_EQ(set(*reader_, held, "lost"), PRTKV_NO_SUCH_KEY);
}

TEST_F(KnownToASession, AKeyThatWasCreatedAnewIsAnotherOne) {
  const prtkv_key held = know("a");
  remove("a");
  make("a", "anew");
  EXPECT_EQ(value("a"), "anew");
  EXPECT_EQ(value(held), "code 4");
  EXPECT_EQ(set(*reader_, held, "of the former key"), PRTKV_NO_SUCH_KEY);
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

TEST_F(KnownToASession, AKeyThatIsKeptIsRecognizedAfterChangesThatNobodyLookedAt) {
  const std::string text(100, 'v');
  std::vector<NamedValue> values;
  PutOptions put;
  put.create_parents = true;
  put.security.initial = open_to_all();
  for (int key = 1000; key < 2000; ++key) values.push_back({"many.key" + std::to_string(key), {3, text}});
  const auto client = client_on(store_, superuser());
  ASSERT_EQ(client->put(values, put).text(), "done");
  std::array<std::byte, 200> buffer{};
  const auto is_recognized = [&](const KnownKey& known) {
    store::ValuePlace place = place_of(known);
    return store_->unchanged_until(known.state, known.id, &place) != 0;
  };
  KnownKey opened;
  KnownKey read;
  KnownKey passing;
  opened.is_kept = read.is_kept = true;
  const prtkv_key far = writer_->open("many.key1999");
  ASSERT_TRUE(client->look_up("many.key1500", &opened).ok());
  ASSERT_EQ(set(*writer_, far, "first"), PRTKV_DONE);
  ASSERT_TRUE(is_recognized(opened)) << "so that changes are known to happen";
  opened = {.is_kept = true};
  std::int32_t type = 0;
  std::size_t size = 0;
  ASSERT_TRUE(client->look_up("many.key1500", &opened).ok());
  ASSERT_TRUE(client->read_known("many.key1500", &read, buffer, &type, &size).ok());
  ASSERT_TRUE(client->look_up("many.key1500", &passing).ok());
  for (const char* changed : {"once", "twice", "and again"}) ASSERT_EQ(set(*writer_, far, changed), PRTKV_DONE);
  EXPECT_TRUE(is_recognized(opened));
  EXPECT_TRUE(is_recognized(read));
  EXPECT_FALSE(is_recognized(passing)) << "which costs a key that is read once nothing";
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
  ASSERT_EQ(set(*reader_, reader_->open("a"), "written to the key of this name"), PRTKV_DONE);
  EXPECT_EQ(value("b"), "value of a");
}

TEST_F(KnownToASession, RightsThatWereTakenAwayAndGivenBackCount) {
  const prtkv_key held = know("a");
  ASSERT_EQ(prtkv_set_key_security(*writer_, writer_->open("a"), owned_by("alice", "staff", 0x3f, 0, 0)), PRTKV_DONE);
  const std::string denied = "code " + std::to_string(PRTKV_ACCESS_DENIED);
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(value("a"), denied);
    EXPECT_EQ(value(held), denied);
  }
  ASSERT_EQ(prtkv_set_key_security(*writer_, writer_->open("a"), open_to_all()), PRTKV_DONE);
  EXPECT_EQ(value("a"), "value of a");
  EXPECT_EQ(value(held), "value of a");
}

// The names that are left in a handle's list, each with a space after it, or "code N".
std::string rest_of_list(prtkv_ctx session, prtkv_key key) {
  std::string names;
  for (;;) {
    char name[PRTKV_SUBKEY_NAME_SIZE];
    std::uint32_t size = sizeof name;
    std::int32_t remaining = 0;
    const int code = prtkv_enum_subkey(session, key, name, &size, &remaining);
    if (code == PRTKV_NO_MORE_SUBKEYS) return names;
    if (code != PRTKV_DONE) return "code " + std::to_string(code);
    names.append(name, size).push_back(' ');
  }
}

std::string list(const Context& session, const char* name) {
  const prtkv_key key = session.open(name);
  std::string names = rest_of_list(session, key);
  EXPECT_EQ(prtkv_close_key(session, key), PRTKV_DONE);
  return names;
}

class ListKnownToASession : public KnownToASession {
 protected:
  void SetUp() override {
    KnownToASession::SetUp();
    make("a.x", "");
    make("a.y", "");
    for (int times = 0; times < 3; ++times) EXPECT_EQ(list(*reader_, "a"), "x y ");
  }
};

TEST_F(ListKnownToASession, ShowsWhatAnotherSessionHasChanged) {
  make("a.w", "");
  EXPECT_EQ(list(*reader_, "a"), "w x y ");
  remove("a.x");
  EXPECT_EQ(list(*reader_, "a"), "w y ");
  move("a.y", "y");
  EXPECT_EQ(list(*reader_, "a"), "w ");
  remove("a.w");
  EXPECT_EQ(list(*reader_, "a"), "");
}

TEST_F(ListKnownToASession, ShowsWhatAnotherProcessHasChanged) {
  ASSERT_EQ(store::in_child([&] {
              std::shared_ptr<store::Store> fresh;
              if (!store::open_lmdb_store(options_, &fresh).ok()) return 1;
              const Context session(client_on(fresh, superuser()));
              return prtkv_delete_key(session, session.open("a.x"), 0);
            }),
            0);
  EXPECT_EQ(list(*reader_, "a"), "y ");
}

TEST_F(ListKnownToASession, ShowsWhatHasChangedSinceTheHandleWasOpened) {
  const prtkv_key before_creation = reader_->open("a");
  make("a.w", "");
  EXPECT_EQ(rest_of_list(*reader_, before_creation), "w x y ");
  const prtkv_key before_deletion = reader_->open("a");
  EXPECT_EQ(list(*reader_, "a"), "w x y ");
  remove("a");
  EXPECT_EQ(rest_of_list(*reader_, before_deletion), "code " + std::to_string(PRTKV_NO_SUCH_KEY));
}

TEST_F(ListKnownToASession, IsNotThatOfAKeyOfTheSameName) {
  const prtkv_key held = reader_->open("a");
  make("b.z", "");
  move("a", "c");
  move("b", "a");
  EXPECT_EQ(list(*reader_, "a"), "z ");
  EXPECT_EQ(list(*reader_, "c"), "x y ");
  EXPECT_EQ(rest_of_list(*reader_, held), "code " + std::to_string(PRTKV_NO_SUCH_KEY));
}

TEST_F(ListKnownToASession, NeedsTheRightToListInTheStateThatItIsOf) {
  ASSERT_EQ(prtkv_set_key_security(*writer_, writer_->open("a"), owned_by("alice", "staff", 0x3f, 0, 0)), PRTKV_DONE);
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(list(*reader_, "a"), "code " + std::to_string(PRTKV_ACCESS_DENIED));
  }
  ASSERT_EQ(prtkv_set_key_security(*writer_, writer_->open("a"), open_to_all()), PRTKV_DONE);
  EXPECT_EQ(list(*reader_, "a"), "x y ");
}

TEST_F(ListKnownToASession, IsReadByEachHandleFromItsBeginning) {
  const prtkv_key one = reader_->open("a");
  const prtkv_key other = reader_->open("a");
  char name[PRTKV_SUBKEY_NAME_SIZE];
  std::uint32_t size = sizeof name;
  std::int32_t remaining = -1;
  ASSERT_EQ(prtkv_enum_subkey(*reader_, one, name, &size, &remaining), PRTKV_DONE);
  EXPECT_EQ(remaining, 1);
  EXPECT_EQ(rest_of_list(*reader_, other), "x y ");
  EXPECT_EQ(rest_of_list(*reader_, one), "y ");
  EXPECT_EQ(list(*reader_, "a"), "x y ");
}

TEST_F(ListKnownToASession, StaysThatOfAHandleWhichHasBegunIt) {
  const prtkv_key held = reader_->open("a");
  char name[PRTKV_SUBKEY_NAME_SIZE];
  std::uint32_t size = sizeof name;
  std::int32_t remaining = -1;
  ASSERT_EQ(prtkv_enum_subkey(*reader_, held, name, &size, &remaining), PRTKV_DONE);
  remove("a.y");
  EXPECT_EQ(list(*reader_, "a"), "x ");
  EXPECT_EQ(rest_of_list(*reader_, held), "y ");
}

TEST_F(ListKnownToASession, IsReplacedByThatOfAnyOtherKey) {
  for (int key = 0; key < 100; ++key) {
    const std::string parent = "p" + std::to_string(key);
    make(parent.c_str(), "");
    make((parent + "." + std::to_string(key)).c_str(), "");
  }
  for (int times = 0; times < 2; ++times) {
    for (int key = 0; key < 100; ++key) {
      const std::string parent = "p" + std::to_string(key);
      for (int again = 0; again < 2; ++again) EXPECT_EQ(list(*reader_, parent.c_str()), std::to_string(key) + " ");
    }
    EXPECT_EQ(list(*reader_, "a"), "x y ");
  }
}

}  // namespace
}  // namespace tkv::registry
