#include "writer.h"

#include <sstream>

#include "owner.h"

namespace tkv::store::etcd {
namespace {

const KeyValue* first(const RangeResponse& response) { return response.kvs_size() == 0 ? nullptr : &response.kvs(0); }

// The cluster refused a repetition: what became of the first one is in the mark.
Written resolve(Cluster& cluster, Mark* mark, const std::string& text, const Outcome& refusal, Deadline deadline) {
  RangeResponse response;
  const Outcome outcome = cluster.range(get_one(mark->key), &response, deadline);
  if (!outcome.ok()) {
    return {.status = Status(refusal.status.code(),
                             refusal.status.text() +
                                 "; whether the change was made before cannot be asked: " + outcome.status.text()),
            .unknown = true,
            .response = {}};
  }
  const KeyValue* found = first(response);
  if (found == nullptr || found->value() != text) return {.status = refusal.status, .response = {}};
  mark->mod_revision = found->mod_revision();
  return {.status = {}, .made = true, .revision = found->mod_revision(), .response = {}};
}

}  // namespace

Written write_once(Cluster& cluster, TxnRequest request, Mark* mark, const std::string& text, Deadline deadline) {
  compare_revision(&request, mark->key, mark->mod_revision);
  put(request.add_success(), mark->key, text);
  const int mark_read = request.failure_size();
  *request.add_failure()->mutable_request_range() = get_one(mark->key);
  const auto fence = [&](TxnRequest* again) { put(again->add_failure(), mark->key, "not " + text); };

  Written written;
  const Outcome outcome = cluster.txn(&request, fence, &written.response, deadline);
  if (!outcome.ok()) {
    if (outcome.repeated && outcome.verdict != Verdict::kTryElsewhere) {
      return resolve(cluster, mark, text, outcome, deadline);
    }
    written.unknown = outcome.repeated;
    written.status = outcome.repeated
                         ? Status(outcome.status.code(),
                                  outcome.status.text() + "; whether the change was made cannot be asked either")
                         : outcome.status;
    return written;
  }
  written.revision = written.response.header().revision();
  if (written.response.succeeded()) {
    written.made = true;
    mark->mod_revision = written.revision;
    return written;
  }
  const KeyValue* found = first(written.response.responses(mark_read).response_range());
  if (found != nullptr && found->value() == text) {
    written.made = true;
    written.revision = found->mod_revision();
  }
  const bool fenced = written.response.responses_size() > mark_read + 1;
  mark->mod_revision = fenced ? written.response.header().revision() : found == nullptr ? 0 : found->mod_revision();
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
  return std::to_string(++texts_) + " " + std::to_string(seconds_now()) + " " + owner_;
}

std::vector<std::string> Writers::used() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> keys;
  for (const Mark& mark : free_) keys.push_back(mark.key);
  return keys;
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
