#include "registry_natives.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "batch_request.h"
#include "call.h"
#include "data_reader.h"
#include "data_writer.h"
#include "open_registry.h"
#include "open_request.h"
#include "registry/access.h"
#include "registry/client.h"
#include "registry/configuration.h"
#include "registry/name.h"
#include "registry/open_client.h"
#include "registry/zuved.h"
#include "state_pin.h"
#include "walk.h"
#include "watch.h"

namespace tkv::java {
namespace {

using registry::Client;
using registry::KeyId;
using registry::KeyInfo;
using registry::KeyReader;
using registry::LatestValue;
using registry::NamedValue;
using registry::PutOptions;
using registry::Snapshot;
using registry::SubkeyNames;
using registry::TypedValue;
using registry::WalkEntry;
using registry::WalkOptions;

// As RegistryNatives.java names them. Do not change one side alone.
constexpr std::int32_t kPutNewOnly = 1;
constexpr std::int32_t kPutCreatesParents = 2;
constexpr jlong kCopyReplaces = 1;
constexpr jlong kCopyIsOwn = 2;
constexpr jlong kLatest = -1;

constexpr std::size_t kUsualValueSize = 1024;  // bytes of a value for which no memory is allocated

constexpr auto no_progress = [](std::uint64_t) {};

Status incomplete() { return {PRTKV_INVALID_ARGUMENT, "incomplete request"}; }

// --- Registries ---

jbyteArray JNICALL open(JNIEnv* env, jclass, jbyteArray request) {
  return reply_to(env, [&](DataWriter& result) -> Status {
    const std::string bytes = bytes_of(env, request);
    DataReader reader(bytes);
    jlong handle = 0;
    if (Status status = open_requested(reader, &handle); !status.ok()) return status;
    result.word64(handle);
    return {};
  });
}

jbyteArray JNICALL close(JNIEnv* env, jclass, jlong registry) {
  return reply_to(env, [&](DataWriter&) { return close_registry(registry); });
}

jbyteArray JNICALL describe(JNIEnv* env, jclass, jlong registry) {
  return read_registry(env, registry, [&](Client& client, DataWriter& result) -> Status {
    const registry::Configuration& configuration = client.configuration();
    result.text(client.identity().user);
    result.text(client.identity().group());
    result.text(configuration.backup_location);
    result.word32(configuration.cluster_configured ? 1 : 0);
    result.word32(configuration.local_only ? 0 : 1);
    result.word32(static_cast<std::int32_t>(configuration.locations.size()));
    for (const std::string& location : configuration.locations) result.text(location);
    return {};
  });
}

jbyteArray JNICALL checkLocation(JNIEnv* env, jclass, jstring location) {
  return reply_to(
      env, [&](DataWriter&) { return registry::check_location(std::string(StringArgument(env, location).view())); });
}

// --- States ---

jbyteArray JNICALL revision(JNIEnv* env, jclass, jlong registry) {
  return read_registry(env, registry, [&](Client& client, DataWriter& result) -> Status {
    Revision revision = 0;
    if (Status status = client.revision(&revision); !status.ok()) return status;
    result.word64(static_cast<std::int64_t>(revision));
    return {};
  });
}

jbyteArray JNICALL beginSnapshot(JNIEnv* env, jclass, jlong registry, jlong revision) {
  return call_registry(env, registry, [&](OpenRegistry& open, DataWriter& result) -> Status {
    std::unique_ptr<Snapshot> snapshot;
    Status status =
        revision == kLatest ? open.client().snapshot(&snapshot) : open.client().at(Revision(revision), &snapshot);
    if (!status.ok()) return status;
    const Revision of_state = snapshot->revision();
    result.word64(open.snapshots().add(std::move(snapshot)));
    result.word64(static_cast<std::int64_t>(of_state));
    return {};
  });
}

void JNICALL endSnapshot(JNIEnv*, jclass, jlong registry, jlong snapshot) {
  if (const RegistryUse open(registry); open) open->snapshots().remove(snapshot);
}

jbyteArray JNICALL pinState(JNIEnv* env, jclass, jlong registry) {
  return call_registry(env, registry, [&](OpenRegistry& open, DataWriter& result) -> Status {
    result.word64(pin_state(open.state_memory()));
    return {};
  });
}

jobject JNICALL stateMemory(JNIEnv* env, jclass, jlong pin) {
  const std::shared_ptr<const StateMemory> memory = pinned_state(pin);
  if (memory == nullptr) return nullptr;
  const std::span<const std::byte> bytes = memory->bytes();
  return env->NewDirectByteBuffer(const_cast<std::byte*>(bytes.data()), static_cast<jlong>(bytes.size()));
}

void JNICALL unpinState(JNIEnv*, jclass, jlong pin) { unpin_state(pin); }

// --- Reading ---

// Calls `read` with what is to be read (the present or a snapshot), the name of a key, and the result.
template <typename Read>
jbyteArray read_key(JNIEnv* env, jlong registry, jlong snapshot, jstring name, Read&& read) {
  return read_state(env, registry, snapshot, [&](KeyReader& reader, DataWriter& result) -> Status {
    return read(reader, StringArgument(env, name).view(), result);
  });
}

jbyteArray JNICALL exists(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name, [](KeyReader& reader, std::string_view key, DataWriter&) {
    KeyId id = registry::kAnyKey;
    return reader.find(key, &id);
  });
}

Status write_value(KeyReader& reader, std::string_view name, DataWriter& to) {
  TypedValue found;
  if (Status status = reader.read_value(name, &found); !status.ok()) return status;
  to.word32(found.type);
  to.raw(found.bytes);
  return {};
}

Status write_list(KeyReader& reader, std::string_view name, DataWriter& to) {
  return reader.list(name, false, [&](const registry::Subkey& subkey) -> Status {
    to.text(subkey.level);
    return {};
  });
}

jbyteArray JNICALL value(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name, write_value);
}

