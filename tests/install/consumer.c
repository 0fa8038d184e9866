/* A program of a user's own on the installed registry client: writes a value and reads it back. */
#include <prtkv.h>
#include <stdio.h>
#include <string.h>

static int failed(const char *what, int32_t code) {
  fprintf(stderr, "%s: %d\n", what, code);
  return 1;
}

int main(void) {
  prtkv_ctx registry = 0;
  prtkv_key root = 0, key = 0;
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  uint64_t text_size = sizeof text;
  int32_t created = 0, type = 0, code;
  char value[64] = "";
  uint32_t size = sizeof value;
  sec_attr security;

  if ((code = prtkv_init_ext(&registry, 0, text, &text_size, 0)) != 0) return failed(text, code);
  if ((code = prtkv_open_key(registry, &root, "")) != 0) return failed("open", code);
  memset(&security, 0, sizeof security);
  security.user_perm = TKV_RIGHT_ALL;
  strcpy(security.user_name, "root");
  code = prtkv_create_n_set_key(registry, root, "greeting", &key, &created, PRTKV_TYPE_TEXT, security, "hello", 6);
  if (code != 0) return failed("create", code);
  if ((code = prtkv_get_value(registry, key, &type, value, &size)) != 0) return failed("get", code);
  printf("%s %d %u\n", value, type, (unsigned)size);
  return prtkv_terminate(registry);
}
