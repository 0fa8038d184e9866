#include "fake_kv.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace tkv::store::etcd {
namespace {

bool compares(Compare::CompareResult result, int order) {
  switch (result) {
    case Compare::EQUAL:
      return order == 0;
    case Compare::GREATER:
      return order > 0;
    case Compare::LESS:
      return order < 0;
    default:
      return order != 0;
  }
}

int order_of(std::int64_t left, std::int64_t right) { return left < right ? -1 : left > right ? 1 : 0; }

}  // namespace

const FakeKv::Version* FakeKv::version(const std::string& key, std::int64_t revision) const {
  const auto found = keys_.find(key);
  if (found == keys_.end()) return nullptr;
  const auto& versions = found->second;
  const auto newer = std::find_if(versions.rbegin(), versions.rend(),
                                  [&](const Version& version) { return version.mod_revision <= revision; });
  return newer == versions.rend() || !newer->exists ? nullptr : &*newer;
}

std::vector<std::string> FakeKv::keys_of(const std::string& key, const std::string& end, std::int64_t revision) const {
  std::vector<std::string> keys;
  for (auto at = keys_.lower_bound(key); at != keys_.end(); ++at) {
    if (end.empty() ? at->first != key : at->first >= end) break;
    if (version(at->first, revision) != nullptr) keys.push_back(at->first);
  }
  return keys;
}

bool FakeKv::holds(const Compare& compare, const Version* version) {
  switch (compare.target()) {
    case Compare::MOD:
      return compares(compare.result(),
                      order_of(version == nullptr ? 0 : version->mod_revision, compare.mod_revision()));
    case Compare::CREATE:
      return compares(compare.result(),
                      order_of(version == nullptr ? 0 : version->create_revision, compare.create_revision()));
    case Compare::VALUE:
      return version != nullptr && compares(compare.result(), version->value.compare(compare.value()));
    default:
      return false;
  }
}

bool FakeKv::holds(const Compare& compare) const {
  if (compare.range_end().empty()) return holds(compare, version(compare.key(), revision_));
  const auto keys = keys_of(compare.key(), compare.range_end(), revision_);
  if (keys.empty()) return holds(compare, nullptr);
  return std::all_of(keys.begin(), keys.end(),
                     [&](const std::string& key) { return holds(compare, version(key, revision_)); });
}

void FakeKv::read(const RangeRequest& request, std::int64_t now, RangeResponse* response) const {
  const std::int64_t at = request.revision() == 0 ? now : request.revision();
  auto keys = keys_of(request.key(), request.range_end(), at);
  if (request.sort_order() == RangeRequest::DESCEND && request.sort_target() == RangeRequest::CREATE) {
    std::stable_sort(keys.begin(), keys.end(), [&](const std::string& left, const std::string& right) {
      return version(left, at)->create_revision > version(right, at)->create_revision;
    });
  }
  response->mutable_header()->set_revision(now);
  response->set_count(static_cast<std::int64_t>(keys.size()));
  for (const std::string& key : keys) {
    if (request.limit() != 0 && response->kvs_size() == request.limit()) {
      response->set_more(true);
      return;
    }
    const Version* found = version(key, at);
    KeyValue* record = response->add_kvs();
    record->set_key(key);
    record->set_mod_revision(found->mod_revision);
    record->set_create_revision(found->create_revision);
    record->set_version(found->version);
    record->set_lease(found->lease);
    if (!request.keys_only()) record->set_value(found->value);
  }
}

void FakeKv::write(const std::string& key, const std::string* value, std::int64_t revision, std::int64_t lease) {
  const Version* former = version(key, revision);
  Version next{revision,
               former == nullptr ? revision : former->create_revision,
               former == nullptr ? 1 : former->version + 1,
               value != nullptr,
               value == nullptr ? "" : *value,
               lease};
  keys_[key].push_back(std::move(next));
}

Reply FakeKv::range(const RangeRequest& request, RangeResponse* response, Deadline) {
  const std::lock_guard lock(mutex_);
  ++requests_;
  response->Clear();
  if (request.revision() != 0 && request.revision() < compacted_) {
    return {Verdict::kCompacted, Status(PRTKV_STORAGE_FAILED, "has been compacted"), false};
  }
  read(request, revision_, response);
  return {};
}

