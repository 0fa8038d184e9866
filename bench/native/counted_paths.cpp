// The main paths through the registry client, for counting their instructions: run under callgrind with
// --instr-atstart=no, each path is dumped under its name when it has run. Prints one line for each path, its name and
// its number of iterations. bench/check starts it, on an empty directory that TKV_CONF leads to.
//
// Everything here is done in one order by one thread, so that two runs execute the same instructions.

#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lx.h"
#include "prtkv.h"
#include "registry/client.h"
#include "registry/open_client.h"

// The C library's functions that identify users and groups, with one user in one group, so that neither the length of
// the system's files nor the user who counts makes a difference.
extern "C" {

gid_t getegid() noexcept { return 4711; }

int getgroups(int size, gid_t groups[]) noexcept {
  if (size > 0) groups[0] = getegid();
  return 1;
}

int getpwuid_r(uid_t id, passwd* record, char* buffer, std::size_t size, passwd** found) {
  if (size < sizeof "user") return ERANGE;
  std::memcpy(buffer, "user", sizeof "user");
  *record = {buffer, buffer, id, getegid(), buffer, buffer, buffer};
  *found = record;
  return 0;
}

int getgrgid_r(gid_t id, group* record, char* buffer, std::size_t size, group** found) {
  if (size < sizeof "group") return ERANGE;
  std::memcpy(buffer, "group", sizeof "group");
  *record = {buffer, buffer, id, nullptr};
  *found = record;
  return 0;
}
}

