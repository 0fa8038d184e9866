#include "base/standard_files.h"

#include <fcntl.h>
#include <unistd.h>

namespace tkv {

void occupy_standard_files() {
  int file = 0;
  while (file >= STDIN_FILENO && file <= STDERR_FILENO) file = open("/dev/null", O_RDONLY);
  if (file > STDERR_FILENO) close(file);
}

}  // namespace tkv