// A reply that ends with a value. What precedes the value is written in front of it, so that it need not be copied.
class LatestValueReply {
 public:
  Status read(registry::LatestReader& reader, std::string_view name) {
    Status status = reader.read_value(name, room_for_value(), &found_);
    while (status.ok() && found_.size > room_for_value().size()) {
      large_.resize(kHeadSize + found_.size);
      bytes_ = large_;
      status = reader.read_value(name, room_for_value(), &found_);
    }
    return status;
  }

  std::string_view bytes() {
    kSuccess.copy(bytes_.data(), kSuccess.size());
    write_word(found_.state, sizeof found_.state, bytes_.data() + kStateAt);
    if (!found_.exists) return {bytes_.data(), kTypeAt};
    write_word(static_cast<std::uint32_t>(found_.type), sizeof found_.type, bytes_.data() + kTypeAt);
    return {bytes_.data(), kHeadSize + found_.size};
  }

 private:
  static constexpr std::size_t kStateAt = kSuccess.size();
  static constexpr std::size_t kTypeAt = kStateAt + sizeof(LatestValue::state);
  static constexpr std::size_t kHeadSize = kTypeAt + sizeof(LatestValue::type);

  std::span<std::byte> room_for_value() { return std::as_writable_bytes(bytes_.subspan(kHeadSize)); }

  std::array<char, kHeadSize + kUsualValueSize> usual_;
  std::vector<char> large_;
  std::span<char> bytes_{usual_};
  LatestValue found_;
};

jbyteArray JNICALL latestValue(JNIEnv* env, jclass, jlong registry, jstring name) {
  return reply_of(env, [&] {
    const RegistryUse open(registry);
    if (!open) return failure(env, closed_registry());
    LatestValueReply reply;
    const Status status = reply.read(open->latest(), StringArgument(env, name).view());
    return status.ok() ? array_of(env, reply.bytes()) : failure(env, status);
  });
}

jbyteArray JNICALL list(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name, write_list);
}

