#include "store/lmdb/reader_table.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "store/lmdb/reader_pool.h"
#include "store/lmdb/tree_cursor.h"

namespace tkv::store {
namespace {

constexpr std::int64_t kLongSeconds = 60;

std::string command_of(pid_t process) {
  std::string command;
  std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), command);
  return command;
}

// The pages that have been freed since `transaction`. A reader of its state keeps them from being used again.
std::uint64_t pages_freed_since(const FileState& state, std::uint64_t transaction) {
  std::uint64_t pages = 0;
  TreeCursor lists(state, state.free_pages, Page::Keys::kIntegers);
  for (PageDamage damage = lists.first(); !damage && !lists.at_end(); damage = lists.next()) {
    std::span<const std::byte> key;
    std::span<const std::byte> list;
    std::uint64_t freed_by = 0;
    std::uint64_t count = 0;
    if (lists.read(&key, &list) || key.size() != sizeof freed_by || list.size() < sizeof count) break;
    std::memcpy(&freed_by, key.data(), sizeof freed_by);
    std::memcpy(&count, list.data(), sizeof count);
    if (freed_by > transaction) pages += count;
  }
  return pages;
}

}  // namespace

// LMDB lists its readers as text: a heading, then a line for each with its process id, its thread and, while it reads,
// the transaction whose state it holds.
int list_readers(MDB_env* env, std::vector<TableReader>* readers) {
  readers->clear();
  readers->reserve(kMaxReaders);  // so that nothing is thrown through LMDB
  const auto take = [](const char* line, void* context) {
    auto* const found = static_cast<std::vector<TableReader>*>(context);
    TableReader reader;
    unsigned long transaction = 0;
    // NOLINTNEXTLINE(cert-err34-c): LMDB has printed these numbers from such variables
    const int fields = std::sscanf(line, "%d %*x %lu", &reader.process, &transaction);
    if (fields == 2) reader.transaction = transaction;
    if (fields >= 1 && found->size() < found->capacity()) found->push_back(reader);
    return 0;
  };
  const int code = mdb_reader_list(env, take, readers);
  return std::min(code, 0);
}

std::vector<LongReader> find_long_readers(const std::vector<TableReader>& readers, const FileState& state,
                                          const CommitTimes& times) {
  std::vector<LongReader> found;
  std::vector<TableReader> by_age = readers;
  std::sort(by_age.begin(), by_age.end(),
            [](const TableReader& left, const TableReader& right) { return left.transaction < right.transaction; });
  const std::int64_t now = std::time(nullptr);
  for (const TableReader& reader : by_age) {
    if (reader.transaction == 0 || reader.transaction >= state.transaction) continue;
    const std::int64_t seconds = times.held_for(reader.transaction, now);
    if (seconds < kLongSeconds) continue;
    found.push_back({reader.process, command_of(reader.process), static_cast<std::uint64_t>(seconds),
                     pages_freed_since(state, reader.transaction) * state.map.page_size});
  }
  return found;
}

}  // namespace tkv::store
