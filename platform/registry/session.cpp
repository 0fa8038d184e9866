#include "registry/session.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "registry/error_text.h"
#include "registry/handle.h"
#include "registry/name.h"

namespace tkv::registry {
namespace {

constexpr std::size_t kMostLostNames = 1024;  // that are kept, besides one for each open key

// Failures of short operations. Inlined, the code that composes a message would be most of theirs.
[[gnu::cold]] Status invalid_handle() { return {PRTKV_INVALID_HANDLE, "invalid key handle"}; }

[[gnu::cold]] Status gone(std::string_view name) { return {PRTKV_NO_SUCH_KEY, describe(name) + " does not exist"}; }

[[gnu::cold]] Status no_more_subkeys(std::string_view name) {
  return {PRTKV_NO_MORE_SUBKEYS, describe(name) + " has no more subkeys"};
}

[[gnu::cold]] Status too_small(std::uint32_t offered, std::size_t needed) {
  return {PRTKV_BUFFER_TOO_SMALL,
          "buffer too small: " + std::to_string(needed) + " bytes do not fit in " + std::to_string(offered)};
}

}  // namespace

// A slot that an operation has taken but not given out yet. It is taken before anything is changed, so that a key that
// was created always gets its handle. Must outlive a lock that is held in the same function.
class Session::Reservation {
 public:
  explicit Reservation(Session& session) : session_(session) {}
  ~Reservation() {
    if (key_ == nullptr) return;
    const std::lock_guard lock(session_.gate_);
    session_.release(index_);
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

  // Requires the lock.
  Status take() {
    if (Status status = session_.have_free_slot(); !status.ok()) return status;
    index_ = session_.free_.back();
    session_.free_.pop_back();
    key_ = session_.keys_[index_].get();
    return {};
  }

  // For a key below another.
  Status take_below(const FullName& above, std::string_view name) {
    FullName full_name;
    if (Status status = check_relative_name(name); !status.ok()) return status;
    if (Status status = full_name.join(above.view(), name); !status.ok()) return status;
    {
      const std::lock_guard lock(session_.gate_);
      if (Status status = take(); !status.ok()) return status;
    }
    key_->name.assign(full_name.view());
    return {};
  }

  // Requires the lock.
  prtkv_key give(const KnownKey& known) {
    key_ = nullptr;
    return session_.give(index_, known);
  }

  std::string_view name() const { return key_->name; }

 private:
  Session& session_;
  std::size_t index_ = 0;
  OpenKey* key_ = nullptr;
};

// The names of keys that an operation is about to delete or move away. Their loss is prepared for before that, since it
// must not fail afterwards. Must outlive a lock that is held in the same function.
class Session::Losses {
 public:
  explicit Losses(Session& session) : session_(session) {}
  ~Losses() {
    if (count_ == 0) return;
    const std::lock_guard lock(session_.gate_);
    for (std::size_t i = 0; i < count_; ++i) session_.lost_.give_up(names_[i]);
  }
  Losses(const Losses&) = delete;
  Losses& operator=(const Losses&) = delete;

  // Names are kept until there are more of them than open keys; then the open keys are checked once, which costs no
  // more than the deletions before. The names must outlive this object. Requires the lock.
  void prepare(std::initializer_list<std::string_view> names) {
    if (session_.lost_.size() >= kMostLostNames + session_.keys_.size()) {
      for (const auto& key : session_.keys_) (void)session_.is_gone(*key);
      session_.lost_.clear();
    }
    for (const std::string_view name : names) {
      session_.lost_.prepare(name);
      names_[count_++] = name;
    }
  }

  // The keys are lost. Requires the lock.
  void take_effect() noexcept {
    for (std::size_t i = 0; i < count_; ++i) session_.lost_.add(names_[i]);
    count_ = 0;
  }