jbyteArray JNICALL latestList(JNIEnv* env, jclass, jlong registry, jstring name) {
  return read_registry(env, registry, [&](Client& client, DataWriter& result) -> Status {
    SubkeyNames names;
    std::uint64_t state = 0;
    Status status = client.list_names(StringArgument(env, name).view(), &names, &state);
    if (!status.ok()) return status;
    result.word64(static_cast<std::int64_t>(state));
    for (SubkeyNames::Position at; at.passed < names.count();) {
      const std::string_view level = names.at(at);
      result.text(level);
      SubkeyNames::advance(level, &at);
    }
    return {};
  });
}

jbyteArray JNICALL read(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name,
                  [](KeyReader& reader, std::string_view key, DataWriter& result) -> Status {
                    KeyInfo info;
                    TypedValue found;
                    if (Status status = reader.read_key(key, &info, &found); !status.ok()) return status;
                    result.word64(static_cast<std::int64_t>(info.revision));
                    result.word32(found.type);
                    result.raw(found.bytes);
                    return {};
                  });
}

jbyteArray JNICALL stat(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name,
                  [](KeyReader& reader, std::string_view key, DataWriter& result) -> Status {
                    KeyInfo info;
                    if (Status status = reader.stat(key, &info); !status.ok()) return status;
                    result.word32(info.type);
                    result.word64(static_cast<std::int64_t>(info.size));
                    result.word32(info.has_subkeys ? 1 : 0);
                    result.word32(info.rights);
                    write_security(info.security, result);
                    result.word64(static_cast<std::int64_t>(info.revision));
                    result.word64(info.changed_at);
                    result.text(info.changed_by);
                    return {};
                  });
}

// A walk that visits the key alone: it tells the rights without needing any.
jbyteArray JNICALL rights(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name) {
  return read_key(env, registry, snapshot, name, [](KeyReader& reader, std::string_view key, DataWriter& result) {
    WalkOptions options;
    options.denied = WalkOptions::Denied::kSkip;
    options.depth = 0;
    return reader.walk(key, options, [&](const WalkEntry& entry) -> Status {
      result.word32(entry.rights);
      return {};
    });
  });
}

void write_block(const WalkBlock& block, DataWriter& to) {
  to.word64(block.rest);
  to.raw(block.entries);
}

jbyteArray JNICALL beginWalk(JNIEnv* env, jclass, jlong registry, jlong snapshot, jstring name, jlong depth) {
  return read_state(env, registry, snapshot, [&](KeyReader& reader, DataWriter& result) -> Status {
    if (depth < 0) return {PRTKV_INVALID_ARGUMENT, "a depth below 0"};
    WalkBlock block;
    const StringArgument top(env, name);
    if (Status status = begin_walk(reader, top.view(), static_cast<std::size_t>(depth), &block); !status.ok()) {
      return status;
    }
    write_block(block, result);
    return {};
  });
}

jbyteArray JNICALL continueWalk(JNIEnv* env, jclass, jlong rest) {
  return reply_to(env, [&](DataWriter& result) -> Status {
    WalkBlock block;
    if (Status status = continue_walk(rest, &block); !status.ok()) return status;
    write_block(block, result);
    return {};
  });
}

void JNICALL endWalk(JNIEnv*, jclass, jlong rest) { end_walk(rest); }

// --- Watching ---

jbyteArray JNICALL beginWatch(JNIEnv* env, jclass, jlong registry) {
  return call_registry(env, registry, [&](OpenRegistry& open, DataWriter& result) -> Status {
    result.word64(open.watches().add(std::make_shared<std::stop_source>()));
    return {};
  });
}

void JNICALL endWatch(JNIEnv*, jclass, jlong registry, jlong watch) {
  if (const RegistryUse open(registry); open) end_watch(*open, watch);
}

