#include "prsrvut.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "allocation.h"
#include "java_vm.h"
#include "prsrvut/native_call.h"

extern "C" jint JNI_OnLoad(JavaVM* vm, void* reserved);
extern "C" void JNI_OnUnload(JavaVM* vm, void* reserved);

namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;
using tkv::test::JavaVm;

// Replaces some of the JVM's functions by functions of the test, for this thread and scope.
class ReplacedFunctions {
 public:
  explicit ReplacedFunctions(JNIEnv* env) : env_(env), original_(env->functions), table_(*env->functions) {
    env->functions = &table_;
    current_ = this;
  }
  ~ReplacedFunctions() {
    env_->functions = original_;
    current_ = nullptr;
  }
  ReplacedFunctions(const ReplacedFunctions&) = delete;
  ReplacedFunctions& operator=(const ReplacedFunctions&) = delete;

  JNINativeInterface_& table() { return table_; }

  // Counts every call instead of making it.
  void replace_all() {
    auto* slots = reinterpret_cast<void**>(&table_);
    for (std::size_t index = 0; index < sizeof(table_) / sizeof(*slots); ++index) {
      slots[index] = reinterpret_cast<void*>(+[] {
        ++current_->calls;
        return std::intptr_t{0};
      });
    }
  }

  static const JNINativeInterface_& original() { return *current_->original_; }
  static void count(int by = 1) { current_->calls += by; }

  int calls = 0;

 private:
  static ReplacedFunctions* current_;

  JNIEnv* env_;
  const JNINativeInterface_* original_;
  JNINativeInterface_ table_;
};

ReplacedFunctions* ReplacedFunctions::current_ = nullptr;

class Prsrvut : public testing::Test {
 protected:
  Prsrvut() : env_(JavaVm::instance().env()) {}

  void SetUp() override {
    ASSERT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
    ASSERT_EQ(env_->PushLocalFrame(64), 0);
    set_tracing(0);
    JavaVm::take_output();
  }

  void TearDown() override {
    EXPECT_EQ(env_->ExceptionCheck(), JNI_FALSE);
    env_->ExceptionClear();
    env_->PopLocalFrame(nullptr);
    EXPECT_EQ(JavaVm::take_output(), "") << "the JVM's checks found something";
  }

  jclass class_of(const char* name) {
    jclass found = env_->FindClass(name);
    EXPECT_NE(found, nullptr) << name;
    return found;
  }

  jobject make(const char* class_name) {
    jclass type = class_of(class_name);
    jobject object = env_->NewObject(type, env_->GetMethodID(type, "<init>", "()V"));
    EXPECT_FALSE(env_->ExceptionCheck());
    return object;
  }

  // An object of a class that has just been loaded by a class loader of its own; `method` of Loaders says which.
  jobject make_of_a_new_class(const char* method = "recorder") {
    jclass loaders = class_of("results/Loaders");
    jobject object =
        env_->CallStaticObjectMethod(loaders, env_->GetStaticMethodID(loaders, method, "()Ljava/lang/Object;"));
    EXPECT_FALSE(env_->ExceptionCheck());
    return object;
  }

  // Drops the references of the current local frame and waits until the class of the last new object is unloaded.
  void expect_unloaded() {
    env_->PopLocalFrame(nullptr);
    jclass loaders = class_of("results/Loaders");
    jmethodID is_unloaded = env_->GetStaticMethodID(loaders, "isUnloaded", "()Z");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(240);
    bool gone = false;
    while (!gone && std::chrono::steady_clock::now() < deadline) {
      gone = env_->CallStaticBooleanMethod(loaders, is_unloaded) == JNI_TRUE;
      ASSERT_FALSE(env_->ExceptionCheck());
    }
    EXPECT_TRUE(gone);
  }

  void set_tracing(int word) {
    jclass owner = class_of("velmar/qen/mgmt/nativesystem/TKVResult");
    env_->CallStaticVoidMethod(owner, env_->GetStaticMethodID(owner, "setTracing", "(I)V"), word);
    ASSERT_FALSE(env_->ExceptionCheck());
    env_->DeleteLocalRef(owner);
  }

  std::u16string units_of(jstring text) {
    if (text == nullptr) return u"(null)";
    const jsize length = env_->GetStringLength(text);
    std::vector<jchar> units(static_cast<std::size_t>(length));
    env_->GetStringRegion(text, 0, length, units.data());
    return {units.begin(), units.end()};
  }

  std::string text_of(jstring text) {
    const char* characters = env_->GetStringUTFChars(text, nullptr);
    std::string copy = characters;
    env_->ReleaseStringUTFChars(text, characters);
    return copy;
  }

  // What was reported to a result object, separated by "|".
  std::string reports(jobject result) {
    jclass type = env_->GetObjectClass(result);
    auto text = static_cast<jstring>(
        env_->CallObjectMethod(result, env_->GetMethodID(type, "reports", "()Ljava/lang/String;")));
    EXPECT_FALSE(env_->ExceptionCheck());
    return text_of(text);
  }

  jstring managed(const std::u16string& text) {
    const std::vector<jchar> units(text.begin(), text.end());
    return env_->NewString(units.data(), static_cast<jsize>(units.size()));
  }

  // Clears the pending exception and returns its class and message.
  std::string take_exception() {
    jthrowable exception = env_->ExceptionOccurred();
    if (exception == nullptr) return "none";
    env_->ExceptionClear();
    jmethodID to_string = env_->GetMethodID(class_of("java/lang/Throwable"), "toString", "()Ljava/lang/String;");
    auto text = static_cast<jstring>(env_->CallObjectMethod(exception, to_string));
    EXPECT_FALSE(env_->ExceptionCheck());
    return text_of(text);
  }

  void throw_new(const char* message) { env_->ThrowNew(class_of("java/lang/RuntimeException"), message); }