namespace tkv::bench {
namespace {

constexpr int kSubkeys = 100;      // of the listed key
constexpr int kUnknownKeys = 200;  // each read once
constexpr int kWrittenKeys = 50;   // each created, then deleted
constexpr int kExportedKeys = 1000;
constexpr int kOpenKeys = 1'000'000;
constexpr std::size_t kLongValue = 64 * 1024;

void require(int32_t code, const char* operation) {
  if (code != PRTKV_DONE) throw std::runtime_error(std::string(operation) + " gave " + std::to_string(code));
}

void require(const Status& status, const char* operation) {
  if (!status.ok()) throw std::runtime_error(std::string(operation) + ": " + status.text());
}

std::string numbered(const std::string& prefix, int number) {
  const std::string digits = std::to_string(number);
  return prefix + std::string(6 - digits.size(), '0') + digits;
}

// A session through the C functions.
class Session {
 public:
  Session() {
    char text[PRTKV_ERROR_TEXT_SIZE];
    uint64_t size = sizeof text;
    if (prtkv_init_ext(&context_, 0, text, &size, 0) != PRTKV_DONE) throw std::runtime_error(text);
  }
  ~Session() { prtkv_terminate(context_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  prtkv_ctx context() const { return context_; }

  prtkv_key open(const std::string& name) {
    prtkv_key key = 0;
    require(prtkv_open_key(context_, &key, name.c_str()), "prtkv_open_key");
    return key;
  }

  void close(prtkv_key key) { require(prtkv_close_key(context_, key), "prtkv_close_key"); }

  // Reads a value into a buffer that is large enough for any. Returns its size.
  uint32_t read(const std::string& name) {
    const prtkv_key key = open(name);
    int32_t type = 0;
    auto size = static_cast<uint32_t>(buffer_.size());
    require(prtkv_get_value(context_, key, &type, buffer_.data(), &size), "prtkv_get_value");
    close(key);
    return size;
  }

  // Reads a value of more than 1 KiB as the bridge does: again with more room, once its size is known.
  uint32_t read_in_two_steps(const std::string& name) {
    const prtkv_key key = open(name);
    int32_t type = 0;
    uint32_t size = 1024;
    if (prtkv_get_value(context_, key, &type, buffer_.data(), &size) != PRTKV_BUFFER_TOO_SMALL) {
      throw std::runtime_error("a value of more than 1 KiB fits");
    }
    require(prtkv_get_value(context_, key, &type, buffer_.data(), &size), "prtkv_get_value");
    close(key);
    return size;
  }

  const char* last_value() const { return buffer_.data(); }

  // Writes a text with this number.
  void write(prtkv_key key, int number) {
    const std::string text = numbered("a text of some length ", number);
    require(prtkv_set_value(context_, key, PRTKV_TYPE_TEXT, text.c_str(), static_cast<uint32_t>(text.size() + 1)),
            "prtkv_set_value");
  }

 private:
  prtkv_ctx context_ = 0;
  std::vector<char> buffer_ = std::vector<char>(2 * kLongValue);
};

// The conversion of texts, as the bridge calls it.
class Conversion {
 public:
  Conversion() {
    uint32_t error = 0;
    handle_ = lxinitc(handle_area_.data(), lxlinit(nullptr, 1, &error), 0, 0);
    charset_ = lxhci2h(lxhcsn(lxhLangEnv(&environment_, 0, handle_), handle_), handle_);
    if (charset_ == nullptr) throw std::runtime_error("no character set");
  }
  ~Conversion() { lxlterm(handle_); }
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;

  // Converts every text of a list value. Returns their number.
  int convert_all(const char* list) {
    int count = 0;
    for (; *list != '\0'; list += std::strlen(list) + 1) {
      const uint32_t length = lxsulen(list);
      if (lxgt2u(units_.data(), static_cast<uint32_t>(units_.size()), list, charset_, length, 0, handle_) < 1) {
        return -1;
      }
      ++count;
    }
    return count;
  }

 private:
  alignas(void*) std::array<char, LX_HANDLE_SIZE> handle_area_{};
  alignas(void*) lx_lang_env environment_{};
  std::array<uint16_t, 256> units_{};
  void* handle_ = nullptr;
  void* charset_ = nullptr;
};

// Counts `iterations` calls of a step, which is given their numbers from 0. What `prepare` does before each of them is
// not counted.
void count(const char* path, int iterations, const std::function<void(int)>& step,
           const std::function<void(int)>& prepare = nullptr) {
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < iterations; ++i) {
    if (prepare != nullptr) {
      CALLGRIND_TOGGLE_COLLECT;
      prepare(i);
      CALLGRIND_TOGGLE_COLLECT;
    }
    step(i);
  }
  CALLGRIND_DUMP_STATS_AT(path);
  CALLGRIND_STOP_INSTRUMENTATION;
  std::printf("%s\t%d\n", path, iterations);
}

sec_attr security_of(const registry::Client& client) {
  sec_attr security{};
  security.user_perm = TKV_RIGHT_ALL;
  client.identity().user.copy(security.user_name, TKV_NAME_SIZE);
  return security;
}

void add(std::vector<registry::NamedValue>* values, const std::string& name, const std::string& text,
         int32_t type = PRTKV_TYPE_TEXT) {
  values->push_back({name, {type, text + '\0'}});
}

// Creates all keys in one change, and returns the security of each.
sec_attr fill() {
  std::shared_ptr<registry::Client> client;
  require(registry::open_client({}, &client), "open_client");
  std::vector<registry::NamedValue> values;
  for (int i = 0; i < kSubkeys; ++i) add(&values, numbered("app.listed.subkey", i), "a text of some length");
  for (int i = 0; i < kUnknownKeys; ++i) add(&values, numbered("app.unknown.key", i), "a text of some length");
  for (int i = 0; i < kExportedKeys; ++i) add(&values, numbered("app.exported.key", i), "a text of some length");
  std::string list;
  for (int i = 0; i < kSubkeys; ++i) list += numbered("element", i) + '\0';
  add(&values, "app.list", list, PRTKV_TYPE_LIST);
  add(&values, "app.long", std::string(kLongValue - 1, 'x'));
  add(&values, "app.longer", std::string(1099, 'x'));
  add(&values, "app.written", "a text of some length");
  registry::PutOptions options;
  options.create_parents = true;
  options.security.initial = security_of(*client);
  require(client->put(values, options), "put");
  return options.security.initial;
}

void count_sessions() {
  { const Session first; }  // what a process does once
  count("open and close a session", 5, [](int) { const Session session; });
}

void count_reads(Session* session) {
  const std::string known = "app.listed.subkey000050";
  for (int i = 0; i < 100; ++i) session->read(known);  // until the meta pages are mapped
  count("open and close a known key", 200, [&](int) { session->close(session->open(known)); });
  count("read a known key", 200, [&](int) { session->read(known); });
  std::vector<std::string> unknown;
  for (int i = 0; i < kUnknownKeys; ++i) unknown.push_back(numbered("app.unknown.key", i));
  session->read(unknown.front());
  count("read a key for the first time", kUnknownKeys - 1,
        [&](int i) { session->read(unknown[static_cast<std::size_t>(i) + 1]); });
  session->read("app.long");
  count("read a value of 64 KiB", 50, [&](int) { session->read("app.long"); });
  session->read_in_two_steps("app.longer");
  count("read a value of 1,100 bytes in two steps", 50, [&](int) { session->read_in_two_steps("app.longer"); });
  Conversion conversion;
  count("read and convert a list of 100 texts", 50, [&](int) {
    session->read("app.list");
    if (conversion.convert_all(session->last_value()) != kSubkeys) throw std::runtime_error("a wrong list");
  });
  const prtkv_key key = session->open(known);
  sec_attr security{};
  count("read the security of an open key", 200,
        [&](int) { require(prtkv_get_key_security(session->context(), key, &security), "prtkv_get_key_security"); });
  session->close(key);
}

// Each key of a group is known, and has been read since an earlier change of another key.
void count_reads_after_a_change(Session* session) {
  std::vector<std::string> names;
  for (int i = 0; i < kSubkeys; ++i) names.push_back(numbered("app.listed.subkey", i));
  for (int times = 0; times < 3; ++times)
    for (const std::string& name : names) session->read(name);
  const prtkv_key written = session->open("app.written");
  session->write(written, 0);
  for (const std::string& name : names) session->read(name);
  session->write(written, 1);
  session->read(names.front());  // finds out what the change has left as it was
  count("read a known key after a change of another", kSubkeys - 1,
        [&](int i) { session->read(names[static_cast<std::size_t>(i) + 1]); });
  session->close(written);
}

// Returns the number of subkeys.
int list_subkeys(Session* session, const char* name) {
  const prtkv_key key = session->open(name);
  char level[PRTKV_SUBKEY_NAME_SIZE];
  int found = 0;
  int32_t remaining = 0;
  uint32_t size = sizeof level;
  while (prtkv_enum_subkey(session->context(), key, level, &size, &remaining) == PRTKV_DONE) {
    ++found;
    size = sizeof level;
  }
  session->close(key);
  return found;
}

void count_lists(Session* session) {
  const auto list = [&](int) {
    if (list_subkeys(session, "app.listed") != kSubkeys) throw std::runtime_error("a wrong list of subkeys");
  };
  const prtkv_key written = session->open("app.written");
  list(0);
  count("list 100 subkeys", 50, list);
  count("list 100 subkeys after a change", 50, list, [&](int i) { session->write(written, i); });
  session->close(written);
}

void create_key(Session* session, prtkv_key parent, int number, const sec_attr& security) {
  prtkv_key key = 0;
  int32_t word = 0;
  const std::string name = numbered("key", number);
  require(prtkv_create_key(session->context(), parent, name.c_str(), &key, &word, security), "prtkv_create_key");
  session->close(key);
}

void delete_key(Session* session, int number) {
  const prtkv_key key = session->open(numbered("app.written.key", number));
  require(prtkv_delete_key(session->context(), key, 0), "prtkv_delete_key");
}

void count_writes(Session* session, const sec_attr& security) {
  const prtkv_key written = session->open("app.written");
  const auto write = [&](int i) { session->write(written, i); };
  for (int i = 0; i < 10; ++i) write(i);  // until pages are reused
  count("write a value", kWrittenKeys, write);
  count("create a key", kWrittenKeys, [&](int i) { create_key(session, written, i, security); });
  count("delete a key", kWrittenKeys, [&](int i) { delete_key(session, i); });
  session->close(written);
}

// The same as above in a session that has a million keys open. Deleting ends handles, but looks only at those of the
// key and of keys below it.
void count_beside_open_keys(const sec_attr& security) {
  Session session;
  const std::string known = "app.listed.subkey000050";
  for (int i = 0; i < kOpenKeys; ++i) session.open(known);
  count("open and close a key, a million open", 200, [&](int) { session.close(session.open(known)); });
  const prtkv_key written = session.open("app.written");
  for (int i = 0; i < kWrittenKeys; ++i) create_key(&session, written, i, security);
  count("delete a key, a million open", kWrittenKeys, [&](int i) { delete_key(&session, i); });
}

// Reads what an export writes.
void count_exports() {
  std::shared_ptr<registry::Client> client;
  require(registry::open_client({}, &client), "open_client");
  registry::WalkOptions options;
  options.values = true;
  const auto walk = [&] {
    uint64_t keys = 0;
    require(client->walk("app.exported", options,
                         [&](const registry::WalkEntry& entry) {
                           keys += entry.value.empty() ? 0 : 1;
                           return Status();
                         }),
            "walk");
    if (keys != kExportedKeys) throw std::runtime_error("a wrong number of keys");
  };
  walk();
  count("walk 1,000 keys with their values", 2, [&](int) { walk(); });
}

void run() {
  const sec_attr security = fill();
  count_sessions();
  Session session;
  count_reads(&session);
  count_reads_after_a_change(&session);
  count_lists(&session);
  count_writes(&session, security);
  count_exports();
  count_beside_open_keys(security);
}

}  // namespace
}  // namespace tkv::bench

int main() {
  if (std::getenv("TKV_CONF") == nullptr) {
    std::fprintf(stderr,
                 "tkv_bench_paths: TKV_CONF has to name a configuration, as in bench/check: its registry is filled\n");
    return 2;
  }
  try {
    tkv::bench::run();
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tkv_bench_paths: %s\n", failure.what());
    return 1;
  }
}
