// Past: what the changes of the log have replaced, by key, so that a former state can be read as the present one with
// the former records in its place.
#ifndef TKV_PLATFORM_STORE_LMDB_PAST_H
#define TKV_PLATFORM_STORE_LMDB_PAST_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "store/lmdb/file.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/lmdb_view.h"
#include "store/record.h"

namespace tkv::store {

// Serves all states from `begin` on. Not for use by another thread while extend() runs.
class Past {
 public:
  explicit Past(Revision begin) : begin_(begin), end_(begin) {}

  Revision begin() const { return begin_; }
  Revision end() const { return end_; }
  std::size_t bytes() const { return bytes_; }

  // Takes in the changes up to the given state, whose log reaches back to where this past ends.
  Status extend(const FileState& state, const Meta& meta);

  // Whether something that this past still has was removed from the history. It is then of no use.
  bool is_outdated() const { return is_outdated_; }

  // A record, or that there was none. A null pointer where one is returned: at that revision, it was as at the present.
  using Record = std::optional<std::string>;
  const Record* find(const Key& key, Revision revision) const;

  // The children of `parent` whose record was replaced or removed since that revision, in byte order of the names.
  using Children = std::vector<std::pair<std::string_view, const Record*>>;
  Children children(NodeId parent, Revision revision) const;

 private:
  struct Former {
    Revision replaced_in;
    Record record;
  };
  using Formers = std::vector<Former>;  // in the order of revisions

  Status take(Revision revision, std::span<const std::byte> content);
  static const Record* at(const Formers& formers, Revision revision);

  const Revision begin_;
  Revision end_;
  std::size_t bytes_ = 0;
  bool is_outdated_ = false;
  std::map<std::string, Formers, std::less<>> formers_;  // by key
};

// A former state.
class PastView final : public View {
 public:
  // `present` is a state up to which `past` was extended, or an older one.
  PastView(LmdbView& present, const Past& past, Revision revision)
      : present_(present), past_(past), revision_(revision) {}

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, VisitChild visit) override {
    return children_with_damage(parent, visit, kEndAtDamage);
  }
  Status children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return 0; }
  Status revision(Revision* revision) override {
    *revision = revision_;
    return {};
  }
  Status change(Revision revision, ChangeRecord* record) override {
    return revision > revision_ ? Status(PRTKV_NO_SUCH_KEY) : present_.change(revision, record);
  }

 private:
  LmdbView& present_;
  const Past& past_;
  const Revision revision_;
};

}  // namespace tkv::store

#endif
