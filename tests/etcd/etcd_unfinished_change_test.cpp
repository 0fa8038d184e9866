// Damage to the records that a large change has in etcd while it is being made, and to the other records that a
// registry has there of itself: a check reports it, what it does not concern can be read, and a repair and one restore
// make the registry sound.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "etcd_store_fixture.h"
#include "registry/local_client.h"
#include "registry_fixture.h"
#include "store/etcd/build.h"
#include "store/etcd/claims.h"

namespace tkv::store::etcd {
namespace {

using registry::CheckResult;
using registry::Client;
using registry::Damage;

constexpr auto kNoSteps = [](const registry::CheckStep&) {};
constexpr auto kNoKeys = [](std::uint64_t) {};

struct WayToDamage {
  const char* name;
  std::string (*damaged)(std::string record);
};

constexpr WayToDamage kWays[] = {
    {"cut off", [](std::string record) { return record.substr(0, record.size() / 2); }},
    {"one bit flipped",
     [](std::string record) {
       record[record.size() * 2 / 3] ^= 1;
       return record;
     }},
    {"empty", [](std::string) { return std::string(); }},
    {"random bytes", [](std::string) { return std::string("\x93\x02\xf7\x41\x0a\xee\x37\x0a", 8); }}};

class EtcdUnfinishedChange : public EtcdStore {
 protected:
  static constexpr int kKeys = 180;

  void SetUp() override {
    EtcdStore::SetUp();
    const sec_attr security = registry::open_to_all();
    saved_.keys.push_back({.name = "", .security = security, .value = {}});
    saved_.keys.push_back({.name = "elsewhere", .security = security, .value = {PRTKV_TYPE_TEXT, "1"}});
    saved_.keys.push_back({.name = "top", .security = security, .value = {}});
    for (int key = 0; key < kKeys; ++key) {
      saved_.keys.push_back({.name = name(key), .security = security, .value = {PRTKV_TYPE_TEXT, "0"}});
    }
    saved_.keys.push_back({.name = "top.sub", .security = security, .value = {}});
    client_ = registry::client_on(store_, registry::superuser());
    restore();
  }

  static std::string level(int key) { return "k" + std::to_string(1000 + key); }
  static std::string name(int key) { return "top." + level(key); }

  // Moves a third of the subkeys of "top" to "top.sub", removes a third, and changes the values of the others.
  static Status change(Store& store) {
    return store.write([](Update& update) -> Status {
      update.describe({.note = "large"});
      Node top;
      Node sub;
      if (Status status = follow(update, "top", &top); !status.ok()) return status;
      if (Status status = update.find(top.id, "sub", &sub); !status.ok()) return status;
      for (int key = 0; key < kKeys; ++key) {
        Node node;
        if (Status status = update.find(top.id, level(key), &node); !status.ok()) return status;
        if (key % 3 == 2) {
          if (Status status = update.set_value(node.id, PRTKV_TYPE_TEXT, bytes_of("1")); !status.ok()) return status;
          continue;
        }
        if (Status status = update.unlink(top.id, level(key)); !status.ok()) return status;
        Status status = key % 3 == 0 ? update.insert(sub.id, level(key), node) : update.discard(node.id);
        if (!status.ok()) return status;
      }
      return {};
    });
  }

  // A session makes a change and dies as soon as `dies` holds of the claims and builds.
  void die_in_change(const std::function<Status(Store&)>& make,
                     const std::function<bool(const RangeResponse& claims, const RangeResponse& builds)>& dies) {
    RequestWatch watch;
    const std::vector<KeyValue> others = sessions();
    {
      const std::shared_ptr<Store> dying = open_watched(&watch);
      watch.decide([&, dead = false](const std::string&) mutable {
        RangeResponse claims;
        RangeResponse builds;
        EXPECT_TRUE(raw().range(get_all(keys().all_claims()), &claims, patience()).ok());
        EXPECT_TRUE(raw().range(get_all(keys().all_staging()), &builds, patience()).ok());
        dead = dead || dies(claims, builds);
        return dead ? Fate::kRefuse : Fate::kPass;
      });
      (void)make(*dying).ok();
    }
    for (const KeyValue& session : sessions()) {
      const bool is_other = std::any_of(others.begin(), others.end(),
                                        [&](const KeyValue& other) { return other.key() == session.key(); });
      if (is_other) continue;
      EXPECT_TRUE(raw().revoke_lease(session.lease(), patience()).ok());
    }
  }

