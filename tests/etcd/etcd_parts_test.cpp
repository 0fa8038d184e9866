#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "store/etcd/build.h"
#include "store/etcd/claims.h"
#include "store/etcd/judgement.h"
#include "store/etcd/keys.h"
#include "store/etcd/lineage.h"
#include "store/etcd/node_cache.h"
#include "store/etcd/round_trip.h"
#include "store/etcd/server_version.h"
#include "store/etcd/token.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {
namespace {

struct Case {
  int grpc_code;
  const char* message;
  Verdict verdict;
  prtkv_result code;
  const char* words;  // in the text
  bool never_sent = false;
  bool hopeless = false;
};

class JudgementOf : public testing::TestWithParam<Case> {};

TEST_P(JudgementOf, IsThatOfTheTable) {
  const Case& row = GetParam();
  const Judgement judgement = judge(row.grpc_code, row.message);
  EXPECT_EQ(judgement.verdict, row.verdict) << row.grpc_code << " " << row.message;
  EXPECT_EQ(judgement.status.code(), row.code) << row.grpc_code << " " << row.message;
  EXPECT_EQ(judgement.never_sent, row.never_sent) << row.grpc_code << " " << row.message;
  EXPECT_EQ(judgement.hopeless, row.hopeless) << row.grpc_code << " " << row.message;
  EXPECT_NE(judgement.status.text().find(row.words), std::string::npos) << judgement.status.text();
}

constexpr Verdict kElsewhere = Verdict::kTryElsewhere;
constexpr Verdict kFinal = Verdict::kFinal;

INSTANTIATE_TEST_SUITE_P(
    EveryCode, JudgementOf,
    testing::Values(
        Case{0, "", Verdict::kDone, PRTKV_DONE, "done"},
        Case{1, "cancelled", kElsewhere, PRTKV_UNREACHABLE, "cancelled"},
        Case{2, "raft: stopped", kElsewhere, PRTKV_UNREACHABLE, "raft: stopped"},
        Case{3, "etcdserver: request is too large", kFinal, PRTKV_VALUE_TOO_LARGE, "size of the request"},
        Case{3, "etcdserver: too many operations in txn request", kFinal, PRTKV_INVALID_ARGUMENT, "fewer operations"},
        Case{3, "etcdserver: authentication failed, invalid user ID or password", kFinal, PRTKV_ACCESS_DENIED,
             "user or password"},
        Case{3, "etcdserver: user name is empty", kFinal, PRTKV_ACCESS_DENIED, "none is configured"},
        Case{3, "etcdserver: revision of auth store is old", Verdict::kRenewToken, PRTKV_ACCESS_DENIED, "auth store"},
        Case{3, "etcdserver: duplicate key given in txn request", kFinal, PRTKV_UNUSABLE, "duplicate key"},
        Case{4, "Deadline Exceeded", kElsewhere, PRTKV_UNREACHABLE, "no answer in time"},
        Case{5, "etcdserver: requested lease not found", kFinal, PRTKV_UNUSABLE, "lease not found"},
        Case{6, "already exists", kFinal, PRTKV_UNKNOWN, "code 6"},
        Case{7, "etcdserver: permission denied", kFinal, PRTKV_ACCESS_DENIED, "permission denied"},
        Case{8, "etcdserver: mvcc: database space exceeded", kFinal, PRTKV_STORAGE_FULL, "space alarm"},
        Case{8, "Received message larger than max (9000000 vs. 8388608)", Verdict::kAnswerTooLarge, PRTKV_UNUSABLE,
             "too large"},
        Case{8, "etcdserver: too many requests", kElsewhere, PRTKV_UNREACHABLE, "too many requests"},
        Case{9, "etcdserver: authentication is not enabled", kFinal, PRTKV_INVALID_CONFIGURATION, "switched off"},
        Case{9, "etcdserver: something else", kFinal, PRTKV_UNUSABLE, "something else"},
        Case{10, "aborted", kElsewhere, PRTKV_UNREACHABLE, "aborted"},
        Case{11, "etcdserver: mvcc: required revision has been compacted", Verdict::kCompacted, PRTKV_BUSY,
             "compacted"},
        Case{11, "etcdserver: mvcc: required revision is a future revision", kElsewhere, PRTKV_UNREACHABLE, "future"},
        Case{12, "unknown service", kElsewhere, PRTKV_UNREACHABLE, "3.4 or later"},
        Case{13, "internal", kElsewhere, PRTKV_UNREACHABLE, "internal"},
        Case{14, "etcdserver: no leader", kElsewhere, PRTKV_UNREACHABLE, "no leader"},
        Case{14, "failed to connect to all addresses; last error: UNKNOWN: ipv4:1.2.3.4:5: Connection refused",
             kElsewhere, PRTKV_UNREACHABLE, "UNKNOWN: ipv4:1.2.3.4:5: Connection refused", true},
        Case{14, "failed to connect; last error: SSL: certificate verify failed", kElsewhere, PRTKV_UNREACHABLE,
             "certificate is not trusted", true, true},
        Case{14, "failed to connect; last error: Hostname Verification Check failed.", kElsewhere, PRTKV_UNREACHABLE,
             "for another host", true, true},
        Case{14, "failed to connect; last error: SSL: wrong version number", kElsewhere, PRTKV_UNREACHABLE,
             "does not speak TLS", true, true},
        Case{15, "etcdserver: corrupt cluster", kFinal, PRTKV_STORAGE_FAILED, "damaged data"},
        Case{16, "etcdserver: invalid auth token", Verdict::kRenewToken, PRTKV_ACCESS_DENIED, "invalid auth token"},
        // The text of another code does not count.
        Case{14, "etcdserver: mvcc: database space exceeded", kElsewhere, PRTKV_UNREACHABLE, "space exceeded"},
        Case{7, "etcdserver: request is too large", kFinal, PRTKV_ACCESS_DENIED, "no permission"},
        Case{3, "etcdserver: mvcc: required revision has been compacted", kFinal, PRTKV_UNUSABLE, "compacted"},
        Case{11, "etcdserver: permission denied", kElsewhere, PRTKV_UNREACHABLE, "permission denied"},
        Case{99, "from the future", kFinal, PRTKV_UNKNOWN, "code 99: from the future"}));

// ---- server versions

TEST(EtcdServerVersion, IsUsableFrom34OnExceptTheReleasesThatLoseData) {
  for (const char* version : {"3.4.0", "3.4.23", "3.5.3", "3.5.10", "3.6.0", "3.10.0", "4.0.0", "3.5.3-rc.0"}) {
    EXPECT_TRUE(check_server_version(version).ok()) << version;
  }
  const auto refused = [](const char* version, const char* why) {
    const Status status = check_server_version(version);
    EXPECT_EQ(status.code(), PRTKV_UNUSABLE) << version;
    EXPECT_NE(status.text().find(std::string("etcd ") + version), std::string::npos) << status.text();
    EXPECT_NE(status.text().find(why), std::string::npos) << status.text();
  };
  for (const char* version : {"2.3.8", "3.2.18", "3.3.27"}) refused(version, "too old");
  for (const char* version : {"3.5.0", "3.5.1", "3.5.2", "3.5.0-rc.1", "3.5"}) refused(version, "can lose data");
  for (const char* version : {"", "new", "3", "3."}) refused(version, "not a version that is known");
}

// ---- round-trip times

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(EtcdRoundTrip, IsTheSlackAloneBeforeTheFirstAnswer) {
  const RoundTrip round_trip;
  EXPECT_FALSE(round_trip.is_known());
  EXPECT_EQ(round_trip.patience(milliseconds(300)), milliseconds(300));
}

TEST(EtcdRoundTrip, AllowsThreeTimesTheFirstAnswer) {
  RoundTrip round_trip;
  round_trip.note(milliseconds(600));
  EXPECT_TRUE(round_trip.is_known());
  EXPECT_EQ(round_trip.patience(milliseconds(300)), milliseconds(1800));
}

TEST(EtcdRoundTrip, AllowsTheSlackBeyondSteadyAnswers) {
  RoundTrip round_trip;
  for (int i = 0; i < 100; ++i) round_trip.note(milliseconds(600));
  const auto patience = round_trip.patience(milliseconds(300));
  EXPECT_GE(patience, milliseconds(899));
  EXPECT_LE(patience, milliseconds(901));
}

TEST(EtcdRoundTrip, OneAnswerAfterAJumpIsEnoughToExpectTheNextOne) {
  RoundTrip round_trip;
  for (int i = 0; i < 100; ++i) round_trip.note(milliseconds(1));
  round_trip.note(milliseconds(2000));
  EXPECT_GT(round_trip.patience(milliseconds(300)), milliseconds(2000));
}

TEST(EtcdRoundTrip, ComesBackWhenAnswersBecomeFastAgain) {
  RoundTrip round_trip;
  round_trip.note(milliseconds(2000));
  for (int i = 0; i < 100; ++i) round_trip.note(microseconds(300));
  EXPECT_LT(round_trip.patience(milliseconds(300)), milliseconds(310));
}

TEST(EtcdRoundTrip, NoTimeAtAllIsATimeToo) {
  RoundTrip round_trip;
  round_trip.note(microseconds(0));
  EXPECT_TRUE(round_trip.is_known());
}

TEST(EtcdKeys, AreAsTheyAreWrittenDown) {
  const Keys keys("/tkv/");
  EXPECT_EQ(keys.meta(), "/tkv/meta");
  EXPECT_EQ(keys.node({kNoNode, ""}), "/tkv/n/0000000000000000/");
  EXPECT_EQ(keys.node({0x1234abcd, "name/with."}), "/tkv/n/000000001234abcd/name/with.");
  EXPECT_EQ(keys.value(1), "/tkv/v/0000000000000001");
  EXPECT_EQ(keys.garbage(~0ull), "/tkv/garbage/ffffffffffffffff");
  EXPECT_EQ(keys.staging("ab"), "/tkv/staging/ab");
  EXPECT_EQ(keys.writer("ab-0"), "/tkv/txn/ab-0");
  EXPECT_EQ(keys.claim(0xab, "cd"), "/tkv/claims/00000000000000ab/cd");
  EXPECT_EQ(keys.plan("cd", 16), "/tkv/plan/cd/0000000000000010");
}

TEST(EtcdKeys, ComeBackFromTheirText) {
  const Keys keys("/tkv/");
  for (const std::string name : {"a", "", "a/b", "\xff\xfe"}) {
    const auto place = keys.parse_node(keys.node({77, name}));
    ASSERT_TRUE(place);
    EXPECT_EQ(*place, (NodePlace{77, name}));
  }
  EXPECT_EQ(keys.parse_value(keys.value(77)), std::optional<NodeId>(77));
  EXPECT_EQ(keys.parse_garbage(keys.garbage(77)), std::optional<NodeId>(77));
  const std::string token = random_token();
  EXPECT_EQ(keys.parse_staging(keys.staging(token)), token);
  for (const std::string& key : {keys.staging("ab"), "/tkv/v/" + token, keys.staging(token + "/"), keys.staging("")}) {
    EXPECT_FALSE(keys.parse_staging(key)) << key;
  }
  EXPECT_TRUE(keys.is_writer(keys.writer(token + "-10")));
  for (const std::string& key : {keys.writer(token), keys.writer(token + "-"), keys.writer(token + "-1a"),
                                 keys.writer("ab-1"), keys.writer("")}) {
    EXPECT_FALSE(keys.is_writer(key)) << key;
  }
  const auto claim = keys.parse_claim(keys.claim(77, "ab"));
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->top, 77u);
  EXPECT_EQ(claim->token, "ab");
  for (const char* key : {"", "/tkv/claims/", "/tkv/claims/000000000000004d", "/tkv/claims/000000000000004d/",
                          "/tkv/claims/4d/ab", "/tkv/v/000000000000004d/ab"}) {
    EXPECT_FALSE(keys.parse_claim(key)) << key;
  }
  for (const char* key : {"", "/tkv/n/", "/tkv/n/12/a", "/tkv/n/000000000000004D/a", "/tkv/n/000000000000004d",
                          "/other/n/000000000000004d/a", "/tkv/v/000000000000004d"}) {
    EXPECT_FALSE(keys.parse_node(key)) << key;
  }
  for (const char* key : {"", "/tkv/v/", "/tkv/v/4d", "/tkv/v/000000000000004d0", "/tkv/v/00000000000000zz"}) {
    EXPECT_FALSE(keys.parse_value(key)) << key;
  }
}

