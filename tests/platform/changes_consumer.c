/* A program in C on the registry's history: batches under conditions, the log, waiting, and reading the past. */
#include <stdio.h>
#include <string.h>

#include "operations.h"
#include "prtkv_changes.h"

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #condition); \
      return 1;                                                                     \
    }                                                                               \
  } while (0)

struct log {
  char text[512];
};

static int32_t note_change(void* data, const prtkv_change* change) {
  struct log* log = data;
  char line[128];
  snprintf(line, sizeof line, "%d %s %s;", (int)change->kind, change->name, change->note);
  strncat(log->text, line, sizeof log->text - strlen(log->text) - 1);
  return 0;
}

static int32_t note_name(void* data, const char* subkey) {
  strcat(((struct log*)data)->text, subkey);
  return 0;
}

static int32_t refuse(void* data, const prtkv_change* change) {
  (void)data;
  (void)change;
  return 77;
}

/* A key that does not exist yet belongs to ada. */
static prtkv_operation put(const char* name, const char* value) {
  prtkv_operation operation = put_text(name, value);
  operation.sec.user_perm = operation.sec.group_perm = operation.sec.other_perm = TKV_RIGHT_ALL;
  strcpy(operation.sec.user_name, "ada");
  return operation;
}

/* Returns what others may do with a key; -1 if it cannot be read. */
static int other_rights(prtkv_ctx registry, const char* name) {
  prtkv_key key = 0;
  sec_attr sec;
  int rights = -1;
  if (prtkv_open_key(registry, &key, name) != PRTKV_DONE) return rights;
  if (prtkv_get_key_security(registry, key, &sec) == PRTKV_DONE) rights = (int)sec.other_perm;
  return prtkv_close_key(registry, key) == PRTKV_DONE ? rights : -1;
}

