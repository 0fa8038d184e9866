// Shorthand for the parts of etcd requests.
#ifndef TKV_PLATFORM_STORE_ETCD_REQUESTS_H
#define TKV_PLATFORM_STORE_ETCD_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "etcd.pb.h"
#include "store/etcd/keys.h"

namespace tkv::store::etcd {

using etcdserverpb::Compare;
using etcdserverpb::KeyValue;
using etcdserverpb::RangeRequest;
using etcdserverpb::RangeResponse;
using etcdserverpb::RequestOp;
using etcdserverpb::TxnRequest;
using etcdserverpb::TxnResponse;

// The key was last modified at this revision; 0: it does not exist.
inline void compare_revision(TxnRequest* request, std::string key, std::int64_t mod_revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::MOD);
  compare->set_result(Compare::EQUAL);
  compare->set_key(std::move(key));
  compare->set_mod_revision(mod_revision);
}

// The key has this value. False if it does not exist.
inline void compare_value(TxnRequest* request, std::string key, std::string value) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::VALUE);
  compare->set_result(Compare::EQUAL);
  compare->set_key(std::move(key));
  compare->set_value(std::move(value));
}

// The key exists and was created at this revision.
inline void compare_created(TxnRequest* request, std::string key, std::int64_t create_revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::CREATE);
  compare->set_result(Compare::EQUAL);
  compare->set_key(std::move(key));
  compare->set_create_revision(create_revision);
}

// The key exists and was created after this revision.
inline void compare_created_after(TxnRequest* request, std::string key, std::int64_t revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::CREATE);
  compare->set_result(Compare::GREATER);
  compare->set_key(std::move(key));
  compare->set_create_revision(revision);
}

// The key has existed since this revision or longer, and may have been rewritten.
inline void compare_not_removed(TxnRequest* request, std::string key, std::int64_t revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::MOD);
  compare->set_result(Compare::GREATER);
  compare->set_key(std::move(key));
  compare->set_mod_revision(revision - 1);
}

// No key of the range was created after this revision.
inline void compare_no_newcomer(TxnRequest* request, KeyRange range, std::int64_t revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::CREATE);
  compare->set_result(Compare::LESS);
  compare->set_key(std::move(range.begin));
  compare->set_range_end(std::move(range.end));
  compare->set_create_revision(revision + 1);
}

// No key of the range was written after this revision. Removals are not noticed.
inline void compare_not_written_since(TxnRequest* request, KeyRange range, std::int64_t revision) {
  Compare* compare = request->add_compare();
  compare->set_target(Compare::MOD);
  compare->set_result(Compare::LESS);
  compare->set_key(std::move(range.begin));
  compare->set_range_end(std::move(range.end));
  compare->set_mod_revision(revision + 1);
}

inline RangeRequest get_one(std::string key) {
  RangeRequest request;
  request.set_key(std::move(key));
  return request;
}

inline RangeRequest get_range(KeyRange range, std::int64_t limit) {
  RangeRequest request;
  request.set_key(std::move(range.begin));
  request.set_range_end(std::move(range.end));
  request.set_limit(limit);
  return request;
}

inline RangeRequest get_all(KeyRange range) { return get_range(std::move(range), 0); }

inline void put(RequestOp* operation, std::string key, std::string value) {
  operation->mutable_request_put()->set_key(std::move(key));
  operation->mutable_request_put()->set_value(std::move(value));
}

// The key ends with the lease.
inline void put(RequestOp* operation, std::string key, std::string value, std::int64_t lease) {
  put(operation, std::move(key), std::move(value));
  operation->mutable_request_put()->set_lease(lease);
}

inline void erase(RequestOp* operation, std::string key) {
  operation->mutable_request_delete_range()->set_key(std::move(key));
}

inline void erase(RequestOp* operation, KeyRange range) {
  operation->mutable_request_delete_range()->set_key(std::move(range.begin));
  operation->mutable_request_delete_range()->set_range_end(std::move(range.end));
}

inline std::span<const std::byte> as_bytes(const std::string& text) { return std::as_bytes(std::span(text)); }

template <typename Record>
std::string as_text(const Record& record) {
  return {reinterpret_cast<const char*>(record.data()), record.size()};
}

}  // namespace tkv::store::etcd

#endif
