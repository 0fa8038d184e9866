/* lx: the session's character set and its conversion to UTF-16.
 *
 * Conventions
 *   Areas.    The caller provides the storage of a handle (LX_HANDLE_SIZE bytes) and of a language environment
 *             (LX_LANG_ENV_SIZE bytes), aligned for a pointer, and keeps both until lxlterm.
 *   Charset.  The session's character set is the one of the process's locale: TKV_CHARSET names it, else LC_ALL,
 *             LC_CTYPE or LANG, the first that is set and not empty, names the locale; the process's global locale is
 *             neither read nor changed. "C", "POSIX" and no name at all mean UTF-8. A locale named without a character
 *             set has the one that the system gives it; where the system has no such locale, "@euro" means
 *             ISO-8859-15 and others UTF-8. Sets whose texts have zero bytes within (UTF-16) cannot be used. UTF-8
 *             also understands what modified UTF-8 writes differently: surrogates of three bytes each, as pairs or
 *             alone, and the two-byte NUL.
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
  LX_LANG_ENV_MULTIBYTE = 0x4000000 /* characters may take more than one byte: measure texts with lxsulen */
};

typedef struct lx_lang_env {
  char name[56];  /* the character set's name, NUL-terminated */
  uint32_t flags; /* or-ed LX_LANG_ENV_ flags */
  char reserved[508];
} lx_lang_env;

static_assert(sizeof(lx_lang_env) == LX_LANG_ENV_SIZE, "a language environment is 568 bytes");
static_assert(offsetof(lx_lang_env, flags) == 56, "the flags word is at byte 56");

/* Starts the services; `parameters` is null, `version` 1. Null on failure, with the reason in `*error`: 1 for a wrong
 * argument, 2 for a character set that the system does not have. */
void *lxlinit(void *parameters, int32_t version, uint32_t *error);

/* Initialises a handle in `handle_area` and gives it back. `global` is lxlinit's result, the numbers are 0. Null when
 * one of the two is null or `global` is no such result. */
void *lxinitc(void *handle_area, void *global, int32_t reserved1, int32_t reserved2);

/* Fills the language environment of a handle and gives it back. Null when the handle is none. */
void *lxhLangEnv(void *lang_env_area, int32_t reserved, void *handle);

/* Gives the id of the environment's character set, above 0 as a signed word too; 0 when there is none. */
uint16_t lxhcsn(void *lang_env, void *handle);

/* Ends a handle and gives back what it holds. Null, and a handle already ended, are ignored. */
void lxlterm(void *handle);

/* Gives the character set of an id, for as long as the handle lives. Null for an unknown id. */
void *lxhci2h(int32_t charset_id, void *handle);

/* Gives the length of a NUL-terminated text in bytes. */
uint32_t lxsulen(const char *text);

/* Converts `length` bytes of `from` to UTF-16 and gives the number of code units written, at most `capacity`; never
 * half of a surrogate pair. With a null destination, gives the number needed. 0 for an empty text, -1 for bytes that
 * the character set does not have, for a text that ends within a character, and for an argument that cannot be used.
 * Each text stands for itself: none depends on the one before. `flags` is 0. */
int32_t lxgt2u(uint16_t *to, uint32_t capacity, const char *from, void *charset, uint32_t length, uint32_t flags,
               void *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