jbyteArray JNICALL changes(JNIEnv* env, jclass, jlong registry, jlong watch, jstring name, jlong depth, jlong after) {
  return call_registry(env, registry, [&](OpenRegistry& open, DataWriter& result) -> Status {
    if (open.watches().find(watch) == nullptr) return closed_watch();
    if (depth < 0) return {PRTKV_INVALID_ARGUMENT, "a depth below 0"};
    const StringArgument top(env, name);
    return write_changes(open.client(), top.view(), static_cast<std::size_t>(depth), Revision(after), result);
  });
}

jbyteArray JNICALL await(JNIEnv* env, jclass, jlong registry, jlong watch, jlong after, jlong milliseconds) {
  return call_registry(env, registry, [&](OpenRegistry& open, DataWriter& result) -> Status {
    Revision latest = 0;
    const std::chrono::milliseconds timeout(milliseconds);
    if (Status status = wait_for_change(open, watch, Revision(after), timeout, &latest); !status.ok()) return status;
    result.word64(static_cast<std::int64_t>(latest));
    return {};
  });
}

// --- Changing ---

Status read_put(DataReader& request, const Client& client, PutOptions* options, std::vector<NamedValue>* values) {
  const std::int32_t flags = request.word32();
  const KeySecurity security = read_security(request);
  if ((flags & kPutNewOnly) != 0) options->key = PutOptions::Key::kMustBeNew;
  options->create_parents = (flags & kPutCreatesParents) != 0;
  options->security = {registry::default_security(client.identity()), security.inherits, security.specified};
  while (!request.at_end()) {
    NamedValue& value = values->emplace_back();
    value.name = request.text();
    value.value.type = request.word32();
    value.value.bytes = request.text();
  }
  return request.complete() ? Status() : incomplete();
}

jbyteArray JNICALL put(JNIEnv* env, jclass, jlong registry, jbyteArray request) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) -> Status {
    const std::string bytes = bytes_of(env, request);
    DataReader reader(bytes);
    PutOptions options;
    std::vector<NamedValue> values;
    if (Status status = read_put(reader, client, &options, &values); !status.ok()) return status;
    return client.put(values, options);
  });
}

jbyteArray JNICALL clear(JNIEnv* env, jclass, jlong registry, jstring name) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) {
    return client.write_value(StringArgument(env, name).view(), 0, {});
  });
}

jbyteArray JNICALL changeSecurity(JNIEnv* env, jclass, jlong registry, jstring name, jbyteArray request,
                                  jlong recursive) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) -> Status {
    const std::string bytes = bytes_of(env, request);
    DataReader reader(bytes);
    const KeySecurity security = read_security(reader);
    if (!reader.complete()) return incomplete();
    return client.change_security(StringArgument(env, name).view(), security.specified, recursive != 0, no_progress);
  });
}

jbyteArray JNICALL remove(JNIEnv* env, jclass, jlong registry, jstring name, jlong recursive) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) {
    return client.remove(StringArgument(env, name).view(), recursive != 0, no_progress);
  });
}

jbyteArray JNICALL move(JNIEnv* env, jclass, jlong registry, jstring source, jstring target, jlong replace) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) {
    const StringArgument from(env, source);
    const StringArgument to(env, target);
    KeyId id = registry::kAnyKey;
    return client.move(from.view(), registry::parent_of(to.view()), registry::last_level(to.view()), replace != 0, &id);
  });
}

jbyteArray JNICALL copy(JNIEnv* env, jclass, jlong registry, jstring source, jstring target, jlong flags) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) {
    registry::CopyOptions options;
    options.recursive = true;
    options.replace = (flags & kCopyReplaces) != 0;
    options.own = (flags & kCopyIsOwn) != 0;
    const StringArgument from(env, source);
    return client.copy(from.view(), StringArgument(env, target).view(), options, no_progress);
  });
}

std::int32_t index_or_none(const std::optional<std::size_t>& index) {
  return index ? static_cast<std::int32_t>(*index) : -1;
}

