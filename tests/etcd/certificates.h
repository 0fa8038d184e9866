// Certificates for a test, and members that use them.
#ifndef TKV_TESTS_ETCD_CERTIFICATES_H
#define TKV_TESTS_ETCD_CERTIFICATES_H

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "etcd_cluster.h"

namespace tkv::store::etcd {

// Two authorities, and certificates of the first of them for a client and a server.
class Certificates {
 public:
  Certificates() {
    authority("other-ca");
    renew();
  }
  // A new authority takes the first one's place, with a new certificate for the client and none for a server yet.
  void renew() {
    authority("ca");
    issue_client("ca");
  }
  void issue_client(const std::string& ca) { issue("client", "extendedKeyUsage=clientAuth", ca); }
  void issue_server(const std::string& subject, const std::string& ca = "ca") {
    issue("server", "subjectAltName=" + subject, ca);
  }
  std::string pem(const std::string& name) const { return directory_.file(name + ".pem"); }
  std::string key(const std::string& name) const { return directory_.file(name + ".key"); }

 private:
  void openssl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "openssl");
    std::string output;
    ASSERT_EQ(run(arguments, &output), 0) << output;
  }
  void authority(const std::string& name) {
    openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
             "-subj", "/CN=" + name, "-keyout", key(name), "-out", pem(name)});
  }
  void issue(const std::string& name, const std::string& extension, const std::string& ca) {
    openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=" + name,
             "-keyout", key(name), "-out", directory_.file(name + ".csr")});
    std::ofstream(directory_.file(name + ".ext")) << extension << "\n";
    openssl({"x509", "-req", "-days", "2", "-in", directory_.file(name + ".csr"), "-CA", pem(ca), "-CAkey", key(ca),
             "-CAcreateserial", "-extfile", directory_.file(name + ".ext"), "-out", pem(name)});
  }

  TemporaryDirectory directory_;
};

// Members whose certificate is for the given subject, or for the address they are reached at.
inline EtcdCluster::Options secured(Certificates& certificates, const std::string& subject = "") {
  EtcdCluster::Options options;
  options.cert = certificates.pem("client");
  options.key = certificates.key("client");
  options.flags = {"--cert-file=" + certificates.pem("server"), "--key-file=" + certificates.key("server"),
                   "--trusted-ca-file=" + certificates.pem("ca"), "--client-cert-auth"};
  options.ctl_flags = {"--insecure-skip-tls-verify", "--cacert=" + certificates.pem("ca"), "--cert=" + options.cert,
                       "--key=" + options.key};
  options.prepare = [&certificates, subject](const std::string& address) {
    certificates.issue_server(subject.empty() ? "IP:" + address : subject);
  };
  return options;
}

}  // namespace tkv::store::etcd

#endif
