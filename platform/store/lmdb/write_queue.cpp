#include "store/lmdb/write_queue.h"

#include <utility>

namespace tkv::store {
namespace {

constexpr const char* kThisProcess = "another thread of this process";

}  // namespace

void WriteQueue::add(Writer& writer) {
  writer.state_ = Writer::State::kWaits;
  if (writer.wants_to_lead_ || first_ == nullptr) {
    writer.next_ = std::exchange(first_, &writer);
    if (last_ == nullptr) last_ = &writer;
  } else {
    last_->next_ = &writer;
    last_ = &writer;
  }
  ++count_;
}

void WriteQueue::remove(Writer& writer) {
  Writer* before = nullptr;
  for (Writer* each = first_; each != &writer; each = each->next_) before = each;
  (before == nullptr ? first_ : before->next_) = writer.next_;
  if (last_ == &writer) last_ = before;
  writer.next_ = nullptr;
  --count_;
}

void WriteQueue::choose_leader() {
  if (leader_ != nullptr || first_ == nullptr) return;
  leader_ = first_;
  remove(*leader_);
  leader_->state_ = Writer::State::kLeads;
  leader_->changed_.notify_one();
}

WriteQueue::Writer::~Writer() {
  if (state_ == State::kNone || state_ == State::kIsTold || queue_.abandoned_) return;
  if (state_ == State::kLeads) tell_to_begin_again();
  const std::lock_guard lock(queue_.mutex_);
  if (state_ == State::kWaits) queue_.remove(*this);
  if (state_ == State::kWorks) end_guest_turn(State::kNone);
  if (state_ == State::kLeads) queue_.leader_ = nullptr;
  queue_.choose_leader();
}

Status WriteQueue::Writer::wait(WriterDeadline* deadline, Role* role) {
  std::unique_lock lock(queue_.mutex_);
  queue_.add(*this);
  queue_.choose_leader();
  while (state_ == State::kWaits) {
    if (deadline->has_passed()) {
      queue_.remove(*this);
      state_ = State::kNone;
      return deadline->gave_up(kThisProcess);
    }
    changed_.wait_until(lock, deadline->next_event());
    if (state_ != State::kWaits) break;
    lock.unlock();
    deadline->tell([] { return std::string(kThisProcess); });
    lock.lock();
  }
  *role = state_ == State::kLeads ? Role::kLeader : Role::kGuest;
  return {};
}

bool WriteQueue::Writer::let_others_join(WriteTransaction& transaction) {
  std::unique_lock lock(queue_.mutex_);
  // Those who come from now on belong to a later transaction.
  for (std::size_t left = queue_.count_; left > 0 && !spoiled_; --left) {
    Writer* const guest = queue_.first_;
    if (guest == nullptr || guest->wants_to_lead_) break;
    queue_.remove(*guest);
    guest_ = guest;
    guest->host_ = this;
    guest->transaction_ = &transaction;
    guest->state_ = State::kWorks;
    guest->changed_.notify_one();
    changed_.wait(lock, [this] { return guest_ == nullptr; });
  }
  return !spoiled_;
}

// Requires the queue's lock.
void WriteQueue::Writer::end_guest_turn(State state) noexcept {
  state_ = state;
  host_->guest_ = nullptr;
  host_->changed_.notify_one();
}

bool WriteQueue::Writer::finish(Status* committed) {
  if (queue_.abandoned_) return true;
  std::unique_lock lock(queue_.mutex_);
  next_ = std::exchange(host_->first_joined_, this);
  end_guest_turn(State::kHasJoined);
  changed_.wait(lock, [this] { return state_ == State::kIsTold; });
  *committed = std::move(committed_);
  return !again_;
}

void WriteQueue::Writer::spoil() noexcept {
  if (queue_.abandoned_) return;
  const std::lock_guard lock(queue_.mutex_);
  host_->spoiled_ = true;
}

void WriteQueue::Writer::tell_end(const Status& committed) noexcept { tell(committed, false); }

void WriteQueue::Writer::tell_to_begin_again() noexcept { tell({}, true); }

void WriteQueue::Writer::tell(const Status& committed, bool again) noexcept {
  if (queue_.abandoned_) return;
  const std::lock_guard lock(queue_.mutex_);
  spoiled_ = false;
  while (first_joined_ != nullptr) {
    Writer& guest = *std::exchange(first_joined_, first_joined_->next_);
    try {
      guest.committed_ = committed;
    } catch (...) {
      guest.committed_ = committed.code();  // for want of memory, without the text
    }
    guest.again_ = again;
    guest.state_ = State::kIsTold;
    guest.changed_.notify_one();
  }
}

}  // namespace tkv::store
