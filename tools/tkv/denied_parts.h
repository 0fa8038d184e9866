// What a verb that goes through a subtree had to leave out for lack of rights.
#ifndef TKV_TOOLS_TKV_DENIED_PARTS_H
#define TKV_TOOLS_TKV_DENIED_PARTS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "terminal.h"

namespace tkv::command {

class DeniedParts {
 public:
  void add_subkeys(std::string_view key) { subkeys_.add(key); }
  void add_value(std::string_view key) { values_.add(key); }

  // Says what was left out, in one note for all subkeys and one for all values.
  void say(const Terminal& terminal) const;

 private:
  struct Part {
    std::uint64_t count = 0;
    std::string first;  // key

    void add(std::string_view key) {
      if (count++ == 0) first = key;
    }
    void say(const Terminal& terminal, const std::string& what) const;
  };

  Part subkeys_;
  Part values_;
};

}  // namespace tkv::command

#endif
