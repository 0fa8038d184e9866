// What a connection with etcd identifies itself with, read from the files that the configuration names. The files may
// be replaced while a session is open: whoever connects or logs in reads them again.
#ifndef TKV_PLATFORM_STORE_ETCD_CREDENTIALS_H
#define TKV_PLATFORM_STORE_ETCD_CREDENTIALS_H

#include <string>

#include "base/status.h"

namespace tkv::store::etcd {

// A secret text, overwritten when it is no longer needed.
class Secret {
 public:
  Secret() = default;
  ~Secret() { wipe(&text); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  static void wipe(std::string* text);

  std::string text;
};

// PEM texts. The certificate and the key are empty if none are configured.
struct TlsIdentity {
  std::string ca;
  std::string cert;
  std::string key;

  bool operator==(const TlsIdentity&) const = default;
};

struct TlsFiles {
  std::string ca;
  std::string cert;  // may be "", and then so is the key
  std::string key;
};

// Reads and checks the files. PRTKV_CONFIGURATION_UNREADABLE if a file cannot be read, PRTKV_INVALID_CONFIGURATION if
// it does not hold what it should, if the key does not belong to the certificate, or if users other than the key's
// owner and group can read it. The message names the file.
Status read_tls_identity(const TlsFiles& files, TlsIdentity* identity);

// Reads the first line of a file. The same results; the file must be accessible to its owner only.
Status read_password(const std::string& path, Secret* password);

}  // namespace tkv::store::etcd

#endif
