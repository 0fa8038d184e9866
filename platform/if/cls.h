/* cls: cluster services.
 *
 * Conventions
 *   Results. A code of prtkv_results.h, 0 for success; out parameters are left as they were on failure.
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
  CLS_CONFIGURATION_SINGLE = 1, /* a node on its own */
  CLS_CONFIGURATION_CLUSTER = 4 /* a member of a cluster */
};

/* Tells whether this node is configured as a member of a cluster. `flags` is 0. */
int32_t clsugetconf(lpm_ctx pm, uint32_t flags, int32_t *configuration);

/* Gives the cluster's software patch level: the value of the key SYSTEM.version.patch, 0 when there is none. A text
 * (PRTKV_TYPE_TEXT) is read as a decimal number, a word (PRTKV_TYPE_WORD32 and 64) as a number with its least
 * significant byte first; what is no number from 0 to 2147483647 gives 8. Reading needs the read right. As an operation
 * of the registry client, it leaves the context's last error text when it fails. `flags` and `reserved` are 0. */
int32_t clsvswpatch(prtkv_ctx ctx, uint32_t flags, int32_t *patch_level, uint32_t reserved);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
