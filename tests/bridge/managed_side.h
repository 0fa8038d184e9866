/* A managed side without a JVM: strings, arrays and classes as plain objects, and a JNIEnv that has only the functions
 * that the bridge may call. Every other function ends the program and names its place in the table.
 */
#ifndef TKV_TESTS_BRIDGE_MANAGED_SIDE_H
#define TKV_TESTS_BRIDGE_MANAGED_SIDE_H

#include <jni.h>

#include <deque>
#include <string>
#include <unordered_set>
#include <vector>

namespace bridge_test {

/* One managed object. */
struct Object {
  enum class Kind { kString, kArray, kClass, kPlain };
  Kind kind;
  std::string text;                /* a string's modified UTF-8, a class's name, a plain object's name */
  bool obtainable = true;          /* whether a string's characters can be had */
  std::vector<Object*> elements{}; /* an array's */
  bool deleted = false;            /* whether the local reference was deleted */
};

class ManagedSide {
 public:
  static ManagedSide& instance();

  void reset();

  JNIEnv* environment();
  jobject self() { return reinterpret_cast<jobject>(&self_); }
  jobject result() { return reinterpret_cast<jobject>(&result_); }

  jstring string(std::string text);
  /* A string whose characters cannot be had. */
  jstring unobtainable(std::string text);
  jstring stringOfUnits(const jchar* units, jsize count);
  jobjectArray array(std::vector<jstring> elements);
  jobjectArray emptyArray(size_t length);
  jclass classNamed(std::string name);

  const char* takeCharacters(jstring string);
  void releaseCharacters(jstring string, const char* characters);
  /* The strings whose characters were taken and not given back, in the order in which they were taken. */
  std::vector<std::string> charactersTaken() const;
  /* Counts what is taken by now as given back; it stays readable. */
  void forgetCharactersTaken();

  /* A string quoted, with "string" before it; null for null. */
  std::string describe(jobject object) const;
  /* As describe, without "string". */
  std::string describeString(jstring string) const;
  Object* find(jobject object);
  const Object* find(jobject object) const;

  /* The texts of an array, "null" for a null. */
  std::vector<std::string> texts(jobjectArray array) const;
  std::string text(jstring string) const;

  bool exception_pending = false;

 private:
  struct Taken {
    Object* string;
    char* characters;
  };
  Object& add(Object object);

  std::deque<Object> objects_;
  std::unordered_set<const void*> known_;
  std::vector<Taken> taken_;
  std::vector<Taken> forgotten_;
  Object self_{Object::Kind::kPlain, "self"};
  Object result_{Object::Kind::kPlain, "result"};
};

}  // namespace bridge_test

#endif
