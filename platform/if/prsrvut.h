/* prsrvut: the bridge's access to the managed side.
 *
 * Conventions
 *   Result object. Any object with the methods setStatus(boolean), setBooleanResult(boolean), setTKVErrCode(int),
 *                  setTKVResultString(String) and trace(String), inherited ones included. A method that its class does
 *                  not have is not called. On a null result object, nothing is called and no error is reported.
 *   Exceptions.    Every function can be called with a Java exception pending: it sets the exception aside, does its
 *                  work and raises it again. An exception that a called method throws, or that a failed allocation
 *                  raises, stays pending unless an earlier one was pending already. In a native method that Java calls
 *                  in the embedded library, all of this is deferred: no function leaves an exception pending, and the
 *                  first exception is raised when the method returns.
 *   References.    Strings, arrays and classes are returned as new local references, null on failure.
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

/* Calls a void instance method with one argument. Returns 0, even if the method throws; -1 if an argument is null, the
 * signature is not that of a void method with one argument, or the object has no such method. */
int prsrvut_callMethod(JNIEnv *env, jobject result, const char *name, const char *signature, jvalue *args);

/* Writes one trace line, printf-style, if tracing is on; costs one atomic load if it is off. Line ends in the text are
 * kept; a null text appears as "(null)", an ill-formed byte as U+FFFD. */
void prsrvut_trace(JNIEnv *env, jobject result, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/* Returns non-zero if tracing is on. */
int prsrvut_isDebugOn(JNIEnv *env, jobject result);

/* Creates a string from NUL-terminated UTF-8 or modified UTF-8. An ill-formed byte becomes U+FFFD. Returns null for
 * null. */
jstring prsrvut_NewStringUTF(JNIEnv *env, const char *text);

/* Creates a string from `count` UTF-16 code units. Returns null for null or a negative count. */
jstring prsrvut_NewString(JNIEnv *env, const jchar *units, jsize count);

/* Finds a class as FindClass does; if there is none, the exception stays pending. Returns null for null. */
jclass prsrvut_FindClass(JNIEnv *env, const char *name);

/* Creates an array, and makes room for as many local references as it has elements. Returns null for a negative length,
 * a null element class, or an initial element of another class. */
jobjectArray prsrvut_NewObjectArray(JNIEnv *env, jsize length, jclass element, jobject initial);

/* Converts a string to the native character set, which is that of the process's locale as lx.h describes it. On entry,
 * `*size` is the size of the buffer; on return, the length of the whole text, including its NUL. A text that does not
 * fit is truncated after the last whole character that does. The buffer is always NUL-terminated, unless its size is 0
 * or less, which only asks for the length. Returns 0, or 1 if the text was truncated. Returns a negative value, leaving
 * an empty text and `*size` unchanged, if an argument is null or a character cannot be converted: the set does not have
 * it, it is a NUL, which would end the text, or the system does not have the set. */
int prsrvut_getNativeString(JNIEnv *env, jstring text, char *buffer, int *size);

#ifdef __cplusplus
}
#endif

#endif