  int call_with_int(jobject result, const char* name, const char* signature = "(I)V", jint value = 7) {
    jvalue argument{};
    argument.i = value;
    return prsrvut_callMethod(env_, result, name, signature, &argument);
  }

  int call_with_object(jobject result, const char* name, jobject value) {
    jvalue argument{};
    argument.l = value;
    return prsrvut_callMethod(env_, result, name, "(Ljava/lang/String;)V", &argument);
  }

  JNIEnv* env_;
};

TEST_F(Prsrvut, ReportsToTheResultObject) {
  jobject result = make("results/Recorder");
  for (const int value : {0, 1, -1, 256}) prsrvut_setStatus(env_, result, value);
  for (const int value : {1, 0, 256}) prsrvut_setBooleanResult(env_, result, value);
  EXPECT_EQ(call_with_int(result, "setTKVErrCode"), 0);
  EXPECT_EQ(call_with_object(result, "setTKVResultString", managed(u"why")), 0);
  EXPECT_EQ(call_with_object(result, "setTKVResultString", nullptr), 0);
  EXPECT_EQ(reports(result),
            "status false|status true|status true|status true|answer true|answer false|answer true|code 7|text why|"
            "text null");
}

TEST_F(Prsrvut, ReportsToAnyClassThatHasTheMethods) {
  jobject one = make("results/Recorder");
  jobject sub = make("results/SubRecorder");
  jobject other = make("results/Other");
  jobject foreign = make_of_a_new_class();
  for (int round = 0; round < 2; ++round) {
    for (jobject result : {one, sub, other, foreign}) prsrvut_setStatus(env_, result, 1);
    EXPECT_EQ(call_with_int(sub, "setTKVErrCode"), 0);
    EXPECT_EQ(call_with_int(foreign, "setTKVErrCode"), 0);
  }
  EXPECT_EQ(reports(one), "status true|status true");
  EXPECT_EQ(reports(sub), "own status true|code 7|own status true|code 7");
  EXPECT_EQ(reports(other), "other status trueother status true");
  EXPECT_EQ(reports(foreign), "status true|code 7|status true|code 7");
}

TEST_F(Prsrvut, IgnoresMethodsThatTheClassDoesNotHave) {
  jobject bare = make("java/lang/Object");
  set_tracing(1);
  for (int round = 0; round < 2; ++round) {
    prsrvut_setStatus(env_, bare, 1);
    prsrvut_setBooleanResult(env_, bare, 1);
    prsrvut_trace(env_, bare, "line %d", 1);
    EXPECT_EQ(call_with_int(bare, "setTKVErrCode"), -1);
    EXPECT_EQ(env_->ExceptionCheck(), JNI_FALSE);
  }
}

TEST_F(Prsrvut, IgnoresANullResultObject) {
  set_tracing(1);
  prsrvut_setStatus(env_, nullptr, 1);
  prsrvut_setBooleanResult(env_, nullptr, 1);
  prsrvut_trace(env_, nullptr, "line");
  EXPECT_EQ(call_with_int(nullptr, "setTKVErrCode"), -1);
}

TEST_F(Prsrvut, CallsOnlyVoidMethodsWithOneArgument) {
  jobject result = make("results/Recorder");
  for (const char* signature : {"", "V", "(", "()V", "(I)I", "(II)V", "(I", "I)V", "(V)V", "(L)V", "(L;)V",
                                "(Ljava/lang/String)V", "(Ljava/lang/String;I)V", "([)V", "([[)V", "(I)VV"}) {
    EXPECT_EQ(call_with_int(result, "setTKVErrCode", signature), -1) << signature;
  }
  EXPECT_EQ(call_with_int(result, "counted", "(I)I"), -1);
  EXPECT_EQ(call_with_int(result, "two", "(II)V"), -1);
  EXPECT_EQ(call_with_int(result, "<init>", "(I)V"), -1);
  EXPECT_EQ(call_with_int(result, "", "(I)V"), -1);
  EXPECT_EQ(call_with_int(result, nullptr, "(I)V"), -1);
  EXPECT_EQ(call_with_int(result, "setTKVErrCode", nullptr), -1);
  EXPECT_EQ(prsrvut_callMethod(env_, result, "setTKVErrCode", "(I)V", nullptr), -1);
  EXPECT_EQ(reports(result), "");
}

TEST_F(Prsrvut, LooksAMethodUpOnceForEachClass) {
  jobject results[] = {make_of_a_new_class(), make_of_a_new_class()};
  jobject bare = make("java/lang/Object");
  prsrvut_setBooleanResult(env_, bare, 1);
  ReplacedFunctions functions(env_);
  functions.table().GetMethodID = [](JNIEnv* env, jclass type, const char* name, const char* signature) {
    ReplacedFunctions::count();
    return ReplacedFunctions::original().GetMethodID(env, type, name, signature);
  };
  for (int round = 0; round < 5; ++round) {
    for (jobject result : results) {
      prsrvut_setStatus(env_, result, 1);
      call_with_int(result, "setTKVErrCode");
    }
    prsrvut_setBooleanResult(env_, bare, 1);
  }
  EXPECT_EQ(functions.calls, 4);
}

TEST_F(Prsrvut, ReportsWithoutMemoryToRememberMethodsIn) {
  jobject result = make_of_a_new_class();
  jstring text = env_->NewStringUTF("a text");
  tkv::test::allocations_left = 0;
  for (int round = 0; round < 2; ++round) {
    prsrvut_setStatus(env_, result, round);
    call_with_object(result, "setTKVResultString", text);
  }
  tkv::test::allocations_left = tkv::test::kEndless;
  EXPECT_EQ(reports(result), "status false|text a text|status true|text a text");
}

