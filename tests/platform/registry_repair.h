// After any damage to records, a repair and one restore make a registry that a check finds sound, and that holds what
// was restored. For every store: see DamageableRegistry.
#ifndef TKV_TESTS_PLATFORM_REGISTRY_REPAIR_H
#define TKV_TESTS_PLATFORM_REGISTRY_REPAIR_H

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "registry/local_client.h"
#include "registry_fixture.h"

namespace tkv::registry {

class DamageableRegistry {
 public:
  virtual ~DamageableRegistry() = default;

  // Opens the registry, which it creates the first time.
  virtual std::shared_ptr<store::Store> open() = 0;

  // Changes some of the bytes of one record, whichever, while nobody has the registry open.
  virtual void damage_a_record(std::mt19937& random) = 0;
};

inline constexpr auto kNoSteps = [](const CheckStep&) {};
inline constexpr auto kNoKeys = [](std::uint64_t) {};

inline void add_keys(std::mt19937& random, const std::string& name, int depth, std::vector<KeyRecord>* keys) {
  KeyRecord key;
  key.name = name;
  key.security = owned_by("alice", "staff", 0x3f, static_cast<std::int32_t>(random() % 0x40), 0);
  if (random() % 3 != 0) {
    key.value = {PRTKV_TYPE_TEXT, std::string(1 + random() % 300, static_cast<char>('a' + random() % 26))};
  }
  keys->push_back(std::move(key));
  for (int i = 0; depth > 0 && i < 5; ++i) {
    add_keys(random, (name.empty() ? "" : name + ".") + "key" + std::to_string(i), depth - 1, keys);
  }
}

// Changes up to eight bytes of a record.
inline void change_bytes(std::mt19937& random, std::string* record) {
  for (std::size_t i = 1 + random() % 8; i > 0; --i) {
    (*record)[random() % record->size()] ^= static_cast<char>(1 + random() % 255);
  }
}

class RepairTrial {
 public:
  RepairTrial(DamageableRegistry& registry, int depth) : registry_(registry), client_(superuser_on(registry)) {
    add_keys(random_, "", depth, &saved_.keys);
    restore();
  }

  // In turn, one record or several are damaged.
  void run(int rounds) {
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
      SCOPED_TRACE(round);
      client_.reset();
      for (int i = 0; i < (round % 2 == 0 ? 1 : 10); ++i) registry_.damage_a_record(random_);
      client_ = superuser_on(registry_);
      check(false);
      check(true);
      restore();
      EXPECT_EQ(check(false).damages.size(), 0u);
      expect_restored();
    }
  }

 private:
  static std::shared_ptr<Client> superuser_on(DamageableRegistry& registry) {
    return client_on(registry.open(), superuser());
  }

  CheckResult check(bool repair) {
    CheckResult result;
    const Status status = client_->check(repair, kNoSteps, &result);
    EXPECT_TRUE(status.ok()) << status.text();
    return result;
  }

  void restore() {
    Difference difference;
    ApplyOptions options;
    options.mode = MergeMode::kReplace;
    const Status status = client_->apply(saved_, options, kNoKeys, &difference);
    EXPECT_TRUE(status.ok()) << status.text();
  }

  void expect_restored() {
    Difference difference;
    const Status status = client_->compare(saved_, MergeMode::kReplace, {}, kNoKeys, &difference);
    EXPECT_TRUE(status.ok()) << status.text();
    EXPECT_EQ(difference.changes.size(), 0u);
    EXPECT_EQ(difference.keys, saved_.keys.size());
  }

  DamageableRegistry& registry_;
  std::mt19937 random_{1};
  Subtree saved_;
  std::shared_ptr<Client> client_;
};

}  // namespace tkv::registry

#endif
