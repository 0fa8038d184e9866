// AtomicFile: a file that appears whole and durable under its name, or not at all.
//
// Until then it has a temporary name beside its own. It is removed if SIGHUP, SIGINT or SIGTERM ends the process; only
// signals that cannot be caught leave it behind. A process writes one such file at a time.
#ifndef TKV_TOOLS_TKV_ATOMIC_FILE_H
#define TKV_TOOLS_TKV_ATOMIC_FILE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "outcome.h"

namespace tkv::command {

class AtomicFile {
 public:
  enum class Existing { kRefuse, kReplace };

  AtomicFile() = default;
  ~AtomicFile();  // removes the file unless it was committed
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Creates the temporary file, readable by its owner only, or with the mode of the file that it replaces. Fails with
  // Exit::kConflict if `path` exists and must not.
  Outcome open(const std::string& path, Existing existing);

  Outcome write(std::string_view bytes);

  // Makes what was written durable, still under its temporary name, `written_path()`.
  Outcome sync();
  const std::string& written_path() const { return temporary_; }

  // Gives the file its name.
  Outcome commit();

 private:
  Outcome flush();
  Outcome rename();
  Outcome failed(const char* doing, int error) const;

  std::string path_;
  std::string temporary_;
  std::string gathered_;
  Existing existing_ = Existing::kRefuse;
  int descriptor_ = -1;
};

}  // namespace tkv::command

#endif
