/* Every method with random arguments against a platform that answers at random, within its contracts: nothing crashes,
 * and what holds for every path of a method holds. The seed is fixed, so that a failure comes again.
 */
#include <algorithm>
#include <random>

#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kSessions = 150;
constexpr int kCallsInASession = 60;

class RandomAnswers : public BridgeTest {
 public:
  std::mt19937 random{20240229};
  uint64_t next_handle = 1;
  int strings_refused = 0;

  int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  bool chance(int percent) { return below(100) < percent; }
  template <typename Value>
  Value one_of(std::initializer_list<Value> values) {
    return values.begin()[below(static_cast<int>(values.size()))];
  }

  std::string bytes(size_t most) {
    std::string text(random() % (most + 1), '\0');
    for (char& byte : text) byte = chance(15) ? '\0' : static_cast<char>(random());
    return text;
  }
  std::string letters(size_t most) {
    std::string text(random() % (most + 1), 'a');
    for (char& byte : text) byte = static_cast<char>('a' + below(26));
    return text;
  }

  int failure() { return one_of({2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 37, 41, 42, 55, 99, -1}); }

  Answer answer(const std::string& function) {
    Answer given;
    given.result = chance(75) ? 0 : failure();
    if (recording().lines().back().find("(ctx 0") != std::string::npos) {
      given.result = 3;  // no registry takes the null context
      return given;
    }
    if (function == "prou_allocm" || function == "prsrvut_NewString" || function == "prsrvut_NewObjectArray" ||
        function == "prsrvut_FindClass" || function == "lxhci2h") {
      given.refuse = chance(4);
    } else if (function == "prsrvut_NewStringUTF") {
      given.refuse = chance(4);
      strings_refused += given.refuse ? 1 : 0;
    } else if (function == "prsrvut_isDebugOn") {
      given.result = below(2);
    } else if (function == "prsrvut_getNativeString") {
      given.result = one_of({0, 0, 0, 1, -1});
      given.bytes = letters(64);
      given.size = given.bytes->size() + (chance(90) ? 1u : 60u);
    } else if (function == "lpminit") {
      given.handle = kProgram;
    } else if (function == "lpmprinit") {
      given.handle = kShortProgram;
    } else if (function == "prtkv_open_key" || function == "prtkv_create_key" || function == "prtkv_create_n_set_key" ||
               function == "prtkv_create_n_set_key_ext" || function == "prtkv_move_key") {
      if (given.result == 0 || chance(10)) given.handle = next_handle++;
    } else if (function == "prtkv_enum_subkey") {
      given.result = chance(40) ? 0 : one_of({16, 16, 16, 4, 9, -1});
      given.bytes = chance(90) ? letters(20) : letters(264);
      if (chance(90)) given.word = below(8) - 3;
    } else if (function == "prtkv_get_value") {
      given.bytes = bytes(one_of<size_t>({0, 1, 2, 10, 200, 1024, 1025, 2048, 2049, 8192, 8193}));
      if (given.result != 0) given.size = 1u + random() % 20000;
      given.word = below(7);
    } else if (function == "prtkv_get_key_security") {
      given.security = owned(below(64), below(64), below(64), bytes(64), chance(50) ? std::string(kGroup) : bytes(64));
    } else if (function == "prtkv_get_last_error" || function == "prtkv_check_storage") {
      given.bytes = letters(1023);
    } else if (function == "prtkv_get_backup_loc") {
      given.bytes = letters(4095);
    } else if (function == "prtkv_get_conf") {
      given.word = below(2);
      given.second_word = below(2);
      given.bytes = given.result == 0 ? locations() : letters(1023);
    } else if (function == "clsugetconf" || function == "clsvswpatch") {
      given.word = below(6);
    } else if (function == "lxsulen") {
      given.result = below(10);
    } else if (function == "lxgt2u") {
      given.bytes = letters(30);
      given.result = below(32) - 1;
    }
    return given;
  }

  std::string locations() {
    std::string slots(20485, '\0');
    for (size_t slot = 0; slot < 5; ++slot) {
      const std::string location = chance(60) ? letters(4096) : "";
      slots.replace(slot * 4097, location.size(), location);
    }
    return slots;
  }

  jstring text() {
    switch (below(12)) {
      case 0:
        return nullptr;
      case 1:
        return unobtainable("unobtainable");
      case 2:
        return string("");
      case 3:
        return string("%s%n");
      case 4:
        return string(letters(1023));
      default:
        return string("a." + letters(10));
    }
  }

