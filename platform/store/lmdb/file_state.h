// FileState: one state of the data file in LMDB's map, ready to be read without LMDB.
//
// LMDB gives out neither the address of its map nor the root of a tree. locate_map() finds the address once for each
// map; the roots are copied from the meta page that belongs to the transaction.
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_STATE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_STATE_H

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/status.h"
#include "store/lmdb/layout.h"
#include "store/record.h"

namespace tkv::store {

// Where LMDB has mapped the file.
struct FileMap {
  const std::byte* address = nullptr;  // null: there is none
  std::size_t size = 0;
  std::size_t page_size = 0;
  const char* directory = "";  // for messages; outlives the map
};

// The state that a transaction sees. Its pages stay as they are as long as the transaction is alive: LMDB overwrites no
// page of a state that has a reader.
struct FileState {
  FileMap map;
  std::uint64_t transaction = 0;  // whose commit made this state; 0: not loaded
  std::uint64_t page_count = 0;   // pages with this number and above do not exist in this state
  TreeRoot records{};
  TreeRoot free_pages{};

  const std::byte* page(std::uint64_t number) const { return map.address + number * map.page_size; }
  bool has_page(std::uint64_t number) const { return number >= kMetaPages && number < page_count; }
};

// A place in the file that cannot be right: "page 12 has impossible bounds".
struct PageDamage {
  std::uint64_t page = 0;
  const char* defect = nullptr;  // null: nothing is wrong

  explicit operator bool() const { return defect != nullptr; }
};

// PRTKV_STORAGE_FAILED with a message that names the registry's directory and the page.
Status damaged_page(const FileMap& map, PageDamage damage);

// The state that an environment was opened in, and the registry's record of itself in it.
struct FirstState {
  FileState state;  // not loaded if others have committed meanwhile
  Status decoded;   // the result of decoding the record
  Meta meta;        // if that has succeeded
};

// Finds the address of the environment's map, and reads the registry's record of itself, which every registry has.
// Checks the pages on the way to a record before LMDB follows them. No transaction of the calling thread may be active
// in the environment. `directory` is for messages and must outlive the map.
Status locate_map(MDB_env* env, const char* directory, FileMap* map, FirstState* first);

// Copies the meta page of the state after `transaction`. While a transaction two numbers later is being committed, the
// copy may be torn. `*certain` is set if that cannot have happened; otherwise the copy is good if a reader that begins
// afterwards still sees `transaction`.
void copy_meta_page(const FileMap& map, std::uint64_t transaction, MetaPage* meta, bool* certain);

// Makes a state of a meta page, whose numbers are checked.
Status load_state(const FileMap& map, const MetaPage& meta, std::uint64_t transaction, FileState* state);

}  // namespace tkv::store

#endif
