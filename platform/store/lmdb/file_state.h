// FileState: one state of the data file, ready to be read without LMDB: from LMDB's map or, at first, from the file.
//
// LMDB gives out neither the address of its map nor the root of a tree. locate_map() finds the address once for each
// map; the roots are copied from the meta page that belongs to the transaction.
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_STATE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_STATE_H

#include <lmdb.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/status.h"
#include "store/lmdb/layout.h"
#include "store/lmdb/pages_in_file.h"
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
//
// Its pages are read from the file as long as `in_file` is set: then nobody need touch the map, which may be missing.
struct FileState {
  FileMap map;
  std::uint64_t transaction = 0;    // whose commit made this state; 0: not loaded
  std::uint64_t page_count = 0;     // pages with this number and above do not exist in this state
  std::uint64_t read_from_map = 0;  // how many of those behind the meta pages are: all, or none
  PagesInFile* in_file = nullptr;
  TreeRoot records{};
  TreeRoot free_pages{};

  bool has_page(std::uint64_t number) const { return number >= kMetaPages && number < page_count; }

  // A branch or leaf page, or null: then absence() tells why.
  const std::byte* page(std::uint64_t number) const {
    return is_read_from_map(number) ? map.address + number * map.page_size : page_in_file(number);
  }
  bool is_read_from_map(std::uint64_t number) const { return number - kMetaPages < read_from_map; }
  [[gnu::cold]] const char* absence(std::uint64_t number) const {
    if (!has_page(number)) return "does not exist, and is referred to";
    return in_file != nullptr && in_file->error() == ENODATA ? "is missing" : "cannot be read";
  }

  // A page that this state has, and those behind it. Null if there is no map.
  const std::byte* in_map(std::uint64_t number) const {
    return map.address == nullptr ? nullptr : map.address + number * map.page_size;
  }

  // Where in the file the bytes are that were read at an address.
  std::uint64_t offset_of(const std::byte* address) const {
    return in_file == nullptr ? static_cast<std::uint64_t>(address - map.address) : offset_in_file(address);
  }

  // From now on, pages are read from the map.
  void use_map() {
    read_from_map = page_count - kMetaPages;
    in_file = nullptr;
  }
  // From now on, pages are read from the file, while `pages` has room for them.
  void use_file(PagesInFile* pages) {
    read_from_map = 0;
    in_file = pages;
  }

 private:
  [[gnu::cold]] const std::byte* page_in_file(std::uint64_t number) const;
  [[gnu::cold]] std::uint64_t offset_in_file(const std::byte* address) const;
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
  FileState state;                     // not loaded if others have committed meanwhile
  Status decoded;                      // the result of decoding the record
  Meta meta;                           // if that has succeeded
  std::unique_ptr<PagesInFile> pages;  // of the state, which reads its pages from there

  // Copies bytes of the file, if the pages of this state are those of the transaction, and hold them.
  bool copy(std::uint64_t transaction, std::uint64_t offset, std::span<std::byte> bytes) const {
    return state.transaction == transaction && pages != nullptr && pages->copy(offset, bytes);
  }
};

// Finds the address of the environment's map, and reads the registry's record of itself, which every registry has.
// Checks the pages on the way to an entry before LMDB follows them. No transaction of the calling thread may be active
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
