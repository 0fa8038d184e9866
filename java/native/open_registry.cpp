#include "open_registry.h"

#include <latch>
#include <memory>

#include "handle_table.h"

namespace tkv::java {
namespace {

// A registry in the table. The last user of it counts down `gone`, if somebody waits for that.
struct Entry {
  explicit Entry(std::unique_ptr<OpenRegistry> opened) : registry(std::move(opened)) {}
  ~Entry() {
    registry.reset();
    if (gone != nullptr) gone->count_down();
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  std::unique_ptr<OpenRegistry> registry;
  std::latch* gone = nullptr;  // set once, by the thread that has taken the entry out of the table
};

// Never destroyed: while the process exits, other threads may still be calling.
HandleTable<Entry>& registries() {
  alignas(HandleTable<Entry>) static unsigned char place[sizeof(HandleTable<Entry>)];
  static auto* const table = new (place) HandleTable<Entry>();
  return *table;
}

}  // namespace

Status OpenRegistry::check_writable() const {
  if (!read_only_) return {};
  return {PRTKV_ACCESS_DENIED, "access denied: the registry was opened for reading only"};
}

jlong add_registry(std::shared_ptr<registry::Client> client, bool read_only) {
  return registries().add(std::make_shared<Entry>(std::make_unique<OpenRegistry>(std::move(client), read_only)));
}

std::shared_ptr<OpenRegistry> find_registry(jlong handle) {
  std::shared_ptr<Entry> entry = registries().find(handle);
  if (entry == nullptr) return nullptr;
  OpenRegistry* const registry = entry->registry.get();
  return {std::move(entry), registry};
}

Status close_registry(jlong handle) {
  std::shared_ptr<Entry> entry = registries().remove(handle);
  if (entry == nullptr) return {PRTKV_INVALID_HANDLE, "the registry is closed"};
  std::latch gone(1);
  entry->gone = &gone;
  entry->registry->end_waiting();
  entry.reset();
  gone.wait();
  return {};
}

}  // namespace tkv::java
