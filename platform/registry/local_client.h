// LocalClient: the client that works on a store within this process.
#ifndef TKV_PLATFORM_REGISTRY_LOCAL_CLIENT_H
#define TKV_PLATFORM_REGISTRY_LOCAL_CLIENT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "registry/client.h"
#include "registry/directory_cache.h"
#include "registry/local_history.h"
#include "registry/tree.h"
#include "store/store.h"

namespace tkv::registry {

class LocalClient final : public Client {
 public:
  LocalClient(Configuration configuration, Identity identity, std::shared_ptr<store::Store> store,
              std::string_view note = {});

  const Identity& identity() const override { return identity_; }
  const Configuration& configuration() const override { return configuration_; }

  using Client::latest_state;
  std::uint64_t latest_state(const KnownKey* copied_next) override;
  std::shared_ptr<const StateMemory> state_memory() override { return store_->state_memory(); }
  Status look_up(const KeyRef& key, KnownKey* known) override;
  Status stat(const KeyRef& key, KeyInfo* info) override;
  Status read_value(const KeyRef& key, TypedValue* value) override;
  Status read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, std::int32_t* type,
                    std::size_t* size) override;
  bool copy_known(const KnownKey& known, std::span<std::byte> buffer, std::int32_t* type, std::size_t* size) override;
  Status read_security(const KeyRef& key, sec_attr* security) override;
  Status read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) override;
  using Client::create;
  Status create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                std::span<const std::byte> bytes, KnownKey* created) override;
  Status write_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes) override;
  Status write_security(const KeyRef& key, const sec_attr& security) override;
  Status put(std::span<const NamedValue> values, const PutOptions& options) override;

  Status list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) override;
  Status list_names(const KeyRef& key, SubkeyNames* names, std::uint64_t* state) override;
  Status walk(const KeyRef& key, const WalkOptions& options,
              FunctionRef<Status(const WalkEntry& entry)> visit) override;
  Status compare(const Subtree& wanted, MergeMode mode, const NewKeySecurity& security, KeyProgress progress,
                 Difference* difference) override;
  Status apply(const Subtree& wanted, const ApplyOptions& options, KeyProgress progress,
               Difference* difference) override;
  Status change_security(const KeyRef& key, const SecurityChange& change, bool recursive,
                         KeyProgress progress) override;
  Status remove(const KeyRef& key, bool recursive, KeyProgress progress) override;
  using Client::move;
  Status move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace,
              KnownKey* moved) override;
  Status copy(const KeyRef& source, std::string_view target, const CopyOptions& options, KeyProgress progress) override;

  Status commit(const Batch& batch, CommitResult* result) override;
  std::shared_ptr<Client> with_note(std::string_view note) override;
  Status revision(Revision* revision) override;
  Status at(Revision revision, std::unique_ptr<Snapshot>* snapshot) override;
  Status snapshot(std::unique_ptr<Snapshot>* snapshot) override;
  Status revision_at(std::int64_t time, Revision* revision) override;
  Status changes_since(const ChangeQuery& query, FunctionRef<Status(const ChangeRecord& record)> visit,
                       LogPosition* position) override;
  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override;
  Status undo(Revision revision, const UndoOptions& options, Batch* inverse, CommitResult* result) override;
  Status purge_history(std::string_view name, std::uint64_t* removed) override;
  Status can_purge_history() override { return store_->can_purge(); }

  Status check(bool repair, FunctionRef<void(const CheckStep& step)> progress, CheckResult* result) override;
  Status status(RegistryStatus* status) override;

 private:
  // Runs `function` on one state of the tree. It may run more than once: it must set its results anew each time.
  Status read(FunctionRef<Status(Reader& tree)> function);

  // As read, but for functions that visit many keys. It runs once.
  Status read_all(FunctionRef<Status(Reader& tree)> function);

  // Runs `function` and, if it succeeds, makes everything that it did durable, all or nothing. It may run more than
  // once. `*revision` is that of Store::write, and may be left out.
  Status write(FunctionRef<Status(Writer& tree)> function, Revision* revision = nullptr);

  const Configuration configuration_;
  const Identity identity_;
  const std::shared_ptr<store::Store> store_;
  const std::string note_;
  LocalHistory history_;
  DirectoryCache cache_;
};

}  // namespace tkv::registry

#endif
