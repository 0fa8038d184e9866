// EditedFile: a text that a person edits, in a private file.
#ifndef TKV_TOOLS_TKV_EDITED_FILE_H
#define TKV_TOOLS_TKV_EDITED_FILE_H

#include <string>
#include <string_view>

#include "outcome.h"

namespace tkv::command {

// The file has mode 0600 and lies in a folder of its own with mode 0700, below $TMPDIR or /tmp. Both are removed at the
// end, unless the file is to be kept. A signal that ends the process leaves them behind, as what was written may be all
// that is left of a person's work.
class EditedFile {
 public:
  EditedFile() = default;
  ~EditedFile();
  EditedFile(const EditedFile&) = delete;
  EditedFile& operator=(const EditedFile&) = delete;

  Outcome create(std::string_view text);

  // Runs $VISUAL, $EDITOR or vi on the file and waits for its end. Both variables may hold arguments, as for the shell.
  // Fails with Exit::kOther if the editor fails.
  Outcome edit();

  Outcome read(std::string* text) const;

  void keep() { kept_ = true; }
  const std::string& path() const { return path_; }

 private:
  std::string folder_;
  std::string path_;
  bool kept_ = false;
};

}  // namespace tkv::command

#endif
