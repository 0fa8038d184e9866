#include <algorithm>
#include <memory>
#include <vector>

#include "characters.h"
#include "context.h"
#include "json.h"
#include "registry/open_client.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

using registry::Configuration;
using registry::Setting;

constexpr int kInCluster = 4;  // what the library answers
constexpr int kAlone = 1;

struct Found {
  Configuration configuration;
  bool exists = true;  // a registry, at the location
  Outcome usable;
};

// Tells whether the next command would succeed in using the registry, by using it. One that does not exist yet cannot
// be tried without creating it, so only its location is checked.
Outcome try_registry(const Configuration& configuration, bool exists) {
  std::shared_ptr<registry::Client> client;
  registry::RegistryStatus status;
  if (!exists) return registry::check_location(configuration);
  if (Outcome opened = open_registry(configuration, {false, true}, &client); !opened.ok()) return opened;
  return client->status(&status);
}

std::string found_json(const Found& found) {
  const Configuration& configuration = found.configuration;
  std::vector<std::string> settings;
  std::vector<std::string> locations;
  for (const Setting& setting : configuration.settings) {
    settings.push_back(
        JsonObject().utf8("name", setting.name).utf8("value", setting.value).utf8("origin", setting.origin).str());
  }
  for (const std::string& location : configuration.locations) locations.push_back(json_utf8(location));
  JsonObject object;
  object.utf8("file", configuration.file)
      .utf8("file_origin", configuration.file_origin)
      .raw("store", json_string(configuration.store()))
      .raw("locations", json_array(locations))
      .flag("exists", found.exists)
      .flag("usable", found.usable.ok());
  if (!found.usable.ok()) object.utf8("reason", found.usable.text());
  return object.number("cluster_word", configuration.cluster_configured ? kInCluster : kAlone)
      .raw("settings", json_lines(settings))
      .str();
}

std::string usable_text(const Found& found) {
  if (!found.usable.ok()) return found.usable.text();
  return found.exists ? "" : "there is no registry yet; the first write creates it";
}

void print_found(Context& context, const Found& found) {
  const Configuration& configuration = found.configuration;
  std::size_t name_width = 0;
  std::size_t value_width = 0;
  for (const Setting& setting : configuration.settings) {
    name_width = std::max(name_width, setting.name.size());
    value_width = std::max(value_width, setting.value.size());
  }
  const auto row = [&](std::string_view name, std::string_view value, std::string_view origin) {
    std::string line(name);
    line.resize(std::max(name_width, name.size()) + 2, ' ');
    const std::size_t before = line.size();
    line.append(value.empty() ? "-" : value);
    line.resize(before + std::max(value_width, value.size()) + 2, ' ');
    context.print(line.append(origin));
  };
  row("file", configuration.file, configuration.file_origin);
  for (const Setting& setting : configuration.settings) row(setting.name, setting.value, setting.origin);
  row("store", configuration.store(), "follows registry.location");
  row("usable", found.usable.ok() ? "yes" : "no", usable_text(found));
  row("cluster word", std::to_string(configuration.cluster_configured ? kInCluster : kAlone),
      "follows cluster.configured");
}

Outcome run_conf(Context& context, const Arguments&) {
  Found found;
  if (Status read = Configuration::read(&found.configuration); !read.ok()) return read;
  found.exists = !registry::is_absent(found.configuration);
  found.usable = try_registry(found.configuration, found.exists);
  if (context.json()) {
    context.output().line(found_json(found));
  } else {
    print_found(context, found);
  }
  return {};
}

}  // namespace

constinit const Verb kConfVerb{
    .name = "conf",
    .summary = "Show the configuration in force",
    .details = R"(Shows each setting with its value and origin, the kind of store, whether the
registry can be used (it is opened to find out), and the cluster word that the
library reports (4 in a cluster, else 1).
)",
    .examples = R"(  tkv conf
  tkv conf --json
)",
    .operands = {},
    .options = {},
    .run = run_conf};

}  // namespace tkv::command
