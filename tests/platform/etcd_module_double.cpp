// Stands in for libtkv_etcd.so: fails with a message that says what it was asked to open.
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

extern "C" __attribute__((visibility("default"))) tkv::Status tkv_open_etcd_store(
    std::uint64_t abi, const tkv::store::EtcdOptions& options, std::shared_ptr<tkv::store::Store>*) {
  return {PRTKV_UNKNOWN, "abi=" + std::to_string(abi) + " " + options_text(options)};
}
