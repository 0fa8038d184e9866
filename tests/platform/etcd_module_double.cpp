// Stands in for libtkv_etcd.so: fails with a message that says what it was asked to open. With
// TKV_TEST_OTHER_RELEASE, it stands in for the module of another release.
#include "store/etcd/module.h"

namespace {

std::string options_text(const tkv::store::EtcdOptions& options) {
  std::string text = "endpoints=";
  for (const std::string& endpoint : options.endpoints) text += endpoint + ",";
  text += " ca=" + options.ca + " cert=" + options.cert + " key=" + options.key + " user=" + options.user;
  text += " password_file=" + options.password_file + " prefix=" + options.prefix;
  text += " timeout_ms=" + std::to_string(options.timeout_ms) + (options.create ? " create" : " open");
  return text + " root=" + options.root_security.user_name;
}

}  // namespace

#ifdef TKV_TEST_OTHER_RELEASE
#undef TKV_OPEN_ETCD_STORE
#define TKV_OPEN_ETCD_STORE tkv_open_etcd_store_0123456789abcdef
#endif

extern "C" __attribute__((visibility("default"))) tkv::Status TKV_OPEN_ETCD_STORE(
    const tkv::store::EtcdOptions& options, std::shared_ptr<tkv::store::Store>*) {
  return {PRTKV_UNKNOWN, "asked for " + options_text(options)};
}