TEST_F(Prsrvut, LetsAClassBeUnloaded) {
  ASSERT_EQ(env_->PushLocalFrame(16), 0);
  jobject result = make_of_a_new_class();
  prsrvut_setStatus(env_, result, 1);
  EXPECT_EQ(reports(result), "status true");
  expect_unloaded();
  jobject next = make_of_a_new_class();
  prsrvut_setStatus(env_, next, 0);
  EXPECT_EQ(reports(next), "status false");
}

TEST_F(Prsrvut, ServesMoreClassesThanItRemembers) {
  std::vector<jobject> results;
  ASSERT_EQ(env_->EnsureLocalCapacity(1000), 0);
  for (int count = 0; count < 50; ++count) results.push_back(make_of_a_new_class());
  for (int round = 0; round < 2; ++round) {
    for (jobject result : results) prsrvut_setStatus(env_, result, round);
  }
  for (jobject result : results) EXPECT_EQ(reports(result), "status false|status true");
}

TEST_F(Prsrvut, RemembersMethodsBeyondItsRoomByLookingThemUpAgain) {
  jobject result = make_of_a_new_class();
  for (int round = 0; round < 2; ++round) {
    for (int number = 0; number < 40; ++number) {
      EXPECT_EQ(call_with_int(result, ("none" + std::to_string(number)).c_str()), -1);
    }
    EXPECT_EQ(call_with_int(result, "setTKVErrCode"), 0);
  }
  EXPECT_EQ(reports(result), "code 7|code 7");
}

// Counts the methods that are called on result objects.
class CountedCalls : public ReplacedFunctions {
 public:
  explicit CountedCalls(JNIEnv* env) : ReplacedFunctions(env) {
    table().CallVoidMethodA = [](JNIEnv* e, jobject object, jmethodID method, const jvalue* arguments) {
      count();
      original().CallVoidMethodA(e, object, method, arguments);
    };
  }
};

class OwnSetters : public Prsrvut {
 protected:
  // Makes a report of each kind. Returns how many methods it called.
  int report_everything(jobject result) {
    jstring text = managed(u"why");
    const CountedCalls functions(env_);
    prsrvut_setStatus(env_, result, 256);
    prsrvut_setBooleanResult(env_, result, -1);
    EXPECT_EQ(call_with_int(result, "setTKVErrCode"), 0);
    EXPECT_EQ(call_with_object(result, "setTKVResultString", text), 0);
    return functions.calls;
  }

  bool own_status_of(jobject result) {
    jclass type = env_->GetObjectClass(result);
    return env_->CallBooleanMethod(result, env_->GetMethodID(type, "ownStatus", "()Z")) == JNI_TRUE;
  }

  static constexpr const char* kResult = "velmar/qen/mgmt/nativesystem/TKVResult";
  static constexpr const char* kEverything = "status true|answer true|code 7|text why";
};

TEST_F(OwnSetters, AreReplacedBySettingTheirFields) {
  for (const char* name : {kResult, "results/PlainSub"}) {
    jobject result = make(name);
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(report_everything(result), 0) << name;
      EXPECT_EQ(reports(result), kEverything) << name;
      prsrvut_setStatus(env_, result, 0);
      prsrvut_setBooleanResult(env_, result, 0);
      EXPECT_EQ(call_with_int(result, "setTKVErrCode", "(I)V", -1), 0);
      EXPECT_EQ(call_with_object(result, "setTKVResultString", nullptr), 0);
      EXPECT_EQ(reports(result), "status false|answer false|code -1|text null") << name;
    }
  }
}

TEST_F(OwnSetters, LeaveAFieldOfTheSameNameInASubclassAlone) {
  jobject result = make("results/PlainSub");
  prsrvut_setStatus(env_, result, 0);
  EXPECT_TRUE(own_status_of(result));
  EXPECT_EQ(call_with_int(result, "setStatus", "(I)V", 0), 0) << "another method of the same name is called";
  EXPECT_FALSE(own_status_of(result));
}

TEST_F(OwnSetters, AreCalledWhereASubclassOverridesThem) {
  jobject result = make("results/OverridingSub");
  jobject heir = make("results/Heir");
  EXPECT_EQ(report_everything(result), 3);
  EXPECT_EQ(reports(result), "status true|code 7|text why|status false|answer true|code 8|text null");
  EXPECT_EQ(report_everything(heir), 4);
  EXPECT_EQ(reports(heir), "status true|code 7|text why|status false|answer false|code 8|text null|told true");
}

TEST_F(OwnSetters, OfAClassOfTheSameNameAreCalled) {
  jobject foreign = make_of_a_new_class("foreignResult");
  EXPECT_EQ(report_everything(foreign), 4);
  EXPECT_EQ(reports(foreign), kEverything);
}

TEST_F(OwnSetters, AreReplacedInASubclassOfAnotherLoaderToo) {
  EXPECT_EQ(report_everything(make(kResult)), 0);
  jobject late = make_of_a_new_class("subclass");
  EXPECT_EQ(report_everything(late), 0);
  EXPECT_EQ(reports(late), kEverything);
}

TEST_F(OwnSetters, LetSubclassesAndNamesakesBeUnloaded) {
  for (const char* method : {"subclass", "foreignResult"}) {
    ASSERT_EQ(env_->PushLocalFrame(16), 0);
    report_everything(make_of_a_new_class(method));
    expect_unloaded();
    jobject next = make_of_a_new_class(method);
    report_everything(next);
    EXPECT_EQ(reports(next), kEverything) << method;
  }
}

TEST_F(OwnSetters, KeepAnExceptionPending) {
  jobject result = make(kResult);
  throw_new("earlier");
  prsrvut_setStatus(env_, result, 1);
  EXPECT_EQ(call_with_int(result, "setTKVErrCode"), 0);
  EXPECT_EQ(take_exception(), "java.lang.RuntimeException: earlier");
  {
    const tkv::prsrvut::NativeCall call(env_);
    throw_new("of a JNI call");
    prsrvut_setBooleanResult(env_, result, 1);
    EXPECT_FALSE(env_->ExceptionCheck());
  }
  EXPECT_EQ(take_exception(), "java.lang.RuntimeException: of a JNI call");
  EXPECT_EQ(reports(result), "status true|answer true|code 7|text null");
}

