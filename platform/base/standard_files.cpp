#include "base/standard_files.h"

#include <fcntl.h>
#include <unistd.h>

namespace tkv {

namespace {

bool is_open(int file) { return fcntl(file, F_GETFD) >= 0; }

}  // namespace

void occupy_standard_files() {
  if (is_open(STDIN_FILENO) && is_open(STDOUT_FILENO) && is_open(STDERR_FILENO)) return;
  int file = 0;
  while (file >= STDIN_FILENO && file <= STDERR_FILENO) file = open("/dev/null", O_RDONLY);
  if (file > STDERR_FILENO) close(file);
}

}  // namespace tkv
