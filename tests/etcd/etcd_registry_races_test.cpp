// Operations of the registry on etcd that rest on what they have read of many keys: what another session changes before
// they are committed is taken into account. Against a cluster in memory.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "base/limits.h"
#include "fake_kv.h"
#include "registry/tree.h"
#include "store/etcd/opening.h"
#include "store/etcd/stm.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

using registry::Writer;

class EtcdRegistryRaces : public testing::Test {
 protected:
  EtcdRegistryRaces() : own_(session()), other_(session()) {
    identity_.superuser = true;
    make("a", "1");
    make("a.x", "1");
  }

  std::unique_ptr<Core> session() {
    auto core = std::make_unique<Core>(std::make_unique<SharedKv>(kv_), "/tkv/");
    EXPECT_TRUE(done(open_registry(*core, EtcdOptions())));
    return core;
  }

  // Makes an operation as a store does. `meanwhile` is called once, between the operation and its first commit.
  Status write(Core& core, const std::function<Status(Writer&)>& operation, std::function<void()> meanwhile = {}) {
    NextRun next;
    for (int runs = 0; runs < 5; ++runs) {
      Stm stm(core, Stm::Purpose::kWrite, std::move(next), core.deadline());
      Status result = stm.start();
      if (result.ok()) {
        Writer writer(stm, identity_);
        result = operation(writer);
      }
      if (meanwhile) std::exchange(meanwhile, nullptr)();
      if (stm.finish(&result)) return result;
      next = stm.take_next();
    }
    return {PRTKV_UNKNOWN, "ran too often"};
  }

  // In the other session.
  void make(const std::string& name, const std::string& value) {
    const auto [parent, level] = split(name);
    EXPECT_TRUE(done(write(*other_, [&, &parent = parent, &level = level](Writer& writer) {
      registry::KeyId id = 0;
      return writer.create(parent, level, sec_attr{}, PRTKV_TYPE_TEXT, bytes_of(value), &id);
    })));
  }
  void set(const std::string& name, const std::string& value) {
    EXPECT_TRUE(done(
        write(*other_, [&](Writer& writer) { return writer.write_value(name, PRTKV_TYPE_TEXT, bytes_of(value)); })));
  }

  // The value of a key as a session without a cache reads it, or "none".
  std::string value_of(const std::string& name) {
    const auto fresh = session();
    std::string text = "none";
    EXPECT_TRUE(done(write(*fresh, [&](Writer& writer) {
      Value value;
      const Status status = writer.value(name, &value);
      text = status.ok() ? text_of(value) : "none";
      return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
    })));
    return text;
  }

  FakeKv kv_;
  std::unique_ptr<Core> own_;
  std::unique_ptr<Core> other_;
  Identity identity_;
};

TEST_F(EtcdRegistryRaces, ACopyHasWhatWasWrittenBeforeItsCommit) {
  const auto copy = [](Writer& writer) {
    registry::CopyOptions options;
    options.recursive = true;
    return writer.copy("a", "b", options);
  };
  ASSERT_TRUE(done(write(*own_, copy, [&] {
    set("a", "2");
    set("a.x", "2");
    make("a.y", "2");
  })));
  EXPECT_EQ(value_of("b"), "2");
  EXPECT_EQ(value_of("b.x"), "2");
  EXPECT_EQ(value_of("b.y"), "2");
}

TEST_F(EtcdRegistryRaces, AMoveTakesNoKeyBelowTheLowestLevel) {
  std::string target = "p";
  make(target, "");
  for (std::size_t level = 1; level < kMaxLevels - 2; ++level) make(target += ".p", "");
  const auto move = [&](Writer& writer) {
    registry::KeyId id = 0;
    return writer.move("a", target, "m", false, &id);
  };
  EXPECT_TRUE(write(*own_, move, [&] { make("a.x.y", "deeper"); }).is(PRTKV_INVALID_NAME));
  EXPECT_EQ(value_of("a.x.y"), "deeper");
  EXPECT_EQ(value_of(target + ".m"), "none");
}

TEST_F(EtcdRegistryRaces, AKeyThatGetsASubkeyIsNotDeletedAlone) {
  const auto remove = [](Writer& writer) { return writer.remove("a.x", false); };
  EXPECT_TRUE(write(*own_, remove, [&] { make("a.x.y", "new"); }).is(PRTKV_HAS_SUBKEYS));
  EXPECT_EQ(value_of("a.x.y"), "new");
}

}  // namespace
}  // namespace tkv::store::etcd