TEST_F(OwnSetters, AreCalledIfTheClassLacksAFieldOrASetter) {
  // Unloading the library forgets what it remembered of the classes that were reported to before.
  JNI_OnUnload(JavaVm::instance().vm(), nullptr);
  static bool hides_field = false;
  for (const bool hides : {true, false}) {
    hides_field = hides;
    {
      ReplacedFunctions functions(env_);
      functions.table().GetFieldID = [](JNIEnv* env, jclass type, const char* name, const char* signature) {
        const bool is_hidden = hides_field && std::strcmp(name, "resultString") == 0;
        return ReplacedFunctions::original().GetFieldID(env, type, is_hidden ? "none" : name, signature);
      };
      functions.table().GetMethodID = [](JNIEnv* env, jclass type, const char* name, const char* signature) {
        const bool is_hidden = !hides_field && std::strcmp(name, "setTKVErrCode") == 0;
        return ReplacedFunctions::original().GetMethodID(env, type, is_hidden ? "none" : name, signature);
      };
      ASSERT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
    }
    jobject result = make(kResult);
    EXPECT_EQ(report_everything(result), 4);
    EXPECT_EQ(reports(result), kEverything);
    JNI_OnUnload(JavaVm::instance().vm(), nullptr);
  }
}

TEST_F(Prsrvut, WorksWithAnExceptionPendingAndKeepsIt) {
  set_tracing(1);
  jobject result = make("results/Recorder");
  jobject fresh = make_of_a_new_class();
  jobject bare = make("java/lang/Object");
  jobject thrower = make("results/Thrower");
  jclass string_class = class_of("java/lang/String");
  jstring name = managed(u"name");
  const jchar units[] = {'a', 'b'};
  char buffer[8];
  const std::pair<const char*, std::function<bool()>> kCalls[] = {
      {"setStatus", [&] { return prsrvut_setStatus(env_, result, 1), true; }},
      {"setStatus, new class", [&] { return prsrvut_setStatus(env_, fresh, 1), true; }},
      {"setStatus, no method", [&] { return prsrvut_setStatus(env_, bare, 1), true; }},
      {"setStatus, throws", [&] { return prsrvut_setStatus(env_, thrower, 1), true; }},
      {"setBooleanResult", [&] { return prsrvut_setBooleanResult(env_, result, 1), true; }},
      {"callMethod", [&] { return call_with_int(result, "setTKVErrCode") == 0; }},
      {"callMethod, no method", [&] { return call_with_int(result, "none") == -1; }},
      {"callMethod, throws", [&] { return call_with_int(thrower, "setTKVErrCode") == 0; }},
      {"trace", [&] { return prsrvut_trace(env_, result, "line %d", 1), true; }},
      {"trace, throws", [&] { return prsrvut_trace(env_, thrower, "line %d", 1), true; }},
      {"isDebugOn", [&] { return prsrvut_isDebugOn(env_, result) != 0; }},
      {"NewStringUTF", [&] { return prsrvut_NewStringUTF(env_, "text") != nullptr; }},
      {"NewString", [&] { return prsrvut_NewString(env_, units, 2) != nullptr; }},
      {"FindClass", [&] { return prsrvut_FindClass(env_, "java/lang/String") != nullptr; }},
      {"FindClass, other", [&] { return prsrvut_FindClass(env_, "java/lang/Integer") != nullptr; }},
      {"FindClass, none", [&] { return prsrvut_FindClass(env_, "no/such/Class") == nullptr; }},
      {"NewObjectArray", [&] { return prsrvut_NewObjectArray(env_, 2, string_class, name) != nullptr; }},
      {"getNativeString",
       [&] {
         int size = sizeof(buffer);
         return prsrvut_getNativeString(env_, name, buffer, &size) == 0;
       }},
  };
  for (const auto& [what, call] : kCalls) {
    throw_new("earlier");
    EXPECT_TRUE(call()) << what;
    EXPECT_EQ(take_exception(), "java.lang.RuntimeException: earlier") << what;
  }
  EXPECT_EQ(reports(result), "status true|answer true|code 7|trace line 1");
  EXPECT_EQ(reports(fresh), "status true");
}

TEST_F(Prsrvut, DefersExceptionsToTheEndOfANativeCall) {
  jobject thrower = make("results/Thrower");
  set_tracing(1);
  {
    const tkv::prsrvut::NativeCall call(env_);
    prsrvut_trace(env_, thrower, "line");
    EXPECT_FALSE(env_->ExceptionCheck());
    prsrvut_setStatus(env_, thrower, 1);
    EXPECT_FALSE(env_->ExceptionCheck());
    EXPECT_EQ(prsrvut_FindClass(env_, "no/such/Class"), nullptr);
    EXPECT_FALSE(env_->ExceptionCheck());
  }
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: trace") << "the first one is raised";
  {
    const tkv::prsrvut::NativeCall call(env_);
    throw_new("of a JNI call");
    prsrvut_setStatus(env_, thrower, 1);
    EXPECT_FALSE(env_->ExceptionCheck());
  }
  EXPECT_EQ(take_exception(), "java.lang.RuntimeException: of a JNI call");
}

TEST_F(Prsrvut, NativeCallsNest) {
  jobject thrower = make("results/Thrower");
  {
    const tkv::prsrvut::NativeCall outer(env_);
    {
      const tkv::prsrvut::NativeCall inner(env_);
      prsrvut_setStatus(env_, thrower, 1);
      EXPECT_FALSE(env_->ExceptionCheck());
    }
    EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setStatus") << "the inner call raises its own";
    prsrvut_setBooleanResult(env_, thrower, 1);
    EXPECT_FALSE(env_->ExceptionCheck());
  }
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setBooleanResult");
  prsrvut_setStatus(env_, thrower, 1);
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setStatus") << "outside, nothing is deferred";
}

