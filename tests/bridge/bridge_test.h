/* The frame of every test of the bridge: a platform of doubles, a fake managed side, and the session in the state that
 * the test asks for.
 */
#ifndef TKV_TESTS_BRIDGE_BRIDGE_TEST_H
#define TKV_TESTS_BRIDGE_BRIDGE_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "calls.h"
#include "managed_side.h"
#include "recording.h"
#include "tkv.h"

namespace bridge_test {

inline constexpr char kUser[] = "ada";
inline constexpr char kGroup[] = "staff";

/* What a session is made with. */
struct SessionTraits {
  std::string user = kUser;
  std::string group = kGroup;
  uint16_t charset_id = 873;
  int32_t lang_env_flags = 0;
};

class BridgeTest : public ::testing::Test {
 public:
  /* Starts with no session. */
  void SetUp() override;

  /* Compares what was recorded with what was expected, and what is still taken with what the test said is kept. */
  void TearDown() override;

  /* No session, whatever was before. */
  void givenNoSession();
  /* An open session. */
  void givenSession(const SessionTraits& traits = {});
  /* A session whose opening failed after its record was taken. */
  void givenHalfSession();
  /* A session that was closed. */
  void givenEndedSession();
  /* An open session with a working key. */
  void givenWorkingKey(const SessionTraits& traits = {});

  /* The calls of a successful initialisation. */
  static Calls initialisation(int level, const SessionTraits& traits = {});

  /* Adds to what the bridge must do, and to the doubles' answers. */
  void expect(const Calls& calls);

  /* Compares now and starts a new list. */
  void verify();

  /* Leaves all of what was and will be recorded to the test's judgement. */
  void judgeAlone() { judged_ = true; }

  /* Compares the beginning of what was recorded with all that was expected; the rest is the test's to judge and stays
   * in the recording until the test ends. */
  void expectLinesStartAsExpected();

  /* What the test says is taken and not given back. */
  void keepsCharacters(std::vector<std::string> texts) { kept_characters_ = std::move(texts); }
  void leavesOpen(std::vector<uint64_t> keys) { kept_keys_ = std::move(keys); }
  void abandons(std::vector<std::string> blocks) { kept_blocks_ = std::move(blocks); }

  static Recording& recording() { return Recording::instance(); }
  static ManagedSide& managed() { return ManagedSide::instance(); }

  /* The session's record, also after it was freed. */
  static const tkv_session& session(const std::string& name = "session");

  static jstring string(const std::string& text) { return managed().string(text); }
  static jstring unobtainable(const std::string& text) { return managed().unobtainable(text); }
  static std::string textOf(jstring string) { return managed().text(string); }
  static std::vector<std::string> textsOf(jobjectArray array) { return managed().texts(array); }

  /* The native methods, without the arguments that are always the same. */
  void initializeTKVLevel(jint level);
  void terminateTKV();
  void openKey(jstring key_name);
  void closeKey();
  jboolean keyExists(jstring key_name);
  void deleteKey(jstring key_name, jboolean recurse);
  jobjectArray listSubKeys(jstring key_name);
  void moveKey(jstring source_key, jstring target_parent_key, jstring target_key, jint flags);
  void createKey(jstring key_name, jint security_type, jstring parent_key_name, jstring user_name, jstring group_name);
  jstring getKeyValue(jstring key_name);
  jobjectArray getKeyValues(jstring key_name);
  void setKeyValue(jstring key_name, jstring value, jint security_type, jstring parent_key_name, jstring user_name,
                   jstring group_name);
  void setTypeKeyValue(jstring key_name, jstring value, jint data_type, jint security_type, jstring parent_key_name,
                       jstring user_name, jstring group_name);
  void setKeyValues(jstring key_name, jobjectArray values, jint security_type, jstring parent_key_name,
                    jstring user_name, jstring group_name);
  void createAndSetKeyValue(jstring key_name, jstring value, jint data_type, jint security_type,
                            jstring parent_key_name, jstring user_name, jstring group_name);
  jstring getUserName(jstring key_name);
  jstring getGroupName(jstring key_name);
  void copyRecurse(jstring source_key, jstring destination_key, jint security_type);
  void isCluster();
  jobjectArray getTKVLocations();
  jint checkTKVStorageType(jstring path);
  jstring getTKVBackupLocation();
  jint getPatchLevel();
  void setZUVEDDependencies(jint mode);

  /* What the methods are called with; a test may put null. */
  jobject result_object = nullptr;

 private:
  std::vector<std::string> expected_;
  bool judged_ = false;
  std::vector<std::string> kept_characters_;
  std::vector<uint64_t> kept_keys_;
  std::vector<std::string> kept_blocks_;
};

}  // namespace bridge_test

#endif
