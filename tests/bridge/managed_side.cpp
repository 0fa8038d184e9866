#include "managed_side.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "recording.h"

namespace bridge_test {

namespace {

void record(const std::string& function, JNIEnv* env, std::vector<std::string> arguments) {
  if (env != ManagedSide::instance().environment()) arguments.insert(arguments.begin(), "wrong environment");
  Recording::instance().record(line(function, arguments));
}

const char* JNICALL getStringUTFChars(JNIEnv* env, jstring string, jboolean* is_copy) {
  auto& managed = ManagedSide::instance();
  std::vector<std::string> arguments{managed.describeString(string)};
  if (is_copy != nullptr) arguments.emplace_back("is-copy");
  record("GetStringUTFChars", env, arguments);
  return managed.takeCharacters(string);
}

void JNICALL releaseStringUTFChars(JNIEnv* env, jstring string, const char* characters) {
  auto& managed = ManagedSide::instance();
  record("ReleaseStringUTFChars", env, {managed.describeString(string)});
  managed.releaseCharacters(string, characters);
}

void JNICALL deleteLocalRef(JNIEnv* env, jobject object) {
  auto& managed = ManagedSide::instance();
  record("DeleteLocalRef", env, {managed.describe(object)});
  if (auto* found = managed.find(object)) found->deleted = true;
}

Object* arrayOf(const char* function, jobject array) {
  Object* found = ManagedSide::instance().find(array);
  if (found != nullptr && found->kind == Object::Kind::kArray) return found;
  Recording::instance().violation(std::string(function) + " on what is no array");
  return nullptr;
}

jsize JNICALL getArrayLength(JNIEnv* env, jarray array) {
  record("GetArrayLength", env, {ManagedSide::instance().describe(array)});
  const Object* found = arrayOf("GetArrayLength", array);
  return found == nullptr ? 0 : static_cast<jsize>(found->elements.size());
}

jobject JNICALL getObjectArrayElement(JNIEnv* env, jobjectArray array, jsize index) {
  record("GetObjectArrayElement", env, {ManagedSide::instance().describe(array), number(index)});
  const Object* found = arrayOf("GetObjectArrayElement", array);
  if (found == nullptr) return nullptr;
  if (index < 0 || static_cast<size_t>(index) >= found->elements.size()) {
    ManagedSide::instance().exception_pending = true;
    return nullptr;
  }
  return reinterpret_cast<jobject>(found->elements[static_cast<size_t>(index)]);
}

void JNICALL setObjectArrayElement(JNIEnv* env, jobjectArray array, jsize index, jobject element) {
  auto& managed = ManagedSide::instance();
  record("SetObjectArrayElement", env, {managed.describe(array), number(index), managed.describe(element)});
  Object* found = arrayOf("SetObjectArrayElement", array);
  if (found == nullptr) return;
  if (index < 0 || static_cast<size_t>(index) >= found->elements.size()) {
    managed.exception_pending = true;
    return;
  }
  found->elements[static_cast<size_t>(index)] = managed.find(element);
}

template <size_t kSlot>
void unexpectedFunction() {
  std::fprintf(stderr, "The bridge called the JNI function %zu of the table, which it has no business to call.\n",
               kSlot);
  std::abort();
}

constexpr size_t kSlots = sizeof(JNINativeInterface_) / sizeof(void*);

template <size_t... kSlot>
void fill(void** slots, std::index_sequence<kSlot...> /*all*/) {
  ((slots[kSlot] = reinterpret_cast<void*>(&unexpectedFunction<kSlot>)), ...);
}

JNIEnv_ makeEnvironment() {
  static JNINativeInterface_ functions;
  void* slots[kSlots];
  fill(slots, std::make_index_sequence<kSlots>());
  std::memcpy(&functions, slots, sizeof functions);
  functions.GetStringUTFChars = getStringUTFChars;
  functions.ReleaseStringUTFChars = releaseStringUTFChars;
  functions.DeleteLocalRef = deleteLocalRef;
  functions.GetArrayLength = getArrayLength;
  functions.GetObjectArrayElement = getObjectArrayElement;
  functions.SetObjectArrayElement = setObjectArrayElement;
  JNIEnv_ environment;
  environment.functions = &functions;
  return environment;
}

}  // namespace

ManagedSide& ManagedSide::instance() {
  static ManagedSide managed;
  return managed;
}

void ManagedSide::reset() {
  forgetCharactersTaken();
  for (auto& taken : forgotten_) std::free(taken.characters);
  forgotten_.clear();
  objects_.clear();
  known_.clear();
  exception_pending = false;
}

JNIEnv* ManagedSide::environment() {
  static JNIEnv_ environment = makeEnvironment();
  return &environment;
}

Object& ManagedSide::add(Object object) {
  objects_.push_back(std::move(object));
  known_.insert(&objects_.back());
  return objects_.back();
}

jstring ManagedSide::string(std::string text) {
  return reinterpret_cast<jstring>(&add({Object::Kind::kString, std::move(text)}));
}

jstring ManagedSide::unobtainable(std::string text) {
  Object& object = add({Object::Kind::kString, std::move(text)});
  object.obtainable = false;
  return reinterpret_cast<jstring>(&object);
}

jstring ManagedSide::stringOfUnits(const jchar* units, jsize count) {
  std::string text;
  for (jsize i = 0; i < count; ++i) {
    if (units[i] < 0x80) {
      text += static_cast<char>(units[i]);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "<%04x>", static_cast<unsigned>(units[i]));
      text += escaped;
    }
  }
  return string(text);
}

