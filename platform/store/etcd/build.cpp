#include "store/etcd/build.h"

#include <sstream>
#include <utility>

namespace tkv::store::etcd {

// One field per line, for people who look at it with etcdctl.
std::string BuildText::print() const {
  std::ostringstream text;
  text << "batch " << batch << "\nstate " << (given_up ? "given-up" : "building") << '\n';
  if (!session.empty()) text << "session " << session << '\n';
  for (const IdRange& range : ids) text << "ids " << range.first << ' ' << range.last << '\n';
  return text.str();
}

std::optional<BuildText> BuildText::parse(const std::string& text) {
  BuildText result;
  // A batch that was not made was fenced with this word (see writer.h): the build did not go on from there.
  const bool fenced = text.starts_with("not ");
  std::istringstream lines(fenced ? text.substr(4) : text);
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
  if (result.batch == 0) return {};
  result.given_up = result.given_up || fenced;
  return result;
}

Build::Build(Kv& kv, const Keys& keys, const Owner& owner, std::string token)
    : kv_(kv), keys_(keys), token_(std::move(token)), mark_{keys.staging(token_), 0, owner, false} {
  text_.session = owner.token;
}

Written Build::send(TxnRequest batch, const std::vector<IdRange>& ids) {
  ++text_.batch;
  text_.ids = ids;
  return write_once(kv_, keys_, std::move(batch), &mark_, text_.print(), Deadline(kv_.timeout()));
}

void Build::finish_in(TxnRequest* commit) const {
  compare_revision(commit, mark_.key, mark_.mod_revision);
  erase(commit->add_success(), mark_.key);
}

}  // namespace tkv::store::etcd
