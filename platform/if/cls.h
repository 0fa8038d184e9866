/* cls: cluster services.
 *
 * Conventions
 *   Results. Functions return a code of prtkv_results.h, PRTKV_DONE for success. On failure, output parameters are
 *            unchanged.
 *   Threads. Any thread may call.
 */
#ifndef TKV_PLATFORM_CLS_H
#define TKV_PLATFORM_CLS_H

#include <stdint.h>

#include "lpm.h"
#include "prtkv.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
  CLS_CONFIGURATION_SINGLE = 1, /* not a member of a cluster */
  CLS_CONFIGURATION_CLUSTER = 4 /* a member of a cluster */
};

/* Reads whether this node is configured as a member of a cluster. `flags` must be 0. */
int32_t clsugetconf(lpm_ctx pm, uint32_t flags, int32_t *configuration);

/* Reads the cluster's software patch level: the value of the key SYSTEM.version.patch, or 0 if there is none. A text
 * (PRTKV_TYPE_TEXT) is taken as a decimal number, a word (PRTKV_TYPE_WORD32 or 64) as a little-endian number. Anything
 * but a number from 0 to 2147483647 yields PRTKV_INVALID_ARGUMENT. Requires the read right. Sets the context's last
 * error, as an operation of the registry client does. `flags` and `reserved` must be 0. */
int32_t clsvswpatch(prtkv_ctx ctx, uint32_t flags, int32_t *patch_level, uint32_t reserved);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
