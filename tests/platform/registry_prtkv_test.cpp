// The C functions of the registry client, as a caller in C sees them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "prtkv.h"
#include "registry_fixture.h"

namespace tkv::registry {
namespace {

using store::Call;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Prtkv : public ::testing::Test {
 protected:
  int32_t create(prtkv_key parent, const char* name, prtkv_key* key, const sec_attr& security = open_to_all()) {
    int32_t word = 0;
    return prtkv_create_key(ctx_, parent, name, key, &word, security);
  }

  // The value's text, or "code N".
  std::string value(prtkv_key key) {
    char buffer[64];
    std::uint32_t size = sizeof buffer;
    std::int32_t type = 0;
    const int32_t code = prtkv_get_value(ctx_, key, &type, buffer, &size);
    return code == PRTKV_DONE ? std::string(buffer, size) : "code " + std::to_string(code);
  }

  int32_t set(prtkv_key key, const std::string& text) {
    return prtkv_set_value(ctx_, key, PRTKV_TYPE_TEXT, text.data(), static_cast<std::uint32_t>(text.size()));
  }

  // The results of all operations on an open key.
  std::set<int32_t> answers(prtkv_ctx ctx, prtkv_key key) {
    char name[PRTKV_SUBKEY_NAME_SIZE];
    std::uint32_t size = sizeof name;
    std::int32_t word = 0;
    prtkv_key out = 0;
    sec_attr security{};
    std::set<int32_t> codes;
    codes.insert(prtkv_get_value(ctx, key, &word, name, &size));
    codes.insert(prtkv_set_value(ctx, key, 3, "x", 2));
    codes.insert(prtkv_get_key_security(ctx, key, &security));
    codes.insert(prtkv_set_key_security(ctx, key, security));
    codes.insert(prtkv_set_key_security_ext(ctx, nullptr, key, PRTKV_SECURITY_EXT_FLAGS, security));
    codes.insert(prtkv_enum_subkey(ctx, key, name, &size, &word));
    codes.insert(prtkv_create_key(ctx, key, "n", &out, &word, security));
    codes.insert(prtkv_create_n_set_key(ctx, key, "n", &out, &word, 3, security, "x", 2));
    codes.insert(prtkv_create_n_set_key_ext(ctx, nullptr, key, "n", &out, &word, security, 3, "x", 2, 0));
    codes.insert(prtkv_move_key(ctx, key, key, "n", &out, 0));
    codes.insert(prtkv_delete_key(ctx, key, 1));
    return codes;
  }

  Ground ground_;
  Context ctx_{ground_.as(person("bob", {"users"}))};
};

TEST_F(Prtkv, OpensTheRootByTheEmptyName) {
  prtkv_key root = 0;
  EXPECT_EQ(prtkv_open_key(ctx_, &root, ""), PRTKV_DONE);
  EXPECT_NE(root, 0U);
  EXPECT_EQ(prtkv_close_key(ctx_, root), PRTKV_DONE);
}

TEST_F(Prtkv, FailedOpenGivesTheNullHandle) {
  prtkv_key key = 99;
  EXPECT_EQ(prtkv_open_key(ctx_, &key, "absent"), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(key, 0U);
  key = 99;
  EXPECT_EQ(prtkv_open_key(0, &key, ""), PRTKV_INVALID_HANDLE);
  EXPECT_EQ(key, 0U);
}

TEST_F(Prtkv, OpeningNeedsNoRight) {
  ground_.make("a", owned_by("", "", 0, 0, 0));
  ground_.make("a.b", owned_by("", "", 0, 0, 0));
  EXPECT_NE(ctx_.open("a.b"), 0U);
}

TEST_F(Prtkv, CreatedKeyIsOpenAndSetsTheWord) {
  const prtkv_key root = ctx_.open("");
  prtkv_key key = 0;
  std::int32_t word = 0;
  ASSERT_EQ(prtkv_create_n_set_key(ctx_, root, "a", &key, &word, 3, open_to_all(), "text", 5), PRTKV_DONE);
  EXPECT_EQ(word, 1);
  EXPECT_EQ(value(key), std::string("text\0", 5));
  prtkv_key below = 0;
  ASSERT_EQ(prtkv_create_n_set_key_ext(ctx_, nullptr, key, "b", &below, &word, open_to_all(), 1, "abcd", 4,
                                       PRTKV_CREATE_EXT_FLAGS),
            PRTKV_DONE);
  EXPECT_EQ(value(below), "abcd");
  EXPECT_THAT(ground_.everything(), ElementsAre(std::string("a=3:text\0", 9), "a.b=1:abcd"));
}

TEST_F(Prtkv, FailedCreateGivesTheNullHandleAndLeavesTheWord) {
  const prtkv_key root = ctx_.open("");
  ground_.make("a");
  prtkv_key key = 99;
  std::int32_t word = 7;
  EXPECT_EQ(prtkv_create_key(ctx_, root, "a", &key, &word, open_to_all()), PRTKV_KEY_EXISTS);
  EXPECT_EQ(key, 0U);
  EXPECT_EQ(word, 7);
  key = 99;
  EXPECT_EQ(prtkv_create_n_set_key_ext(ctx_, nullptr, root, "a", &key, &word, open_to_all(), 3, "x", 2, 0),
            PRTKV_KEY_EXISTS);
  EXPECT_EQ(key, 0U);
}

// Handles

TEST_F(Prtkv, MadeUpHandlesAreInvalid) {
  const prtkv_key key = ctx_.open("");
  std::vector<prtkv_key> made_up = {0, 1, 42, ~0ULL, static_cast<prtkv_ctx>(ctx_)};
  for (int bit = 0; bit < 64; ++bit) made_up.push_back(key ^ (1ULL << bit));
  for (const prtkv_key handle : made_up) {
    SCOPED_TRACE(handle);
    EXPECT_THAT(answers(ctx_, handle), ElementsAre(PRTKV_INVALID_HANDLE));
    EXPECT_EQ(prtkv_close_key(ctx_, handle), PRTKV_INVALID_HANDLE);
  }
  EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
}

TEST_F(Prtkv, MadeUpContextsAreInvalid) {
  const prtkv_key key = ctx_.open("");
  std::vector<prtkv_ctx> made_up = {0, 1, ~0ULL, key};
  for (int bit = 0; bit < 64; ++bit) made_up.push_back(static_cast<prtkv_ctx>(ctx_) ^ (1ULL << bit));
  for (const prtkv_ctx ctx : made_up) {
    SCOPED_TRACE(ctx);
    EXPECT_THAT(answers(ctx, key), ElementsAre(PRTKV_INVALID_HANDLE));
    EXPECT_EQ(prtkv_terminate(ctx), PRTKV_INVALID_HANDLE);
    std::int32_t code = 0;
    std::int32_t size = 10;
    char text[10];
    EXPECT_EQ(prtkv_get_last_error(ctx, &code, text, &size), PRTKV_INVALID_HANDLE);
  }
  EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
}

TEST_F(Prtkv, ClosedHandleIsInvalidEvenIfItsSlotIsInUseAgain) {
  const prtkv_key first = ctx_.open("");
  ASSERT_EQ(prtkv_close_key(ctx_, first), PRTKV_DONE);
  EXPECT_EQ(prtkv_close_key(ctx_, first), PRTKV_INVALID_HANDLE);
  const prtkv_key second = ctx_.open("");
  EXPECT_NE(first, second);
  EXPECT_THAT(answers(ctx_, first), ElementsAre(PRTKV_INVALID_HANDLE));
  EXPECT_EQ(prtkv_close_key(ctx_, second), PRTKV_DONE);
}

TEST_F(Prtkv, HandleOfAnotherSessionIsInvalid) {
  const Context other(ground_.as(person("bob")));
  const prtkv_key key = ctx_.open("");
  const prtkv_key others = other.open("");
  EXPECT_THAT(answers(ctx_, others), ElementsAre(PRTKV_INVALID_HANDLE));
  EXPECT_THAT(answers(other, key), ElementsAre(PRTKV_INVALID_HANDLE));
  EXPECT_EQ(prtkv_close_key(other, others), PRTKV_DONE);
}

TEST_F(Prtkv, TerminatedSessionIsInvalidWithAllItsKeys) {
  prtkv_ctx ended = 0;
  ASSERT_TRUE(add_context(ground_.as(person("bob")), &ended).ok());
  prtkv_key key = 0;
  ASSERT_EQ(prtkv_open_key(ended, &key, ""), PRTKV_DONE);
  EXPECT_EQ(prtkv_terminate(ended), PRTKV_DONE);
  EXPECT_EQ(prtkv_terminate(ended), PRTKV_INVALID_HANDLE);
  EXPECT_THAT(answers(ended, key), ElementsAre(PRTKV_INVALID_HANDLE));
  const Context next(ground_.as(person("bob")));  // in the slot of the ended one
  EXPECT_THAT(answers(next, key), ElementsAre(PRTKV_INVALID_HANDLE));
  EXPECT_THAT(answers(ended, key), ElementsAre(PRTKV_INVALID_HANDLE));
}

TEST_F(Prtkv, HandlesOfADeletedKeyAndAllBelowItYieldNoSuchKeyUntilTheyAreClosed) {
  for (const char* name : {"a", "a.b", "a.b.c"}) ground_.make(name);
  const prtkv_key deleted = ctx_.open("a");
  const prtkv_key same = ctx_.open("a");
  const prtkv_key below = ctx_.open("a.b.c");
  EXPECT_EQ(prtkv_delete_key(ctx_, deleted, 1), PRTKV_DONE);
  EXPECT_THAT(answers(ctx_, deleted), ElementsAre(PRTKV_INVALID_HANDLE)) << "deleting closes the handle";
  for (const char* name : {"a", "a.b", "a.b.c"}) ground_.make(name);  // others of the same names
  for (const prtkv_key key : {same, below}) {
    EXPECT_THAT(answers(ctx_, key), ElementsAre(PRTKV_NO_SUCH_KEY));
    EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
    EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_INVALID_HANDLE);
  }
  EXPECT_TRUE(ground_.has("a.b.c"));
}

TEST_F(Prtkv, HandleOfAKeyThatAnotherSessionDeletedYieldsNoSuchKeyForGood) {
  const Context other(ground_.as(superuser()));
  ground_.make("a");
  const prtkv_key key = ctx_.open("a");
  EXPECT_EQ(prtkv_delete_key(other, other.open("a"), 0), PRTKV_DONE);
  EXPECT_THAT(answers(ctx_, key), ElementsAre(PRTKV_NO_SUCH_KEY));
  ground_.make("a");
  EXPECT_THAT(answers(ctx_, key), ElementsAre(PRTKV_NO_SUCH_KEY));
}

TEST_F(Prtkv, HandleOfAKeyThatAnotherSessionMovedAwayYieldsNoSuchKeyEvenIfItComesBack) {
  const Context other(ground_.as(superuser()));
  ground_.make("a", open_to_all(), "one");
  const prtkv_key key = ctx_.open("a");
  const prtkv_key root = other.open("");
  prtkv_key moved = 0;
  ASSERT_EQ(prtkv_move_key(other, other.open("a"), root, "b", &moved, 0), PRTKV_DONE);
  EXPECT_EQ(value(key), "code 4");
  ASSERT_EQ(prtkv_move_key(other, moved, root, "a", &moved, 0), PRTKV_DONE);
  EXPECT_THAT(answers(ctx_, key), ElementsAre(PRTKV_NO_SUCH_KEY));
  EXPECT_EQ(value(ctx_.open("a")), "one");
}

TEST_F(Prtkv, HandleOfAKeyThatAnotherSessionReplacedMeansTheFormerKey) {
  const Context other(ground_.as(superuser()));
  ground_.make("a", open_to_all(), "former");
  const prtkv_key key = ctx_.open("a");
  EXPECT_EQ(prtkv_delete_key(other, other.open("a"), 0), PRTKV_DONE);
  ground_.make("a", open_to_all(), "other");
  EXPECT_EQ(value(key), "code 4");
  EXPECT_EQ(value(ctx_.open("a")), "other");
}

// Moves a key, as another session does between two uses of a handle.
void move(prtkv_ctx ctx, const char* from, const char* parent, const char* name) {
  prtkv_key source = 0;
  prtkv_key above = 0;
  prtkv_key moved = 0;
  ASSERT_EQ(prtkv_open_key(ctx, &source, from), PRTKV_DONE);
  ASSERT_EQ(prtkv_open_key(ctx, &above, parent), PRTKV_DONE);
  ASSERT_EQ(prtkv_move_key(ctx, source, above, name, &moved, 0), PRTKV_DONE);
  for (const prtkv_key key : {source, above, moved}) EXPECT_EQ(prtkv_close_key(ctx, key), PRTKV_DONE);
}

TEST_F(Prtkv, HandleOfAKeyThatWasMovedAwayAndBackYieldsNoSuchKeyWhoeverMovedIt) {
  const Context other(ground_.as(superuser()));
  for (const prtkv_ctx mover : {static_cast<prtkv_ctx>(ctx_), static_cast<prtkv_ctx>(other)}) {
    for (const char* name : {"a", "a.b", "a.b.c", "z"}) ground_.make(name, open_to_all(), name);
    const prtkv_key key = ctx_.open("a.b");
    const prtkv_key below = ctx_.open("a.b.c");
    const prtkv_key above = ctx_.open("a");
    prtkv_key created = 0;
    ASSERT_EQ(create(ctx_.open("a.b"), "new", &created), PRTKV_DONE);
    EXPECT_EQ(value(below), "a.b.c");
    move(mover, "a.b", "z", "b");
    move(mover, "z.b", "a", "b");
    for (const prtkv_key gone : {key, below, created}) {
      EXPECT_THAT(answers(ctx_, gone), ElementsAre(PRTKV_NO_SUCH_KEY)) << "moved by " << mover;
    }
    EXPECT_EQ(value(above), "a");
    EXPECT_EQ(value(ctx_.open("a.b.c")), "a.b.c");
    EXPECT_EQ(prtkv_delete_key(ctx_, ctx_.open("a"), 1), PRTKV_DONE);
    EXPECT_EQ(prtkv_delete_key(ctx_, ctx_.open("z"), 1), PRTKV_DONE);
  }
}

TEST_F(Prtkv, HandleThatAMoveReturnedEndsWithTheNextMoveWhoeverMakesIt) {
  const Context other(ground_.as(superuser()));
  for (const char* name : {"a", "z"}) ground_.make(name, open_to_all(), name);
  prtkv_key moved = 0;
  ASSERT_EQ(prtkv_move_key(ctx_, ctx_.open("a"), ctx_.open("z"), "a", &moved, 0), PRTKV_DONE);
  move(other, "z.a", "", "a");
  move(other, "a", "z", "a");
  EXPECT_THAT(answers(ctx_, moved), ElementsAre(PRTKV_NO_SUCH_KEY));
  EXPECT_EQ(value(ctx_.open("z.a")), "a");
}

TEST_F(Prtkv, HandleOutlivesWhateverElseOthersChange) {
  const Context other(ground_.as(superuser()));
  for (const char* name : {"a", "a.b", "z", "z.y"}) ground_.make(name, open_to_all(), name);
  const prtkv_key key = ctx_.open("a.b");
  EXPECT_EQ(value(key), "a.b");
  for (const char* name : {"", "a", "a.b"}) {
    EXPECT_EQ(prtkv_set_key_security(other, other.open(name), open_to_all()), PRTKV_DONE);
  }
  move(other, "z.y", "a", "y");
  EXPECT_EQ(prtkv_delete_key(other, other.open("z"), 1), PRTKV_DONE);
  EXPECT_EQ(prtkv_set_value(other, other.open("a.b"), PRTKV_TYPE_TEXT, "new", 3), PRTKV_DONE);
  EXPECT_EQ(value(key), "new");
}

TEST_F(Prtkv, HandlesFindOutAboutLossesHoweverManyCameAfter) {
  for (const char* name : {"a", "a.b", "kept"}) ground_.make(name, open_to_all(), name);
  const prtkv_key root = ctx_.open("");
  const prtkv_key moved_away = ctx_.open("a.b");
  const prtkv_key kept = ctx_.open("kept");
  prtkv_key there = 0;
  prtkv_key back = 0;
  ASSERT_EQ(prtkv_move_key(ctx_, ctx_.open("a"), root, "z", &there, 0), PRTKV_DONE);
  ASSERT_EQ(prtkv_move_key(ctx_, there, root, "a", &back, 0), PRTKV_DONE);
  for (int n = 0; n < 2500; ++n) {
    const std::string name = "n" + std::to_string(n);
    prtkv_key key = 0;
    ASSERT_EQ(create(root, name.c_str(), &key), PRTKV_DONE);
    ASSERT_EQ(prtkv_delete_key(ctx_, key, 0), PRTKV_DONE);
  }
  EXPECT_EQ(value(moved_away), "code 4");
  EXPECT_EQ(value(there), "code 4");
  EXPECT_EQ(value(back), "a");
  EXPECT_EQ(value(kept), "kept");
}

TEST_F(Prtkv, AKeyCreatedUnderALostNameIsAnother) {
  const prtkv_key root = ctx_.open("");
  for (int round = 0; round < 3; ++round) {
    prtkv_key key = 0;
    prtkv_key below = 0;
    ASSERT_EQ(create(root, "a", &key), PRTKV_DONE);
    ASSERT_EQ(create(key, "b", &below), PRTKV_DONE);
    EXPECT_EQ(value(below), "");
    const prtkv_key same = ctx_.open("a.b");
    ASSERT_EQ(prtkv_delete_key(ctx_, key, 1), PRTKV_DONE);
    EXPECT_EQ(value(same), "code 4");
    EXPECT_EQ(value(below), "code 4");
  }
}

TEST_F(Prtkv, MoreThanAMillionKeysCanBeOpenAtOnce) {
  for (const char* name : {"a", "a.b", "c"}) ground_.make(name, open_to_all(), name);
  std::vector<prtkv_key> keys((1 << 20) + 100);
  int failed = 0;
  for (std::size_t n = 0; n < keys.size(); ++n) {
    if (prtkv_open_key(ctx_, &keys[n], n % 2 == 0 ? "a.b" : "c") != PRTKV_DONE) ++failed;
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(prtkv_delete_key(ctx_, ctx_.open("a"), 1), PRTKV_DONE);
  EXPECT_EQ(value(keys.front()), "code 4");
  EXPECT_EQ(value(keys[keys.size() - 2]), "code 4");
  EXPECT_EQ(value(keys.back()), "c");
  for (const prtkv_key key : keys) {
    if (prtkv_close_key(ctx_, key) != PRTKV_DONE) ++failed;
  }
  EXPECT_EQ(failed, 0);
}

TEST_F(Prtkv, HandlesOfAMovedKeyAndAllBelowItYieldNoSuchKeyAndTheMovedOneWorks) {
  for (const char* name : {"a", "a.b", "a.b.c", "z"}) ground_.make(name, open_to_all(), name);
  const prtkv_key source = ctx_.open("a.b");
  const prtkv_key below = ctx_.open("a.b.c");
  const prtkv_key parent = ctx_.open("z");
  prtkv_key moved = 0;
  ASSERT_EQ(prtkv_move_key(ctx_, source, parent, "y", &moved, 0), PRTKV_DONE);
  EXPECT_EQ(value(moved), "a.b");
  EXPECT_EQ(value(source), "code 4");
  EXPECT_EQ(value(below), "code 4");
  EXPECT_EQ(value(parent), "z");
  EXPECT_EQ(value(ctx_.open("z.y.c")), "a.b.c");
  prtkv_key back = 0;
  ASSERT_EQ(prtkv_move_key(ctx_, moved, ctx_.open("a"), "b", &back, 0), PRTKV_DONE);
  EXPECT_EQ(value(back), "a.b");
  EXPECT_EQ(value(source), "code 4") << "4 until it is closed, also when the key is back";
  EXPECT_EQ(value(below), "code 4");
  EXPECT_EQ(prtkv_close_key(ctx_, source), PRTKV_DONE);
}

TEST_F(Prtkv, MoveThatReplacesEndsTheHandlesOfWhatWasThere) {
  for (const char* name : {"a", "b", "b.c"}) ground_.make(name, open_to_all(), name);
  const prtkv_key root = ctx_.open("");
  const prtkv_key former = ctx_.open("b");
  const prtkv_key below = ctx_.open("b.c");
  prtkv_key moved = 99;
  EXPECT_EQ(prtkv_move_key(ctx_, ctx_.open("a"), root, "b", &moved, 0), PRTKV_KEY_EXISTS);
  EXPECT_EQ(moved, 99U);
  EXPECT_EQ(value(former), "b");
  ASSERT_EQ(prtkv_move_key(ctx_, ctx_.open("a"), root, "b", &moved, 1), PRTKV_DONE);
  EXPECT_EQ(value(moved), "a");
  EXPECT_EQ(value(former), "code 4");
  EXPECT_EQ(value(below), "code 4");
}

TEST_F(Prtkv, MoveOntoAnAncestorIsRefusedAndLeavesEverything) {
  for (const char* name : {"a", "a.b", "a.c"}) ground_.make(name, open_to_all(), name);
  const prtkv_key source = ctx_.open("a.b");
  const prtkv_key ancestor = ctx_.open("a");
  prtkv_key moved = 99;
  EXPECT_EQ(prtkv_move_key(ctx_, source, ctx_.open(""), "a", &moved, 1), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(ctx_.last_error(), "TKV-0017: key 'a.b' cannot replace key 'a', which it lies below");
  EXPECT_EQ(moved, 99U);
  EXPECT_EQ(value(source), "a.b");
  EXPECT_EQ(value(ancestor), "a");
  EXPECT_TRUE(ground_.has("a.c"));
}

TEST_F(Prtkv, MoveTakesNoOtherFlags) {
  ground_.make("a");
  prtkv_key moved = 0;
  for (const int32_t flags : {2, 3, -1, 0x20000}) {
    EXPECT_EQ(prtkv_move_key(ctx_, ctx_.open("a"), ctx_.open(""), "b", &moved, flags), PRTKV_INVALID_ARGUMENT);
  }
  EXPECT_TRUE(ground_.has("a"));
}

TEST_F(Prtkv, RootIsNeitherDeletedNorMoved) {
  ground_.make("a");
  prtkv_key moved = 0;
  EXPECT_EQ(prtkv_delete_key(ctx_, ctx_.open(""), 1), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(prtkv_move_key(ctx_, ctx_.open(""), ctx_.open("a"), "r", &moved, 0), PRTKV_INVALID_ARGUMENT);
  EXPECT_TRUE(ground_.has("a"));
}

TEST_F(Prtkv, RefusedDeleteLeavesTheHandleOpen) {
  ground_.make("a");
  ground_.make("a.b");
  const prtkv_key key = ctx_.open("a");
  EXPECT_EQ(prtkv_delete_key(ctx_, key, 0), PRTKV_HAS_SUBKEYS);
  EXPECT_EQ(prtkv_delete_key(ctx_, key, 2), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
}

TEST_F(Prtkv, ManyKeysAreOpenAtOnce) {
  std::vector<prtkv_key> keys;
  for (int n = 0; n < 5000; ++n) keys.push_back(ctx_.open(""));
  EXPECT_EQ(std::set<prtkv_key>(keys.begin(), keys.end()).size(), keys.size());
  for (const prtkv_key key : keys) EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
}

// Values

TEST_F(Prtkv, ValuesOfEverySizeComeBackWithTheirType) {
  ground_.make("a");
  const prtkv_key key = ctx_.open("a");
  for (const std::uint32_t size : {0U, 1U, 2U, 1023U, 1024U, 1025U, 8192U, 65536U, 65537U, 1048576U}) {
    SCOPED_TRACE(size);
    std::string written(size, '\0');
    for (std::uint32_t at = 0; at < size; ++at) written[at] = static_cast<char>(at * 31 + size);
    const auto type = static_cast<std::int32_t>(size) - 7;
    ASSERT_EQ(prtkv_set_value(ctx_, key, type, written.data(), size), PRTKV_DONE);
    std::string read(size, '?');
    std::uint32_t read_size = size;
    std::int32_t read_type = 0;
    ASSERT_EQ(prtkv_get_value(ctx_, key, &read_type, read.data(), &read_size), PRTKV_DONE);
    EXPECT_EQ(read_size, size);
    EXPECT_EQ(read_type, type);
    EXPECT_TRUE(read == written);
  }
}

TEST_F(Prtkv, ValueOverOneMebibyteIsTooLargeAndChangesNothing) {
  ground_.make("a", open_to_all(), "v");
  const prtkv_key key = ctx_.open("a");
  const std::string large(PRTKV_MAX_VALUE_SIZE + 1, 'x');
  EXPECT_EQ(set(key, large), PRTKV_VALUE_TOO_LARGE);
  EXPECT_EQ(ctx_.last_error(), "TKV-0010: value too large: 1048577 bytes, more than 1 MiB");
  EXPECT_EQ(value(key), "v");
  prtkv_key out = 0;
  std::int32_t word = 0;
  EXPECT_EQ(prtkv_create_n_set_key(ctx_, key, "b", &out, &word, 3, open_to_all(), large.data(),
                                   static_cast<std::uint32_t>(large.size())),
            PRTKV_VALUE_TOO_LARGE);
  EXPECT_FALSE(ground_.has("a.b"));
}

TEST_F(Prtkv, KeyThatNeverGotAValueReadsAsType0AndSize0) {
  ground_.make("a");
  std::uint32_t size = 10;
  std::int32_t type = 99;
  char buffer[10] = "untouched";
  EXPECT_EQ(prtkv_get_value(ctx_, ctx_.open("a"), &type, buffer, &size), PRTKV_DONE);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(size, 0U);
  EXPECT_STREQ(buffer, "untouched");
}

TEST_F(Prtkv, EmptyValueMayBeNull) {
  ground_.make("a", open_to_all(), "v");
  const prtkv_key key = ctx_.open("a");
  ASSERT_EQ(prtkv_set_value(ctx_, key, 5, nullptr, 0), PRTKV_DONE);
  std::uint32_t size = 0;
  std::int32_t type = 0;
  EXPECT_EQ(prtkv_get_value(ctx_, key, &type, nullptr, &size), PRTKV_DONE);
  EXPECT_EQ(type, 5);
  EXPECT_EQ(size, 0U);
}

TEST_F(Prtkv, BufferTooSmallGivesTheSizeNeededAndTouchesNothingElse) {
  ground_.make("a", open_to_all(), "twelve bytes");
  const prtkv_key key = ctx_.open("a");
  for (const std::uint32_t offered : {0U, 1U, 11U}) {
    char buffer[16] = "untouched";
    std::uint32_t size = offered;
    std::int32_t type = 99;
    EXPECT_EQ(prtkv_get_value(ctx_, key, &type, buffer, &size), PRTKV_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 12U);
    EXPECT_EQ(type, 99);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(prtkv_get_value(ctx_, key, &type, buffer, &size), PRTKV_DONE);
    EXPECT_EQ(std::string(buffer, size), "twelve bytes");
  }
}

TEST_F(Prtkv, ReadThatTheStoreRunsTwiceTouchesTheBufferOnce) {
  ground_.make("a", open_to_all(), "value");
  ground_.store->run_functions_twice();
  EXPECT_EQ(value(ctx_.open("a")), "value");
}

// Enumeration

struct Subkey {
  int32_t code = 0;
  std::string name;
  std::uint32_t size = 0;
  std::int32_t remaining = -1;
};

Subkey next(prtkv_ctx ctx, prtkv_key key, std::uint32_t capacity = PRTKV_SUBKEY_NAME_SIZE) {
  Subkey subkey;
  char buffer[PRTKV_SUBKEY_NAME_SIZE] = "";
  subkey.size = capacity;
  subkey.code = prtkv_enum_subkey(ctx, key, buffer, &subkey.size, &subkey.remaining);
  subkey.name = buffer;
  return subkey;
}

TEST_F(Prtkv, SubkeysComeInByteOrderWithTheirCountAndThenNoMoreSubkeys) {
  ground_.make("a");
  for (const char* name : {"a.b", "a.B", "a.\xc3\xa9", "a.a-"}) ground_.make(name);
  const prtkv_key key = ctx_.open("a");
  std::vector<std::string> names;
  for (std::int32_t remaining = 3; remaining >= 0; --remaining) {
    const Subkey subkey = next(ctx_, key);
    ASSERT_EQ(subkey.code, PRTKV_DONE);
    EXPECT_EQ(subkey.remaining, remaining);
    EXPECT_EQ(subkey.size, subkey.name.size());
    names.push_back(subkey.name);
  }
  EXPECT_THAT(names, ElementsAre("B", "a-", "b", "\xc3\xa9"));
  for (int again = 0; again < 3; ++again) {
    const Subkey end = next(ctx_, key);
    EXPECT_EQ(end.code, PRTKV_NO_MORE_SUBKEYS);
    EXPECT_EQ(end.remaining, -1);
  }
  EXPECT_EQ(ctx_.last_error(), "TKV-0016: key 'a' has no more subkeys");
  EXPECT_EQ(next(ctx_, ctx_.open("a")).name, "B") << "another handle begins anew";
}

TEST_F(Prtkv, AHandleInTheSlotOfAClosedOneListsItsOwnKey) {
  for (const char* name : {"a", "a.b", "c", "c.d", "c.e"}) ground_.make(name);
  const prtkv_key first = ctx_.open("a");
  EXPECT_EQ(next(ctx_, first).name, "b");
  ASSERT_EQ(prtkv_close_key(ctx_, first), PRTKV_DONE);
  const prtkv_key second = ctx_.open("c");
  EXPECT_EQ(next(ctx_, second).name, "d");
  EXPECT_EQ(next(ctx_, second).name, "e");
  EXPECT_EQ(next(ctx_, second).code, PRTKV_NO_MORE_SUBKEYS);
}

TEST_F(Prtkv, AHandleInTheSlotOfOneWhoseKeyIsGoneServesItsOwnKey) {
  const Context other(ground_.as(superuser()));
  for (const char* name : {"a", "c"}) ground_.make(name, open_to_all(), name);
  const prtkv_key gone = ctx_.open("a");
  EXPECT_EQ(prtkv_delete_key(other, other.open("a"), 0), PRTKV_DONE);
  EXPECT_EQ(value(gone), "code 4");
  ASSERT_EQ(prtkv_close_key(ctx_, gone), PRTKV_DONE);
  EXPECT_EQ(value(ctx_.open("c")), "c");
}

TEST_F(Prtkv, KeyWithoutSubkeysHasNoMoreAtOnce) {
  ground_.make("a");
  EXPECT_EQ(next(ctx_, ctx_.open("a")).code, PRTKV_NO_MORE_SUBKEYS);
}

TEST_F(Prtkv, EnumerationGoesOnFromTheListAsItWas) {
  for (const char* name : {"a", "a.b", "a.c", "a.d"}) ground_.make(name);
  const prtkv_key key = ctx_.open("a");
  EXPECT_EQ(next(ctx_, key).name, "b");
  ASSERT_EQ(prtkv_delete_key(ctx_, ctx_.open("a.c"), 0), PRTKV_DONE);
  ground_.make("a.bb");
  ground_.make("a.e");
  EXPECT_EQ(next(ctx_, key).name, "c");
  EXPECT_EQ(next(ctx_, key).name, "d");
  EXPECT_EQ(next(ctx_, key).code, PRTKV_NO_MORE_SUBKEYS);
}

TEST_F(Prtkv, EnumerationOfAKeyThatThisSessionDeletedYieldsNoSuchKey) {
  for (const char* name : {"a", "a.b", "a.c"}) ground_.make(name);
  const prtkv_key key = ctx_.open("a");
  EXPECT_EQ(next(ctx_, key).name, "b");
  ASSERT_EQ(prtkv_delete_key(ctx_, ctx_.open("a"), 1), PRTKV_DONE);
  EXPECT_EQ(next(ctx_, key).code, PRTKV_NO_SUCH_KEY);
}

TEST_F(Prtkv, SubkeyThatDoesNotFitComesAgain) {
  ground_.make("a");
  const std::string longest(264, 'x');
  ground_.make("a." + longest);
  const prtkv_key key = ctx_.open("a");
  for (const std::uint32_t capacity : {0U, 1U, 264U}) {
    const Subkey cut = next(ctx_, key, capacity);
    EXPECT_EQ(cut.code, PRTKV_BUFFER_TOO_SMALL);
    EXPECT_EQ(cut.size, 265U);
    EXPECT_EQ(cut.name, "");
    EXPECT_EQ(cut.remaining, -1);
  }
  const Subkey whole = next(ctx_, key, 265);
  EXPECT_EQ(whole.code, PRTKV_DONE);
  EXPECT_EQ(whole.name, longest);
}

TEST_F(Prtkv, EnumerationThatFailsBeginsAnewNextTime) {
  ground_.make("a");
  ground_.make("a.b");
  const prtkv_key key = ctx_.open("a");
  ground_.store->fail(Call::kChildren, 1, PRTKV_UNREACHABLE);
  EXPECT_EQ(next(ctx_, key).code, PRTKV_UNREACHABLE);
  EXPECT_EQ(next(ctx_, key).name, "b");
}

// Arguments

TEST_F(Prtkv, NullWhereAPointerIsNeededIsReported) {
  const prtkv_key root = ctx_.open("");
  prtkv_key key = 0;
  std::int32_t word = 0;
  std::uint32_t size = 1;
  std::uint64_t size64 = 1;
  char text[PRTKV_BACKUP_LOCATION_SIZE];
  const sec_attr security = open_to_all();
  const std::vector<std::pair<const char*, int32_t>> calls = {
      {"out", prtkv_open_key(ctx_, nullptr, "")},
      {"name", prtkv_open_key(ctx_, &key, nullptr)},
      {"name", prtkv_create_key(ctx_, root, nullptr, &key, &word, security)},
      {"out", prtkv_create_key(ctx_, root, "a", nullptr, &word, security)},
      {"word", prtkv_create_key(ctx_, root, "a", &key, nullptr, security)},
      {"value", prtkv_create_n_set_key(ctx_, root, "a", &key, &word, 3, security, nullptr, 1)},
      {"value", prtkv_create_n_set_key_ext(ctx_, nullptr, root, "a", &key, &word, security, 3, nullptr, 8, 0)},
      {"name", prtkv_move_key(ctx_, root, root, nullptr, &key, 0)},
      {"moved", prtkv_move_key(ctx_, root, root, "a", nullptr, 0)},
      {"name", prtkv_enum_subkey(ctx_, root, nullptr, &size, &word)},
      {"size", prtkv_enum_subkey(ctx_, root, text, nullptr, &word)},
      {"remaining", prtkv_enum_subkey(ctx_, root, text, &size, nullptr)},
      {"type", prtkv_get_value(ctx_, root, nullptr, text, &size)},
      {"buffer", prtkv_get_value(ctx_, root, &word, nullptr, &size)},
      {"size", prtkv_get_value(ctx_, root, &word, text, nullptr)},
      {"value", prtkv_set_value(ctx_, root, 3, nullptr, 1)},
      {"sec", prtkv_get_key_security(ctx_, root, nullptr)},
      {"location", prtkv_get_backup_loc(ctx_, nullptr, &size64, 0)},
      {"size_limit", prtkv_get_backup_loc(ctx_, text, nullptr, 0)}};
  for (const auto& [argument, code] : calls) EXPECT_EQ(code, PRTKV_NULL_ARGUMENT) << argument;
  EXPECT_EQ(ctx_.last_error(), "TKV-0013: null argument: size_limit");
  EXPECT_THAT(ground_.everything(), ElementsAre());
  EXPECT_EQ(prtkv_get_last_error(ctx_, nullptr, text, &word), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_get_last_error(ctx_, &word, nullptr, &word), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_get_last_error(ctx_, &word, text, nullptr), PRTKV_NULL_ARGUMENT);
}

TEST_F(Prtkv, FlagsAreTheOnesThatCallersUseOrNone) {
  const prtkv_key root = ctx_.open("");
  prtkv_key key = 0;
  std::int32_t word = 0;
  std::uint64_t limit = 0;
  char location[PRTKV_BACKUP_LOCATION_SIZE];
  const sec_attr security = open_to_all();
  for (const std::uint32_t flags : {1U, 0x80001U, 0x20004U, ~0U}) {
    SCOPED_TRACE(flags);
    EXPECT_EQ(prtkv_create_n_set_key_ext(ctx_, nullptr, root, "a", &key, &word, security, 3, "x", 2, flags),
              PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(prtkv_set_key_security_ext(ctx_, nullptr, root, flags, security), PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(prtkv_get_backup_loc(ctx_, location, &limit, flags), PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(prtkv_set_zuved_dependencies(ctx_, 0, flags), PRTKV_INVALID_ARGUMENT);
  }
  EXPECT_EQ(prtkv_create_n_set_key_ext(ctx_, &word, root, "a", &key, &word, security, 3, "x", 2, 0),
            PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(prtkv_set_key_security_ext(ctx_, &word, root, 0, security), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(prtkv_set_key_security_ext(ctx_, nullptr, root, PRTKV_SECURITY_EXT_FLAGS, security), PRTKV_DONE);
  EXPECT_EQ(prtkv_set_key_security_ext(ctx_, nullptr, root, 0, security), PRTKV_DONE);
}

TEST_F(Prtkv, NameLongerThanAnyIsReadNoFurther) {
  const std::string endless(100000, 'x');
  prtkv_key key = 0;
  EXPECT_EQ(prtkv_open_key(ctx_, &key, endless.c_str()), PRTKV_INVALID_NAME);
  EXPECT_EQ(ctx_.last_error(), "TKV-0005: invalid name: 1024 bytes, more than 1023");
  EXPECT_EQ(create(ctx_.open(""), endless.c_str(), &key), PRTKV_INVALID_NAME);
  // The longest name, at the end of readable memory for the sanitizer's sake.
  std::string longest(1023, 'n');
  for (std::size_t at = 200; at < longest.size(); at += 201) longest[at] = '.';
  EXPECT_EQ(prtkv_open_key(ctx_, &key, longest.c_str()), PRTKV_NO_SUCH_KEY);
}

// Last error

TEST_F(Prtkv, LastErrorIsSetByFailuresAndClearedBySuccesses) {
  EXPECT_EQ(ctx_.last_error(), "");
  prtkv_key key = 0;
  prtkv_open_key(ctx_, &key, "a.b");
  EXPECT_EQ(ctx_.last_error(), "TKV-0004: key 'a.b' does not exist");
  EXPECT_EQ(ctx_.last_error(), "TKV-0004: key 'a.b' does not exist") << "asking leaves it in place";
  prtkv_close_key(ctx_, 1);
  EXPECT_EQ(ctx_.last_error(), "TKV-0003: invalid key handle");
  prtkv_open_key(ctx_, &key, "");
  EXPECT_EQ(ctx_.last_error(), "");
  char text[10] = "untouched";
  std::int32_t code = 77;
  std::int32_t size = sizeof text;
  EXPECT_EQ(prtkv_get_last_error(ctx_, &code, text, &size), PRTKV_UNKNOWN);
  EXPECT_EQ(code, 77);
  EXPECT_EQ(size, 10);
  EXPECT_STREQ(text, "untouched");
}

TEST_F(Prtkv, LastErrorIsEachSessionsOwn) {
  const Context other(ground_.as(person("bob")));
  ctx_.open("absent");
  EXPECT_EQ(other.last_error(), "");
  other.open("");
  EXPECT_EQ(ctx_.last_error(), "TKV-0004: key 'absent' does not exist");
}

TEST_F(Prtkv, LastErrorIsCutToFitAndAlwaysTerminated) {
  ctx_.open("\xe2\x82\xac");
  const std::string whole = "TKV-0004: key '\xe2\x82\xac' does not exist";
  for (std::int32_t capacity = 1; capacity < 60; ++capacity) {
    SCOPED_TRACE(capacity);
    std::vector<char> text(static_cast<std::size_t>(capacity), 'z');
    std::int32_t code = 0;
    std::int32_t size = capacity;
    ASSERT_EQ(prtkv_get_last_error(ctx_, &code, text.data(), &size), PRTKV_DONE);
    EXPECT_EQ(code, PRTKV_NO_SUCH_KEY);
    ASSERT_LT(size, capacity);
    EXPECT_EQ(text[static_cast<std::size_t>(size)], '\0');
    EXPECT_THAT(whole, StartsWith(text.data()));
    EXPECT_TRUE(size != 16 && size != 17) << "a character was cut in two";
  }
  std::int32_t code = 0;
  char text = 'z';
  for (std::int32_t size : {0, -1}) {
    EXPECT_EQ(prtkv_get_last_error(ctx_, &code, &text, &size), PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(text, 'z');
  }
}

TEST_F(Prtkv, LastErrorMayBeUsedAsAFormat) {
  ctx_.open("a%s.b\n%n\x7f\xc2\x85 \xc3\xa9");
  EXPECT_EQ(ctx_.last_error(), "TKV-0004: key 'a?s.b??n?? \xc3\xa9' does not exist");
}

TEST_F(Prtkv, LastErrorOfALongNameKeepsTheReason) {
  std::string longest(1023, 'n');
  for (std::size_t at = 200; at < longest.size(); at += 201) longest[at] = '.';
  ctx_.open(longest.c_str());
  EXPECT_THAT(ctx_.last_error(), ::testing::EndsWith("' does not exist"));
  ground_.store->fail(Call::kRead, 1, {PRTKV_STORAGE_FAILED, std::string(5000, 'r')});
  ctx_.open("a");
  EXPECT_EQ(ctx_.last_error().size(), 1023U);
}

// Results

TEST_F(Prtkv, FailuresOfTheStoreComeThroughWithTheirTexts) {
  ground_.make("a", open_to_all(), "v");
  const prtkv_key key = ctx_.open("a");
  const std::pair<Status, const char*> failures[] = {
      {{PRTKV_STORAGE_FAILED, "input/output error"}, "TKV-0007: key 'a': input/output error"},
      {PRTKV_STORAGE_FULL, "TKV-0011: key 'a': storage full"},
      {PRTKV_OUT_OF_MEMORY, "TKV-0012: key 'a': out of memory"},
      {{PRTKV_UNKNOWN, "error 4711"}, "TKV-0014: key 'a': error 4711"},
      {{PRTKV_UNREACHABLE, "node-1:2379: refused"}, "TKV-0015: key 'a': node-1:2379: refused"}};
  for (const auto& [failure, text] : failures) {
    ground_.store->fail(Call::kSetValue, 1, failure);
    EXPECT_EQ(set(key, "new"), failure.code());
    EXPECT_EQ(ctx_.last_error(), text);
    EXPECT_EQ(value(key), "v");
  }
  ground_.store->fail(Call::kCommit, 1, PRTKV_STORAGE_FULL);
  EXPECT_EQ(set(key, "new"), PRTKV_STORAGE_FULL);
  EXPECT_EQ(ctx_.last_error(), "TKV-0011: storage full");
  EXPECT_EQ(value(key), "v");
}

TEST_F(Prtkv, FailureOfACreationLeavesNoHandleTaken) {
  const prtkv_key root = ctx_.open("");
  prtkv_key key = 0;
  for (int n = 0; n < 100; ++n) {
    ground_.store->fail(Call::kCommit, 1, PRTKV_STORAGE_FULL);
    EXPECT_EQ(create(root, "a", &key), PRTKV_STORAGE_FULL);
    EXPECT_EQ(key, 0U);
  }
  EXPECT_EQ(create(root, "a", &key), PRTKV_DONE);
  EXPECT_LT(key & 0xfffff, 3U) << "the handles of failed creations were not given back";
}

TEST_F(Prtkv, EachRightIsAskedFor) {
  ground_.make("a", owned_by("alice", "", 0x3f, 0, 0));
  const prtkv_key key = ctx_.open("a");
  EXPECT_THAT(answers(ctx_, key), ElementsAre(PRTKV_ACCESS_DENIED, PRTKV_MOVE_INTO_ITSELF));
  EXPECT_EQ(ctx_.last_error(), "TKV-0002: key 'a': access denied, deleting it needs the right 0x20");
  EXPECT_TRUE(ground_.has("a"));
}

// A store that throws.
template <typename Exception>
class ThrowingStore final : public store::Store {
 public:
  explicit ThrowingStore(Exception exception) : exception_(std::move(exception)) {}

  Status read(FunctionRef<Status(store::View&)>) override { throw exception_; }
  Status read_all(FunctionRef<Status(store::View&)>) override { throw exception_; }
  Status write(FunctionRef<Status(store::Update&)>, Revision*) override { throw exception_; }
  Status read_at(Revision, FunctionRef<Status(store::View&)>) override { throw exception_; }
  Status changes(const LogRange&, FunctionRef<Status(const ChangeRecord&)>, LogPosition*) override { throw exception_; }
  Status wait(Revision, std::chrono::milliseconds, const std::stop_token&, Revision*) override { throw exception_; }
  Status purge(ChooseNodes, const ChangeDescription&, std::uint64_t*) override { throw exception_; }
  Status check(const ChangeDescription*, FunctionRef<void(const store::Finding&)>,
               FunctionRef<void(const store::CheckProgress&)>, store::Totals*) override {
    throw exception_;
  }
  const char* kind() const override { return "throwing"; }

 private:
  const Exception exception_;
};

TEST(PrtkvExceptions, EndAtTheCFunctions) {
  prtkv_key key = 99;
  const Context full(client_on(std::make_shared<ThrowingStore<std::bad_alloc>>(std::bad_alloc()), superuser()));
  EXPECT_EQ(prtkv_open_key(full, &key, ""), PRTKV_OUT_OF_MEMORY);
  EXPECT_EQ(key, 0U);
  EXPECT_EQ(full.last_error(), "TKV-0012: out of memory");
  EXPECT_EQ(prtkv_set_zuved_dependencies(full, 1, 0), PRTKV_OUT_OF_MEMORY);
  const Context other(
      client_on(std::make_shared<ThrowingStore<std::runtime_error>>(std::runtime_error("odd")), superuser()));
  EXPECT_EQ(prtkv_open_key(other, &key, ""), PRTKV_UNKNOWN);
  EXPECT_EQ(other.last_error(), "TKV-0014: unknown error");
}

TEST(PrtkvResults, EveryCodeHasItsText) {
  const std::pair<int32_t, const char*> texts[] = {{0, "done"},
                                                   {2, "access denied"},
                                                   {3, "invalid handle"},
                                                   {4, "no such key"},
                                                   {5, "invalid name"},
                                                   {6, "key has subkeys"},
                                                   {7, "storage failed or damaged"},
                                                   {8, "invalid argument"},
                                                   {9, "buffer too small"},
                                                   {10, "value too large"},
                                                   {11, "storage full"},
                                                   {12, "out of memory"},
                                                   {13, "null argument"},
                                                   {14, "unknown error"},
                                                   {15, "registry unreachable"},
                                                   {16, "no more subkeys"},
                                                   {17, "a key cannot be moved into itself"},
                                                   {37, "the path names a distributed registry"},
                                                   {41, "invalid configuration"},
                                                   {42, "configuration unreadable"},
                                                   {55, "key exists"},
                                                   {1, "unknown result"}};
  for (const auto& [code, text] : texts) EXPECT_STREQ(Status::result_text(code), text);
}

// Backup location and the daemon's dependencies

TEST(PrtkvBackupLocation, IsTheConfiguredOneWithoutALimit) {
  Ground ground;
  Configuration configuration;
  configuration.backup_location = "/" + std::string(4094, 'b');
  const Context some(client_on(ground.store, superuser(), configuration));
  const Context none(ground.as(superuser()));
  std::vector<char> location(PRTKV_BACKUP_LOCATION_SIZE, 'z');
  std::uint64_t limit = 77;
  EXPECT_EQ(prtkv_get_backup_loc(some, location.data(), &limit, PRTKV_BACKUP_LOC_FLAGS), PRTKV_DONE);
  EXPECT_EQ(std::string(location.data()), configuration.backup_location);
  EXPECT_EQ(limit, 0U);
  EXPECT_EQ(prtkv_get_backup_loc(none, location.data(), &limit, 0), PRTKV_DONE);
  EXPECT_STREQ(location.data(), "");
}

TEST(PrtkvZuved, RecordsModeAndServicesTogether) {
  const std::pair<int32_t, std::string> modes[] = {
      {PRTKV_ZUVED_STORAGE_NONE, std::string("membership\0\0", 12)},
      {PRTKV_ZUVED_STORAGE_LOCAL, std::string("membership\0storage\0\0", 20)},
      {PRTKV_ZUVED_STORAGE_REMOTE, std::string("membership\0network\0storage-client\0\0", 35)}};
  Ground ground;
  const Context ctx(ground.as(person("bob", {"users"})));
  for (const auto& [mode, services] : modes) {
    ASSERT_EQ(prtkv_set_zuved_dependencies(ctx, mode, 0), PRTKV_DONE);
    EXPECT_THAT(ground.everything(), ElementsAre("SYSTEM", "SYSTEM.ZUVED", "SYSTEM.ZUVED.dependencies=5:" + services,
                                                 "SYSTEM.ZUVED.mode=3:" + std::to_string(mode) + std::string(1, '\0')));
  }
  for (const int32_t mode : {-1, 3, 100}) {
    EXPECT_EQ(prtkv_set_zuved_dependencies(ctx, mode, 0), PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(ctx.last_error(), "TKV-0008: invalid argument: no storage mode " + std::to_string(mode));
  }
  EXPECT_EQ(ground.value("SYSTEM.ZUVED.mode"), std::string("2\0", 2));
  sec_attr security{};
  ASSERT_TRUE(
      ground.tree(superuser()).read([&](Reader& tree) { return tree.security("SYSTEM.ZUVED", &security); }).ok());
  EXPECT_EQ(user_of(security), "bob");
  EXPECT_EQ(group_of(security), "users");
}

TEST(PrtkvZuved, RecordsBothOrNeither) {
  Ground ground;
  const Context ctx(ground.as(person("bob")));
  ASSERT_EQ(prtkv_set_zuved_dependencies(ctx, 1, 0), PRTKV_DONE);
  const auto before = ground.everything();
  ground.store->fail(Call::kSetValue, 2, PRTKV_STORAGE_FULL);
  EXPECT_EQ(prtkv_set_zuved_dependencies(ctx, 2, 0), PRTKV_STORAGE_FULL);
  EXPECT_EQ(ground.everything(), before);
  const Context stranger(ground.as(person("carol")));
  EXPECT_EQ(prtkv_set_zuved_dependencies(stranger, 2, 0), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(ground.everything(), before);
}

}  // namespace
}  // namespace tkv::registry
