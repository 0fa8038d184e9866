// Backup files: one state of a subtree, written in one pass and read in one.
//
//   head     "TKVBACKUP 1\n"; 8 bytes: when it was taken, in seconds since 1970; a name: the top
//   key      byte 'K'; a name: the full name; masks of owner, group, others, 4 bytes each; a name: owner; a name:
//            group; 4 bytes: the value's type; 4 bytes: the value's size; the value's bytes
//   end      byte 'E'; 8 bytes each: keys, values, bytes of values; 16 bytes: the XXH3 hash, 128 bits, of everything
//            before it, in its canonical form
//
// A name is 2 bytes of size and its bytes. Numbers have their least significant byte first. Keys stand in the order of
// names, parents before their subkeys. Nothing follows the end. Do not change: another format is another number in the
// head.
#ifndef TKV_TOOLS_TKV_BACKUP_FILE_H
#define TKV_TOOLS_TKV_BACKUP_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "atomic_file.h"
#include "base/function_ref.h"
#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

struct BackupTotals {
  std::uint64_t keys = 0;
  std::uint64_t values = 0;
  std::uint64_t value_bytes = 0;

  bool operator==(const BackupTotals&) const = default;
};

struct BackupHead {
  std::uint64_t taken = 0;  // seconds since 1970
  std::string top;
};

class BackupWriter {
 public:
  BackupWriter();
  ~BackupWriter();

  // 5 when the file exists.
  Outcome open(const std::string& path, const BackupHead& head);
  Outcome add(const registry::KeyRecord& key);

  // Writes the end and makes the file durable, opens it again, reads and checks all of it, and only then gives it its
  // name. `progress` is told how many keys were checked.
  Outcome finish(FunctionRef<void(std::uint64_t keys)> progress);

  const BackupTotals& totals() const { return totals_; }
  const std::string& hash() const { return hash_; }  // in hexadecimal, after finish

 private:
  struct Hash;
  Outcome write(const std::string& bytes);

  AtomicFile file_;
  std::unique_ptr<Hash> state_;
  BackupHead head_;
  BackupTotals totals_;
  std::string hash_;
};

// What a backup holds, after it was read and checked to its end.
struct BackupContents {
  BackupHead head;
  BackupTotals totals;
  std::string hash;  // in hexadecimal
};

// Reads a backup whole; "-" is standard input. `take` gets each key before the end was checked: what it made of them
// counts only when this succeeds. 8 when the file is damaged or cut, 2 when it is no backup.
Outcome read_backup(const std::string& path, BackupContents* contents,
                    FunctionRef<Outcome(registry::KeyRecord&& key)> take);

}  // namespace tkv::command

#endif