TEST_F(Prsrvut, LeavesTheExceptionOfACalledMethodPending) {
  set_tracing(1);
  jobject thrower = make("results/Thrower");
  prsrvut_setStatus(env_, thrower, 1);
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setStatus");
  prsrvut_setBooleanResult(env_, thrower, 1);
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setBooleanResult");
  EXPECT_EQ(call_with_int(thrower, "setTKVErrCode"), 0);
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: setTKVErrCode");
  prsrvut_trace(env_, thrower, "line");
  EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: trace");
}

TEST_F(Prsrvut, MakesNoJniCallWhileTracingIsOff) {
  jobject result = make("results/Recorder");
  int before = 0;
  {
    ReplacedFunctions functions(env_);
    functions.replace_all();
    for (int round = 0; round < 100; ++round) prsrvut_trace(env_, result, "line %d %s", round, "text");
    EXPECT_EQ(prsrvut_isDebugOn(env_, result), 0);
    before = functions.calls;
  }
  EXPECT_EQ(before, 0);
  EXPECT_EQ(reports(result), "");
}

TEST_F(Prsrvut, FollowsTheSwitchOfTracing) {
  jobject result = make("results/Recorder");
  for (const int word : {1, 0, -1, 0, 0x100}) {
    set_tracing(word);
    EXPECT_EQ(prsrvut_isDebugOn(env_, result) != 0, word != 0);
    EXPECT_EQ(prsrvut_isDebugOn(env_, nullptr) != 0, word != 0);
    prsrvut_trace(env_, result, "%x", static_cast<unsigned>(word));
  }
  EXPECT_EQ(reports(result), "trace 1|trace ffffffff|trace 100");
}

TEST_F(Prsrvut, FormatsTraceLinesOfAnyKind) {
  set_tracing(1);
  jobject result = make("results/Recorder");
  const char* volatile null_text = nullptr;  // kept from the compiler, which would warn
  prsrvut_trace(env_, result, "\n a: retval = %d\n", -5);
  prsrvut_trace(env_, result, "key [%s]", null_text);
  prsrvut_trace(env_, result, "%s", "");
  prsrvut_trace(env_, result, "%s%%", "\xC3\xA4\xFF");
  prsrvut_trace(env_, result, nullptr);
  EXPECT_EQ(reports(result), "trace \n a: retval = -5\n|trace key [(null)]|trace |trace \xC3\xA4\xEF\xBF\xBD%");
  // Around the size of the buffer on the stack, and far beyond.
  for (const std::size_t length : {510U, 511U, 512U, 513U, 100000U}) {
    jobject fresh = make("results/Recorder");
    const std::string text(length, 'x');
    prsrvut_trace(env_, fresh, "%s", text.c_str());
    EXPECT_EQ(reports(fresh), "trace " + text);
  }
}

// Counts the local references that are taken and given back.
class CountedReferences : public ReplacedFunctions {
 public:
  explicit CountedReferences(JNIEnv* env) : ReplacedFunctions(env) {
    table().NewString = [](JNIEnv* e, const jchar* units, jsize count) {
      return counted(original().NewString(e, units, count));
    };
    table().GetObjectClass = [](JNIEnv* e, jobject object) { return counted(original().GetObjectClass(e, object)); };
    table().ExceptionOccurred = [](JNIEnv* e) { return counted(original().ExceptionOccurred(e)); };
    table().DeleteLocalRef = [](JNIEnv* e, jobject object) {
      if (object != nullptr) count(-1);
      original().DeleteLocalRef(e, object);
    };
  }

 private:
  template <typename Reference>
  static Reference counted(Reference reference) {
    if (reference != nullptr) count();
    return reference;
  }
};

TEST_F(Prsrvut, HoldsNoLocalReferenceBeyondTheCall) {
  set_tracing(1);
  jobject recorder = make("results/Recorder");
  jobject thrower = make("results/Thrower");
  const auto report = [&] {
    for (jobject result : {recorder, thrower}) {
      throw_new("earlier");
      prsrvut_setStatus(env_, result, 1);
      prsrvut_setBooleanResult(env_, result, 1);
      call_with_int(result, "setTKVErrCode");
      call_with_int(result, "none");
      prsrvut_trace(env_, result, "line");
      env_->ExceptionClear();
    }
  };
  report();  // the first time Java loads classes, with native methods of its own that take references on this thread
  const CountedReferences references(env_);
  report();
  EXPECT_EQ(references.calls, 0);
}

TEST_F(Prsrvut, LeavesTracingOffWhereThereIsNoSwitch) {
  set_tracing(1);
  static const char* field = nullptr;
  for (const char* name : {"NO_SUCH_FIELD", "NONE", "ON_HEAP", "TOO_SMALL", "MISALIGNED"}) {
    field = name;
    {
      ReplacedFunctions functions(env_);
      functions.table().GetStaticFieldID = [](JNIEnv* env, jclass owner, const char*, const char* signature) {
        return ReplacedFunctions::original().GetStaticFieldID(env, owner, field, signature);
      };
      EXPECT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
    }
    EXPECT_EQ(env_->ExceptionCheck(), JNI_FALSE) << name;
    EXPECT_EQ(prsrvut_isDebugOn(env_, nullptr), 0) << name;
  }
  {
    ReplacedFunctions functions(env_);
    functions.table().FindClass = [](JNIEnv* env, const char*) {
      return ReplacedFunctions::original().FindClass(env, "no/such/Class");
    };
    EXPECT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
  }
  EXPECT_EQ(prsrvut_isDebugOn(env_, nullptr), 0);
  ASSERT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
  EXPECT_NE(prsrvut_isDebugOn(env_, nullptr), 0);
  JNI_OnUnload(JavaVm::instance().vm(), nullptr);
  EXPECT_EQ(prsrvut_isDebugOn(env_, nullptr), 0);
}

