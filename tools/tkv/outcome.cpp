#include "outcome.h"

#include <cerrno>

namespace tkv::command {

Exit exit_of(prtkv_result result) {
  switch (result) {
    case PRTKV_DONE:
      return Exit::kDone;
    case PRTKV_ACCESS_DENIED:
      return Exit::kDenied;
    case PRTKV_NO_SUCH_KEY:
      return Exit::kNotFound;
    case PRTKV_INVALID_NAME:
    case PRTKV_INVALID_ARGUMENT:
    case PRTKV_MOVE_INTO_ITSELF:
      return Exit::kUsage;
    case PRTKV_HAS_SUBKEYS:
    case PRTKV_KEY_EXISTS:
    case PRTKV_CONFLICT:
      return Exit::kConflict;
    case PRTKV_STORAGE_FAILED:
      return Exit::kDamaged;
    case PRTKV_UNREACHABLE:
    case PRTKV_BUSY:
      return Exit::kUnreachable;
    case PRTKV_UNUSABLE:
      return Exit::kUnusable;
    case PRTKV_UNDECIDED:
      return Exit::kUndecided;
    default:
      return Exit::kOther;
  }
}

Exit exit_of_error(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return Exit::kNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return Exit::kDenied;
    case EEXIST:
      return Exit::kConflict;
    default:
      return Exit::kOther;
  }
}

const char* name_of(Exit exit) {
  switch (exit) {
#define TKV_EXIT(identifier, number, name, meaning) \
  case Exit::identifier:                            \
    return name;
    TKV_EXIT_CODES(TKV_EXIT)
#undef TKV_EXIT
  }
  return "other";
}

std::string exit_code_text() {
  std::string text;
#define TKV_EXIT(identifier, number, name, meaning) \
  text += ((number) < 10 ? "   " : "  ") + std::string(#number "  " meaning "\n");
  TKV_EXIT_CODES(TKV_EXIT)
#undef TKV_EXIT
  return text;
}

Outcome::Outcome(const Status& status) : exit_(exit_of(status.code())), text_(status.ok() ? "" : status.text()) {}

void Tally::add(const Outcome& outcome) {
  if (outcome.ok()) {
    ++done_;
    return;
  }
  if (failed_++ == 0) first_ = outcome.exit();
}

Outcome Tally::sum() const {
  if (failed_ == 0) return {};
  return {done_ == 0 ? first_ : Exit::kPartly, ""};
}

}  // namespace tkv::command
