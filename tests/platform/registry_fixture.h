// What the tests of the registry client are built on: invented identities, quickly made trees, sessions on any store.
#ifndef TKV_TESTS_PLATFORM_REGISTRY_FIXTURE_H
#define TKV_TESTS_PLATFORM_REGISTRY_FIXTURE_H

#include <cstdint>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "faulty_store.h"
#include "memory_store.h"
#include "prtkv.h"
#include "registry/contexts.h"
#include "registry/local_client.h"
#include "registry/tree.h"

namespace tkv {

// Prints a status in the message of a failed EXPECT_EQ.
inline void PrintTo(const Status& status, std::ostream* out) { *out << status.code() << " (" << status.text() << ")"; }

// Statuses are compared by their codes.
inline bool operator==(const Status& left, const Status& right) { return left.code() == right.code(); }

namespace registry {

inline Identity person(const std::string& user, std::vector<std::string> groups = {}) {
  return Identity{user, std::move(groups), false};
}

inline Identity superuser() { return Identity{"root", {"root"}, true}; }

inline sec_attr owned_by(const std::string& user, const std::string& group, std::int32_t user_mask,
                         std::int32_t group_mask, std::int32_t other_mask) {
  sec_attr security{};
  security.user_perm = user_mask;
  security.group_perm = group_mask;
  security.other_perm = other_mask;
  (void)set_user(&security, user);
  (void)set_group(&security, group);
  return security;
}

inline sec_attr open_to_all() { return owned_by("alice", "staff", 0x3f, 0x3f, 0x3f); }

inline std::span<const std::byte> bytes_of(std::string_view text) { return std::as_bytes(std::span(text)); }

inline std::string text_of(const store::Value& value) {
  return {reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()};
}

inline CopyOptions copying(bool recursive, bool replace) {
  CopyOptions options;
  options.recursive = recursive;
  options.replace = replace;
  return options;
}

inline std::shared_ptr<Client> client_on(std::shared_ptr<store::Store> store, Identity identity,
                                         Configuration configuration = {}) {
  return std::make_shared<LocalClient>(std::move(configuration), std::move(identity), std::move(store));
}

// The tree in a store on behalf of one identity: what is below a LocalClient.
class BareTree {
 public:
  BareTree(std::shared_ptr<store::Store> store, Identity identity)
      : store_(std::move(store)), identity_(std::move(identity)) {}

  Status read(FunctionRef<Status(Reader&)> function, DirectoryCache* cache = nullptr) const {
    return store_->read([&](store::View& view) {
      Reader reader(view, identity_, cache);
      return function(reader);
    });
  }

  Status read_all(FunctionRef<Status(Reader&)> function) const {
    return store_->read_all([&](store::View& view) {
      Reader reader(view, identity_);
      return function(reader);
    });
  }

  Status write(FunctionRef<Status(Writer&)> function) const {
    return store_->write([&](store::Update& update) {
      Writer writer(update, identity_);
      return function(writer);
    });
  }

 private:
  std::shared_ptr<store::Store> store_;
  Identity identity_;
};

// A store in memory that fails on demand, and whose root grants everybody all rights.
struct Ground {
  std::shared_ptr<store::MemoryStore> memory = std::make_shared<store::MemoryStore>(open_to_all());
  std::shared_ptr<store::FaultyStore> store = std::make_shared<store::FaultyStore>(memory);

  std::shared_ptr<Client> as(Identity identity) const { return client_on(store, std::move(identity)); }
  BareTree tree(Identity identity) const { return {store, std::move(identity)}; }

  // Makes a key as the superuser; "a.b" needs "a".
  store::NodeId make(std::string_view name, const sec_attr& security = open_to_all(), std::string_view value = {}) {
    store::NodeId id = store::kNoNode;
    const Status status = tree(superuser()).write([&](Writer& tree) {
      return value.empty() ? tree.create(parent_of(name), last_level(name), security, 0, {}, &id)
                           : tree.create(parent_of(name), last_level(name), security, 3, bytes_of(value), &id);
    });
    return status.ok() ? id : store::kNoNode;
  }

  bool has(std::string_view name) const {
    bool answer = false;
    const Status status = tree(superuser()).read([&](Reader& tree) { return tree.exists(name, &answer); });
    return status.ok() && answer;
  }

  std::string value(std::string_view name) const {
    std::string text;
    const Status status = tree(superuser()).read([&](Reader& tree) {
      store::Value value;
      Status read = tree.value(name, &value);
      text = text_of(value);
      return read;
    });
    return status.ok() ? text : "(" + status.text() + ")";
  }

  // Every full name with the type and text of its value, in the order of a walk: "a", "a.b=3:text".
  std::vector<std::string> everything() const {
    std::vector<std::string> found;
    const Status status = tree(superuser()).read_all([&](Reader& tree) {
      found.clear();
      WalkOptions options;
      options.values = true;
      return tree.walk("", options, [&](const WalkEntry& entry) {
        std::string line(entry.name);
        if (entry.type != 0) line += "=" + std::to_string(entry.type) + ":" + text_of({entry.type, entry.value});
        if (!entry.name.empty()) found.push_back(std::move(line));
        return Status();
      });
    });
    if (!status.ok()) found.push_back("(" + status.text() + ")");
    return found;
  }
};

// A context of the C functions on a registry, ended with the test.
class Context {
 public:
  explicit Context(std::shared_ptr<Client> client) {
    if (!add_context(std::move(client), &ctx_).ok()) ctx_ = 0;
  }
  ~Context() { prtkv_terminate(ctx_); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  operator prtkv_ctx() const { return ctx_; }  // NOLINT(google-explicit-constructor): used as the C functions do

  prtkv_key open(const char* name) const {
    prtkv_key key = 0;
    prtkv_open_key(ctx_, &key, name);
    return key;
  }

  // The last error's text, "" when there is none.
  std::string last_error() const {
    char text[PRTKV_ERROR_TEXT_SIZE];
    std::int32_t code = 0;
    std::int32_t size = sizeof text;
    return prtkv_get_last_error(ctx_, &code, text, &size) == PRTKV_DONE ? text : "";
  }

 private:
  prtkv_ctx ctx_ = 0;
};

}  // namespace registry
}  // namespace tkv

#endif
