// Places: registries other than the configured one, as operands name them: a directory, the addresses of an etcd
// cluster, or a configuration file that names the location and all that belongs to it.
#ifndef TKV_TOOLS_TKV_PLACE_H
#define TKV_TOOLS_TKV_PLACE_H

#include <memory>
#include <string>

#include "outcome.h"
#include "registry/client.h"
#include "registry/open_client.h"

namespace tkv::command {

// Opens the registry of a place. Fails with Exit::kUsage if the word names none, and with Exit::kNotFound if there is
// no registry and `options` create none.
Outcome open_place(const std::string& place, const registry::OpenOptions& options,
                   std::shared_ptr<registry::Client>* client);

bool is_regular_file(const std::string& path);

}  // namespace tkv::command

#endif
