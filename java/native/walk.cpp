#include "walk.h"

#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "data_writer.h"
#include "handle_table.h"
#include "registry/name.h"

namespace tkv::java {
namespace {

using registry::WalkEntry;
using registry::WalkOptions;

constexpr std::size_t kBlockSize = std::size_t{64} << 10;  // about

struct Blocks {
  std::mutex mutex;
  std::deque<std::string> blocks;  // not yet delivered
};

// Never destroyed: while the process exits, other threads may still be calling.
HandleTable<Blocks>& walks() {
  alignas(HandleTable<Blocks>) static unsigned char place[sizeof(HandleTable<Blocks>)];
  static auto* const table = new (place) HandleTable<Blocks>();
  return *table;
}

void write_entry(const WalkEntry& entry, DataWriter& to) {
  to.text(entry.name);
  to.word32(entry.rights);
  to.word32(entry.type);
  to.text({reinterpret_cast<const char*>(entry.value.data()), entry.value.size()});
  if ((entry.rights & TKV_RIGHT_READ) == 0) return;
  write_security(entry.security, to);
  to.word64(static_cast<std::int64_t>(entry.revision));
}

Status collect(registry::KeyReader& reader, std::string_view name, std::size_t depth, std::deque<std::string>* blocks) {
  WalkOptions options;
  options.denied = WalkOptions::Denied::kSkip;
  options.values = true;
  options.depth = depth;
  return reader.walk(name, options, [&](const WalkEntry& entry) -> Status {
    if (entry.subkeys_hidden) {
      return {PRTKV_ACCESS_DENIED, registry::describe(entry.name) + ": access denied, its subkeys may not be listed"};
    }
    if (entry.depth == 0) return {};
    if (blocks->empty() || blocks->back().size() >= kBlockSize) blocks->emplace_back();
    DataWriter writer(&blocks->back());
    write_entry(entry, writer);
    return {};
  });
}

}  // namespace

Status begin_walk(registry::KeyReader& reader, std::string_view name, std::size_t depth, WalkBlock* first) {
  auto collected = std::make_shared<Blocks>();
  if (Status status = collect(reader, name, depth, &collected->blocks); !status.ok()) return status;
  *first = {};
  if (collected->blocks.empty()) return {};
  first->entries = std::move(collected->blocks.front());
  collected->blocks.pop_front();
  if (!collected->blocks.empty()) first->rest = walks().add(std::move(collected));
  return {};
}

Status continue_walk(jlong rest, WalkBlock* next) {
  const std::shared_ptr<Blocks> found = walks().find(rest);
  if (found == nullptr) return {PRTKV_INVALID_HANDLE, "the stream is closed"};
  const std::scoped_lock lock(found->mutex);
  if (found->blocks.empty()) return {PRTKV_INVALID_HANDLE, "the stream is closed"};
  next->entries = std::move(found->blocks.front());
  found->blocks.pop_front();
  next->rest = found->blocks.empty() ? 0 : rest;
  if (next->rest == 0) walks().remove(rest);
  return {};
}

void end_walk(jlong rest) { walks().remove(rest); }

}  // namespace tkv::java