  jobjectArray list() {
    if (chance(5)) return nullptr;
    std::vector<jstring> elements(static_cast<size_t>(below(8)));
    for (auto& element : elements) {
      element = chance(5) ? nullptr : chance(5) ? unobtainable("x") : string(letters(chance(90) ? 50 : 4000));
    }
    return managed().array(elements);
  }

  jint anything() { return chance(80) ? below(9) - 1 : static_cast<jint>(random()); }

  // What a call of a method left behind, in the terms in which its paths differ.
  struct Left {
    std::string method;
    bool gives_string = false;
    jobject given = nullptr;
  };

  Left call() {
    const int method = below(22);
    switch (method) {
      case 0:
        openKey(text());
        return {"openKey"};
      case 1:
        closeKey();
        return {"closeKey"};
      case 2:
        keyExists(text());
        return {"keyExists"};
      case 3:
        deleteKey(text(), static_cast<jboolean>(below(256)));
        return {"deleteKey"};
      case 4:
        return {"listSubKeys", false, listSubKeys(text())};
      case 5:
        moveKey(text(), text(), text(), anything());
        return {"moveKey"};
      case 6:
        createKey(text(), anything(), text(), text(), text());
        return {"createKey"};
      case 7:
        return {"getKeyValue", true, getKeyValue(text())};
      case 8:
        return {"getKeyValues", false, getKeyValues(text())};
      case 9:
        setKeyValue(text(), text(), anything(), text(), text(), text());
        return {"setKeyValue"};
      case 10:
        setTypeKeyValue(text(), text(), anything(), anything(), text(), text(), text());
        return {"setTypeKeyValue"};
      case 11:
        setKeyValues(text(), list(), anything(), text(), text(), text());
        return {"setKeyValues"};
      case 12:
        createAndSetKeyValue(text(), text(), anything(), anything(), text(), text(), text());
        return {"createAndSetKeyValue"};
      case 13:
        return {"getUserName", true, getUserName(text())};
      case 14:
        return {"getGroupName", true, getGroupName(text())};
      case 15:
        copyRecurse(text(), text(), anything());
        return {"copyRecurse"};
      case 16:
        isCluster();
        return {"isCluster"};
      case 17:
        return {"getTKVLocations", false, getTKVLocations()};
      case 18:
        checkTKVStorageType(text());
        return {"checkTKVStorageType"};
      case 19:
        return {"getTKVBackupLocation", true, getTKVBackupLocation()};
      case 20:
        getPatchLevel();
        return {"getPatchLevel"};
      default:
        setZUVEDDependencies(anything());
        return {"setZUVEDDependencies"};
    }
  }

