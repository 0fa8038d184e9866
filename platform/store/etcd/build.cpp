#include "store/etcd/build.h"

#include <sstream>
#include <utility>

#include "store/etcd/text_seal.h"

namespace tkv::store::etcd {

// One field per line, for people who look at it with etcdctl.
std::string BuildText::print() const {
  std::ostringstream text;
  text << "batch " << batch << "\nstate " << (given_up ? "given-up" : "building") << '\n';
  if (!session.empty()) text << "session " << session << '\n';
  for (const IdRange& range : ids) text << "ids " << range.first << ' ' << range.last << '\n';
  return seal_text(text.str());
}

std::optional<BuildText> BuildText::parse(std::string_view text) {
  BuildText result;
  // A batch that was not made was fenced with this word (see writer.h): the build did not go on from there.
  const bool fenced = text.starts_with("not ");
  if (fenced) text.remove_prefix(4);
  const Seal seal = unseal_text(&text);
  if (seal == Seal::kBroken) return {};
  std::istringstream lines{std::string(text)};
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string field;
    words >> field >> std::ws;
    if (field == "batch") {
      words >> result.batch;
    } else if (field == "state") {
      std::string state;
      words >> state;
      result.given_up = state == "given-up";
    } else if (field == "session") {
      words >> result.session;
    } else if (field == "time" || field == "owner") {
      continue;  // of former releases: the clock and the process of the owner
    } else if (field == "ids") {
      IdRange range;
      words >> range.first >> range.last;
      result.ids.push_back(range);
    } else {
      return {};
    }
    if (words.fail()) return {};
  }
  const bool is_former = result.session.empty();
  if (result.batch == 0 || (seal == Seal::kNone && !is_former)) return {};
  result.given_up = result.given_up || fenced;
  return result;
}

Build::Build(Kv& kv, const Keys& keys, Writers& writers, const Owner& owner, std::string token)
    : kv_(kv), keys_(keys), writers_(writers), token_(std::move(token)), mark_{keys.staging(token_), 0, owner, false} {
  text_.session = owner.token;
}

Written Build::send(TxnRequest batch, const std::vector<IdRange>& ids) {
  ++text_.batch;
  text_.ids = ids;
  return begun_ ? send_next(std::move(batch)) : send_first(std::move(batch));
}

// If the session has ended, it does not matter whether the batch was made: nothing refers to it, and a sweeper finds
// it.
Written Build::send_first(TxnRequest batch) {
  compare_revision(&batch, mark_.key, 0);
  put(batch.add_success(), mark_.key, text_.print());
  Mark writer = writers_.take(mark_.owner);
  Written written = write_once(kv_, keys_, std::move(batch), &writer, writers_.next_text(), Deadline(kv_.timeout()));
  writers_.give_back(std::move(writer));
  begun_ = written.made;
  if (written.made) mark_.mod_revision = written.revision;
  if (written.lost) written.status = {};
  return written;
}

// One that was sent twice and not made has been fenced by rewriting the key, which gives the build up.
Written Build::send_next(TxnRequest batch) {
  const std::int64_t sent_after = mark_.mod_revision;
  Written written = write_once(kv_, keys_, std::move(batch), &mark_, text_.print(), Deadline(kv_.timeout()));
  over_ = !written.made && mark_.mod_revision != sent_after;
  return written;
}

void Build::finish_in(TxnRequest* commit) const {
  compare_in(commit);
  erase(commit->add_success(), mark_.key);
}

}  // namespace tkv::store::etcd
