// The lines of a configuration file, with their numbers.
#ifndef TKV_PLATFORM_REGISTRY_CONFIGURATION_FILE_H
#define TKV_PLATFORM_REGISTRY_CONFIGURATION_FILE_H

#include <string>

#include "base/function_ref.h"
#include "base/status.h"

namespace tkv::registry {

struct ConfigurationLine {
  std::string section;
  std::string name;
  std::string value;
  int number = 0;
};

// Reads a file and calls `section` for each section heading and `line` for each "name = value" below it, in order,
// until one fails; that failure is returned with "<file>:<number>: " before its message. Returns
// PRTKV_CONFIGURATION_UNREADABLE if the file cannot be read, and PRTKV_INVALID_CONFIGURATION for a malformed line.
Status read_configuration_file(const std::string& file, FunctionRef<Status(const std::string& name)> section,
                               FunctionRef<Status(const ConfigurationLine&)> line);

}  // namespace tkv::registry

#endif
