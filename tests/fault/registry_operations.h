// Changes to a registry as the verbs of tkv make them, each made from a number alone, so that a model that makes the
// same changes is in the same state.
#ifndef TKV_TESTS_FAULT_REGISTRY_OPERATIONS_H
#define TKV_TESTS_FAULT_REGISTRY_OPERATIONS_H

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "memory_store.h"
#include "registry/local_client.h"

namespace tkv::registry {

inline Identity superuser() { return Identity{"root", {"root"}, true}; }

inline constexpr const char* kVerbs[] = {"set", "create", "mv",     "mv --replace", "cp -r", "cp -r --replace",
                                         "rm",  "rm -r",  "import", "restore",      "chmod", "chmod -R"};
inline constexpr unsigned kVerbCount = static_cast<unsigned>(std::size(kVerbs));

// A change of a small set of keys. Many fail, for their keys do not exist; in every state, a run and its model give the
// same result.
class TrialOperation {
 public:
  explicit TrialOperation(unsigned number) : TrialOperation(number, number % kVerbCount) {}
  TrialOperation(unsigned number, unsigned verb) : random_(number), verb_(verb) {}

  const char* verb() const { return kVerbs[verb_]; }
  Status run(Client& client) {
    const auto ignore = [](std::uint64_t) {};
    KeyId id = kAnyKey;
    const std::string first = some_name();
    const std::string second = some_name();
    switch (verb_) {
      case 0:
        return put(client, first, PutOptions::Key::kAny);
      case 1:
        return put(client, first, PutOptions::Key::kMustBeNew);
      case 2:
      case 3:
        return client.move(first, "", second, verb_ == 3, &id);
      case 4:
      case 5: {
        CopyOptions options;
        options.recursive = true;
        options.replace = verb_ == 5;
        return client.copy(first, second, options, ignore);
      }
      case 6:
      case 7:
        return client.remove(first, verb_ == 7, ignore);
      case 8:
        return apply(client, first, MergeMode::kMerge);
      case 9:
        return apply(client, first, MergeMode::kReplace);
      default: {
        SecurityChange change;
        change.other_mask.set = static_cast<std::int32_t>(random_() % 0x40);
        return client.change_security(first, change, verb_ == 11, ignore);
      }
    }
  }

 private:
  // One of 4 + 16 + 64 names.
  std::string some_name() {
    std::string name;
    for (auto levels = 1 + random_() % 3; levels > 0; --levels) {
      name += (name.empty() ? "k" : ".k") + std::to_string(random_() % 4);
    }
    return name;
  }

  TypedValue some_value() {
    constexpr std::size_t kSizes[] = {0, 1, 40, 300, 3000, 20'000};
    const std::size_t size = kSizes[random_() % std::size(kSizes)];
    return {size == 0 ? 0 : 3, std::string(size, static_cast<char>('a' + random_() % 26))};
  }

  sec_attr some_security() {
    sec_attr security{};
    security.user_perm = 0x3f;
    security.group_perm = static_cast<std::int32_t>(random_() % 0x40);
    return security;
  }

  Status put(Client& client, const std::string& name, PutOptions::Key key) {
    const NamedValue value{name, some_value()};
    PutOptions options;
    options.key = key;
    options.create_parents = random_() % 2 == 0;
    options.security.initial = some_security();
    return client.put({&value, 1}, options);
  }

  void add_keys(const std::string& name, int depth, std::vector<KeyRecord>* keys) {
    KeyRecord key;
    key.name = name;
    key.security = some_security();
    key.value = some_value();
    keys->push_back(std::move(key));
    for (unsigned i = 0; depth > 0 && i < 4; ++i) add_keys(name + ".k" + std::to_string(i), depth - 1, keys);
  }

  Status apply(Client& client, const std::string& top, MergeMode mode) {
    Subtree wanted{top, {}};
    add_keys(top, 1 + static_cast<int>(random_() % 3), &wanted.keys);
    ApplyOptions options;
    options.mode = mode;
    options.create_parents = true;
    options.security.initial = some_security();
    Difference difference;
    const auto ignore = [](std::uint64_t) {};
    return client.apply(wanted, options, ignore, &difference);
  }

  std::mt19937 random_;
  const unsigned verb_;
};

// Everything in a registry but the ids, or the failure of reading it.
inline std::vector<std::string> contents_of(Client& client) {
  std::vector<std::string> lines;
  WalkOptions options;
  options.values = true;
  const Status status = client.walk("", options, [&](const WalkEntry& entry) {
    std::string line(entry.name);
    line.append(" ").append(reinterpret_cast<const char*>(&entry.security), sizeof entry.security);
    line += " " + std::to_string(entry.type) + " ";
    line.append(reinterpret_cast<const char*>(entry.value.data()), entry.value.size());
    lines.push_back(std::move(line));
    return Status();
  });
  if (!status.ok()) lines.push_back(status.text());
  return lines;
}

// "" if a check finds nothing wrong, else what it finds.
inline std::string damage_in(Client& client) {
  CheckResult result;
  const Status status = client.check(
      false, [](const CheckStep&) {}, &result);
  if (!status.ok()) return status.text();
  return result.damages.empty() ? "" : result.damages.front().detail;
}

}  // namespace tkv::registry

#endif