jbyteArray JNICALL commit(JNIEnv* env, jclass, jlong registry, jbyteArray request) {
  return change_registry(env, registry, [&](Client& client, DataWriter& result) -> Status {
    const std::string bytes = bytes_of(env, request);
    DataReader reader(bytes);
    BatchRequest wanted;
    if (!read_batch(reader, client.identity(), &wanted)) return incomplete();
    registry::CommitResult outcome;
    const Status status = wanted.note.empty() ? client.commit(wanted.batch, &outcome)
                                              : client.with_note(wanted.note)->commit(wanted.batch, &outcome);
    result.word32(status.code());
    result.word32(index_or_none(outcome.failed_condition));
    result.word32(index_or_none(outcome.failed_operation));
    result.word64(static_cast<std::int64_t>(outcome.revision));
    result.raw(status.text());
    return {};
  });
}

jbyteArray JNICALL recordServiceDependencies(JNIEnv* env, jclass, jlong registry, jlong mode) {
  return change_registry(env, registry, [&](Client& client, DataWriter&) -> Status {
    if (mode < 0 || mode > std::numeric_limits<std::int32_t>::max()) return PRTKV_INVALID_ARGUMENT;
    return registry::record_zuved_dependencies(client, static_cast<std::int32_t>(mode));
  });
}

template <typename Result, typename... Arguments>
JNINativeMethod method(const char* name, const char* signature, Result (*function)(JNIEnv*, jclass, Arguments...)) {
  // The JVM only reads the texts.
  return {const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function)};
}

}  // namespace

void register_registry_natives(JNIEnv* env) {
  const JNINativeMethod methods[] = {
      method("open", "([B)[B", open),
      method("close", "(J)[B", close),
      method("describe", "(J)[B", describe),
      method("checkLocation", "(Ljava/lang/String;)[B", checkLocation),
      method("revision", "(J)[B", revision),
      method("beginSnapshot", "(JJ)[B", beginSnapshot),
      method("endSnapshot", "(JJ)V", endSnapshot),
      method("pinState", "(J)[B", pinState),
      method("stateMemory", "(J)Ljava/nio/ByteBuffer;", stateMemory),
      method("unpinState", "(J)V", unpinState),
      method("exists", "(JJLjava/lang/String;)[B", exists),
      method("value", "(JJLjava/lang/String;)[B", value),
      method("latestValue", "(JLjava/lang/String;)[B", latestValue),
      method("read", "(JJLjava/lang/String;)[B", read),
      method("list", "(JJLjava/lang/String;)[B", list),
      method("latestList", "(JLjava/lang/String;)[B", latestList),
      method("stat", "(JJLjava/lang/String;)[B", stat),
      method("rights", "(JJLjava/lang/String;)[B", rights),
      method("beginWalk", "(JJLjava/lang/String;J)[B", beginWalk),
      method("continueWalk", "(J)[B", continueWalk),
      method("endWalk", "(J)V", endWalk),
      method("beginWatch", "(J)[B", beginWatch),
      method("endWatch", "(JJ)V", endWatch),
      method("changes", "(JJLjava/lang/String;JJ)[B", changes),
      method("await", "(JJJJ)[B", await),
      method("put", "(J[B)[B", put),
      method("clear", "(JLjava/lang/String;)[B", clear),
      method("changeSecurity", "(JLjava/lang/String;[BJ)[B", changeSecurity),
      method("remove", "(JLjava/lang/String;J)[B", remove),
      method("move", "(JLjava/lang/String;Ljava/lang/String;J)[B", move),
      method("copy", "(JLjava/lang/String;Ljava/lang/String;J)[B", copy),
      method("commit", "(J[B)[B", commit),
      method("recordServiceDependencies", "(JJ)[B", recordServiceDependencies),
  };
  jclass owner = env->FindClass("velmar/qen/mgmt/registry/RegistryNatives");
  if (owner == nullptr) {
    env->ExceptionClear();
    return;
  }
  if (env->RegisterNatives(owner, methods, static_cast<jint>(std::size(methods))) != JNI_OK) env->ExceptionClear();
  env->DeleteLocalRef(owner);
}

}  // namespace tkv::java