TEST_F(Prsrvut, MakesAStringOfAnyBytes) {
  const struct {
    std::string bytes;
    std::u16string units;
  } kRows[] = {
      {"", u""},
      {"plain text, longer than eight bytes", u"plain text, longer than eight bytes"},
      {"\xC3\xA4\xE3\x81\x82", u"\u00E4\u3042"},
      {"\xF0\x9F\x98\x80", u"\U0001F600"},
      {"\xED\xA0\xBD\xED\xB8\x80", u"\U0001F600"},
      {"a\xED\xA0\xBD", u"a\xD83D"},
      {"a\xC0\x80z", u"a\0z"s},
      {"a\xFFz", u"a\uFFFDz"},
      {"\xF0\x9F\x98", u"\uFFFD\uFFFD\uFFFD"},
      {"\xE3", u"\uFFFD"},
      {std::string(3000, '\xE9'), std::u16string(3000, u'\uFFFD')},
  };
  for (const auto& row : kRows) {
    // In an allocation of exactly its size, so that a sanitizer detects a read past its end.
    const auto exact = std::make_unique<char[]>(row.bytes.size() + 1);
    std::memcpy(exact.get(), row.bytes.c_str(), row.bytes.size() + 1);
    EXPECT_EQ(units_of(prsrvut_NewStringUTF(env_, exact.get())), row.units) << testing::PrintToString(row.bytes);
  }
  EXPECT_EQ(prsrvut_NewStringUTF(env_, nullptr), nullptr);
}

TEST_F(Prsrvut, MakesAStringOfATextOfAnyLength) {
  for (const std::size_t length : {1U, 63U, 64U, 65U, 255U, 256U, 257U, 5000U, 1048575U}) {
    std::string text(length, 'x');
    text.front() = 'a';
    text.back() = '\x7F';
    std::u16string units(text.begin(), text.end());
    EXPECT_EQ(units_of(prsrvut_NewStringUTF(env_, text.c_str())), units) << length;
    text.back() = '\xFF';
    units.back() = u'\uFFFD';
    EXPECT_EQ(units_of(prsrvut_NewStringUTF(env_, text.c_str())), units) << length;
  }
}

TEST_F(Prsrvut, HoldsNoLocalReferenceBesideAString) {
  const std::string text(100000, 'x');
  ReplacedFunctions functions(env_);
  static int arrays = 0;
  functions.table().NewByteArray = [](JNIEnv* e, jsize size) {
    ++arrays;
    ReplacedFunctions::count();
    return ReplacedFunctions::original().NewByteArray(e, size);
  };
  functions.table().DeleteLocalRef = [](JNIEnv* e, jobject object) {
    ReplacedFunctions::count(-1);
    ReplacedFunctions::original().DeleteLocalRef(e, object);
  };
  EXPECT_NE(prsrvut_NewStringUTF(env_, text.c_str()), nullptr);
  EXPECT_EQ(arrays, 1);
  EXPECT_EQ(functions.calls, 0) << "the array is released";
}

TEST_F(Prsrvut, MakesLongStringsWhereThereIsNoCharsetToAskFor) {
  const std::string text(100000, 'x');
  {
    ReplacedFunctions functions(env_);
    functions.table().GetStaticObjectField = [](JNIEnv* env, jclass owner, jfieldID field) {
      const bool is_charset = env->IsSameObject(owner, env->FindClass("java/nio/charset/StandardCharsets")) == JNI_TRUE;
      return is_charset ? nullptr : ReplacedFunctions::original().GetStaticObjectField(env, owner, field);
    };
    EXPECT_EQ(JNI_OnLoad(JavaVm::instance().vm(), nullptr), JNI_VERSION_1_8);
  }
  EXPECT_EQ(units_of(prsrvut_NewStringUTF(env_, text.c_str())), std::u16string(text.begin(), text.end()));
}

TEST_F(Prsrvut, GivesBackEveryCharacterThatTheJvmWrites) {
  std::u16string all;
  for (std::uint32_t unit = 1; unit < 0x10000; ++unit) all.push_back(static_cast<char16_t>(unit));
  all += u"\U0001F600\U0010FFFF";
  jstring before = managed(all);
  const char* characters = env_->GetStringUTFChars(before, nullptr);
  EXPECT_EQ(units_of(prsrvut_NewStringUTF(env_, characters)), all);
  env_->ReleaseStringUTFChars(before, characters);
}

TEST_F(Prsrvut, MakesAStringOfUnits) {
  const jchar units[] = {'a', 0, 0xD83D, 0x3042};
  EXPECT_EQ(units_of(prsrvut_NewString(env_, units, 4)), u"a\0\xD83D\u3042"s);
  EXPECT_EQ(units_of(prsrvut_NewString(env_, units, 0)), u"");
  EXPECT_EQ(prsrvut_NewString(env_, units, -1), nullptr);
  EXPECT_EQ(prsrvut_NewString(env_, nullptr, 0), nullptr);
}

TEST_F(Prsrvut, FindsClasses) {
  for (int round = 0; round < 2; ++round) {
    jclass found = prsrvut_FindClass(env_, "java/lang/String");
    EXPECT_TRUE(env_->IsSameObject(found, class_of("java/lang/String")));
    EXPECT_EQ(env_->GetObjectRefType(found), JNILocalRefType);
  }
  EXPECT_TRUE(env_->IsSameObject(prsrvut_FindClass(env_, "results/Other"), class_of("results/Other")));
  EXPECT_EQ(prsrvut_FindClass(env_, nullptr), nullptr);
  EXPECT_EQ(prsrvut_FindClass(env_, "no/such/Class"), nullptr);
  EXPECT_THAT(take_exception(), HasSubstr("NoClassDefFoundError"));
}

