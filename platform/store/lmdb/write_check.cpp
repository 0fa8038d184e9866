#include "store/lmdb/write_check.h"

#include <cstring>

#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

constexpr std::size_t kRecordsToCheck = 256;     // of the list of free pages
constexpr std::size_t kNumbersToCheck = 16'384;  // in these records

std::uint64_t number_at(std::span<const std::byte> list, std::size_t index) {
  std::uint64_t number = 0;
  std::memcpy(&number, list.data() + index * sizeof number, sizeof number);
  return number;
}

// A record of the list of free pages: their number, and then each of them, the largest first. `*numbers` is how many
// numbers may still be looked at; these are added to `*free`.
const char* check_free_pages(const FileState& state, std::span<const std::byte> list, std::size_t* numbers,
                             PageFilter* free) {
  constexpr const char* kCutOff = "has a list of free pages that is cut off";
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  if (list.size() < kWord) return kCutOff;
  const std::uint64_t count = number_at(list, 0);
  if (count > list.size() / kWord - 1) return kCutOff;
  std::uint64_t former = state.page_count;
  for (std::size_t i = 1; i <= count && *numbers > 0; ++i, --*numbers) {
    const std::uint64_t number = number_at(list, i);
    if (number < kMetaPages || number >= former) return "has a list of free pages that is out of order";
    former = number;
    free->add(number);
  }
  return nullptr;
}

}  // namespace

Status WriteCheck::check_free_list() {
  TreeCursor cursor(former_, former_.free_pages, Page::Keys::kIntegers);
  CheckedPages checked;
  std::size_t numbers = kNumbersToCheck;
  if (PageDamage damage = cursor.last()) return result(damage);
  if (PageDamage damage = cursor.check_path(&checked)) return result(damage);
  PageDamage damage = cursor.first();
  if (!damage) damage = cursor.check_path(&checked);
  for (std::size_t i = 0; i < kRecordsToCheck && !damage && !cursor.at_end(); ++i, damage = cursor.next()) {
    std::span<const std::byte> key;
    std::span<const std::byte> list;
    damage = cursor.read(&key, &list);
    if (!damage) damage = {cursor.page_number(), check_free_pages(former_, list, &numbers, &free_)};
    if (damage) break;
  }
  knows_free_ = !damage && cursor.at_end() && numbers > 0;
  return result(damage);
}

Status WriteCheck::find_former(const Key& key, bool* found, std::span<const std::byte>* record) {
  cursor_.use(&read_);
  PageDamage damage = cursor_.seek_from_here(key.bytes(), found);
  if (!damage) damage = *found ? cursor_.record(record) : confirm_absence(cursor_, key, DamageBeside::kIgnore);
  return result(damage);
}

PageDamage WriteCheck::check_in_use() const {
  if (knows_free_ && !cursor_.any_page([this](std::uint64_t number) { return free_.may_have(number); })) return {};
  return cursor_.check_in_use();
}

PageDamage WriteCheck::check_path(const Key& key) {
  bool found = false;
  cursor_.use(&checked_);
  if (PageDamage damage = cursor_.seek_from_here(key.bytes(), &found)) return damage;
  if (PageDamage damage = cursor_.check_path(&checked_)) return damage;
  if (found) return {};
  if (PageDamage damage = check_in_use()) return damage;
  return confirm_absence(cursor_, key, DamageBeside::kIgnore);
}

Status WriteCheck::before_access(const Key& key) { return result(check_path(key)); }

Status WriteCheck::before_step(const Key& key) {
  if (PageDamage damage = check_path(key)) return result(damage);
  return result(cursor_.check_next(&checked_));
}

Status WriteCheck::before_removal(const Key& key) {
  if (PageDamage damage = check_path(key)) return result(damage);
  return result(cursor_.check_siblings(&checked_));
}

}  // namespace tkv::store