TEST(EtcdKeys, RangesHoldWhatBelongsToThemAndNothingElse) {
  const Keys keys("/tkv/");
  const auto holds = [](const KeyRange& range, const std::string& key) {
    return range.begin <= key && key < range.end;
  };
  EXPECT_TRUE(holds(keys.children(5), keys.node({5, "\xff\xff"})));
  EXPECT_TRUE(holds(keys.children(5), keys.node({5, ""})));
  EXPECT_FALSE(holds(keys.children(5), keys.node({6, "a"})));
  EXPECT_FALSE(holds(keys.children(5), keys.node({4, "\xff"})));
  EXPECT_TRUE(holds(keys.values_of(5, 7), keys.value(7)));
  EXPECT_FALSE(holds(keys.values_of(5, 7), keys.value(8)));
  EXPECT_TRUE(holds(keys.nodes_below(5, 7), keys.node({7, "z"})));
  EXPECT_TRUE(holds(keys.nodes_below(~0ull, ~0ull), keys.node({~0ull, "z"})));
  EXPECT_TRUE(holds(keys.all_of_plan("ab"), keys.plan("ab", 7)));
  EXPECT_FALSE(holds(keys.all_of_plan("ab"), keys.plan("abc", 7)));
  EXPECT_TRUE(holds(keys.all_nodes(), keys.node({~0ull, "\xff"})));
  EXPECT_FALSE(holds(keys.all_nodes(), keys.value(1)));
}

