/* lx: the session's character set and its conversion to UTF-16.
 *
 * Conventions
 *   Areas.    The caller provides the storage of a handle (LX_HANDLE_SIZE bytes) and of a language environment
 *             (LX_LANG_ENV_SIZE bytes), aligned for a pointer, and keeps both until lxlterm.
 *   Charset.  The session's character set is that of the process's locale. It is named by TKV_CHARSET if that is set;
 *             otherwise the first of LC_ALL, LC_CTYPE and LANG that is set and not empty names the locale.
 *             The global locale is neither read nor changed. "C", "POSIX" and no name at all mean UTF-8. A locale that
 *             is named without a character set has the one that the system assigns to it; if the system has no such
 *             locale, "@euro" means ISO-8859-15 and any other UTF-8. Sets whose texts contain zero bytes, such as
 *             UTF-16, cannot be used. UTF-8 includes modified UTF-8: surrogates of three bytes each, in pairs or alone,
 *             and the two-byte NUL.
 *   Threads.  One thread at a time may use a handle.
 */
#ifndef TKV_PLATFORM_LX_H
#define TKV_PLATFORM_LX_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum { LX_HANDLE_SIZE = 128, LX_LANG_ENV_SIZE = 568 };

/* Flags of a language environment. */
enum {
  LX_LANG_ENV_MULTIBYTE = 0x4000000 /* a character may take several bytes: measure texts with lxsulen */
};

typedef struct lx_lang_env {
  char name[56];  /* the character set's name, NUL-terminated */
  uint32_t flags; /* or-ed LX_LANG_ENV_ flags */
  char reserved[508];
} lx_lang_env;

static_assert(sizeof(lx_lang_env) == LX_LANG_ENV_SIZE, "a language environment is 568 bytes");
static_assert(offsetof(lx_lang_env, flags) == 56, "the flags word is at byte 56");

/* Starts the services. `parameters` must be null and `version` 1. Returns null on failure, with the reason in `*error`:
 * 1 for a wrong argument, 2 for a character set that the system does not have. */
void *lxlinit(void *parameters, int32_t version, uint32_t *error);

/* Initialises a handle in `handle_area` and returns it. `global` is the result of lxlinit; the numbers must be 0.
 * Returns null if either pointer is null or `global` is not such a result. */
void *lxinitc(void *handle_area, void *global, int32_t reserved1, int32_t reserved2);

/* Fills in the language environment of a handle and returns it. Returns null if `handle` is not a handle. */
void *lxhLangEnv(void *lang_env_area, int32_t reserved, void *handle);

/* Returns the id of the environment's character set, which is positive as a signed word too; 0 if there is none. */
uint16_t lxhcsn(void *lang_env, void *handle);

/* Ends a handle and releases its resources. Has no effect on null or on a handle that has ended. */
void lxlterm(void *handle);

/* Returns the character set of an id, valid until the handle ends; null for an unknown id. */
void *lxhci2h(int32_t charset_id, void *handle);

/* Returns the length of a NUL-terminated text in bytes. */
uint32_t lxsulen(const char *text);

/* Converts `length` bytes of `from` to UTF-16 and returns the number of code units written, at most `capacity`, and
 * never half of a surrogate pair. If `to` is null, returns the number required. Returns 0 for an empty text, and -1 for
 * bytes that are not in the character set, for a text that ends within a character, and for invalid arguments. Texts do
 * not depend on earlier ones. `flags` must be 0. */
int32_t lxgt2u(uint16_t *to, uint32_t capacity, const char *from, void *charset, uint32_t length, uint32_t flags,
               void *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
