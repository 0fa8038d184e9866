// A process that dies on purpose: opens a registry, makes one change, and kills itself at its n-th request.
//
//   etcd_victim ENDPOINT PREFIX ACTION N [USER PASSWORD-FILE]
//
// With a negative N it stops itself (SIGSTOP) before its n-th request, and goes on when it is continued. Its lease
// lasts as short as etcd permits.
//
// If TKV_CLOCK_SKEW is set, its clock is off by so many seconds.
//
// ACTION: build, a key "built" with many subkeys; linger, the same, but waiting in the middle until there is a key
// "go"; delete, the key "old"; create, the key "small"; change, the values of all subkeys of "many". It exits with
// EXIT_SUCCESS if everything was done before the n-th request, and with EXIT_FAILURE if something failed.

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "request_watch.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"

namespace etcd = tkv::store::etcd;

// Takes the place of the C library's, for this program and all of its libraries.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const char* const skew = std::getenv("TKV_CLOCK_SKEW");
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && skew != nullptr && clock == CLOCK_REALTIME) now->tv_sec += std::atol(skew);
  return static_cast<int>(result);
}

int main(int argc, char** argv) {
  if (argc != 5 && argc != 7) return 2;
  tkv::store::EtcdOptions options;
  options.endpoints = {argv[1]};
  options.prefix = argv[2];
  options.timeout_ms = 60000;
  options.session_ttl_s = 1;
  if (argc == 7) {
    options.user = argv[5];
    options.password_file = argv[6];
  }
  const std::string action = argv[3];
  etcd::RequestWatch watch;
  std::shared_ptr<tkv::store::Store> store;
  if (!etcd::open_etcd_store(options, &store, watch.interceptors()).ok()) return EXIT_FAILURE;
  watch.reset();
  watch.decide([&, last = std::atoi(argv[4])](const std::string&) {
    if (last > 0 && watch.count() >= last) kill(getpid(), SIGKILL);
    if (last < 0 && watch.count() == -last) kill(getpid(), SIGSTOP);
    return etcd::Fate::kPass;
  });
  const auto until_told = [&](int key) {
    while (key == 300 && !etcd::open_key(*store, "go").ok()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  const tkv::Status status = action == "build"    ? etcd::build_keys(*store, "built", 350)
                             : action == "linger" ? etcd::build_keys(*store, "built", 350, until_told)
                             : action == "delete" ? etcd::delete_key(*store, "old")
                             : action == "change" ? etcd::change_keys(*store, "many", "changed")
                                                  : etcd::create_key(*store, "small", "value");
  store.reset();
  if (!status.ok()) std::fprintf(stderr, "%s\n", status.text().c_str());
  return status.ok() ? EXIT_SUCCESS : EXIT_FAILURE;
}
