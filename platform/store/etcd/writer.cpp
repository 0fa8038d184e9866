#include "store/etcd/writer.h"

#include <sstream>

#include "store/etcd/owner.h"

namespace tkv::store::etcd {
namespace {

const KeyValue* first(const RangeResponse& response) { return response.kvs_size() == 0 ? nullptr : &response.kvs(0); }

std::string fence_of(const std::string& text) { return "not " + text; }

// Finds out whether a write that was sent more than once has been made, and makes sure that it will not be made later.
Reply settle(Kv& kv, Mark* mark, const std::string& text, bool* made, Deadline deadline) {
  TxnRequest request;
  *request.add_success()->mutable_request_range() = get_one(mark->key);
  while (true) {
    TxnResponse response;
    Reply reply = kv.txn(request, &response, deadline);
    if (!reply.ok()) return reply;
    const std::string fence = fence_of(text);
    if (response.succeeded() && response.responses(0).has_response_put()) {
      mark->mod_revision = response.header().revision();
      *made = false;
      return reply;
    }
    const KeyValue* found = first(response.responses(0).response_range());
    mark->mod_revision = found == nullptr ? 0 : found->mod_revision();
    *made = found != nullptr && found->value() == text;
    if (*made || (found != nullptr && found->value() == fence)) return reply;
    request.Clear();
    compare_revision(&request, mark->key, mark->mod_revision);
    put(request.add_success(), mark->key, fence);
    *request.add_failure()->mutable_request_range() = get_one(mark->key);
  }
}

// Settles a write that was refused, or whose comparisons failed, after it had already been sent once.
void settle(Kv& kv, Mark* mark, const std::string& text, Written* written, Deadline deadline) {
  const Reply reply = settle(kv, mark, text, &written->made, deadline);
  if (!reply.ok()) {
    const Status& reason = written->status.ok() ? reply.status : written->status;
    written->status = Status(PRTKV_UNDECIDED,
                             reason.text() + "; it is not known whether the change was made: " + reply.status.text());
    return;
  }
  if (!written->made) return;
  written->status = {};
  written->revision = mark->mod_revision;
}

}  // namespace

Written write_once(Kv& kv, TxnRequest request, Mark* mark, const std::string& text, Deadline deadline) {
  compare_revision(&request, mark->key, mark->mod_revision);
  put(request.add_success(), mark->key, text);
  const int mark_read = request.failure_size();
  *request.add_failure()->mutable_request_range() = get_one(mark->key);

  Written written;
  const Reply reply = kv.txn(request, &written.response, deadline);
  written.status = reply.status;
  if (reply.verdict == Verdict::kTryElsewhere && reply.repeated) {
    written.status = Status(PRTKV_UNDECIDED, reply.status.text() + "; it is not known whether the change was made");
    return written;
  }
  if (!reply.ok()) {
    if (reply.repeated) settle(kv, mark, text, &written, deadline);
    return written;
  }
  written.revision = written.response.header().revision();
  if (written.response.succeeded()) {
    written.made = true;
    mark->mod_revision = written.revision;
    return written;
  }
  const KeyValue* found = first(written.response.responses(mark_read).response_range());
  written.went_back = found != nullptr && found->mod_revision() < mark->mod_revision;
  mark->mod_revision = found == nullptr ? 0 : found->mod_revision();
  written.made = found != nullptr && found->value() == text;
  if (written.made) {
    written.revision = mark->mod_revision;
  } else if (reply.repeated) {
    settle(kv, mark, text, &written, deadline);
  }
  return written;
}

Writers::Writers(const Keys& keys) : keys_(keys), token_(random_token()), owner_(this_owner()) {}

Mark Writers::take() {
  const std::lock_guard lock(mutex_);
  if (free_.empty()) return {keys_.writer(token_ + "-" + std::to_string(made_++)), 0};
  Mark mark = std::move(free_.back());
  free_.pop_back();
  return mark;
}

void Writers::give_back(Mark mark) {
  const std::lock_guard lock(mutex_);
  free_.push_back(std::move(mark));
}

std::string Writers::next_text() {
  const std::lock_guard lock(mutex_);
  return print_mark(++texts_, owner_);
}

std::vector<std::string> Writers::used() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> keys;
  for (const Mark& mark : free_) keys.push_back(mark.key);
  return keys;
}

std::string print_mark(std::uint64_t number, const std::string& owner) {
  return std::to_string(number) + " " + std::to_string(seconds_now()) + " " + owner;
}

MarkText parse_mark(const std::string& text) {
  std::istringstream words(text.starts_with("not ") ? text.substr(4) : text);
  std::uint64_t number = 0;
  MarkText mark;
  words >> number >> mark.seconds >> std::ws;
  std::getline(words, mark.owner);
  return mark;
}

}  // namespace tkv::store::etcd
