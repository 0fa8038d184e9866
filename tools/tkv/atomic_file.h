// AtomicFile: a file that appears whole and durable under its name, or not at all.
//
// Until then it stands beside that name under another one, and is removed when SIGHUP, SIGINT or SIGTERM end the
// process; only what cannot be caught leaves it behind. One at a time.
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
  ~AtomicFile();  // removes what was not committed
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Begins a file, readable by its owner only, or by whom the file that it replaces was. 5 when `path` exists and that
  // is refused.
  Outcome open(const std::string& path, Existing existing);

  Outcome write(std::string_view bytes);

  // Makes what was written durable, still under its other name: `written_path()`.
  Outcome sync();
  const std::string& written_path() const { return temporary_; }

  // Puts the file in its place.
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
