#include "backup_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#define XXH_INLINE_ALL  // compiled in, so that no library has to be loaded
#include <xxhash.h>

#include "base/identity.h"
#include "characters.h"
#include "input.h"
#include "prtkv.h"
#include "registry/access.h"
#include "registry/name.h"

namespace tkv::command {
namespace {

using registry::KeyRecord;

constexpr std::string_view kMagic = "TKVBACKUP 1\n";
constexpr std::string_view kMagicOfParts = "TKVBACKUP 2\n";
constexpr std::string_view kAnyMagic = "TKVBACKUP ";
constexpr std::size_t kHashBytes = 16;
constexpr char kKeyMark = 'K';
constexpr char kValuelessKeyMark = 'V';
constexpr char kLeftOutMark = 'L';
constexpr char kEndMark = 'E';

template <typename Number>
void append_number(Number number, std::string* bytes) {
  for (std::size_t byte = 0; byte < sizeof number; ++byte) {
    bytes->push_back(static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * byte) & 0xff));
  }
}

void append_name(std::string_view name, std::string* bytes) {
  append_number(static_cast<std::uint16_t>(name.size()), bytes);
  bytes->append(name);
}

std::string key_record(const KeyRecord& key) {
  std::string bytes(1, key.has_value ? kKeyMark : kValuelessKeyMark);
  append_name(key.name, &bytes);
  append_number(key.security.user_perm, &bytes);
  append_number(key.security.group_perm, &bytes);
  append_number(key.security.other_perm, &bytes);
  append_name(registry::user_of(key.security), &bytes);
  append_name(registry::group_of(key.security), &bytes);
  if (!key.has_value) return bytes;
  append_number(key.value.type, &bytes);
  append_number(static_cast<std::uint32_t>(key.value.bytes.size()), &bytes);
  return bytes.append(key.value.bytes);
}

class StreamHash {
 public:
  StreamHash() : state_(XXH3_createState()) {
    if (state_ == nullptr) throw std::bad_alloc();
    XXH3_128bits_reset(state_);
  }
  ~StreamHash() { XXH3_freeState(state_); }
  StreamHash(const StreamHash&) = delete;
  StreamHash& operator=(const StreamHash&) = delete;

  void add(std::string_view bytes) { XXH3_128bits_update(state_, bytes.data(), bytes.size()); }

  std::string digest() const {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_));
    return {reinterpret_cast<const char*>(canonical.digest), sizeof canonical.digest};
  }

 private:
  XXH3_state_t* state_;
};

// Reads a file and hashes what was read.
class Source {
 public:
  explicit Source(const std::string& path)
      : path_(shown_path(path)), file_(path == "-" ? stdin : std::fopen(path.c_str(), "rbe")), error_(errno) {}
  ~Source() {
    if (file_ != nullptr && file_ != stdin) static_cast<void>(std::fclose(file_));
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  Outcome opened() const {
    if (file_ != nullptr) return {};
    return {exit_of_error(error_), "cannot read " + path_ + ": " + std::strerror(error_)};
  }

  Outcome damaged(const std::string& what) const { return {Exit::kDamaged, path_ + " is damaged: " + what}; }

  Outcome read(std::size_t size, std::string* bytes) {
    bytes->resize(size);
    const std::size_t got = std::fread(bytes->data(), 1, size, file_);
    const int error = errno;
    if (got != size && std::ferror(file_) != 0) {
      return {Exit::kOther, "cannot read " + path_ + ": " + std::strerror(error)};
    }
    if (got != size) return damaged("it ends early");
    hash_.add(*bytes);
    return {};
  }

  template <typename Number>
  Outcome number(Number* number) {
    std::string bytes;
    if (Outcome got = read(sizeof *number, &bytes); !got.ok()) return got;
    std::uint64_t value = 0;
    for (std::size_t byte = sizeof *number; byte-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[byte]);
    *number = static_cast<Number>(value);
    return {};
  }

  Outcome name(std::string* name) {
    std::uint16_t size = 0;
    if (Outcome got = number(&size); !got.ok()) return got;
    return read(size, name);
  }

  bool at_end() { return std::fgetc(file_) == EOF && std::feof(file_) != 0; }
  std::string digest() const { return hash_.digest(); }

 private:
  const std::string path_;
  std::FILE* file_;
  int error_;
  StreamHash hash_;
};

Outcome first_failure(std::initializer_list<Outcome> outcomes) {
  for (const Outcome& outcome : outcomes) {
    if (!outcome.ok()) return outcome;
  }
  return {};
}

Outcome read_head(Source& source, const std::string& path, BackupHead* head) {
  std::string magic;
  if (Outcome got = source.read(kMagic.size(), &magic); got.exit() == Exit::kOther) return got;
  head->may_lack_parts = magic == kMagicOfParts;
  if (magic != kMagic && !head->may_lack_parts) {
    if (magic.starts_with(kAnyMagic)) {
      return {Exit::kUsage, path + " is a backup in a format that this release does not know"};
    }
    return {Exit::kUsage, path + " is not a backup"};
  }
  if (Outcome got = source.number(&head->taken); !got.ok()) return got;
  return source.name(&head->top);
}

Outcome read_value(Source& source, registry::TypedValue* value) {
  std::uint32_t size = 0;
  if (Outcome got = first_failure({source.number(&value->type), source.number(&size)}); !got.ok()) return got;
  if (size > PRTKV_MAX_VALUE_SIZE) return source.damaged("a value is too large");
  return source.read(size, &value->bytes);
}

// Reads what follows the mark of a key.
Outcome read_key(Source& source, bool has_value, KeyRecord* key) {
  std::string owner;
  std::string group;
  // In the order of the file: initializer lists are evaluated from left to right.
  Outcome got = first_failure({source.name(&key->name), source.number(&key->security.user_perm),
                               source.number(&key->security.group_perm), source.number(&key->security.other_perm),
                               source.name(&owner), source.name(&group)});
  if (!got.ok()) return got;
  const bool sound = registry::check_name(key->name).ok() && registry::set_user(&key->security, owner).ok() &&
                     registry::set_group(&key->security, group).ok();
  if (!sound) return source.damaged("a key is malformed");
  key->has_value = has_value;
  return has_value ? read_value(source, &key->value) : Outcome();
}

Outcome read_left_out(Source& source, BackupContents* contents) {
  std::string name;
  if (Outcome got = source.name(&name); !got.ok()) return got;
  if (!registry::is_within(name, contents->head.top)) return source.damaged("a key that was left out is malformed");
  contents->left_out.push_back(std::move(name));
  return {};
}

void count(const KeyRecord& key, BackupTotals* totals) {
  ++totals->keys;
  totals->value_bytes += key.value.bytes.size();
  if (key.value.type != kTypeNone || !key.value.bytes.empty()) ++totals->values;
}

Outcome read_end(Source& source, const BackupTotals& counted, BackupContents* contents) {
  std::string written;
  BackupTotals& totals = contents->totals;
  Outcome got =
      first_failure({source.number(&totals.keys), source.number(&totals.values), source.number(&totals.value_bytes)});
  if (!got.ok()) return got;
  const std::string computed = source.digest();
  if (got = source.read(kHashBytes, &written); !got.ok()) return got;
  if (written != computed) return source.damaged("its contents do not match its hash");
  if (totals != counted) return source.damaged("it does not contain as many keys as it says");
  if (!source.at_end()) return source.damaged("there is something after its end");
  contents->hash = hex_from(computed);
  return {};
}

}  // namespace