TEST_F(Prsrvut, MakesAnArrayWithRoomForAReferenceAnElement) {
  jclass string_class = class_of("java/lang/String");
  jobjectArray array = nullptr;
  {
    ReplacedFunctions functions(env_);
    functions.table().EnsureLocalCapacity = [](JNIEnv* env, jint capacity) {
      ReplacedFunctions::count(capacity);
      return ReplacedFunctions::original().EnsureLocalCapacity(env, capacity);
    };
    array = prsrvut_NewObjectArray(env_, 3000, string_class, nullptr);
    EXPECT_GE(functions.calls, 3000);
  }
  ASSERT_NE(array, nullptr);
  for (jsize index = 0; index < 3000; ++index) {
    env_->SetObjectArrayElement(array, index, prsrvut_NewStringUTF(env_, "element"));
    ASSERT_FALSE(env_->ExceptionCheck());
  }
  EXPECT_EQ(env_->GetArrayLength(prsrvut_NewObjectArray(env_, 0, string_class, nullptr)), 0);
  EXPECT_EQ(env_->GetArrayLength(prsrvut_NewObjectArray(env_, 200000, string_class, nullptr)), 200000);
  jobjectArray filled = prsrvut_NewObjectArray(env_, 2, string_class, managed(u"a"));
  EXPECT_EQ(units_of(static_cast<jstring>(env_->GetObjectArrayElement(filled, 1))), u"a");
}

TEST_F(Prsrvut, MakesNoArrayOfWhatCannotBeOne) {
  jclass string_class = class_of("java/lang/String");
  EXPECT_EQ(prsrvut_NewObjectArray(env_, -1, string_class, nullptr), nullptr);
  EXPECT_EQ(prsrvut_NewObjectArray(env_, 1, nullptr, nullptr), nullptr);
  EXPECT_EQ(prsrvut_NewObjectArray(env_, 1, string_class, make("java/lang/Object")), nullptr);
  EXPECT_EQ(take_exception(), "none");
  EXPECT_EQ(prsrvut_NewObjectArray(env_, INT32_MAX, string_class, nullptr), nullptr);
  EXPECT_THAT(take_exception(), HasSubstr("OutOfMemoryError"));
}

class NativeString : public Prsrvut {
 protected:
  NativeString() {
    const char* value = std::getenv("TKV_CHARSET");
    if (value != nullptr) before_ = value;
  }
  ~NativeString() override {
    if (before_.empty()) {
      unsetenv("TKV_CHARSET");
    } else {
      setenv("TKV_CHARSET", before_.c_str(), 1);
    }
  }

  // Converts into a buffer of exactly `capacity` bytes.
  int convert(const char* charset, const std::u16string& text, int capacity) {
    setenv("TKV_CHARSET", charset, 1);
    const auto room = static_cast<std::size_t>(capacity < 0 ? 0 : capacity);
    const auto buffer = std::make_unique<char[]>(room);
    std::memset(buffer.get(), 'x', room);
    size_ = capacity;
    jstring string = managed(text);
    const int outcome = prsrvut_getNativeString(env_, string, buffer.get(), &size_);
    env_->DeleteLocalRef(string);
    bytes_ = room == 0 ? "" : std::string(buffer.get(), strnlen(buffer.get(), room));
    EXPECT_TRUE(room == 0 || bytes_.size() < room) << "no NUL";
    return outcome;
  }

  int size_ = 0;
  std::string bytes_;

 private:
  std::string before_;
};

