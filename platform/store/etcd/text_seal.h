// The seal of a record that is text, for people who look at it with etcdctl: its last line, "sum" and 16 hexadecimal
// digits, is a checksum of all lines before it. Without one, a digit that was damaged would be read as another number.
//
// Pure functions.
#ifndef TKV_PLATFORM_STORE_ETCD_TEXT_SEAL_H
#define TKV_PLATFORM_STORE_ETCD_TEXT_SEAL_H

#include <string>
#include <string_view>

namespace tkv::store::etcd {

// Adds the seal to a text of whole lines.
std::string seal_text(std::string_view lines);

enum class Seal {
  kSound,
  kNone,   // as former releases wrote texts
  kBroken  // damaged, or cut off
};

// Takes the seal off a text. What is left of a text with a broken one means nothing.
Seal unseal_text(std::string_view* text);

}  // namespace tkv::store::etcd

#endif
