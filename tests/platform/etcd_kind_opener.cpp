// Tries to open a registry on etcd where nobody listens, and prints what that ends with. It is copied to be run with
// raised privileges.
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "store/etcd/kind.h"

int main() {
  const std::vector<std::string> locations = {"etcd://127.0.0.1:1"};
  const tkv::store::Settings settings = {{"etcd.timeout_ms", "300"}};
  std::shared_ptr<tkv::store::Store> store;
  puts(tkv::store::kEtcdKind.open({locations, settings}, {}, &store).text().c_str());
  fflush(stdout);
  _exit(0);  // the leak sanitizer cannot trace a process with raised privileges
}
