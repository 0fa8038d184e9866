#include "recording.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tkv.h"

namespace bridge_test {

namespace {

// The fields of the session record that the bridge hands out by address.
std::string placeIn(const Block& block, size_t offset) {
  if (offset == 0) return block.name;
  if (block.size == sizeof(tkv_session)) {
    switch (offset) {
      case offsetof(tkv_session, user_name):
        return block.name + ".user_name";
      case offsetof(tkv_session, group_name):
        return block.name + ".group_name";
      case offsetof(tkv_session, lx_handle_area):
        return block.name + ".lx_handle_area";
      case offsetof(tkv_session, lang_env_area):
        return block.name + ".lang_env_area";
      default:
        break;
    }
  }
  return block.name + "+" + std::to_string(offset);
}

bool isZero(const char* bytes, size_t size) {
  return std::all_of(bytes, bytes + size, [](char byte) { return byte == 0; });
}

std::string nameField(const char (&name)[TKV_NAME_SIZE]) {
  constexpr size_t size = TKV_NAME_SIZE;
  const size_t length = strnlen(name, size);
  const bool clean = isZero(name + length, size - length);
  return quote(std::string_view(name, clean ? length : size));
}

}  // namespace

Recording& Recording::instance() {
  static Recording recording;
  return recording;
}

void Recording::reset() {
  forgetLines();
  unscripted = nullptr;
  violations_.clear();
  blocks_.clear();
  blocks_by_start_.clear();
  open_keys_.clear();
  names_.clear();
}

void Recording::forgetLines() {
  lines_.clear();
  answers_.clear();
}

Answer Recording::answer(const std::string& function) {
  auto& queued = answers_[function];
  if (queued.empty()) {
    if (unscripted) return unscripted(function);
    Answer nobodyAsked;
    nobodyAsked.result = 99;
    return nobodyAsked;
  }
  Answer next = std::move(queued.front());
  queued.pop_front();
  return next;
}

char* Recording::allocate(uint64_t owner, size_t size, const std::string& name) {
  const std::string called = name.empty() ? "block " + std::to_string(blocks_.size() + 1) : name;
  blocks_.push_back({called, owner, size, std::make_unique<char[]>(size)});
  char* start = blocks_.back().bytes.get();
  std::memset(start, kFreshByte, size);
  blocks_by_start_[start] = &blocks_.back();
  return start;
}

void Recording::free(uint64_t owner, const void* pointer) {
  const auto found = blocks_by_start_.find(static_cast<const char*>(pointer));
  if (found == blocks_by_start_.end() || found->second->owner != owner || found->second->freed) return;
  std::memset(found->second->bytes.get(), 0, found->second->size);
  found->second->freed = true;
}

Block* Recording::block(std::string_view name) {
  const auto found =
      std::find_if(blocks_.rbegin(), blocks_.rend(), [&](const Block& block) { return block.name == name; });
  return found == blocks_.rend() ? nullptr : &*found;
}

std::vector<std::string> Recording::blocksTaken() const {
  std::vector<std::string> taken;
  for (const auto& block : blocks_) {
    if (!block.freed) taken.push_back(block.name);
  }
  return taken;
}

bool Recording::freedBlocksAreZero() const {
  return std::all_of(blocks_.begin(), blocks_.end(),
                     [](const Block& block) { return !block.freed || isZero(block.bytes.get(), block.size); });
}

void Recording::keyClosed(uint64_t key) {
  const auto open = std::find(open_keys_.begin(), open_keys_.end(), key);
  if (open != open_keys_.end()) open_keys_.erase(open);
}

std::string Recording::describe(const void* pointer) const {
  if (pointer == nullptr) return "null";
  const auto named = names_.find(pointer);
  if (named != names_.end()) return named->second;
  const char* address = static_cast<const char*>(pointer);
  const auto behind = blocks_by_start_.upper_bound(address);
  if (behind == blocks_by_start_.begin()) return "own buffer";
  const auto& [start, block] = *std::prev(behind);
  const auto offset = static_cast<size_t>(address - start);
  return offset == 0 || offset < block->size ? placeIn(*block, offset) : "own buffer";
}

std::string quote(std::string_view bytes) {
  std::string shown = "\"";
  for (const char byte : bytes) {
    if (byte == '\n') {
      shown += "\\n";
    } else if (byte == '"' || byte == '\\') {
      shown += '\\';
      shown += byte;
    } else if (byte >= 0x20 && byte < 0x7f) {
      shown += byte;
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
      shown += escaped;
    }
  }
  return shown + "\"";
}

std::string quote(const char* text) { return text == nullptr ? "null" : quote(std::string_view(text)); }

std::string value(const void* bytes, size_t size) {
  if (bytes == nullptr) return "null, " + std::to_string(size);
  return quote(std::string_view(static_cast<const char*>(bytes), size)) + ", " + std::to_string(size);
}

std::string context(uint64_t ctx) { return "ctx " + std::to_string(ctx); }

std::string program(uint64_t pm) { return "pm " + std::to_string(pm); }

std::string key(uint64_t key) { return "key " + std::to_string(key); }

std::string out(uint64_t handle) { return handle == 0 ? "out null" : "out " + std::to_string(handle); }

std::string number(int64_t number) { return std::to_string(number); }

std::string hex(uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%" PRIx64, number);
  return text;
}

std::string security(const sec_attr& record) {
  const auto mask = [](int32_t bits) { return hex(static_cast<uint32_t>(bits)); };
  return "{" + mask(record.user_perm) + " " + mask(record.group_perm) + " " + mask(record.other_perm) + " " +
         nameField(record.user_name) + " " + nameField(record.group_name) + "}";
}

std::string buffer(const void* pointer, size_t size) {
  std::string shown = Recording::instance().describe(pointer);
  if (shown == "own buffer" && !isZero(static_cast<const char*>(pointer), size)) shown += " not zeroed";
  return shown;
}

std::string line(const std::string& function, const std::vector<std::string>& arguments) {
  std::string text = function + "(";
  for (size_t i = 0; i < arguments.size(); ++i) text += (i == 0 ? "" : ", ") + arguments[i];
  return text + ")";
}

}  // namespace bridge_test
