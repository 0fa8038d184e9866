#include "store/etcd/credentials.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "base/descriptor.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20;

template <auto release>
struct Release {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

// A file as a message names it.
struct File {
  const char* setting;
  const std::string& path;

  std::string name() const { return std::string(setting) + " '" + path + "'"; }
};

Status unreadable(const File& file, int error) {
  return {PRTKV_CONFIGURATION_UNREADABLE, file.name() + " cannot be read: " + std::generic_category().message(error)};
}

Status unusable(const File& file, const char* why) { return {PRTKV_INVALID_CONFIGURATION, file.name() + why}; }

// Reads a file whose mode grants none of `forbidden`.
Status read_file(const File& file, mode_t forbidden, const char* complaint, std::string* content) {
  errno = 0;
  const Descriptor descriptor(open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  int error = errno;
  if (!descriptor.is_open()) return unreadable(file, error);
  struct stat entry {};
  const int result = fstat(descriptor.number(), &entry);
  error = errno;
  if (result != 0) return unreadable(file, error);
  if (!S_ISREG(entry.st_mode)) return unusable(file, " is not a regular file");
  if ((entry.st_mode & forbidden) != 0) return unusable(file, complaint);
  if (static_cast<std::size_t>(entry.st_size) > kLargestFile) return unusable(file, " is larger than 1 MiB");
  content->resize(static_cast<std::size_t>(entry.st_size));
  std::size_t size = 0;
  while (size < content->size()) {
    const ssize_t part = read(descriptor.number(), content->data() + size, content->size() - size);
    error = errno;
    if (part < 0) return unreadable(file, error);
    if (part == 0) break;
    size += static_cast<std::size_t>(part);
  }
  content->resize(size);
  return {};
}

Bio bio_of(const std::string& text) { return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))); }

// Nobody is asked for the passphrase of an encrypted key.
int no_passphrase(char*, int, int, void*) { return 0; }

Certificate first_certificate(const std::string& pem) {
  const Bio bio = bio_of(pem);
  return Certificate(PEM_read_bio_X509(bio.get(), nullptr, no_passphrase, nullptr));
}

Status check_key(const File& file, const std::string& pem, const File& cert_file, X509* cert) {
  const Bio bio = bio_of(pem);
  const PrivateKey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, no_passphrase, nullptr));
  if (!key) return unusable(file, " holds no private key in PEM form without a passphrase");
  if (X509_check_private_key(cert, key.get()) != 1) {
    return {PRTKV_INVALID_CONFIGURATION, file.name() + " does not belong to " + cert_file.name()};
  }
  return {};
}

Status read_and_check(const TlsFiles& files, TlsIdentity* identity) {
  const File ca{"ca", files.ca};
  const File cert{"cert", files.cert};
  const File key{"key", files.key};
  if (Status status = read_file(ca, 0, "", &identity->ca); !status.ok()) return status;
  if (!first_certificate(identity->ca)) return unusable(ca, " holds no certificate in PEM form");
  if (files.cert.empty()) return {};
  if (Status status = read_file(cert, 0, "", &identity->cert); !status.ok()) return status;
  const Certificate certificate = first_certificate(identity->cert);
  if (!certificate) return unusable(cert, " holds no certificate in PEM form");
  constexpr const char* kOpen = " is accessible to everyone: restrict it to its owner (chmod 600)";
  if (Status status = read_file(key, S_IRWXO, kOpen, &identity->key); !status.ok()) return status;
  return check_key(key, identity->key, cert, certificate.get());
}

}  // namespace

void Secret::wipe(std::string* text) { explicit_bzero(text->data(), text->size()); }

Status read_tls_identity(const TlsFiles& files, TlsIdentity* identity) {
  *identity = {};
  Status status = read_and_check(files, identity);
  ERR_clear_error();  // this thread's queue of errors is OpenSSL's other users' as well
  return status;
}

Status read_password(const std::string& path, Secret* password) {
  const File file{"password_file", path};
  constexpr const char* kOpen = " is accessible to users other than its owner: restrict it (chmod 600)";
  if (Status status = read_file(file, S_IRWXG | S_IRWXO, kOpen, &password->text); !status.ok()) return status;
  const auto end = password->text.find_first_of("\r\n");
  if (end != std::string::npos) {
    explicit_bzero(password->text.data() + end, password->text.size() - end);
    password->text.resize(end);
  }
  if (password->text.empty()) return unusable(file, " holds no password");
  return {};
}

}  // namespace tkv::store::etcd