  static long count(const std::string& start) {
    const auto& lines = recording().lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.compare(0, start.size(), start) == 0; });
  }

  static bool traced(const std::string& part) {
    const auto& lines = recording().lines();
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.compare(0, 14, "prsrvut_trace(") == 0 && line.find(part) != std::string::npos;
    });
  }

  // The last status that was set; -1 for none.
  static int lastStatus() {
    const auto& lines = recording().lines();
    const auto last = std::find_if(lines.rbegin(), lines.rend(), [](const std::string& line) {
      return line.compare(0, 17, "prsrvut_setStatus") == 0;
    });
    if (last == lines.rend()) return -1;
    return *last == "prsrvut_setStatus(1)" ? 1 : 0;
  }

  void expectCharactersGivenBack(const std::string& method) {
    const auto taken = managed().charactersTaken();
    const bool stopped = method == "getKeyValues" && traced("getKeyValues: memory allocation failed") &&
                         recording().lines().back().find("memory allocation failed") != std::string::npos;
    const bool kept =
        method == "openKey" || method == "checkTKVStorageType" || stopped ||
        (method == "createKey" && (traced("NULL or 0 length KEY NAME passed") || traced("failed to fill sec attr") ||
                                   traced("createKey: prtkv_close_key failed")));
    if (kept) {
      EXPECT_LE(taken.size(), 1u);
    } else {
      EXPECT_THAT(taken, IsEmpty());
    }
  }

  void expectKeysClosed(const std::string& method) {
    if (method == "copyRecurse") return;  // whose walk leaves handles open
    const bool kept = method == "openKey" || (method == "getKeyValues" && lastStatus() == -1);
    EXPECT_THAT(recording().openKeys(), SizeIs(::testing::Le(kept ? 1u : 0u)));
  }

  void expectBlocksFreed(const std::string& method) {
    std::vector<std::string> blocks;
    for (const auto& name : recording().blocksTaken()) {
      if (name != "session" && name != "scls context") blocks.push_back(name);
    }
    size_t abandoned = 0;
    if (method == "getTKVLocations" || (method == "getKeyValue" && lastStatus() == 0)) abandoned = 1;
    if (method == "getKeyValues") abandoned = 2;  // an enlarged buffer, and the element that was not converted
    EXPECT_THAT(blocks, SizeIs(::testing::Le(abandoned)));
  }

  void expectAReport(const std::string& method) {
    const int status = lastStatus();
    const bool reported = count("prsrvut_callMethod(") > 0;
    if (method == "isCluster") {
      EXPECT_NE(status == 1, reported);
    } else if (method == "getTKVLocations") {
      EXPECT_TRUE(status == 1 || reported || traced("Memory allocation failure"));
    } else if (method == "getKeyValues" && status == -1) {
      EXPECT_TRUE(traced("getKeyValues: memory allocation failed"));
    } else if (status == 1 && method != "copyRecurse" && method != "checkTKVStorageType" &&
               !traced("failed to fill sec attr retval=0")) {
      EXPECT_EQ(count("prsrvut_setStatus(0)"), 0);
      EXPECT_FALSE(reported);
    } else if (status == 0) {
      EXPECT_TRUE(reported || traced("listSubKeys: NULL key name passed"));
    } else {
      EXPECT_EQ(status, 1) << "no status at all";
    }
  }

  // Every string that was made is deleted or given to the caller.
  void expectStringsDeleted(const Left& left) {
    const long made = count("prsrvut_NewStringUTF(") - strings_refused;
    const long given = left.gives_string && left.given != nullptr ? 1 : 0;
    EXPECT_EQ(count("DeleteLocalRef("), made - given);
  }

  void expectNothingStrange() {
    EXPECT_THAT(recording().violations(), IsEmpty());
    for (const auto& line : recording().lines()) {
      EXPECT_EQ(line.find("wrong environment"), std::string::npos) << line;
      EXPECT_EQ(line.find("unknown object"), std::string::npos) << line;
      EXPECT_EQ(line.find("deleted string"), std::string::npos) << line;
    }
    EXPECT_TRUE(recording().freedBlocksAreZero());
  }

  void givenAnyState() {
    recording().reset();
    managed().reset();
    givenNoSession();
    switch (below(6)) {
      case 0:
        break;
      case 1:
        givenHalfSession();
        break;
      case 2:
        givenEndedSession();
        break;
      case 3:
        givenSession();
        break;
      default:
        givenWorkingKey({.lang_env_flags = chance(50) ? 0x4000000 : 0});
        break;
    }
  }

  // What one call left is not the next one's.
  void forgetWhatIsLeft() {
    managed().forgetCharactersTaken();
    while (!recording().openKeys().empty()) recording().keyClosed(recording().openKeys().front());
    std::vector<std::string> blocks = recording().blocksTaken();
    for (const auto& name : blocks) {
      if (name == "session" || name == "scls context") continue;
      recording().free(kProgram, recording().block(name)->bytes.get());
    }
    recording().forgetLines();
    strings_refused = 0;
  }
};

TEST_F(RandomAnswers, KeepWhatHoldsOnEveryPath) {
  for (int session_number = 0; session_number < kSessions && !HasFailure(); ++session_number) {
    givenAnyState();
    recording().unscripted = [this](const std::string& function) { return answer(function); };
    for (int i = 0; i < kCallsInASession && !HasFailure(); ++i) {
      forgetWhatIsLeft();
      const Left left = call();
      expectCharactersGivenBack(left.method);
      expectKeysClosed(left.method);
      expectBlocksFreed(left.method);
      expectAReport(left.method);
      expectStringsDeleted(left);
      expectNothingStrange();
      if (HasFailure()) {
        std::string lines;
        for (const auto& line : recording().lines()) lines += line.substr(0, 200) + "\n";
        ADD_FAILURE() << left.method << ", call " << i << " of session " << session_number << ":\n" << lines;
      }
    }
    forgetWhatIsLeft();
    recording().unscripted = nullptr;
  }
  judgeAlone();
}

}  // namespace
}  // namespace bridge_test
