#include "watch.h"

#include <memory>
#include <stop_token>
#include <string>

#include "registry/client.h"

namespace tkv::java {
namespace {

constexpr std::size_t kBlockSize = std::size_t{64} << 10;  // about

void write_record(const ChangeRecord& record, DataWriter& to) {
  to.word64(static_cast<std::int64_t>(record.revision));
  to.word64(record.time);
  to.text(record.author);
  to.text(record.host);
  to.text(record.program);
  to.word32(static_cast<std::int32_t>(record.process));
  to.text(record.note);
  to.word32(static_cast<std::int32_t>(record.changes.size()));
  for (const Change& change : record.changes) {
    to.word32(static_cast<std::int32_t>(change.kind));
    to.text(change.name);
    to.text(change.from);
  }
}

}  // namespace

Status closed_watch() { return {PRTKV_INVALID_HANDLE, "the watch is closed"}; }

Status write_changes(registry::Client& client, std::string_view name, std::size_t depth, Revision after,
                     DataWriter& to) {
  registry::ChangeQuery query;
  query.range.after = after;
  query.range.only_complete = true;
  query.name = name;
  query.depth = depth;
  std::string records;
  DataWriter writer(&records);
  Revision last = after;
  bool is_full = false;
  const auto visit = [&](const ChangeRecord& record) -> Status {
    write_record(record, writer);
    last = record.revision;
    is_full = records.size() >= kBlockSize;
    return is_full ? Status(PRTKV_NO_MORE_SUBKEYS) : Status();
  };
  LogPosition position;
  const Status status = client.changes_since(query, visit, &position);
  if (!status.ok() && !is_full) return status;
  to.word32(position.complete ? 1 : 0);
  to.word64(static_cast<std::int64_t>(is_full ? last : position.revision));
  to.raw(records);
  return {};
}

Status wait_for_change(OpenRegistry& open, jlong watch, Revision after, std::chrono::milliseconds timeout,
                       Revision* revision) {
  const std::shared_ptr<std::stop_source> stop = open.watches().find(watch);
  if (stop == nullptr) return closed_watch();
  const std::stop_token closing = open.closing();
  const std::stop_callback end_with_registry(closing, [&] { stop->request_stop(); });
  const Status status = open.client().wait(after, timeout, stop->get_token(), revision);
  if (closing.stop_requested()) return {PRTKV_INVALID_HANDLE, "the registry is closed"};
  if (stop->stop_requested()) return closed_watch();
  return status;
}

void end_watch(OpenRegistry& open, jlong watch) {
  if (const std::shared_ptr<std::stop_source> stop = open.watches().remove(watch)) stop->request_stop();
}

}  // namespace tkv::java