 private:
  Session& session_;
  std::array<std::string_view, 2> names_;
  std::size_t count_ = 0;
};

// So that free_.back() can be taken. Freeing a slot never allocates.
Status Session::have_free_slot() {
  if (!free_.empty()) return {};
  if (keys_.size() == kMaxSlots) return {PRTKV_OUT_OF_MEMORY, "too many open keys in one session"};
  if (free_.capacity() <= keys_.size()) free_.reserve(2 * keys_.size() + 8);
  keys_.push_back(std::make_unique<OpenKey>());
  free_.push_back(keys_.size() - 1);
  return {};
}

// Gives out a slot that was taken and named.
prtkv_key Session::give(std::size_t index, const KnownKey& known) noexcept {
  OpenKey& key = *keys_[index];
  key.known = known;
  key.checked = lost_.now();
  key.serial = serials_.next();
  return encode_handle(HandleKind::kKey, {key.serial, index});
}

void Session::release(std::size_t index) noexcept {
  OpenKey& key = *keys_[index];
  key.serial = 0;
  key.gone = false;
  key.name.clear();
  key.subkeys.reset();
  key.next_subkey = {};
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
  *reason = found == nullptr ? invalid_handle() : gone(found->name);
  return nullptr;
}

Status Session::find_target(prtkv_key handle, Target* target) {
  Status status;
  const OpenKey* const found = find_live(handle, &status);
  if (found == nullptr) return status;
  target->name.assign(found->name);
  target->known = found->known;
  return {};
}

Status Session::target_of(prtkv_key handle, Target* target) {
  const std::lock_guard lock(gate_);
  return find_target(handle, target);
}

// Returns the result of an operation on an open key, and remembers if the key turned out to be gone.
Status Session::settle(prtkv_key handle, Status status) {
  if (!status.is(PRTKV_NO_SUCH_KEY)) return status;
  Handle place{};
  const std::lock_guard lock(gate_);
  if (OpenKey* const found = find(handle, &place)) found->gone = true;
  return status;
}

// Tells whether an open key was deleted or moved away, as far as this session knows.
bool Session::check_losses(OpenKey& key) noexcept {
  key.gone = key.gone || lost_.holds(key.name, key.checked);
  key.checked = lost_.now();
  return key.gone;
}

void Session::replace_last(SessionGate::Visit& visit, const Status& status) noexcept {
  visit.lock();
  last_code_.store(status.code(), std::memory_order_relaxed);
  last_ = status;
}

Status Session::last_error(std::int32_t* code, char* text, std::int32_t* size) {
  Status last;
  {
    const std::lock_guard lock(gate_);
    last = last_;
  }
  if (last.ok()) return PRTKV_UNKNOWN;
  std::array<char, PRTKV_ERROR_TEXT_SIZE> message;
  const std::size_t message_size = write_error_text(last, message.data(), message.size());
  const std::string_view shown = beginning({message.data(), message_size}, static_cast<std::size_t>(*size) - 1);
  shown.copy(text, shown.size());
  text[shown.size()] = '\0';
  *code = last.code();
  *size = static_cast<std::int32_t>(shown.size());
  return {};
}

Status Session::open_known(std::string_view name, const KnownKey& known, prtkv_key* key) {
  if (Status status = have_free_slot(); !status.ok()) return status;
  const std::size_t index = free_.back();
  keys_[index]->name.assign(name);
  free_.pop_back();
  *key = give(index, known);
  return {};
}

Status Session::open_key(SessionGate::Visit& visit, std::string_view name, prtkv_key* key) {
  const std::size_t hash = KnownKeys::hash(name);
  const KnownKey* const before = known_.find(name, hash);
  if (before != nullptr && before->state == client_->latest_state(before)) return open_known(name, *before, key);
  KnownKey known = before != nullptr ? *before : known_.begin(hash);
  visit.unlock();
  if (Status status = client_->look_up(name, &known); !status.ok()) return status;
  visit.lock();
  if (Status status = open_known(name, known, key); !status.ok()) return status;
  known_.note(name, hash, known);
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
  Target above;
  if (Status status = target_of(parent, &above); !status.ok()) return status;
  Reservation slot(*this);
  if (Status status = slot.take_below(above.name, name); !status.ok()) return status;
  KnownKey created;
  Status status = client_->create(above.ref(), name, security, type, value, &created);
  if (!status.ok()) return status;
  const std::lock_guard lock(gate_);
  *key = slot.give(created);
  return {};
}

Status Session::delete_key(prtkv_key key, bool recursive) {
  Target target;
  Losses losses(*this);
  {
    const std::lock_guard lock(gate_);
    if (Status status = find_target(key, &target); !status.ok()) return status;
    losses.prepare({target.name.view()});
  }
  const auto no_progress = [](std::uint64_t) {};
  Status status = client_->remove(target.ref(), recursive, no_progress);
  if (!status.ok()) return settle(key, std::move(status));
  Handle place{};
  const std::lock_guard lock(gate_);
  losses.take_effect();
  if (find(key, &place) != nullptr) release(place.index);
  return {};
}

Status Session::move_key(prtkv_key source, prtkv_key parent, std::string_view name, bool replace, prtkv_key* moved) {
  Target from;
  Target above;
  if (Status status = target_of(source, &from); !status.ok()) return status;
  if (Status status = target_of(parent, &above); !status.ok()) return status;
  Reservation slot(*this);
  Losses losses(*this);
  if (Status status = slot.take_below(above.name, name); !status.ok()) return status;
  {
    const std::lock_guard lock(gate_);
    losses.prepare({from.name.view(), slot.name()});
  }
  KnownKey target;
  Status status = client_->move(from.ref(), above.ref(), name, replace, &target);
  if (!status.ok()) return status;
  const std::lock_guard lock(gate_);
  losses.take_effect();
  *moved = slot.give(target);
  return {};
}

// Takes the list of subkeys. If another thread has done so meanwhile, that one counts.
Status Session::list_subkeys(prtkv_key handle) {
  Target target;
  const auto subkeys = std::make_shared<SubkeyNames>();
  std::uint64_t state = 0;
  if (Status status = target_of(handle, &target); !status.ok()) return status;
  Status status = client_->list_names(target.ref(), subkeys.get(), &state);
  if (!status.ok()) return settle(handle, std::move(status));
  Handle place{};
  const std::lock_guard lock(gate_);
  lists_.keep(target.known.id, state, subkeys);
  OpenKey* const found = find(handle, &place);
  if (found != nullptr && found->subkeys == nullptr) found->subkeys = subkeys;
  return {};
}

// Takes the list of subkeys from another handle of the key, if nothing has been committed since. Returns false if that
// is not known.
bool Session::take_known_list(OpenKey& key) {
  const std::uint64_t state = key.known.state;
  if (state == 0 || state != client_->latest_state()) return false;
  key.subkeys = lists_.find(key.known.id, state);
  return key.subkeys != nullptr;
}

Status Session::take_subkey(OpenKey& key, char* name, std::uint32_t* size, std::int32_t* remaining) {
  const std::size_t left = key.subkeys->count() - key.next_subkey.passed;
  if (left == 0) return no_more_subkeys(key.name);
  const std::string_view level = key.subkeys->at(key.next_subkey);
  const std::size_t needed = level.size() + 1;
  if (needed > *size) {
    const std::uint32_t offered = *size;
    *size = static_cast<std::uint32_t>(needed);
    return too_small(offered, needed);
  }
  std::memcpy(name, level.data(), needed);
  *size = static_cast<std::uint32_t>(level.size());
  *remaining = static_cast<std::int32_t>(left - 1);
  SubkeyNames::advance(level, &key.next_subkey);
  return {};
}

Status Session::next_subkey(SessionGate::Visit& visit, prtkv_key key, char* name, std::uint32_t* size,
                            std::int32_t* remaining) {
  for (;;) {
    Status status;
    OpenKey* const found = find_live(key, &status);
    if (found == nullptr) return status;
    const bool is_listed = found->subkeys != nullptr || take_known_list(*found);
    if (is_listed) return take_subkey(*found, name, size, remaining);
    visit.unlock();
    status = list_subkeys(key);
    if (!status.ok()) return status;
    visit.lock();
  }
}

Status Session::get_value(SessionGate::Visit& visit, prtkv_key key, std::int32_t* type, void* buffer,
                          std::uint32_t* size) {
  const std::uint32_t offered = *size;
  const std::span bytes(static_cast<std::byte*>(buffer), offered);
  std::size_t found_size = 0;
  Status status;
  const OpenKey* const found = find_live(key, &status);
  if (found == nullptr) return status;
  const KnownKey known = found->known;
  visit.unlock();
  if (!client_->copy_known(known, bytes, type, &found_size)) {
    status = read_anew(key, bytes, type, &found_size);
    if (!status.ok()) return status;
  }
  *size = static_cast<std::uint32_t>(found_size);
  return found_size <= offered ? Status() : too_small(offered, found_size);
}

// Reads a value of which too little is known, and keeps what was found out about it.
Status Session::read_anew(prtkv_key handle, std::span<std::byte> buffer, std::int32_t* type, std::size_t* size) {
  Target target;
  if (Status status = target_of(handle, &target); !status.ok()) return status;
  Status status = client_->read_known(target.name.view(), &target.known, buffer, type, size);
  if (!status.ok()) return settle(handle, std::move(status));
  Handle place{};
  const std::lock_guard lock(gate_);
  if (OpenKey* const found = find(handle, &place)) found->known = target.known;
  return {};
}

Status Session::set_value(prtkv_key key, std::int32_t type, std::span<const std::byte> value) {
  Target target;
  if (Status status = target_of(key, &target); !status.ok()) return status;
  return settle(key, client_->write_value(target.ref(), type, value));
}

Status Session::get_security(prtkv_key key, sec_attr* security) {
  Target target;
  sec_attr read{};
  if (Status status = target_of(key, &target); !status.ok()) return status;
  Status status = settle(key, client_->read_security(target.ref(), &read));
  if (status.ok()) *security = read;
  return status;
}

Status Session::get_revision(prtkv_key key, Revision* revision) {
  Target target;
  KeyInfo info;
  if (Status status = target_of(key, &target); !status.ok()) return status;
  Status status = settle(key, client_->stat(target.ref(), &info));
  if (status.ok()) *revision = info.revision;
  return status;
}

std::stop_token Session::waits() {
  const std::lock_guard lock(gate_);
  return waits_.get_token();
}

void Session::stop_waiting() {
  std::stop_source running;
  {
    const std::lock_guard lock(gate_);
    waits_.swap(running);
  }
  running.request_stop();
}

Status Session::set_security(prtkv_key key, const sec_attr& security) {
  Target target;
  if (Status status = target_of(key, &target); !status.ok()) return status;
  return settle(key, client_->write_security(target.ref(), security));
}

}  // namespace tkv::registry