static int use(prtkv_ctx registry) {
  prtkv_operation operations[2];
  prtkv_condition conditions[2];
  struct log log = {""};
  uint64_t begin = 99, first = 0, second = 0, latest = 0, key_revision = 0;
  uint32_t failed = 99, size = 0;
  int32_t lost = 99, type = 0;
  char value[16] = "";
  prtkv_key key = 0;

  CHECK(prtkv_get_revision(registry, &begin) == PRTKV_DONE);

  /* A batch. */
  operations[0] = put("a", "one");
  operations[1] = put("a.b", "two");
  memset(conditions, 0, sizeof conditions);
  conditions[0].kind = PRTKV_IF_ABSENT;
  conditions[0].name = "a";
  CHECK(prtkv_commit(registry, conditions, 1, operations, 2, "first", &first, &failed) == PRTKV_DONE);
  CHECK(first > begin && failed == 99);
  CHECK(prtkv_commit(registry, conditions, 1, operations, 2, NULL, &first, &failed) == PRTKV_CONFLICT);
  CHECK(failed == 0);

  /* Compare and set. */
  CHECK(prtkv_open_key(registry, &key, "a") == PRTKV_DONE);
  CHECK(prtkv_get_key_revision(registry, key, &key_revision) == PRTKV_DONE && key_revision == first);
  memset(conditions, 0, sizeof conditions);
  conditions[0].kind = PRTKV_IF_REVISION;
  conditions[0].name = "a";
  conditions[0].revision = key_revision;
  conditions[1].kind = PRTKV_IF_VALUE;
  conditions[1].name = "a.b";
  conditions[1].type = PRTKV_TYPE_TEXT;
  conditions[1].value = "two";
  conditions[1].size = 4;
  operations[0] = put("a", "three");
  CHECK(prtkv_commit(registry, conditions, 2, operations, 1, "second", &second, NULL) == PRTKV_DONE);
  CHECK(second > first);

  /* The past. */
  size = sizeof value;
  CHECK(prtkv_get_value_at(registry, first, "a", &type, value, &size) == PRTKV_DONE);
  CHECK(type == PRTKV_TYPE_TEXT && size == 4 && strcmp(value, "one") == 0);
  size = 2;
  CHECK(prtkv_get_value_at(registry, second, "a", &type, value, &size) == PRTKV_BUFFER_TOO_SMALL && size == 6);
  CHECK(prtkv_get_value_at(registry, begin, "a", &type, value, &size) == PRTKV_NO_SUCH_KEY);
  CHECK(prtkv_get_value_at(registry, second + 1, "a", &type, value, &size) == PRTKV_INVALID_ARGUMENT);
  CHECK(prtkv_list_at(registry, first, "a", note_name, &log) == PRTKV_DONE && strcmp(log.text, "b") == 0);

  /* The log, and waiting for it to grow. */
  log.text[0] = '\0';
  latest = begin;
  CHECK(prtkv_changes_since(registry, &latest, "", note_change, &log, &lost) == PRTKV_DONE);
  CHECK(strcmp(log.text, "1 a first;1 a.b first;2 a second;") == 0);
  CHECK(latest == second && lost == 0);
  CHECK(prtkv_changes_since(registry, &begin, "", refuse, NULL, &lost) == 77);
  CHECK(prtkv_wait(registry, second, 10, &latest) == PRTKV_DONE && latest == second);
  CHECK(prtkv_wait(registry, first, -1, &latest) == PRTKV_DONE && latest == second);
  CHECK(prtkv_stop_waiting(registry) == PRTKV_DONE);

  /* Missing parents get the security record of the key that they are created for, and no value. */
  operations[0] = put("private", "x");
  operations[0].sec.other_perm = 0;
  operations[1] = put("n.m.o", "y");
  operations[1].flags = PRTKV_CREATE_PARENTS;
  CHECK(prtkv_commit(registry, NULL, 0, operations, 2, NULL, NULL, NULL) == PRTKV_DONE);
  CHECK(other_rights(registry, "private") == 0 && other_rights(registry, "n.m.o") == TKV_RIGHT_ALL);
  CHECK(other_rights(registry, "n") == TKV_RIGHT_ALL && other_rights(registry, "n.m") == TKV_RIGHT_ALL);
  size = sizeof value;
  CHECK(prtkv_get_revision(registry, &latest) == PRTKV_DONE);
  CHECK(prtkv_get_value_at(registry, latest, "n.m", &type, value, &size) == PRTKV_DONE && type == 0 && size == 0);
  operations[0] = put("p.q", "x");
  CHECK(prtkv_commit(registry, NULL, 0, operations, 1, NULL, NULL, &failed) == PRTKV_NO_SUCH_KEY && failed == 0);

  /* What is refused. */
  operations[0].kind = 99;
  CHECK(prtkv_commit(registry, NULL, 0, operations, 1, NULL, NULL, NULL) == PRTKV_INVALID_ARGUMENT);
  operations[0] = put("a", "x");
  operations[0].flags = PRTKV_REPLACE;
  CHECK(prtkv_commit(registry, NULL, 0, operations, 1, NULL, NULL, NULL) == PRTKV_INVALID_ARGUMENT);
  CHECK(prtkv_commit(registry, NULL, 0, NULL, 1, NULL, NULL, NULL) == PRTKV_NULL_ARGUMENT);
  CHECK(prtkv_wait(0, 0, 0, &latest) == PRTKV_INVALID_HANDLE);
  CHECK(prtkv_get_revision(registry, NULL) == PRTKV_NULL_ARGUMENT);
  return 0;
}

int main(void) {
  prtkv_ctx registry = 0;
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  uint64_t text_size = sizeof text;
  int result;
  if (prtkv_init_ext(&registry, 0, text, &text_size, 0) != PRTKV_DONE) {
    fprintf(stderr, "%s\n", text);
    return 1;
  }
  result = use(registry);
  return prtkv_terminate(registry) == PRTKV_DONE ? result : 1;
}