struct BackupWriter::Hash : StreamHash {};

BackupWriter::BackupWriter() : state_(std::make_unique<Hash>()) {}
BackupWriter::~BackupWriter() = default;

Outcome BackupWriter::write(const std::string& bytes) {
  state_->add(bytes);
  return file_.write(bytes);
}

Outcome BackupWriter::open(const std::string& path, const BackupHead& head) {
  head_ = head;
  if (Outcome opened = file_.open(path, AtomicFile::Existing::kRefuse); !opened.ok()) return opened;
  std::string bytes(head.may_lack_parts ? kMagicOfParts : kMagic);
  append_number(head.taken, &bytes);
  append_name(head.top, &bytes);
  return write(bytes);
}

Outcome BackupWriter::add(const KeyRecord& key) {
  count(key, &totals_);
  return write(key_record(key));
}

Outcome BackupWriter::leave_out(const std::vector<std::string>& names) {
  std::string bytes;
  for (const std::string& name : names) {
    bytes += kLeftOutMark;
    append_name(name, &bytes);
  }
  return write(bytes);
}

Outcome BackupWriter::finish(FunctionRef<void(std::uint64_t keys)> progress) {
  std::string bytes(1, kEndMark);
  append_number(totals_.keys, &bytes);
  append_number(totals_.values, &bytes);
  append_number(totals_.value_bytes, &bytes);
  if (Outcome written = write(bytes); !written.ok()) return written;
  const std::string digest = state_->digest();
  hash_ = hex_from(digest);
  if (Outcome written = file_.write(digest); !written.ok()) return written;
  if (Outcome synced = file_.sync(); !synced.ok()) return synced;
  BackupContents again;
  std::uint64_t keys = 0;
  Outcome read = read_backup(file_.written_path(), &again, [&](KeyRecord&&) {
    progress(++keys);
    return Outcome();
  });
  if (!read.ok()) return read;
  if (again.hash != hash_ || again.totals != totals_ || again.head.top != head_.top) {
    return {Exit::kDamaged, "the backup cannot be read back as it was written"};
  }
  return file_.commit();
}

Outcome read_backup(const std::string& path, BackupContents* contents, FunctionRef<Outcome(KeyRecord&& key)> take) {
  Source source(path);
  BackupTotals counted;
  std::string last;
  if (Outcome opened = source.opened(); !opened.ok()) return opened;
  if (Outcome head = read_head(source, path, &contents->head); !head.ok()) return head;
  for (;;) {
    std::string mark;
    if (Outcome got = source.read(1, &mark); !got.ok()) return got;
    if (mark[0] == kEndMark) return read_end(source, counted, contents);
    const bool may_lack_parts = contents->head.may_lack_parts;
    if (may_lack_parts && mark[0] == kLeftOutMark) {
      if (Outcome got = read_left_out(source, contents); !got.ok()) return got;
      continue;
    }
    const bool has_value = !may_lack_parts || mark[0] != kValuelessKeyMark;
    if (has_value && mark[0] != kKeyMark) return source.damaged("neither a key nor the end where one is expected");
    KeyRecord key;
    if (Outcome got = read_key(source, has_value, &key); !got.ok()) return got;
    const bool first = counted.keys == 0;
    if (first ? key.name != contents->head.top : !registry::name_before(last, key.name)) {
      return source.damaged("the keys are out of order");
    }
    last = key.name;
    count(key, &counted);
    if (Outcome taken = take(std::move(key)); !taken.ok()) return taken;
  }
}

}  // namespace tkv::command
