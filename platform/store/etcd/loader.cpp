#include "store/etcd/loader.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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

std::vector<std::string> candidates() {
  std::vector<std::string> paths;
  const char* named = ::secure_getenv("TKV_MODULE_DIR");
  if (named != nullptr && *named != '\0') paths.push_back(std::string(named) + "/" + kModule);
  if (const std::string folder = own_folder(); !folder.empty()) {
    paths.push_back(folder + "/" + kModule);
    paths.push_back(folder_of(folder) + "/lib/" + kModule);
  }
  paths.emplace_back(kModule);
  return paths;
}

bool is_absent(const std::string& path) {
  if (path.find('/') == std::string::npos) return false;
  return ::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

Status cannot_load(const std::string& reasons) {
  return {PRTKV_UNUSABLE, "the store for etcd cannot be loaded: " + reasons};
}

std::string loader_error() {
  const char* error = ::dlerror();  // NOLINT(concurrency-mt-unsafe): its text is each thread's own
  return error == nullptr ? "unknown reason" : error;
}

Status load(OpenEtcdStore* open) {
  std::string tried;
  for (const std::string& path : candidates()) {
    if (!tried.empty()) tried += "; ";
    if (is_absent(path)) {
      tried += path + ": no such file";
      continue;
    }
    void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
      tried += loader_error();
      if (path == kModule) break;
      return cannot_load(tried);
    }
    *open = reinterpret_cast<OpenEtcdStore>(::dlsym(module, kEtcdModuleSymbol));
    return *open != nullptr ? Status() : cannot_load(path + " is not this library's module");
  }
  return cannot_load(tried);
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
