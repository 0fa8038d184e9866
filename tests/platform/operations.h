/* Operations of a batch, as C programs make them. */
#ifndef TKV_TESTS_PLATFORM_OPERATIONS_H
#define TKV_TESTS_PLATFORM_OPERATIONS_H

#include <string.h>

#include "prtkv_changes.h"

/* Writes a text to a key. The security record, for a key that does not exist yet, is left empty. */
static prtkv_operation put_text(const char* name, const char* text) {
  prtkv_operation operation;
  memset(&operation, 0, sizeof operation);
  operation.kind = PRTKV_DO_PUT;
  operation.name = name;
  operation.type = PRTKV_TYPE_TEXT;
  operation.value = text;
  operation.size = (uint32_t)strlen(text) + 1;
  return operation;
}

#endif