TEST_F(NativeString, ConvertsToTheCharacterSetOfTheProcess) {
  const struct {
    const char* charset;
    std::u16string text;
    std::string bytes;
  } kRows[] = {
      {"UTF-8", u"", ""},
      {"UTF-8", u"a\u00E4\u3042\U0001F600", "a\xC3\xA4\xE3\x81\x82\xF0\x9F\x98\x80"},
      {"US-ASCII", u"abc", "abc"},
      {"ISO-8859-1", u"a\u00E4", "a\xE4"},
      {"EUC-JP", u"a\u3042", "a\xA4\xA2"},
      {"SHIFT_JIS", u"\u3042", "\x82\xA0"},
      {"ISO-2022-JP", u"a\u3042", "a\x1B$B$\"\x1B(B"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(convert(row.charset, row.text, 64), 0) << row.charset;
    EXPECT_EQ(bytes_, row.bytes) << row.charset;
    EXPECT_EQ(size_, static_cast<int>(row.bytes.size()) + 1) << row.charset;
  }
}

TEST_F(NativeString, CountsTheNulInTheLength) {
  for (const int length : {62, 63}) {
    EXPECT_EQ(convert("UTF-8", std::u16string(static_cast<std::size_t>(length), u'n'), 64), 0);
    EXPECT_EQ(size_, length + 1);
    EXPECT_EQ(bytes_.size(), static_cast<std::size_t>(length));
  }
  for (const int length : {64, 65, 1000}) {
    EXPECT_EQ(convert("UTF-8", std::u16string(static_cast<std::size_t>(length), u'n'), 64), 1);
    EXPECT_EQ(size_, length + 1);
    EXPECT_EQ(bytes_, std::string(63, 'n'));
  }
}

TEST_F(NativeString, CutsAfterTheLastWholeCharacterThatFits) {
  const struct {
    const char* charset;
    std::u16string text;
    std::vector<std::string> characters;  // what each character adds to the whole
    std::string ending;                   // what every text ends with that has left the initial state
  } kRows[] = {
      {"UTF-8", u"a\u00E4\u3042\U0001F600z", {"a", "\xC3\xA4", "\xE3\x81\x82", "\xF0\x9F\x98\x80", "z"}, ""},
      {"US-ASCII", u"abc", {"a", "b", "c"}, ""},
      {"ISO-8859-1", u"\u00E4\u00E5", {"\xE4", "\xE5"}, ""},
      {"EUC-JP", u"a\u3042\u4E02z", {"a", "\xA4\xA2", "\x8F\xB0\xA1", "z"}, ""},
      {"SHIFT_JIS", u"\u3042\uFF71", {"\x82\xA0", "\xB1"}, ""},
      {"GB18030", u"\U0001F600a", {"\x94\x39\xFC\x36", "a"}, ""},
      {"ISO-2022-JP", u"\u3042\u3044", {"\x1B$B$\"", "$$"}, "\x1B(B"},
  };
  for (const auto& row : kRows) {
    std::string whole;
    for (const std::string& character : row.characters) whole += character;
    whole += row.ending;
    for (int capacity = 1; capacity <= static_cast<int>(whole.size()) + 2; ++capacity) {
      std::string expected;
      std::string so_far;
      for (const std::string& character : row.characters) {
        so_far += character;
        const std::string ended = so_far + row.ending;
        if (ended.size() < static_cast<std::size_t>(capacity)) expected = ended;
      }
      EXPECT_EQ(convert(row.charset, row.text, capacity), expected == whole ? 0 : 1) << row.charset << " " << capacity;
      EXPECT_EQ(bytes_, expected) << row.charset << " " << capacity;
      EXPECT_EQ(size_, static_cast<int>(whole.size()) + 1) << row.charset << " " << capacity;
    }
  }
}

TEST_F(NativeString, OnlyMeasuresWhenThereIsNoRoom) {
  for (const int capacity : {0, -1, INT32_MIN}) {
    EXPECT_EQ(convert("UTF-8", u"\u00E4", capacity), 1);
    EXPECT_EQ(size_, 3);
  }
}

TEST_F(NativeString, RefusesWhatTheCharacterSetDoesNotHave) {
  const std::pair<const char*, std::u16string> kRows[] = {
      {"US-ASCII", u"a\u00E4"},   {"ISO-8859-1", u"\u3042"}, {"EUC-JP", u"a\U0001F600"}, {"UTF-8", u"a\xD83D"},
      {"UTF-8", u"\xDE00\xD83D"}, {"UTF-8", u"root\0x"s},    {"EUC-JP", u"\0"s},         {"no-such-set", u"a"},
  };
  for (const auto& [charset, text] : kRows) {
    EXPECT_LT(convert(charset, text, 64), 0) << charset;
    EXPECT_EQ(bytes_, "") << charset;
    EXPECT_EQ(size_, 64) << charset;
  }
  EXPECT_EQ(convert("EUC-JP", u"\u3042", 64), 0) << "what went before is forgotten";
  EXPECT_EQ(bytes_, "\xA4\xA2");
}

TEST_F(NativeString, ConvertsLongTexts) {
  const std::u16string text(100000, u'\u3042');
  EXPECT_EQ(convert("EUC-JP", text, 64), 1);
  EXPECT_EQ(size_, 200001);
  EXPECT_EQ(bytes_.size(), 62U);
  EXPECT_EQ(convert("EUC-JP", text, 200001), 0);
  EXPECT_EQ(bytes_.size(), 200000U);
}

TEST_F(NativeString, LeavesTheSizeWithoutMemory) {
  jstring name = managed(std::u16string(1000, u'a'));
  char buffer[64] = "before";
  int size = sizeof(buffer);
  tkv::test::allocations_left = 0;
  const int outcome = prsrvut_getNativeString(env_, name, buffer, &size);
  tkv::test::allocations_left = tkv::test::kEndless;
  EXPECT_LT(outcome, 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(size, 64);
}

TEST_F(NativeString, RefusesNullArguments) {
  char buffer[8] = "before";
  int size = 8;
  EXPECT_LT(prsrvut_getNativeString(env_, nullptr, buffer, &size), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_LT(prsrvut_getNativeString(env_, managed(u"a"), nullptr, &size), 0);
  EXPECT_LT(prsrvut_getNativeString(env_, managed(u"a"), buffer, nullptr), 0);
  EXPECT_EQ(size, 8);
}

TEST_F(Prsrvut, ServesThreadsAtOnce) {
  set_tracing(1);
  jobject shared = env_->NewGlobalRef(make_of_a_new_class());
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([shared] {
      JavaVM* vm = JavaVm::instance().vm();
      void* attached = nullptr;
      ASSERT_EQ(vm->AttachCurrentThread(&attached, nullptr), JNI_OK);
      auto* env = static_cast<JNIEnv*>(attached);
      for (int round = 0; round < 500; ++round) {
        char buffer[16];
        int size = sizeof(buffer);
        jstring text = prsrvut_NewStringUTF(env, "text");
        ASSERT_EQ(prsrvut_getNativeString(env, text, buffer, &size), 0);
        ASSERT_STREQ(buffer, "text");
        env->DeleteLocalRef(text);
        jvalue argument{};
        ASSERT_EQ(prsrvut_callMethod(env, shared, "none", "(I)V", &argument), -1);
        ASSERT_EQ(env->ExceptionCheck(), JNI_FALSE);
      }
      vm->DetachCurrentThread();
    });
  }
  for (std::thread& thread : threads) thread.join();
  env_->DeleteGlobalRef(shared);
}

TEST_F(Prsrvut, ChecksSeeWhatIsWrong) {
  // The other tests rely on the JVM's warnings; this one makes sure that there are any.
  jclass type = class_of("results/Recorder");
  jobject result = make("results/Recorder");
  jmethodID method = env_->GetMethodID(type, "setStatus", "(Z)V");
  env_->CallVoidMethod(result, method, JNI_TRUE);
  env_->CallVoidMethod(result, method, JNI_TRUE);
  EXPECT_THAT(JavaVm::take_output(), HasSubstr("WARNING"));
}

}  // namespace