TEST(EtcdNodeCache, KeepsTheLatestAndForgetsTheLongestUnused) {
  NodeCache cache(2);
  const auto known = [](std::int64_t revision) {
    return SeenNode{revision, Node{static_cast<NodeId>(revision), {}}, {}};
  };
  cache.put({1, "a"}, known(10));
  cache.put({1, "a"}, known(9));
  EXPECT_EQ(cache.get({1, "a"})->mod_revision, 10);
  cache.put({1, "b"}, known(11));
  EXPECT_TRUE(cache.get({1, "a"}));
  cache.put({1, "c"}, known(12));
  EXPECT_FALSE(cache.get({1, "b"}));
  EXPECT_TRUE(cache.get({1, "a"}));
  cache.erase({1, "a"});
  cache.erase({1, "a"});
  EXPECT_FALSE(cache.get({1, "a"}));
  cache.put({1, "d"}, SeenNode{});
  EXPECT_FALSE(cache.get({1, "d"})) << "what is not there is not kept";
}

TEST(EtcdStaging, TextComesBackAndNonsenseDoesNot) {
  BuildText text;
  text.batch = 3;
  text.session = random_token();
  text.ids = {{5, 9}, {20, 20}};
  const auto back = BuildText::parse(text.print());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->print(), text.print());
  EXPECT_FALSE(back->given_up);
  EXPECT_EQ(back->session, text.session);
  const auto fenced = BuildText::parse("not " + text.print());
  ASSERT_TRUE(fenced);
  EXPECT_TRUE(fenced->given_up);
  const auto former = BuildText::parse("batch 2\ntime 1600000000\nstate building\nowner boot pid:[1] 2 3\nids 5 9\n");
  ASSERT_TRUE(former) << "as releases wrote it that knew owners as processes";
  EXPECT_TRUE(former->session.empty());
  ASSERT_EQ(former->ids.size(), 1u);
  EXPECT_EQ(former->ids[0].last, 9u);
  EXPECT_FALSE(BuildText::parse(""));
  EXPECT_FALSE(BuildText::parse("batch x\n"));
  EXPECT_FALSE(BuildText::parse("batch 1\nids 5\n"));
  EXPECT_FALSE(BuildText::parse("batch 1\nwhat 5\n"));
}