Reply FakeKv::txn(const TxnRequest& request, TxnResponse* response, Deadline, std::size_t) {
  const std::lock_guard lock(mutex_);
  ++requests_;
  response->Clear();
  if (Reply reply = before_txn(request); !reply.ok()) return reply;
  const bool succeeded = std::all_of(request.compare().begin(), request.compare().end(),
                                     [this](const Compare& compare) { return holds(compare); });
  response->set_succeeded(succeeded);
  if (std::any_of(request.success().begin(), request.success().end(), [&](const RequestOp& operation) {
        const std::int64_t lease = operation.has_request_put() ? operation.request_put().lease() : 0;
        return succeeded && lease != 0 && !leases_.contains(lease);
      })) {
    return {Verdict::kFinal, Status(PRTKV_UNUSABLE, "requested lease not found"), false};
  }
  const auto puts = [](const RequestOp& operation) { return operation.has_request_put(); };
  if (is_full && std::any_of(request.success().begin(), request.success().end(), puts)) {
    return {Verdict::kFinal, Status(PRTKV_STORAGE_FULL, "database space exceeded"), false};
  }
  const auto& operations = succeeded ? request.success() : request.failure();
  const auto reads_compacted = [this](const RequestOp& operation) {
    const std::int64_t at = operation.request_range().revision();
    return at != 0 && at < compacted_;
  };
  if (std::any_of(operations.begin(), operations.end(), reads_compacted)) {
    return {Verdict::kCompacted, Status(PRTKV_STORAGE_FAILED, "has been compacted"), false};
  }
  const std::int64_t next = revision_ + 1;
  bool written = false;
  for (const RequestOp& operation : operations) {
    etcdserverpb::ResponseOp* answer = response->add_responses();
    if (operation.has_request_range()) {
      read(operation.request_range(), written ? next : revision_, answer->mutable_response_range());
    } else if (operation.has_request_put()) {
      write(operation.request_put().key(), &operation.request_put().value(), next, operation.request_put().lease());
      answer->mutable_response_put();
      written = true;
    } else {
      const auto& gone = operation.request_delete_range();
      const auto keys = keys_of(gone.key(), gone.range_end(), next);
      for (const std::string& key : keys) write(key, nullptr, next);
      answer->mutable_response_delete_range()->set_deleted(static_cast<std::int64_t>(keys.size()));
      written = written || !keys.empty();
    }
  }
  if (written) revision_ = next;
  response->mutable_header()->set_revision(revision_);
  return after_txn(request);
}

Reply FakeKv::ask_members(ClusterAnswer* answer, Deadline) {
  *answer = members;
  return {};
}

Reply FakeKv::grant_lease(std::int64_t ttl, Lease* lease, Deadline) {
  const std::lock_guard lock(mutex_);
  if (is_full) return {Verdict::kFinal, Status(PRTKV_STORAGE_FULL, "database space exceeded"), false};
  leases_.insert(++last_lease_);
  *lease = {last_lease_, ttl};
  return {};
}

Reply FakeKv::watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
                    Deadline deadline) {
  for (*answer = {}; !stop.stop_requested() && deadline.left().count() > 0;) {
    {
      const std::lock_guard lock(mutex_);
      if (start < compacted_) {
        answer->compacted = compacted_;
        return {};
      }
      for (const Version& version : keys_[key]) {
        if (version.mod_revision < start) continue;
        KeyValue& event = answer->events.emplace_back();
        event.set_mod_revision(version.mod_revision);
        event.set_create_revision(version.exists ? version.create_revision : 0);
        event.set_value(version.value);
      }
    }
    if (!answer->events.empty()) return {};
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return {};
}

Reply FakeKv::keep_lease_alive(Lease* lease, Deadline) {
  const std::lock_guard lock(mutex_);
  lease->ttl = leases_.contains(lease->id) ? 20 : 0;
  return {};
}

Reply FakeKv::revoke_lease(std::int64_t id, Deadline) {
  const std::lock_guard lock(mutex_);
  end_lease(id);
  return {};
}

void FakeKv::end_lease(std::int64_t id) {
  if (leases_.erase(id) == 0) return;
  ++revision_;
  for (const auto& [key, versions] : keys_) {
    if (versions.back().exists && versions.back().lease == id) write(key, nullptr, revision_);
  }
}

void FakeKv::expire_leases() {
  const std::lock_guard lock(mutex_);
  while (!leases_.empty()) end_lease(*leases_.begin());
}

std::size_t FakeKv::leases() const {
  const std::lock_guard lock(mutex_);
  return leases_.size();
}

void FakeKv::put(const std::string& key, const std::string& value) {
  const std::lock_guard lock(mutex_);
  write(key, &value, ++revision_);
}

void FakeKv::erase(const std::string& key) {
  const std::lock_guard lock(mutex_);
  write(key, nullptr, ++revision_);
}

std::string FakeKv::get(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const Version* found = version(key, revision_);
  return found == nullptr ? "" : found->value;
}

std::vector<std::string> FakeKv::keys_of(const KeyRange& range) const {
  const std::lock_guard lock(mutex_);
  return keys_of(range.begin, range.end, revision_);
}

std::size_t FakeKv::count(const KeyRange& range) const { return keys_of(range).size(); }

std::int64_t FakeKv::mod_revision(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const Version* found = version(key, revision_);
  return found == nullptr ? 0 : found->mod_revision;
}

std::int64_t FakeKv::revision() const {
  const std::lock_guard lock(mutex_);
  return revision_;
}

FakeKv::State FakeKv::state() const {
  const std::lock_guard lock(mutex_);
  return {keys_, revision_};
}

void FakeKv::restore(const State& state) {
  const std::lock_guard lock(mutex_);
  keys_ = state.keys;
  revision_ = state.revision;
}

void FakeKv::compact() {
  const std::lock_guard lock(mutex_);
  compacted_ = revision_;
}

int FakeKv::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

}  // namespace tkv::store::etcd
