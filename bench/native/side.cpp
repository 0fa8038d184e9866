#include "side.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "bare_lmdb.h"
#include "prtkv.h"
#include "registry/client.h"
#include "registry/open_client.h"

namespace tkv::bench {
namespace {

void require(int32_t code, const char* operation) {
  if (code != PRTKV_DONE) throw std::runtime_error(std::string(operation) + " gave " + std::to_string(code));
}

void require(const Status& status, const char* operation) {
  if (!status.ok()) throw std::runtime_error(std::string(operation) + ": " + status.text());
}

// Writes a dataset through a client, in changes of a bounded size.
class Filler {
 public:
  explicit Filler(registry::Client* client) : client_(client) {
    options_.create_parents = true;
    sec_attr& security = options_.security.initial;
    security.user_perm = TKV_RIGHT_ALL;
    client->identity().user.copy(security.user_name, TKV_NAME_SIZE);
  }

  void add(const std::string& name, std::string value) {
    value += '\0';
    bytes_ += name.size() + value.size();
    values_.push_back({name, {PRTKV_TYPE_TEXT, std::move(value)}});
    if (bytes_ > kMaxBytes) write();
  }

  void write() {
    require(client_->put(values_, options_), "put");
    values_.clear();
    bytes_ = 0;
  }

 private:
  static constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

  registry::Client* client_;
  registry::PutOptions options_;
  std::vector<registry::NamedValue> values_;
  std::size_t bytes_ = 0;
};

class RegistrySide final : public Side {
 public:
  void open_store() override {
    char text[PRTKV_ERROR_TEXT_SIZE];
    uint64_t size = sizeof text;
    if (prtkv_init_ext(&context_, 0, text, &size, 0) != PRTKV_DONE) throw std::runtime_error(text);
  }
  void close_store() override { require(prtkv_terminate(context_), "prtkv_terminate"); }

  void fill(const Dataset& dataset) override {
    std::shared_ptr<registry::Client> client;
    require(registry::open_client({}, &client), "open_client");
    Filler filler(client.get());
    for (int group = 0; group <= dataset.groups(); ++group) {
      for (const auto& name : dataset.names_of(dataset.group(group))) filler.add(name, dataset.value(name));
    }
    filler.write();
  }

  uint64_t read(const char* name) override {
    get(name);
    return static_cast<unsigned char>(buffer_[0]);
  }
  bool reads(const std::string& name, const std::string& expected) override {
    return get(name.c_str()) == expected.size() + 1 && expected == buffer_.data();
  }

  uint64_t open_key(const char* name) override {
    const prtkv_key key = open(name);
    close(key);
    return key;
  }

  uint64_t list(const std::string& name) override {
    const prtkv_key key = open(name.c_str());
    char level[PRTKV_SUBKEY_NAME_SIZE];
    uint64_t count = 0;
    int32_t remaining = 0;
    int32_t code = PRTKV_DONE;
    do {
      uint32_t size = sizeof level;
      code = prtkv_enum_subkey(context_, key, level, &size, &remaining);
      if (code == PRTKV_DONE) ++count;
    } while (code == PRTKV_DONE);
    if (code != PRTKV_NO_MORE_SUBKEYS) require(code, "prtkv_enum_subkey");
    close(key);
    return count;
  }

  uint64_t write(const char* name, const char* text) override {
    const prtkv_key key = open(name);
    const auto size = static_cast<uint32_t>(std::strlen(text) + 1);
    require(prtkv_set_value(context_, key, PRTKV_TYPE_TEXT, text, size), "prtkv_set_value");
    close(key);
    return size;
  }

  std::unique_ptr<Side> another() override {
    auto side = std::make_unique<RegistrySide>();
    side->open_store();
    return side;
  }

  bool has(const std::string&) const override { return true; }

 private:
  prtkv_key open(const char* name) {
    prtkv_key key = 0;
    require(prtkv_open_key(context_, &key, name), "prtkv_open_key");
    return key;
  }
  void close(prtkv_key key) { require(prtkv_close_key(context_, key), "prtkv_close_key"); }

  // Reads a value into the buffer, as the bridge does: again with more room if it does not fit. Returns its size.
  uint32_t get(const char* name) {
    const prtkv_key key = open(name);
    int32_t type = 0;
    auto size = static_cast<uint32_t>(buffer_.size());
    int32_t code = prtkv_get_value(context_, key, &type, buffer_.data(), &size);
    if (code == PRTKV_BUFFER_TOO_SMALL) {
      buffer_.resize(size);
      code = prtkv_get_value(context_, key, &type, buffer_.data(), &size);
    }
    require(code, "prtkv_get_value");
    close(key);
    return size;
  }

  prtkv_ctx context_ = 0;
  std::vector<char> buffer_ = std::vector<char>(1024);
};

class LmdbSide final : public Side {
 public:
  explicit LmdbSide(std::string directory) : directory_(std::move(directory)) {}
  explicit LmdbSide(std::unique_ptr<BareLmdb> store) : store_(std::move(store)) {}

  void open_store() override { store_ = std::make_unique<BareLmdb>(directory_); }
  void close_store() override { store_.reset(); }

  void fill(const Dataset& dataset) override {
    BareLmdb store(directory_);
    for (int group = 0; group <= dataset.groups(); ++group) {
      store.begin();
      for (const auto& name : dataset.names_of(dataset.group(group))) {
        store.put(name.c_str(), dataset.value(name).c_str());
      }
      store.commit();
    }
  }

  uint64_t read(const char* name) override {
    return store_->get(name, [](const char* text) -> uint64_t {
      if (text == nullptr) throw std::runtime_error("the name is not in the store");
      return static_cast<unsigned char>(text[0]);
    });
  }
  bool reads(const std::string& name, const std::string& expected) override {
    return store_->get(name.c_str(), [&](const char* text) { return text != nullptr && expected == text; });
  }
  uint64_t list(const std::string& name) override { return store_->subkeys(name).size(); }
  uint64_t write(const char* name, const char* text) override {
    store_->put(name, text);
    return 1;
  }
  uint64_t open_key(const char*) override { throw std::logic_error("LMDB has no open keys"); }
  std::unique_ptr<Side> another() override { return std::make_unique<LmdbSide>(store_->another_reader()); }

 private:
  std::string directory_;
  std::unique_ptr<BareLmdb> store_;
};

// Does nothing: its times are the overhead of the measurement.
class ControlSide final : public Side {
 public:
  void open_store() override {}
  void close_store() override {}
  void fill(const Dataset&) override {}
  uint64_t read(const char* name) override { return static_cast<unsigned char>(name[0]); }
  bool reads(const std::string&, const std::string&) override { return true; }
  uint64_t list(const std::string& name) override { return name.size(); }
  uint64_t write(const char* name, const char*) override { return read(name); }
  uint64_t open_key(const char* name) override { return read(name); }
  std::unique_ptr<Side> another() override { return std::make_unique<ControlSide>(); }
  bool has(const std::string&) const override { return true; }
  bool is_control() const override { return true; }
};

}  // namespace

std::unique_ptr<Side> side_of(const std::string& name, const std::string& directory) {
  if (name == "tkv") return std::make_unique<RegistrySide>();
  if (name == "lmdb") return std::make_unique<LmdbSide>(directory);
  if (name == "control") return std::make_unique<ControlSide>();
  throw std::invalid_argument("there is no side '" + name + "'");
}

}  // namespace tkv::bench