  void leave_decision() {
    die_in_change(change, [](const RangeResponse& claims, const RangeResponse&) {
      return claims.kvs_size() > 0 && ClaimText::parse(claims.kvs(0).value()).decided;
    });
    ASSERT_EQ(count_raw(keys().all_claims()), 1);
    ASSERT_GT(count_raw(keys().all_plans()), 2);
  }

  void leave_half_made_decision() {
    die_in_change(change, [](const RangeResponse& claims, const RangeResponse&) {
      return claims.kvs_size() > 0 && ClaimText::parse(claims.kvs(0).value()).next == 2;
    });
    ASSERT_EQ(count_raw(keys().all_claims()), 1);
  }

  void leave_claim() {
    die_in_change(change, [](const RangeResponse& claims, const RangeResponse&) { return claims.kvs_size() > 0; });
    ASSERT_EQ(count_raw(keys().all_claims()), 1);
    ASSERT_EQ(count_raw(keys().all_staging()), 1);
  }

  void leave_build() {
    die_in_change([](Store& store) { return build_keys(store, "built", 350); },
                  [](const RangeResponse&, const RangeResponse& builds) {
                    const auto text = BuildText::parse(builds.kvs_size() > 0 ? builds.kvs(0).value() : "");
                    return text && text->batch >= 2;
                  });
    ASSERT_EQ(count_raw(keys().all_staging()), 1);
  }

