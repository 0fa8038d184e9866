#include "registry/c_arguments.h"

#include <string>

namespace tkv::registry {

Status null_argument(const char* name) { return {PRTKV_NULL_ARGUMENT, std::string("null argument: ") + name}; }

}  // namespace tkv::registry
