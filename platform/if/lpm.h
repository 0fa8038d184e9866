/* lpm: the program manager, whose contexts own memory.
 *
 * Conventions
 *   Contexts. 64-bit handles, never addresses; 0 is the null handle. A null or unknown context owns nothing:
 *             allocation gives null, freeing does nothing.
 *   Memory.   Blocks come zero-filled and aligned for any type. A freed block is zero-filled at once (values may be
 *             secrets), and its addresses stay readable until its context ends. It is handed out again for a later
 *             block of about its size, so that a context stays as large as what was in use at once; one of up to 4096
 *             bytes only after eight others of about its size have been freed, so that a late read of a freed session
 *             record sees zeros. Freeing null, a foreign pointer, or a block twice does nothing.
 *   Threads.  Any thread may call.
 */
#ifndef TKV_PLATFORM_LPM_H
#define TKV_PLATFORM_LPM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint64_t lpm_ctx;

/* Gives the process's context, the same one each time; it never ends. `parameters` is null. 0 when out of memory. */
lpm_ctx lpminit(void *parameters);

/* Opens a short-lived context. 0 when out of memory. */
lpm_ctx lpmprinit(void);

/* Ends a short-lived context and releases its memory. The process's context is left alone. */
void lpmprterm(lpm_ctx pm);

/* Takes a block of `size` bytes, also of 0. Null when out of memory. */
void *prou_allocm(lpm_ctx pm, uint32_t size);

void prou_freem(lpm_ctx pm, void *block);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
