/* Adds one to a number in the registry, by comparing and setting, as many times as it is told; prints the number each
 * time.
 *
 *   increment KEY TIMES
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "operations.h"
#include "prtkv_changes.h"

static int report(const char* what, int32_t result) {
  fprintf(stderr, "%s: %d\n", what, (int)result);
  return 1;
}

/* By turns, the condition is the revision of the number's last change and the number itself. */
static prtkv_condition unchanged(const char* name, int round, uint64_t revision, const char* value, uint32_t size) {
  prtkv_condition condition;
  memset(&condition, 0, sizeof condition);
  condition.name = name;
  if (round % 2 == 0) {
    condition.kind = PRTKV_IF_REVISION;
    condition.revision = revision;
  } else {
    condition.kind = PRTKV_IF_VALUE;
    condition.type = PRTKV_TYPE_TEXT;
    condition.value = value;
    condition.size = size;
  }
  return condition;
}

/* Returns PRTKV_CONFLICT if another process was faster. The revision is read first: a number that is newer than its
 * revision makes a condition that does not hold. */
static int32_t increment(prtkv_ctx registry, prtkv_key key, const char* name, int round, long* number) {
  char former[32] = "", next[32];
  uint64_t revision = 0;
  uint32_t size = sizeof former;
  int32_t type = 0, result;
  prtkv_condition condition;
  prtkv_operation operation;
  if ((result = prtkv_get_key_revision(registry, key, &revision)) != PRTKV_DONE) return result;
  if ((result = prtkv_get_value(registry, key, &type, former, &size)) != PRTKV_DONE) return result;
  *number = atol(former) + 1;
  snprintf(next, sizeof next, "%ld", *number);
  condition = unchanged(name, round, revision, former, size);
  operation = put_text(name, next);
  return prtkv_commit(registry, &condition, 1, &operation, 1, NULL, NULL, NULL);
}

static int count(prtkv_ctx registry, const char* name, int times) {
  prtkv_key key = 0;
  int32_t result = prtkv_open_key(registry, &key, name);
  int round;
  if (result != PRTKV_DONE) return report("prtkv_open_key", result);
  for (round = 0; round < times; ++round) {
    long number = 0;
    do {
      result = increment(registry, key, name, round, &number);
    } while (result == PRTKV_CONFLICT);
    if (result != PRTKV_DONE) return report("increment", result);
    printf("%ld\n", number);
  }
  return 0;
}

int main(int argc, char** argv) {
  prtkv_ctx registry = 0;
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  uint64_t text_size = sizeof text;
  int result;
  if (argc != 3) return 2;
  if ((result = prtkv_init_ext(&registry, 0, text, &text_size, 0)) != PRTKV_DONE) return report(text, result);
  result = count(registry, argv[1], atoi(argv[2]));
  return prtkv_terminate(registry) == PRTKV_DONE ? result : 1;
}
