#include "store/etcd/loader.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/file_trust.h"

namespace tkv::store {
namespace {

constexpr const char* kModule = "libtkv_etcd.so";

std::string folder_of(const std::string& path) {
  const std::size_t end = path.rfind('/');
  return end == std::string::npos ? "." : path.substr(0, end == 0 ? 1 : end);
}

// The folder of the file that contains this code, "" if it is not known. The loader knows a program only by the name
// that it was called by, and a library perhaps by a relative path. From the directory where the process is by now,
// either could lead to somebody else's file.
std::string own_folder() {
  Dl_info found{};
  void* object = nullptr;
  if (::dladdr1(reinterpret_cast<const void*>(&load_etcd_module), &found, &object, RTLD_DL_LINKMAP) == 0) return "";
  const char* name = static_cast<const link_map*>(object)->l_name;
  if (*name == '\0') name = "/proc/self/exe";
  const std::unique_ptr<char, decltype(&::free)> path(*name == '/' ? ::realpath(name, nullptr) : nullptr, &::free);
  return path == nullptr ? "" : folder_of(path.get());
}

// The directories in which the module may be installed. TKV_MODULE_DIR is for a build tree; a process with raised
// privileges ignores it.
std::vector<std::string> candidates() {
  std::vector<std::string> folders;
  const char* named = ::secure_getenv("TKV_MODULE_DIR");
  if (named != nullptr && *named != '\0') folders.emplace_back(named);
  if (const std::string folder = own_folder(); !folder.empty()) {
    folders.push_back(folder);
    folders.push_back(folder_of(folder) + "/lib");
  }
  folders.emplace_back(TKV_INSTALLED_LIBRARIES);
  return folders;
}

bool is_absent(const std::string& path) {
  return ::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

std::string reason_for_distrust_of(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) != 0 ? "" : reason_for_distrust(found);
}

Status cannot_load(const std::string& reasons) {
  return {PRTKV_UNUSABLE, "the store for etcd cannot be loaded: " + reasons};
}

std::string loader_error() {
  const char* error = ::dlerror();  // NOLINT(concurrency-mt-unsafe): its text is each thread's own
  return error == nullptr ? "unknown reason" : error;
}

Status load_from(const std::string& folder, OpenEtcdStore* open) {
  const std::string path = folder + "/" + kModule;
  for (const std::string& checked : {folder, path}) {
    if (const std::string reason = reason_for_distrust_of(checked); !reason.empty()) {
      std::string text = checked;
      text.append(" is refused to root: ").append(reason);
      text.append("; type: chown root: '").append(checked).append("' && chmod go-w '").append(checked).append("'");
      return cannot_load(text);
    }
  }
  void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return cannot_load(loader_error());
  *open = reinterpret_cast<OpenEtcdStore>(::dlsym(module, kEtcdModuleSymbol));
  if (*open != nullptr) return {};
  return cannot_load(
      path + " belongs to another release of TKV than the library that loads it; install both from one release");
}

Status load(OpenEtcdStore* open) {
  std::string tried;
  for (const std::string& folder : candidates()) {
    const std::string path = folder + "/" + kModule;
    if (!is_absent(path)) return load_from(folder, open);
    tried += (tried.empty() ? "" : "; ") + path + ": no such file";
  }
  return cannot_load(tried + "; install TKV anew, with its module for etcd (make install)");
}

}  // namespace

Status load_etcd_module(OpenEtcdStore* open) {
  static std::mutex mutex;
  static OpenEtcdStore loaded = nullptr;
  const std::lock_guard lock(mutex);
  if (loaded == nullptr) {
    if (Status status = load(&loaded); !status.ok()) return status;
  }
  *open = loaded;
  return {};
}

}  // namespace tkv::store
