// Composes the pages of a data file byte by byte, without LMDB.
#ifndef TKV_TESTS_PLATFORM_PAGE_BUILDER_H
#define TKV_TESTS_PLATFORM_PAGE_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "store/lmdb/layout.h"

namespace tkv::store {

template <typename Object>
std::string bytes_of_object(const Object& object) {
  return {reinterpret_cast<const char*>(&object), sizeof object};
}

// A page as LMDB writes it: offsets from the front, nodes from the back.
class PageBuilder {
 public:
  static constexpr std::size_t kSize = 512;

  PageBuilder(std::uint64_t number, std::uint16_t kind) : number_(number), kind_(kind) {}

  PageBuilder& leaf(const std::string& key, const std::string& data) {
    return add({static_cast<std::uint16_t>(data.size()), 0, 0, static_cast<std::uint16_t>(key.size())}, key + data);
  }
  PageBuilder& big(const std::string& key, std::uint64_t page, std::uint32_t size) {
    const auto low = static_cast<std::uint16_t>(size);
    const auto high = static_cast<std::uint16_t>(size >> 16);
    return add({low, high, kBigData, static_cast<std::uint16_t>(key.size())}, key + bytes_of_object(page));
  }
  PageBuilder& branch(const std::string& key, std::uint64_t child) {
    return add({static_cast<std::uint16_t>(child), static_cast<std::uint16_t>(child >> 16),
                static_cast<std::uint16_t>(child >> 32), static_cast<std::uint16_t>(key.size())},
               key);
  }

  std::string bytes() const {
    std::string nodes;
    std::string offsets;
    for (const std::string& node : nodes_) {
      nodes.insert(0, node);
      offsets += bytes_of_object(static_cast<std::uint16_t>(kSize - nodes.size()));
    }
    const auto lower = static_cast<std::uint16_t>(sizeof(PageHeader) + offsets.size());
    const auto upper = static_cast<std::uint16_t>(kSize - nodes.size());
    std::string page = bytes_of_object(PageHeader{number_, 0, kind_, lower, upper}) + offsets;
    return page + std::string(kSize - page.size() - nodes.size(), '\xAA') + nodes;
  }

 private:
  PageBuilder& add(const NodeHeader& header, const std::string& rest) {
    std::string node = bytes_of_object(header) + rest;
    if (node.size() % 2 != 0) node += '\0';
    nodes_.push_back(node);
    return *this;
  }

  const std::uint64_t number_;
  const std::uint16_t kind_;
  std::vector<std::string> nodes_;
};

}  // namespace tkv::store

#endif
