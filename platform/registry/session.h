// Session: one caller's use of a client: its open keys and the text of its last failure.
#ifndef TKV_PLATFORM_REGISTRY_SESSION_H
#define TKV_PLATFORM_REGISTRY_SESSION_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "prtkv.h"
#include "registry/client.h"
#include "registry/handle.h"
#include "registry/known_keys.h"
#include "registry/known_lists.h"
#include "registry/lost_names.h"
#include "registry/name.h"
#include "registry/session_gate.h"
#include "registry/subkey_names.h"

namespace tkv::registry {

// A handle stands for a key and not for its name: an open key is its full name and its id. Once the key has been
// deleted or moved away, by itself or with an ancestor, the handle yields PRTKV_NO_SUCH_KEY for good, even if the key
// has been moved back, and no matter which session did so. (A list of subkeys that was already taken can be read to its
// end after another session has deleted or moved the key: that needs no access to the registry.) Opening, closing and
// deleting cost the same however many keys are open.
//
// The operations are described in prtkv.h and client.h. Pointers are not null here.
//
// Any thread may call. Each operation has one moment at which it takes effect, so the results are those of operations
// that run one at a time; but none waits for another to read or write. The session's lock is held only while the tables
// below are used, never during a call of the client that may take long.
class Session {
 public:
  // The gate must live longer.
  Session(std::shared_ptr<Client> client, SessionGate& gate) : client_(std::move(client)), gate_(gate) {}
  ~Session() { waits_.request_stop(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // These begin with the lock, and may end without it.
  Status open_key(SessionGate::Visit& visit, std::string_view name, prtkv_key* key);
  Status get_value(SessionGate::Visit& visit, prtkv_key key, std::int32_t* type, void* buffer, std::uint32_t* size);
  Status next_subkey(SessionGate::Visit& visit, prtkv_key key, char* name, std::uint32_t* size,
                     std::int32_t* remaining);
  Status close_key(prtkv_key key);

  // These take the lock themselves.
  Status create_key(prtkv_key parent, std::string_view name, const sec_attr& security, std::int32_t type,
                    std::span<const std::byte> value, prtkv_key* key);
  Status delete_key(prtkv_key key, bool recursive);
  Status move_key(prtkv_key source, prtkv_key parent, std::string_view name, bool replace, prtkv_key* moved);
  Status set_value(prtkv_key key, std::int32_t type, std::span<const std::byte> value);
  Status get_security(prtkv_key key, sec_attr* security);
  Status set_security(prtkv_key key, const sec_attr& security);
  Status get_revision(prtkv_key key, Revision* revision);

  Client& client() { return *client_; }
  std::shared_ptr<Client> shared_client() { return client_; }

  // Waits for changes run outside of the session, which tells them when to stop: at stop_waiting() and at its end.
  std::stop_token waits();
  void stop_waiting();

  // Keeps a failure for last_error(), or clears it after a success.
  void record(SessionGate::Visit& visit, const Status& status) noexcept {
    if (!status.ok() || last_code_.load(std::memory_order_relaxed) != PRTKV_DONE) replace_last(visit, status);
  }

  // Copies as much of the message as fits into `text` with a NUL; `*size` is the size of `text` and becomes that of the
  // message. Returns PRTKV_UNKNOWN if there is none.
  Status last_error(std::int32_t* code, char* text, std::int32_t* size);

 private:
  struct OpenKey {
    std::uint64_t serial = 0;  // of the handle; zero: the slot is free
    std::string name;
    KnownKey known;
    bool gone = false;                           // it was found deleted or moved away
    std::uint64_t checked = 0;                   // the losses of this session that are accounted for in `gone`
    std::shared_ptr<const SubkeyNames> subkeys;  // null until the list is taken
    SubkeyNames::Position next_subkey;
  };

  // A copy of what an open key stands for, for use without the lock.
  struct Target {
    FullName name;
    KnownKey known;

    KeyRef ref() const { return {name.view(), known.id, known.route}; }
  };

  class Reservation;
  class Losses;

  // These require the lock.
  Status have_free_slot();
  prtkv_key give(std::size_t index, const KnownKey& known) noexcept;
  Status open_known(std::string_view name, const KnownKey& known, prtkv_key* key);
  OpenKey* find(prtkv_key handle, Handle* place);
  OpenKey* find_live(prtkv_key handle, Status* reason);
  Status find_target(prtkv_key handle, Target* target);
  void release(std::size_t index) noexcept;
  bool is_gone(OpenKey& key) noexcept { return key.checked == lost_.now() ? key.gone : check_losses(key); }
  bool check_losses(OpenKey& key) noexcept;
  bool take_known_list(OpenKey& key);
  Status take_subkey(OpenKey& key, char* name, std::uint32_t* size, std::int32_t* remaining);

  // These take it.
  void replace_last(SessionGate::Visit& visit, const Status& status) noexcept;
  Status target_of(prtkv_key handle, Target* target);
  Status settle(prtkv_key handle, Status status);
  Status list_subkeys(prtkv_key handle);
  Status read_anew(prtkv_key handle, std::span<std::byte> buffer, std::int32_t* type, std::size_t* size);

  const std::shared_ptr<Client> client_;
  SessionGate& gate_;  // guards what follows
  std::stop_source waits_;
  std::vector<std::unique_ptr<OpenKey>> keys_;  // only grows; free slots keep their memory
  std::vector<std::size_t> free_;               // indexes into keys_
  Serials serials_;
  LostNames lost_;
  KnownKeys known_;
  KnownLists lists_;
  std::atomic<prtkv_result> last_code_{PRTKV_DONE};  // PRTKV_DONE: there is no message
  Status last_;                                      // the failure; its message is composed when it is asked for
};

}  // namespace tkv::registry

#endif
