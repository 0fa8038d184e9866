/* What the doubles of the platform and the fake managed side share: the recording of calls and the answers to them.
 *
 * Conventions
 *   Lines.    Every call of the bridge becomes one line, "function(argument, argument)", with all of its arguments:
 *             texts and values quoted and escaped, handles as numbers, words as they went in, security records by
 *             content, pointers by the name of what they point at. The environment and the result object are left
 *             out when they are the right ones and shown when they are not.
 *   Answers.  Each function takes the next answer from its own queue. Without one it asks `unscripted`.
 *   Ledger.   What the bridge took and did not give back: characters, open keys, blocks.
 *   Threads.  None.
 */
#ifndef TKV_TESTS_BRIDGE_RECORDING_H
#define TKV_TESTS_BRIDGE_RECORDING_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sec_attr.h"

namespace bridge_test {

/* What a double gives back. What is not set is left as it was. */
struct Answer {
  int64_t result = 0;
  std::optional<uint64_t> handle;     /* the handle that is given back or written */
  std::optional<std::string> bytes;   /* goes into the text, name or value buffer */
  std::optional<uint64_t> size;       /* goes into the size word, instead of the size of `bytes` */
  std::optional<int32_t> word;        /* goes into the first out word: type, remaining, configuration, ... */
  std::optional<int32_t> second_word; /* goes into the second out word */
  std::optional<sec_attr> security;   /* goes into the security record */
  std::string name;                   /* what the lines call the block that is given */
  bool refuse = false;                /* null instead of a block, pointer or object */
  std::function<void()> then;         /* runs before the double returns */
};

/* A block of the bridge's memory. It comes with any content. Freed blocks are zero-filled and stay readable until the
 * test ends. */
struct Block {
  std::string name;
  uint64_t owner;
  size_t size;
  std::unique_ptr<char[]> bytes;
  bool freed = false;
};

class Recording {
 public:
  static Recording& instance();

  /* Forgets everything and starts anew. */
  void reset();

  /* Starts anew with the lines and the answers; the ledger stays. */
  void forgetLines();

  void record(std::string line) { lines_.push_back(std::move(line)); }
  const std::vector<std::string>& lines() const { return lines_; }

  void queue(const std::string& function, Answer answer) { answers_[function].push_back(std::move(answer)); }
  Answer answer(const std::string& function);
  std::function<Answer(const std::string& function)> unscripted;

  /* Something that no bridge may do, whatever the test expects. */
  void violation(std::string text) { violations_.push_back(std::move(text)); }
  const std::vector<std::string>& violations() const { return violations_; }

  /* A block whose bytes are all `kFreshByte`: whoever needs zeros writes them. */
  static constexpr char kFreshByte = '\xa5';
  char* allocate(uint64_t owner, size_t size, const std::string& name);
  void free(uint64_t owner, const void* block);
  Block* block(std::string_view name);
  /* The names of the blocks that were not freed, in the order in which they were taken. */
  std::vector<std::string> blocksTaken() const;
  bool freedBlocksAreZero() const;

  void keyOpened(uint64_t key) { open_keys_.push_back(key); }
  void keyClosed(uint64_t key);
  const std::vector<uint64_t>& openKeys() const { return open_keys_; }

  /* The name of what a pointer points at: a block, or a field or place within one; a named object; "own buffer" for
   * what is neither. */
  std::string describe(const void* pointer) const;
  void name(const void* pointer, std::string text) { names_[pointer] = std::move(text); }

 private:
  std::vector<std::string> lines_;
  std::vector<std::string> violations_;
  std::map<std::string, std::deque<Answer>> answers_;
  std::deque<Block> blocks_;
  std::map<const char*, Block*> blocks_by_start_;
  std::vector<uint64_t> open_keys_;
  std::map<const void*, std::string> names_;
};

/* How arguments are shown. */
std::string quote(std::string_view bytes);
std::string quote(const char* text); /* null for null */
std::string value(const void* bytes, size_t size);
std::string context(uint64_t ctx);
std::string program(uint64_t pm);
std::string key(uint64_t key);
std::string out(uint64_t handle);
std::string number(int64_t number);
std::string hex(uint64_t number);
std::string security(const sec_attr& record);

/* The name of the buffer, with a remark when it is the bridge's own and its first `size` bytes are not all zero. */
std::string buffer(const void* pointer, size_t size);

std::string line(const std::string& function, const std::vector<std::string>& arguments);

}  // namespace bridge_test

#endif
