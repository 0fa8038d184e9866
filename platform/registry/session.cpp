#include "registry/session.h"

#include <string.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "registry/error_text.h"
#include "registry/handle.h"
#include "registry/name.h"

namespace tkv::registry {
namespace {

constexpr std::size_t kKeptBytes = 64UL * 1024;  // capacity that buffers keep between uses
constexpr std::size_t kMostLostNames = 1024;     // that are kept, besides one for each open key

Status invalid_handle() { return {PRTKV_INVALID_HANDLE, "invalid key handle"}; }

Status too_small(std::uint32_t offered, std::size_t needed) {
  return {PRTKV_BUFFER_TOO_SMALL,
          "buffer too small: " + std::to_string(needed) + " bytes do not fit in " + std::to_string(offered)};
}

}  // namespace

// A slot that an operation has taken but not given out yet. It is taken before anything is changed, so that a key that
// was created always gets its handle.
class Session::Reservation {
 public:
  explicit Reservation(Session& session) : session_(session) {}
  ~Reservation() {
    if (taken_) session_.release(index_);
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

  Status take() {
    if (session_.free_.empty()) {
      if (session_.keys_.size() == kMaxSlots) return {PRTKV_OUT_OF_MEMORY, "too many open keys in one session"};
      // So that freeing a slot never allocates.
      if (session_.free_.capacity() <= session_.keys_.size()) session_.free_.reserve(2 * session_.keys_.size() + 8);
      session_.keys_.push_back(std::make_unique<OpenKey>());
      index_ = session_.keys_.size() - 1;
    } else {
      index_ = session_.free_.back();
      session_.free_.pop_back();
    }
    taken_ = true;
    return {};
  }

  // For a key below another.
  Status take_below(const OpenKey& above, std::string_view name) {
    FullName full_name;
    if (Status status = check_relative_name(name); !status.ok()) return status;
    if (Status status = full_name.join(above.name, name); !status.ok()) return status;
    if (Status status = take(); !status.ok()) return status;
    key().name.assign(full_name.view());
    return {};
  }

  OpenKey& key() { return *session_.keys_[index_]; }

  prtkv_key give(const KnownKey& known) {
    taken_ = false;
    key().known = known;
    key().checked = session_.lost_.now();
    key().serial = next_serial();
    return encode_handle(HandleKind::kKey, {key().serial, index_});
  }

 private:
  Session& session_;
  std::size_t index_ = 0;
  bool taken_ = false;
};

void Session::release(std::size_t index) noexcept {
  OpenKey& key = *keys_[index];
  key.serial = 0;
  key.gone = false;
  key.listed = false;
  key.name.clear();
  key.subkeys.clear();
  if (key.subkeys.capacity() > kKeptBytes) std::string().swap(key.subkeys);
  free_.push_back(index);
}

// An open key, whether it is gone or not. Null if the handle is not open.
Session::OpenKey* Session::find(prtkv_key handle, Handle* place) {
  if (!decode_handle(HandleKind::kKey, handle, place) || place->index >= keys_.size()) return nullptr;
  OpenKey& found = *keys_[place->index];
  return found.serial == place->serial ? &found : nullptr;
}

// An open key that is not known to be gone. Null otherwise, with the reason in `*reason`.
Session::OpenKey* Session::find_live(prtkv_key handle, Status* reason) {
  Handle place{};
  OpenKey* found = find(handle, &place);
  if (found != nullptr && !is_gone(*found)) return found;
  *reason = found == nullptr ? invalid_handle() : Status(PRTKV_NO_SUCH_KEY, describe(found->name) + " does not exist");
  return nullptr;
}

// Returns the result of an operation on an open key, and remembers if the key turned out to be gone.
Status Session::settle(OpenKey& key, Status status) {
  if (status.is(PRTKV_NO_SUCH_KEY)) key.gone = true;
  return status;
}

// Tells whether an open key was deleted or moved away, as far as this session knows.
bool Session::is_gone(OpenKey& key) noexcept {
  key.gone = key.gone || lost_.holds(key.name, key.checked);
  key.checked = lost_.now();
  return key.gone;
}

// Makes room for the loss of names. They are kept until there are more of them than open keys; then the open keys are
// checked once, which costs no more than the deletions before.
void Session::prepare_losses(std::initializer_list<std::string_view> names) {
  if (lost_.size() >= kMostLostNames + keys_.size()) {
    for (const auto& key : keys_) (void)is_gone(*key);
    lost_.clear();
  }
  for (const std::string_view name : names) lost_.prepare(name);
}

void Session::record(const Status& status) noexcept {
  last_code_ = status.code();
  last_size_ = status.ok() ? 0 : write_error_text(status, last_text_.data(), last_text_.size());
}

Status Session::open_key(std::string_view name, prtkv_key* key) {
  KnownKey fresh;
  KnownKey* const before = known_.find(name);
  KnownKey* const known = before != nullptr ? before : &fresh;
  if (Status status = client_->look_up(name, known); !status.ok()) return status;
  Reservation slot(*this);
  if (Status taken = slot.take(); !taken.ok()) return taken;
  slot.key().name.assign(name);
  *key = slot.give(*known);
  if (before == nullptr) known_.note(name, fresh);
  return {};
}

Status Session::close_key(prtkv_key key) {
  Handle handle{};
  if (find(key, &handle) == nullptr) return invalid_handle();
  release(handle.index);
  return {};
}

Status Session::create_key(prtkv_key parent, std::string_view name, const sec_attr& security, std::int32_t type,
                           std::span<const std::byte> value, prtkv_key* key) {
  Status status;
  OpenKey* above = find_live(parent, &status);
  if (above == nullptr) return status;
  Reservation slot(*this);
  if (status = slot.take_below(*above, name); !status.ok()) return status;
  KnownKey created;
  status = client_->create(above->ref(), name, security, type, value, &created.id);
  if (status.ok()) *key = slot.give(created);
  return status;
}

Status Session::delete_key(prtkv_key key, bool recursive) {
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  prepare_losses({found->name});
  status = settle(*found, client_->remove(found->ref(), recursive, [](std::uint64_t) {}));
  if (!status.ok()) return status;
  lost_.add(found->name);
  return close_key(key);
}

Status Session::move_key(prtkv_key source, prtkv_key parent, std::string_view name, bool replace, prtkv_key* moved) {
  Status status;
  OpenKey* from = find_live(source, &status);
  OpenKey* above = from == nullptr ? nullptr : find_live(parent, &status);
  if (above == nullptr) return status;
  Reservation slot(*this);
  if (status = slot.take_below(*above, name); !status.ok()) return status;
  prepare_losses({from->name, slot.key().name});
  KnownKey target;
  status = client_->move(from->ref(), above->ref(), name, replace, &target.id);
  if (!status.ok()) return status;
  lost_.add(from->name);
  lost_.add(slot.key().name);
  *moved = slot.give(target);
  return {};
}

Status Session::list_subkeys(OpenKey& key) {
  std::int32_t count = 0;
  key.subkeys.clear();
  Status status = client_->list(key.ref(), false, [&](const Subkey& subkey) -> Status {
    if (count == std::numeric_limits<std::int32_t>::max()) return {PRTKV_OUT_OF_MEMORY, "too many subkeys"};
    key.subkeys.append(subkey.level).push_back('\0');
    ++count;
    return {};
  });
  if (!status.ok()) {
    key.subkeys.clear();
    return settle(key, std::move(status));
  }
  key.listed = true;
  key.next = 0;
  key.remaining = count;
  return {};
}

Status Session::next_subkey(prtkv_key key, char* name, std::uint32_t* size, std::int32_t* remaining) {
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  if (!found->listed) {
    if (status = list_subkeys(*found); !status.ok()) return status;
  }
  if (found->remaining == 0) return {PRTKV_NO_MORE_SUBKEYS, describe(found->name) + " has no more subkeys"};
  const char* level = found->subkeys.c_str() + found->next;
  const std::size_t bytes = std::strlen(level) + 1;
  if (bytes > *size) {
    const std::uint32_t offered = *size;
    *size = static_cast<std::uint32_t>(bytes);
    return too_small(offered, bytes);
  }
  std::memcpy(name, level, bytes);
  *size = static_cast<std::uint32_t>(bytes - 1);
  found->next += bytes;
  *remaining = --found->remaining;
  return {};
}

Status Session::get_value(prtkv_key key, std::int32_t* type, void* buffer, std::uint32_t* size) {
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  const std::uint32_t offered = *size;
  const std::span bytes(static_cast<std::byte*>(buffer), offered);
  std::size_t found_size = 0;
  status = settle(*found, client_->read_known(found->name, &found->known, bytes, type, &found_size));
  if (!status.ok()) return status;
  *size = static_cast<std::uint32_t>(found_size);
  return found_size <= offered ? Status() : too_small(offered, found_size);
}

Status Session::set_value(prtkv_key key, std::int32_t type, std::span<const std::byte> value) {
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  return settle(*found, client_->write_value(found->ref(), type, value));
}

Status Session::get_security(prtkv_key key, sec_attr* security) {
  sec_attr read{};
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  status = settle(*found, client_->read_security(found->ref(), &read));
  if (status.ok()) *security = read;
  return status;
}

Status Session::get_revision(prtkv_key key, Revision* revision) {
  Status status;
  KeyInfo info;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  status = settle(*found, client_->stat(found->ref(), &info));
  if (status.ok()) *revision = info.revision;
  return status;
}

void Session::stop_waiting() {
  std::stop_source fresh;
  waits_.swap(fresh);
  fresh.request_stop();
}

Status Session::set_security(prtkv_key key, const sec_attr& security) {
  Status status;
  OpenKey* found = find_live(key, &status);
  if (found == nullptr) return status;
  return settle(*found, client_->write_security(found->ref(), security));
}

}  // namespace tkv::registry