TEST(EtcdClaims, TextComesBackAndNonsenseCountsAsADecision) {
  ClaimText claimed;
  claimed.attempt = 3;
  EXPECT_EQ(ClaimText::parse(claimed.print()).attempt, 3);
  EXPECT_FALSE(ClaimText::parse(claimed.print()).decided);
  ClaimText decided;
  decided.decided = true;
  decided.next = 2;
  decided.batches = 5;
  const ClaimText back = ClaimText::parse(decided.print());
  EXPECT_TRUE(back.decided);
  EXPECT_EQ(back.next, 2u);
  EXPECT_EQ(back.batches, 5u);
  for (const char* text : {"", "nonsense", "state decided\n", "state decided\nnext 6\nbatches 5\n",
                           "state claimed\nwhat 1", "state claimed\nattempt x"}) {
    EXPECT_TRUE(ClaimText::parse(text).decided) << text;
    EXPECT_EQ(ClaimText::parse(text).batches, 0u) << text;
  }
}

// If a damaged text were read as a different one, wrong keys would be removed, or changes made in part.
TEST(EtcdTextSeal, NoFlippedBitTurnsABuildOrADecisionIntoAnother) {
  BuildText build;
  build.batch = 12;
  build.session = random_token();
  build.ids = {{1000, 1999}, {5000, 5999}};
  const std::string decision = ClaimText{true, 0, 12, 34}.print();
  const auto for_each_flip = [](const std::string& sound, FunctionRef<void(const std::string&)> visit) {
    for (std::size_t at = 0; at < sound.size(); ++at) {
      for (int bit = 0; bit < 8; ++bit) {
        std::string damaged = sound;
        damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
        visit(damaged);
      }
    }
  };
  for_each_flip(build.print(), [](const std::string& damaged) { EXPECT_FALSE(BuildText::parse(damaged)) << damaged; });
  for_each_flip(decision,
                [](const std::string& damaged) { EXPECT_FALSE(ClaimText::parse(damaged).is_readable()) << damaged; });
}

