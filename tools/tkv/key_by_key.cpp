#include "key_by_key.h"

#include "json.h"

namespace tkv::command {

Outcome key_names(const std::vector<std::string>& typed, std::vector<std::string>* names) {
  for (const std::string& word : typed) {
    names->emplace_back();
    if (Outcome named = key_name(word, &names->back()); !named.ok()) return named;
  }
  return {};
}

Outcome each_key(Context& context, const std::vector<std::string>& names,
                 FunctionRef<Outcome(const std::string& name, std::string* json)> work) {
  Tally tally;
  std::vector<std::string> objects;
  for (const std::string& name : names) {
    std::string json;
    Outcome outcome = work(name, &json);
    if (names.size() == 1 && !outcome.ok()) return outcome;
    if (outcome.ok()) objects.push_back(json);
    tally.add(outcome);
    context.complain(outcome);
  }
  if (context.json()) context.output().line(names.size() == 1 ? objects.front() : json_lines(objects));
  return tally.sum();
}

}  // namespace tkv::command
