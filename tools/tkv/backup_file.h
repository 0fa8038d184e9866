// Backup files: one state of a subtree, written and read in one pass.
//
//   head     "TKVBACKUP 1\n"; 8 bytes: when it was taken, in seconds since 1970; a name: the top
//   key      byte 'K'; a name: the full name; masks of owner, group, others, 4 bytes each; a name: owner; a name:
//            group; 4 bytes: the value's type; 4 bytes: the value's size; the value's bytes
//   in format 2, which has "TKVBACKUP 2\n" in its head and leaves out what could not be read:
//     key without its value   byte 'V', then as a key up to the group; in the place of a key
//     key that was left out   byte 'L'; a name: as in Subtree::left_out; after all keys
//   end      byte 'E'; 8 bytes each: keys, values, bytes of values; 16 bytes: the XXH3 hash, 128 bits, of everything
//            before it, in its canonical form
//
// A name is its size in 2 bytes, then its bytes. Numbers have their least significant byte first. Keys are in the order
// of names, parents before their subkeys. Nothing follows the end. Only a backup that leaves something out has format
// 2, which releases that would delete what it lacks refuse. Do not change: another format needs another number in the
// head.
#ifndef TKV_TOOLS_TKV_BACKUP_FILE_H
#define TKV_TOOLS_TKV_BACKUP_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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
  bool may_lack_parts = false;  // format 2
};

class BackupWriter {
 public:
  BackupWriter();
  ~BackupWriter();

  // Fails with Exit::kConflict if the file exists.
  Outcome open(const std::string& path, const BackupHead& head);

  // A key without its value, and keys that are left out, need a head that allows for them.
  Outcome add(const registry::KeyRecord& key);
  Outcome leave_out(const std::vector<std::string>& names);  // after all keys

  // Writes the end, makes the file durable, opens it again, reads and checks all of it, and only then gives it its
  // name. `progress` is called with the number of keys checked so far.
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

// The contents of a backup that was read and checked to its end.
struct BackupContents {
  BackupHead head;
  BackupTotals totals;
  std::vector<std::string> left_out;  // as in Subtree
  std::string hash;                   // in hexadecimal
};

// Reads a whole backup; "-" is standard input. `take` receives each key before the hash was checked, so the keys must
// not be used unless this succeeds. Fails with Exit::kDamaged if the file is damaged or cut off, Exit::kUsage if it is
// not a backup.
Outcome read_backup(const std::string& path, BackupContents* contents,
                    FunctionRef<Outcome(registry::KeyRecord&& key)> take);

}  // namespace tkv::command

#endif