TEST(EtcdTextSeal, WhatIsCutOffIsReadAsItWasOrNotAtAll) {
  const std::string decision = ClaimText{true, 0, 12, 34}.print();
  for (std::size_t size = 0; size < decision.size(); ++size) {
    const ClaimText text = ClaimText::parse(decision.substr(0, size));
    EXPECT_TRUE(!text.is_readable() || (text.next == 12 && text.batches == 34)) << size;
  }
}

TEST(EtcdTextSeal, TextsOfFormerReleasesHaveNone) {
  const ClaimText text = ClaimText::parse("state decided\nnext 1\nbatches 2\n");
  EXPECT_EQ(text.next, 1u);
  EXPECT_EQ(text.batches, 2u);
  EXPECT_FALSE(ClaimText::parse("state claimed\nattempt 3\n").decided);
}

TEST(EtcdClaims, AreKnownByTheLatestList) {
  const Keys keys("/tkv/");
  Claims claims(keys);
  RangeResponse answer;
  KeyValue* record = answer.add_kvs();
  record->set_key(keys.claim(7, "ab"));
  record->set_value(ClaimText().print());
  record->set_mod_revision(20);
  claims.learn(answer, 21);
  EXPECT_NE(claims.known()->find(7, "ab"), nullptr);
  EXPECT_TRUE(claims.known()->has_newer_than(19));
  EXPECT_FALSE(claims.known()->has_newer_than(20));
  EXPECT_FALSE(claims.known()->has_decided());
  EXPECT_EQ(claims.learn(RangeResponse(), 15)->revision, 15) << "a list of its own for who asked then";
  EXPECT_NE(claims.known()->find(7, "ab"), nullptr) << "an older answer tells nothing new";
  claims.forget(*claims.known()->find(7, "ab"));
  EXPECT_EQ(claims.known()->find(7, "ab"), nullptr);
  EXPECT_EQ(claims.known()->revision, 21);
}

