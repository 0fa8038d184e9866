#include "store/etcd/writer.h"

#include <utility>

namespace tkv::store::etcd {
namespace {

using Branch = google::protobuf::RepeatedPtrField<RequestOp>;

const KeyValue* first(const RangeResponse& response) { return response.kvs_size() == 0 ? nullptr : &response.kvs(0); }

std::string fence_of(const std::string& text) { return "not " + text; }

// One write, from its first request until it is known whether it was made.
class Write {
 public:
  Write(Kv& kv, const Keys& keys, Mark* mark, const std::string& text, Deadline deadline)
      : kv_(kv), keys_(keys), mark_(mark), text_(text), deadline_(deadline) {}

  Written send(TxnRequest request);

 private:
  void put_mark(TxnRequest* request, const std::string& text, bool compares_session) const;
  void read_mark(Branch* branch, bool reads_session) const;
  void take_in(const RangeResponse& mark, Written* written);
  Reply find_out(Written* written);
  void settle(Written* written);

  Kv& kv_;
  const Keys& keys_;
  Mark* mark_;
  const std::string& text_;
  const Deadline deadline_;
  bool fenced_ = false;  // the mark says that the write was given up
};

void Write::put_mark(TxnRequest* request, const std::string& text, bool compares_session) const {
  compare_revision(request, mark_->key, mark_->mod_revision);
  if (compares_session) compare_alive(request, keys_, mark_->owner);
  put(request->add_success(), mark_->key, text, mark_->ends_with_session ? mark_->owner.lease : 0);
}

void Write::read_mark(Branch* branch, bool reads_session) const {
  *branch->Add()->mutable_request_range() = get_one(mark_->key);
  if (reads_session) *branch->Add()->mutable_request_range() = get_one(keys_.session(mark_->owner.token));
}

void Write::take_in(const RangeResponse& mark, Written* written) {
  const KeyValue* found = first(mark);
  written->went_back |= found != nullptr && found->mod_revision() < mark_->mod_revision;
  mark_->mod_revision = found == nullptr ? 0 : found->mod_revision();
  fenced_ = found != nullptr && found->value() == fence_of(text_);
  written->made = found != nullptr && found->value() == text_;
}

// Finds out whether a write that was sent more than once has been made, and makes sure that it will not be made later.
Reply Write::find_out(Written* written) {
  TxnRequest request;
  read_mark(request.mutable_success(), true);
  while (true) {
    TxnResponse response;
    Reply reply = kv_.txn(request, &response, deadline_);
    if (!reply.ok()) return reply;
    if (response.succeeded() && response.responses(0).has_response_put()) {
      mark_->mod_revision = response.header().revision();
      written->made = false;
      return reply;
    }
    take_in(response.responses(0).response_range(), written);
    written->lost = !written->made && !is_alive(response.responses(1).response_range(), mark_->owner);
    if (written->made || written->lost || fenced_) return reply;
    request.Clear();
    put_mark(&request, fence_of(text_), true);
    read_mark(request.mutable_failure(), true);
  }
}

// Settles a write that was refused, or whose comparisons failed, after it had already been sent once.
void Write::settle(Written* written) {
  const Status refusal = written->status;
  const Reply reply = find_out(written);
  if (written->made) {
    written->status = {};
    written->revision = mark_->mod_revision;
    return;
  }
  std::string why;
  if (!reply.ok()) {
    why = reply.status.text();
  } else if (written->lost && mark_->ends_with_session) {
    why = "the session was cut off for so long that etcd has forgotten it";
  } else {
    return;
  }
  written->status = Status(PRTKV_UNDECIDED, (refusal.ok() ? "" : refusal.text() + "; ") +
                                                "it is not known whether the change was made: " + why);
}

Written Write::send(TxnRequest request) {
  const bool is_proof = mark_->ends_with_session && mark_->mod_revision != 0;
  put_mark(&request, text_, !is_proof);
  const int reads = request.failure_size();
  read_mark(request.mutable_failure(), !is_proof);

  Written written;
  const Reply reply = kv_.txn(request, &written.response, deadline_);
  written.status = reply.status;
  if (reply.verdict == Verdict::kTryElsewhere && reply.repeated) {
    written.status = Status(PRTKV_UNDECIDED, reply.status.text() + "; it is not known whether the change was made");
    return written;
  }
  if (!reply.ok()) {
    if (reply.repeated) settle(&written);
    return written;
  }
  written.revision = written.response.header().revision();
  if (written.response.succeeded()) {
    written.made = true;
    mark_->mod_revision = written.revision;
    return written;
  }
  const RangeResponse& mark = written.response.responses(reads).response_range();
  take_in(mark, &written);
  const bool goes_on =
      is_proof ? mark.kvs_size() > 0 : is_alive(written.response.responses(reads + 1).response_range(), mark_->owner);
  written.lost = !written.made && !goes_on;
  if (written.made) {
    written.revision = mark_->mod_revision;
  } else if (reply.repeated) {
    settle(&written);
  }
  return written;
}

}  // namespace

Written write_once(Kv& kv, const Keys& keys, TxnRequest request, Mark* mark, const std::string& text,
                   Deadline deadline) {
  return Write(kv, keys, mark, text, deadline).send(std::move(request));
}

Mark Writers::take(const Owner& owner) {
  const std::lock_guard lock(mutex_);
  if (owner != owner_) {
    owner_ = owner;
    free_.clear();
  }
  // Number 0 is the mark of the session's claims of ids.
  if (free_.empty()) return {keys_.writer(owner.token + "-" + std::to_string(++made_)), 0, owner};
  Mark mark = std::move(free_.back());
  free_.pop_back();
  return mark;
}

void Writers::give_back(Mark mark) {
  const std::lock_guard lock(mutex_);
  if (mark.owner == owner_) free_.push_back(std::move(mark));
}

std::string Writers::next_text() {
  const std::lock_guard lock(mutex_);
  return std::to_string(++texts_);
}

}  // namespace tkv::store::etcd