jobjectArray ManagedSide::array(std::vector<jstring> elements) {
  Object& object = add({Object::Kind::kArray, ""});
  for (jstring element : elements) object.elements.push_back(find(element));
  return reinterpret_cast<jobjectArray>(&object);
}

jobjectArray ManagedSide::emptyArray(size_t length) { return array(std::vector<jstring>(length, nullptr)); }

jclass ManagedSide::classNamed(std::string name) {
  return reinterpret_cast<jclass>(&add({Object::Kind::kClass, std::move(name)}));
}

const char* ManagedSide::takeCharacters(jstring string) {
  Object* found = find(string);
  if (found == nullptr) {
    Recording::instance().violation("GetStringUTFChars on null or an unknown string");
    return nullptr;
  }
  if (!found->obtainable) return nullptr;
  char* characters = strdup(found->text.c_str());
  taken_.push_back({found, characters});
  return characters;
}

void ManagedSide::releaseCharacters(jstring string, const char* characters) {
  const Object* found = find(string);
  const auto taken = std::find_if(taken_.begin(), taken_.end(), [&](const Taken& each) {
    return each.string == found && each.characters == characters;
  });
  if (taken == taken_.end()) {
    Recording::instance().violation("ReleaseStringUTFChars of characters that were not taken from this string");
    return;
  }
  // What is used after its release shows, with and without a sanitizer.
  std::memset(taken->characters, '#', std::strlen(taken->characters));
  std::free(taken->characters);
  taken_.erase(taken);
}

std::vector<std::string> ManagedSide::charactersTaken() const {
  std::vector<std::string> texts;
  for (const auto& taken : taken_) texts.push_back(taken.string->text);
  return texts;
}

void ManagedSide::forgetCharactersTaken() {
  forgotten_.insert(forgotten_.end(), taken_.begin(), taken_.end());
  taken_.clear();
}

Object* ManagedSide::find(jobject object) {
  return const_cast<Object*>(static_cast<const ManagedSide*>(this)->find(object));
}

const Object* ManagedSide::find(jobject object) const {
  return known_.count(object) == 0 ? nullptr : reinterpret_cast<const Object*>(object);
}

std::string ManagedSide::describe(jobject object) const {
  if (object == nullptr) return "null";
  if (object == reinterpret_cast<const void*>(&self_)) return "self";
  if (object == reinterpret_cast<const void*>(&result_)) return "result";
  const Object* found = find(object);
  if (found == nullptr) return "unknown object";
  const std::string deleted = found->deleted ? "deleted " : "";
  switch (found->kind) {
    case Object::Kind::kString:
      return deleted + "string " + quote(found->text);
    case Object::Kind::kArray:
      return deleted + "array";
    default:
      return deleted + found->text;
  }
}

std::string ManagedSide::describeString(jstring string) const {
  const Object* found = find(string);
  if (found == nullptr || found->deleted || found->kind != Object::Kind::kString) return describe(string);
  return quote(found->text);
}

std::vector<std::string> ManagedSide::texts(jobjectArray array) const {
  std::vector<std::string> texts;
  const Object* found = find(array);
  if (found == nullptr) return {"no array"};
  for (const Object* element : found->elements) texts.push_back(element == nullptr ? "null" : element->text);
  return texts;
}

std::string ManagedSide::text(jstring string) const {
  const Object* found = find(string);
  return found == nullptr ? "null" : found->text;
}

}  // namespace bridge_test