TEST(EtcdClaims, TellWhenTheirChangesBegan) {
  const std::string token = claim_token(77);
  EXPECT_TRUE(is_token(token));
  EXPECT_NE(token, claim_token(77));
  EXPECT_EQ((Claim{7, token, 100, {}}.began()), 77);
  EXPECT_EQ((Claim{7, claim_token(101), 100, {}}.began()), 100) << "after it was laid";
  EXPECT_EQ((Claim{7, "no token", 100, {}}.began()), 100);
  EXPECT_EQ((Claim{7, "ffffffffffffffffffffffffffffffff", 100, {}}.began()), 100);
}

TEST(EtcdLineage, KnowsTheWaysFromTheRoot) {
  Lineage lineage;
  lineage.add(kRootNode, 2);
  lineage.add(2, 3);
  lineage.add(2, 4);
  lineage.add(8, 9);
  EXPECT_EQ(lineage.path(3), (std::vector<NodeId>{1, 2, 3}));
  EXPECT_EQ(lineage.path(kRootNode), (std::vector<NodeId>{1}));
  EXPECT_TRUE(lineage.path(9).empty());
  EXPECT_TRUE(lineage.is_below(3, 2));
  EXPECT_TRUE(lineage.is_below(2, 2));
  EXPECT_FALSE(lineage.is_below(2, 3));
  EXPECT_TRUE(lineage.is_below(9, kRootNode));
  EXPECT_EQ(common_top({lineage.path(3), lineage.path(4)}), 2u);
  EXPECT_EQ(common_top({lineage.path(3), lineage.path(3)}), 3u);
  EXPECT_EQ(common_top({lineage.path(3), lineage.path(9)}), kRootNode);
  EXPECT_EQ(common_top({}), kRootNode);
  lineage.add(6, 5);
  lineage.add(5, 6);
  EXPECT_TRUE(lineage.path(5).empty()) << "a loop, as only damage makes one";
  EXPECT_FALSE(lineage.is_below(5, 2));
}

TEST(EtcdWriters, KeepTheirMarksWithinASessionAndTextsAreNeverUsedTwice) {
  const Keys keys("/tkv/");
  Writers writers(keys);
  EXPECT_NE(writers.next_text(), writers.next_text());
  const Owner first{random_token(), 1, 10};
  const Owner second{random_token(), 2, 20};
  Mark one = writers.take(first);
  EXPECT_NE(writers.take(first).key, one.key);
  EXPECT_TRUE(keys.is_writer(one.key));
  const std::string key = one.key;
  writers.give_back(one);
  EXPECT_EQ(writers.take(first).key, key);
  const Mark other = writers.take(second);
  EXPECT_EQ(other.key.find(first.token), std::string::npos);
  writers.give_back(one);
  EXPECT_NE(writers.take(second).key, key) << "it ended with its session";
}

}  // namespace
}  // namespace tkv::store::etcd
