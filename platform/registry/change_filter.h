// What of the log concerns a key, and what an identity may know of it.
//
// A right is needed as of the change, and today. Today's is that on the key itself: moves made since are followed to
// the name that it has now. A key that does not exist any more demands nothing today.
#ifndef TKV_PLATFORM_REGISTRY_CHANGE_FILTER_H
#define TKV_PLATFORM_REGISTRY_CHANGE_FILTER_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "registry/client.h"
#include "store/store.h"

namespace tkv::registry {

class ChangeFilter {
 public:
  ChangeFilter(store::Store& store, const Identity& identity, const ChangeQuery& query)
      : store_(store), identity_(identity), query_(query) {}

  // Takes everything else out of a record. See Client::changes_since. Must be called with every change of the query's
  // range, in its order.
  Status apply(ChangeRecord* record);

 private:
  struct Move {
    Revision revision = 0;
    std::string from;
    std::string to;
  };

  // The moves in a part of the log, in their order.
  struct Moves {
    Revision after = 0;
    Revision up_to = 0;
    std::vector<Move> list;
  };

  static void add_moves(const ChangeRecord& record, std::vector<Move>* moves);
  Status read_moves(Revision after, Revision up_to, std::vector<Move>* moves);
  Status learn_moves(Revision after, Revision up_to);
  void learn_older_moves(const ChangeRecord& record);
  Status find_name_today(Revision former, std::string_view former_name, store::View& present, std::string* name);
  bool concerns(std::string_view name, bool with_subtree) const;
  bool is_wanted(const Change& change) const;
  Status is_allowed(const ChangeRecord& record, const Change& change, bool* answer);
  Status grants(Revision revision, std::string_view name, Rights right, bool* answer);

  store::Store& store_;
  const Identity& identity_;
  const ChangeQuery& query_;
  std::optional<Moves> moves_;  // that are known
};

}  // namespace tkv::registry

#endif