  void leave_garbage() {
    put_raw(keys().garbage(70'000), "");
    put_raw(keys().node({70'000, "below"}), "whatever");
  }

  void leave_nothing() { ASSERT_TRUE(done(write_key(*store_, "elsewhere", "1"))); }

  std::vector<KeyValue> sessions() {
    RangeResponse found;
    EXPECT_TRUE(raw().range(get_all(keys().all_sessions()), &found, patience()).ok());
    return {found.kvs().begin(), found.kvs().end()};
  }

  // Damages a record of the range, whose number is counted from the end if it is negative.
  void damage(const KeyRange& range, int number, const WayToDamage& way) {
    RangeResponse found;
    ASSERT_TRUE(raw().range(get_all(range), &found, patience()).ok());
    const int at = number < 0 ? found.kvs_size() + number : number;
    ASSERT_TRUE(0 <= at && at < found.kvs_size()) << range.begin;
    const KeyValue& record = found.kvs(at);
    TxnRequest request;
    put(request.add_success(), record.key(), record.value().empty() ? "?" : way.damaged(record.value()),
        record.lease());
    TxnResponse response;
    ASSERT_TRUE(raw().txn(request, &response, patience()).ok());
  }

  std::string the_claim() {
    RangeResponse claims;
    EXPECT_TRUE(raw().range(get_all(keys().all_claims()), &claims, patience()).ok());
    return claims.kvs_size() == 1 ? claims.kvs(0).value() : "none";
  }

  CheckResult check(bool repair) {
    CheckResult result;
    EXPECT_TRUE(done(client_->check(repair, kNoSteps, &result)));
    return result;
  }

  static std::vector<Damage> unfinished_changes(const CheckResult& result) {
    std::vector<Damage> changes;
    std::copy_if(result.damages.begin(), result.damages.end(), std::back_inserter(changes),
                 [](const Damage& damage) { return damage.kind == Damage::Kind::kUnfinishedChange; });
    return changes;
  }

  void restore() {
    registry::Difference difference;
    registry::ApplyOptions options;
    options.mode = registry::MergeMode::kReplace;
    ASSERT_TRUE(done(client_->apply(saved_, options, kNoKeys, &difference)));
  }

  void expect_sound() {
    for (const Damage& damage : check(false).damages) ADD_FAILURE() << damage.name.value_or("?") << damage.detail;
    for (const KeyRange& left : {keys().all_claims(), keys().all_plans(), keys().all_staging()}) {
      EXPECT_EQ(count_raw(left), 0) << left.begin;
    }
  }

  void expect_restored() {
    restore();
    expect_sound();
    registry::Difference difference;
    ASSERT_TRUE(done(client_->compare(saved_, registry::MergeMode::kReplace, {}, kNoKeys, &difference)));
    EXPECT_EQ(difference.changes.size(), 0u);
    EXPECT_EQ(difference.keys, saved_.keys.size());
  }

  // What the large change does not concern can be read, by sessions that were open and by new ones.
  void expect_elsewhere_readable() {
    for (const auto& store : {store_, open_watched(&watch_)}) {
      const auto client = registry::client_on(store, registry::superuser());
      registry::TypedValue value;
      EXPECT_TRUE(done(client->read_value({"elsewhere"}, &value)));
      EXPECT_EQ(value.bytes, "1");
      EXPECT_TRUE(done(store->read_all([](View& view) {
        Node node;
        return follow(view, "elsewhere", &node);
      })));
    }
  }

  // How many of the keys that a change concerns are as it makes them.
  int changed() {
    int count = 0;
    EXPECT_TRUE(done(store_->read_all([&](View& view) -> Status {
      count = 0;
      Node node;
      for (int key = 0; key < kKeys; ++key) {
        const Status there = follow(view, name(key), &node);
        if (key % 3 == 1) count += there.is(PRTKV_NO_SUCH_KEY) ? 1 : 0;
        if (key % 3 == 0) count += follow(view, "top.sub." + level(key), &node).ok() ? 1 : 0;
        if (key % 3 != 2 || !there.ok()) continue;
        Value value;
        if (Status status = view.value(node.id, &value); !status.ok()) return status;
        count += text_of(value) == "1" ? 1 : 0;
      }
      return {};
    })));
    return count;
  }

  registry::Subtree saved_;
  std::shared_ptr<Client> client_;
};

// ---- the table

struct Row {
  const char* record;
  void (EtcdUnfinishedChange::*leave)();
  KeyRange (*range)(const Keys& keys);
  int number;           // of the record in the range
  const char* finding;  // the name of the key that a check reports an unfinished change of; null: none, "?": of no key
  int changed;          // how many keys are as the change makes them after a repair; -1: some of them
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.record; }

class EtcdDamagedRecord : public EtcdUnfinishedChange, public testing::WithParamInterface<Row> {
 public:
  static const Row kRows[];
};

KeyRange only(const std::string& key) { return {key, key + '\0'}; }

const Row EtcdDamagedRecord::kRows[] = {
    {"Decision", &EtcdDamagedRecord::leave_decision, [](const Keys& keys) { return keys.all_claims(); }, 0, "top",
     kKeys},
    {"HalfMadeDecision", &EtcdDamagedRecord::leave_half_made_decision,
     [](const Keys& keys) { return keys.all_claims(); }, 0, "top", kKeys},
    {"Batch", &EtcdDamagedRecord::leave_decision, [](const Keys& keys) { return keys.all_plans(); }, 1, "top", -1},
    {"LastBatch", &EtcdDamagedRecord::leave_half_made_decision, [](const Keys& keys) { return keys.all_plans(); }, -1,
     "top", -1},
    {"BatchThatWasCarriedOut", &EtcdDamagedRecord::leave_half_made_decision,
     [](const Keys& keys) { return keys.all_plans(); }, 0, nullptr, kKeys},
    {"Ticket", &EtcdDamagedRecord::leave_decision, [](const Keys& keys) { return keys.all_tickets(); }, 0, nullptr,
     kKeys},
    {"Claim", &EtcdDamagedRecord::leave_claim, [](const Keys& keys) { return keys.all_claims(); }, 0, "top", 0},
    {"BuildOfAClaim", &EtcdDamagedRecord::leave_claim, [](const Keys& keys) { return keys.all_staging(); }, 0, "?", 0},
    {"Build", &EtcdDamagedRecord::leave_build, [](const Keys& keys) { return keys.all_staging(); }, 0, "?", 0},
    {"Garbage", &EtcdDamagedRecord::leave_garbage, [](const Keys& keys) { return keys.all_garbage(); }, 0, nullptr, 0},
    {"Session", &EtcdDamagedRecord::leave_nothing, [](const Keys& keys) { return keys.all_sessions(); }, 0, nullptr, 0},
    {"MarkOfAWriter", &EtcdDamagedRecord::leave_nothing, [](const Keys& keys) { return keys.all_writers(); }, -1,
     nullptr, 0},
    {"NextId", &EtcdDamagedRecord::leave_nothing, [](const Keys& keys) { return only(keys.meta()); }, 0, nullptr, 0},
    {"Log", &EtcdDamagedRecord::leave_nothing, [](const Keys& keys) { return only(keys.log()); }, 0, nullptr, 0},
};

TEST_P(EtcdDamagedRecord, IsReportedAndRepairedAndHidesNothingElse) {
  const Row& row = GetParam();
  for (const WayToDamage& way : kWays) {
    SCOPED_TRACE(way.name);
    ASSERT_NO_FATAL_FAILURE((this->*row.leave)());
    ASSERT_NO_FATAL_FAILURE(damage(row.range(keys()), row.number, way));
    expect_elsewhere_readable();

    const CheckResult found = check(false);
    const std::vector<Damage> changes = unfinished_changes(found);
    ASSERT_EQ(changes.size(), row.finding == nullptr ? 0u : 1u);
    if (row.finding != nullptr) {
      EXPECT_EQ(changes[0].name.value_or("?"), row.finding) << changes[0].detail;
    }

    const CheckResult repaired = check(true);
    EXPECT_EQ(unfinished_changes(repaired).size(), row.changed < 0 ? 1u : 0u) << "what is lost is told";
    EXPECT_EQ(repaired.damages.size(), unfinished_changes(repaired).size());
    expect_sound();
    const int changed_keys = changed();
    if (row.changed >= 0) {
      EXPECT_EQ(changed_keys, row.changed);
    } else {
      EXPECT_GT(changed_keys, 0);
      EXPECT_LT(changed_keys, kKeys);
    }
    expect_restored();
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(EachRecord, EtcdDamagedRecord, testing::ValuesIn(EtcdDamagedRecord::kRows),
                         [](const auto& test) { return std::string(test.param.record); });

// ---- what sessions see meanwhile

TEST_F(EtcdUnfinishedChange, WhoComesUponADamagedDecisionIsToldOfTheDamageAndOverwritesNothing) {
  leave_decision();
  damage(keys().all_claims(), 0, kWays[0]);
  const std::string decision = the_claim();
  for (const auto& store : {store_, open_watched(&watch_)}) {
    const auto client = registry::client_on(store, registry::superuser());
    const auto expect_damaged = [](const Status& status) {
      EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.code() << " " << status.text();
      EXPECT_NE(status.text().find("large change"), std::string::npos) << status.text();
    };
    registry::TypedValue value;
    expect_damaged(client->read_value({name(2)}, &value));
    expect_damaged(client->write_value({name(2)}, PRTKV_TYPE_TEXT, bytes_of("lost")));
    expect_damaged(client->remove({"top"}, true, kNoKeys));
    expect_damaged(change(*store));
    EXPECT_TRUE(done(client->write_value({"elsewhere"}, PRTKV_TYPE_TEXT, bytes_of("1"))));
  }
  EXPECT_EQ(the_claim(), decision);
  check(true);
  EXPECT_EQ(changed(), kKeys);
}

TEST_F(EtcdUnfinishedChange, AListShowsTheTopOfADamagedDecisionAsDamaged) {
  leave_decision();
  damage(keys().all_claims(), 0, kWays[0]);
  const auto list = [](View& view, std::string* names) {
    names->clear();
    return view.children_with_damage(
        kRootNode,
        [&](std::string_view level, const Node&) {
          *names += std::string(level) + " ";
          return Status();
        },
        [&](std::string_view level, const Status& damage) {
          *names += "(" + std::string(level) + ") ";
          EXPECT_TRUE(damage.is(PRTKV_STORAGE_FAILED));
          return Status();
        });
  };
  std::string names;
  EXPECT_TRUE(done(store_->read([&](View& view) { return list(view, &names); })));
  EXPECT_EQ(names, "elsewhere (top) ");
  EXPECT_TRUE(done(store_->read_all([&](View& view) { return list(view, &names); })));
  EXPECT_EQ(names, "elsewhere (top) ");
  Revision latest = 0;
  EXPECT_TRUE(done(store_->read([&](View& view) { return view.revision(&latest); })));
  EXPECT_TRUE(done(store_->read_at(latest, [&](View& view) { return list(view, &names); })));
  EXPECT_EQ(names, "elsewhere top ") << "the state right after the decision, which was sound then";
  EXPECT_TRUE(
      done(store_->write([](Update& update) { return update.set_value(kRootNode, 3, bytes_of("x")); }, &latest)));
  EXPECT_TRUE(done(store_->read_at(latest, [&](View& view) { return list(view, &names); })));
  EXPECT_EQ(names, "elsewhere (top) ");
}

// Whichever batch is lost: a key that the change moves is in one place or the other, never in both.
TEST_F(EtcdUnfinishedChange, NoKeyIsThereTwiceIfABatchIsLost) {
  leave_decision();
  const auto batches = static_cast<int>(count_raw(keys().all_plans()));
  for (int batch = 0; batch < batches; ++batch) {
    SCOPED_TRACE(batch);
    if (batch > 0) leave_decision();
    damage(keys().all_plans(), batch, kWays[3]);
    EXPECT_EQ(unfinished_changes(check(true)).size(), 1u);
    expect_sound();
    expect_restored();
  }
}

}  // namespace
}  // namespace tkv::store::etcd
