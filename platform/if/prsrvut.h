/* prsrvut: what the bridge needs of the managed side.
 *
 * Conventions
 *   Result object. Any object with the methods setStatus(boolean), setBooleanResult(boolean), setTKVErrCode(int),
 *                  setTKVResultString(String) and trace(String); also one of a subclass. A method that its class does
 *                  not have is not called. A null result object takes nothing and reports nothing.
 *   Exceptions.    Every function works with a Java exception pending: it sets it aside, does its work and raises it
 *                  again. An exception that a called method throws, or that a failed allocation raises, stays pending
 *                  when none was before; otherwise the earlier one stands.
 *   References.    Strings, arrays and classes are given back as new local references, null on failure.
 *   Threads.       Any attached thread may call, each with its own JNIEnv.
 */
#ifndef TKV_PLATFORM_PRSRVUT_H
#define TKV_PLATFORM_PRSRVUT_H

#include <jni.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the status: 0 is false, anything else true. */
void prsrvut_setStatus(JNIEnv *env, jobject result, int status);

/* Sets the boolean answer: 0 is false, anything else true. */
void prsrvut_setBooleanResult(JNIEnv *env, jobject result, int value);

/* Calls a void instance method with one argument. Returns 0, also when the method throws; -1 when an argument is null,
 * the signature is not one of a void method with one argument, or the object has no such method. */
int prsrvut_callMethod(JNIEnv *env, jobject result, const char *name, const char *signature, jvalue *args);

/* Writes one trace line, printf-style, when tracing is on; costs one atomic load when it is off. A line end that the
 * text has is kept, a null text shows as "(null)", an ill-formed byte as U+FFFD. */
void prsrvut_trace(JNIEnv *env, jobject result, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/* Non-zero when tracing is on. */
int prsrvut_isDebugOn(JNIEnv *env, jobject result);

/* Makes a string of NUL-terminated bytes: modified UTF-8 and UTF-8 are both understood, an ill-formed byte becomes
 * U+FFFD. Null for null. */
jstring prsrvut_NewStringUTF(JNIEnv *env, const char *text);

/* Makes a string of `count` UTF-16 code units. Null for null or a negative count. */
jstring prsrvut_NewString(JNIEnv *env, const jchar *units, jsize count);

/* Finds a class as FindClass does; the error that tells why there is none stays pending. Null for null. */
jclass prsrvut_FindClass(JNIEnv *env, const char *name);

/* Makes an array, and room for as many local references as it has elements. Null for a negative length, a null element
 * class, or an initial element of another class. */
jobjectArray prsrvut_NewObjectArray(JNIEnv *env, jsize length, jclass element, jobject initial);

/* Converts a string to the native character set, that of the process's locale as lx.h describes it. `*size` is the
 * buffer's size going in; coming out it is the length of the whole text with its NUL counted. A text that does not fit
 * is cut after its last whole character that does; the buffer is always NUL-terminated, unless its size is 0 or less,
 * which only asks for the length. Returns 0, or 1 when the text was cut. Returns a negative value, and leaves an empty
 * text and `*size` as it was, when an argument is null or a character cannot be converted: one that the set does not
 * have, a NUL, which would end the text, or any when the system does not have the set. */
int prsrvut_getNativeString(JNIEnv *env, jstring text, char *buffer, int *size);

#ifdef __cplusplus
}
#endif

#endif
