// Loading the store for etcd from its module, libtkv_etcd.so.
//
// It is looked for, in this order: in the directory that the environment variable TKV_MODULE_DIR names, if it is set
// and the process has no raised privileges; beside the file that contains this code; in the folder "lib" beside that
// file's folder; where this build is installed. The first module that exists is loaded or ends the search. Root does
// not load a module that other users can change, by itself or in its folder.
#ifndef TKV_PLATFORM_STORE_ETCD_LOADER_H
#define TKV_PLATFORM_STORE_ETCD_LOADER_H

#include "base/status.h"
#include "store/etcd/module.h"

namespace tkv::store {

// Gives the module's function. The module is loaded once and never unloaded; after a failure the next call tries again.
// Returns PRTKV_UNUSABLE with every place that was tried and the reason. Any thread may call.
Status load_etcd_module(OpenEtcdStore* open);

}  // namespace tkv::store

#endif
