// The manual pages, made from the texts of the help.
#ifndef TKV_TOOLS_TKV_MANUAL_H
#define TKV_TOOLS_TKV_MANUAL_H

#include <string>

namespace tkv::command {

std::string manual_page();                // tkv(1)
std::string configuration_manual_page();  // tkv.conf(5)

}  // namespace tkv::command

#endif
