/* lpm: the program manager, whose contexts own memory.
 *
 * Conventions
 *   Contexts. 64-bit handles, never addresses; 0 is the null handle. A null or unknown context owns nothing:
 *             allocating from it returns null, freeing has no effect.
 *   Memory.   Blocks are zero-filled and aligned for any type. A freed block is zero-filled at once, since values may
 *             be secrets, and its addresses stay readable until the context ends. It is reused for a later block of
 *             about the same size, so that a context grows no larger than what was in use at once. A block of up to
 *             4096 bytes is reused only after eight others of about its size have been freed, so that a late read of
 *             a freed session record yields zeros. Freeing null, a foreign pointer, or a block twice has no effect.
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

/* Returns the context of the process, which is always the same and never ends, or 0 if out of memory. `parameters` must
 * be null. */
lpm_ctx lpminit(void *parameters);

/* Opens a short-lived context. Returns 0 if out of memory. */
lpm_ctx lpmprinit(void);

/* Ends a short-lived context and releases its memory. Has no effect on the context of the process. */
void lpmprterm(lpm_ctx pm);

/* Allocates a block of `size` bytes, which may be 0. Returns null if out of memory. */
void *prou_allocm(lpm_ctx pm, uint32_t size);

void prou_freem(lpm_ctx pm, void *block);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
