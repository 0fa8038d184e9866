#include "bridge_test.h"

#include <algorithm>

#define NATIVE(method) Java_velmar_qen_mgmt_nativesystem_TKVNative_##method

namespace bridge_test {

namespace {

// Whether the line is the pattern, in which each kAny stands for any text.
bool matches(const std::string& line, const std::string& pattern) {
  const size_t any = pattern.find(kAny);
  if (any == std::string::npos) return line == pattern;
  if (line.compare(0, any, pattern, 0, any) != 0) return false;
  const std::string rest = pattern.substr(any + kAny.size());
  for (size_t start = any; start <= line.size(); ++start) {
    if (matches(line.substr(start), rest)) return true;
  }
  return false;
}

// One line a call. Where an argument was left open, what was seen in its place.
std::string joined(const std::vector<std::string>& lines, const std::vector<std::string>& seen) {
  std::string text;
  for (size_t i = 0; i < lines.size(); ++i) {
    const bool open = lines[i].find(kAny) != std::string::npos;
    text += (open && i < seen.size() && matches(seen[i], lines[i]) ? seen[i] : lines[i]) + "\n";
  }
  return text;
}

const std::vector<std::string> kSessionBlocks = {"session", "scls context"};

}  // namespace

void BridgeTest::SetUp() {
  ASSERT_TRUE(recording().blocksTaken().empty());
  result_object = managed().result();
  givenNoSession();
}

void BridgeTest::givenNoSession() {
  // An initialisation whose record cannot be had leaves no session, whatever was before.
  expect({program_manager(), allocates(sizeof(tkv_session), "").gives_null(), reports_without_context(0),
          trace("\n initializeTKVLevel: NOT ENOUGH MEMORY")});
  initializeTKVLevel(0);
  verify();
}

void BridgeTest::TearDown() {
  verify();
  EXPECT_THAT(recording().violations(), ::testing::IsEmpty());
  EXPECT_THAT(managed().charactersTaken(), ::testing::ElementsAreArray(kept_characters_)) << "characters kept";
  EXPECT_THAT(recording().openKeys(), ::testing::ElementsAreArray(kept_keys_)) << "keys left open";
  std::vector<std::string> blocks;
  for (const auto& name : recording().blocksTaken()) {
    if (std::count(kSessionBlocks.begin(), kSessionBlocks.end(), name) == 0) blocks.push_back(name);
  }
  EXPECT_THAT(blocks, ::testing::ElementsAreArray(kept_blocks_)) << "blocks abandoned";
  EXPECT_TRUE(recording().freedBlocksAreZero()) << "a freed block was written";
  recording().reset();
  managed().reset();
}

Calls BridgeTest::initialisation(int level, const SessionTraits& traits) {
  return {
      program_manager(),
      allocates(sizeof(tkv_session), "session"),
      Call("scls_meta_query_size", {"1"}).size(96),
      allocates(96, "scls context"),
      Call("scls_meta_ctx_init", {"scls context", "own buffer", "0x0"}),
      Call("scls_idq_get_user_name", {"scls context", "own buffer", "0x0", "session.user_name", "64", "64"})
          .says(traits.user),
      Call("scls_idq_get_primary_privgrp_name", {"scls context", "own buffer", "0x0", "session.group_name", "64", "64"})
          .says(traits.group),
      is_debug_on(false),
      trace("\n initializeTKVLevel: NEW level = " + std::to_string(level) + "\n"),
      Call("prtkv_init_ext", {"out null", number(level), "own buffer", "1024", "0x0"}).gives(kRegistry),
      trace("\n initializeTKVLevel: NEW prtkv_init retval = 0\n"),
      Call("lxlinit", {"null", "1", "error word"}),
      Call("lxinitc", {"session.lx_handle_area", "lx global", "0", "0"}),
      Call("lxhLangEnv", {"session.lang_env_area", "0", "session.lx_handle_area"}).word(traits.lang_env_flags),
      Call("lxhcsn", {"session.lang_env_area", "session.lx_handle_area"}).returns(traits.charset_id),
      status(true),
  };
}

void BridgeTest::givenSession(const SessionTraits& traits) {
  expect(initialisation(3, traits));
  initializeTKVLevel(3);
  verify();
}

void BridgeTest::givenHalfSession() {
  expect({
      program_manager(),
      allocates(sizeof(tkv_session), "session"),
      Call("scls_meta_query_size", {"1"}).size(96),
      allocates(96, "scls context"),
      Call("scls_meta_ctx_init", {"scls context", "own buffer", "0x0"}).returns(1),
      reports_without_context(0),
      trace("\n initializeTKVLevel:failed to initialize SCLS context"),
  });
  initializeTKVLevel(3);
  verify();
}

void BridgeTest::givenEndedSession() {
  givenSession();
  expect({
      Call("prtkv_terminate", {context(kRegistry)}),
      Call("lxlterm", {"session.lx_handle_area"}),
      frees("session"),
      status(true),
  });
  terminateTKV();
  verify();
}

void BridgeTest::givenWorkingKey(const SessionTraits& traits) {
  givenSession(traits);
  expect({
      takes("base"),
      open_key("base").gives(kWorkingKey),
      trace("openKey: prtkv_open_key retval = 0\n"),
      status(true),
  });
  openKey(string("base"));
  verify();
  // The working key stays open and its name stays taken: that is openKey's, not the test's.
  recording().keyClosed(kWorkingKey);
  managed().forgetCharactersTaken();
}

void BridgeTest::expect(const Calls& calls) {
  for (const auto& call : calls.all()) {
    expected_.push_back(call.line());
    recording().queue(call.function(), call.answer());
  }
}

void BridgeTest::expectLinesStartAsExpected() {
  std::vector<std::string> start = recording().lines();
  if (start.size() > expected_.size()) start.resize(expected_.size());
  EXPECT_EQ(joined(expected_, start), joined(start, {}));
  expected_.clear();
  judged_ = true;
}

void BridgeTest::verify() {
  if (judged_) {
    expected_.clear();
    recording().forgetLines();
    return;
  }
  EXPECT_EQ(joined(expected_, recording().lines()), joined(recording().lines(), {}));
  expected_.clear();
  recording().forgetLines();
}

const tkv_session& BridgeTest::session(const std::string& name) {
  static const tkv_session none{};
  const Block* block = recording().block(name);
  EXPECT_NE(block, nullptr) << "no block " << name;
  return block == nullptr ? none : *reinterpret_cast<const tkv_session*>(block->bytes.get());
}

void BridgeTest::initializeTKVLevel(jint level) {
  NATIVE(initializeTKVLevel)(managed().environment(), managed().self(), level, result_object);
}

void BridgeTest::terminateTKV() { NATIVE(terminateTKV)(managed().environment(), managed().self(), result_object); }

void BridgeTest::openKey(jstring key_name) {
  NATIVE(openKey)(managed().environment(), managed().self(), key_name, result_object);
}

void BridgeTest::closeKey() { NATIVE(closeKey)(managed().environment(), managed().self(), result_object); }

jboolean BridgeTest::keyExists(jstring key_name) {
  return NATIVE(keyExists)(managed().environment(), managed().self(), key_name, result_object);
}

void BridgeTest::deleteKey(jstring key_name, jboolean recurse) {
  NATIVE(deleteKey)(managed().environment(), managed().self(), key_name, recurse, result_object);
}

jobjectArray BridgeTest::listSubKeys(jstring key_name) {
  return NATIVE(listSubKeys)(managed().environment(), managed().self(), key_name, result_object);
}

void BridgeTest::moveKey(jstring source_key, jstring target_parent_key, jstring target_key, jint flags) {
  NATIVE(moveKey)
  (managed().environment(), managed().self(), source_key, target_parent_key, target_key, flags, result_object);
}

void BridgeTest::createKey(jstring key_name, jint security_type, jstring parent_key_name, jstring user_name,
                           jstring group_name) {
  NATIVE(createKey)
  (managed().environment(), managed().self(), key_name, security_type, parent_key_name, user_name, group_name,
   result_object);
}

jstring BridgeTest::getKeyValue(jstring key_name) {
  return NATIVE(getKeyValue)(managed().environment(), managed().self(), key_name, result_object);
}

jobjectArray BridgeTest::getKeyValues(jstring key_name) {
  return NATIVE(getKeyValues)(managed().environment(), managed().self(), key_name, result_object);
}

void BridgeTest::setKeyValue(jstring key_name, jstring value, jint security_type, jstring parent_key_name,
                             jstring user_name, jstring group_name) {
  NATIVE(setKeyValue)
  (managed().environment(), managed().self(), key_name, value, security_type, parent_key_name, user_name, group_name,
   result_object);
}

void BridgeTest::setTypeKeyValue(jstring key_name, jstring value, jint data_type, jint security_type,
                                 jstring parent_key_name, jstring user_name, jstring group_name) {
  NATIVE(setTypeKeyValue)
  (managed().environment(), managed().self(), key_name, value, data_type, security_type, parent_key_name, user_name,
   group_name, result_object);
}

void BridgeTest::setKeyValues(jstring key_name, jobjectArray values, jint security_type, jstring parent_key_name,
                              jstring user_name, jstring group_name) {
  NATIVE(setKeyValues)
  (managed().environment(), managed().self(), key_name, values, security_type, parent_key_name, user_name, group_name,
   result_object);
}

void BridgeTest::createAndSetKeyValue(jstring key_name, jstring value, jint data_type, jint security_type,
                                      jstring parent_key_name, jstring user_name, jstring group_name) {
  NATIVE(createAndSetKeyValue)
  (managed().environment(), managed().self(), key_name, value, data_type, security_type, parent_key_name, user_name,
   group_name, result_object);
}

jstring BridgeTest::getUserName(jstring key_name) {
  return NATIVE(getUserName)(managed().environment(), managed().self(), key_name, result_object);
}

jstring BridgeTest::getGroupName(jstring key_name) {
  return NATIVE(getGroupName)(managed().environment(), managed().self(), key_name, result_object);
}

void BridgeTest::copyRecurse(jstring source_key, jstring destination_key, jint security_type) {
  NATIVE(copyRecurse)
  (managed().environment(), managed().self(), source_key, destination_key, security_type, result_object);
}

void BridgeTest::isCluster() { NATIVE(isCluster)(managed().environment(), managed().self(), result_object); }

jobjectArray BridgeTest::getTKVLocations() {
  return NATIVE(getTKVLocations)(managed().environment(), managed().self(), result_object);
}

jint BridgeTest::checkTKVStorageType(jstring path) {
  return NATIVE(checkTKVStorageType)(managed().environment(), managed().self(), path, result_object);
}

jstring BridgeTest::getTKVBackupLocation() {
  return NATIVE(getTKVBackupLocation)(managed().environment(), managed().self(), result_object);
}

jint BridgeTest::getPatchLevel() {
  return NATIVE(getPatchLevel)(managed().environment(), managed().self(), result_object);
}

void BridgeTest::setZUVEDDependencies(jint mode) {
  NATIVE(setZUVEDDependencies)(managed().environment(), managed().self(), mode, result_object);
}

}  // namespace bridge_test
