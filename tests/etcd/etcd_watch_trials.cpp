// Watch trials on etcd (see watch_trials.h): writers and watchers are killed, and so is the leader of three members;
// the cluster's history is compacted while a watcher is stopped.
//
//   etcd_watch_trials [--long]
#include <algorithm>

#include "etcd_cluster.h"
#include "store/etcd/etcd_store.h"
#include "watch_trials.h"

namespace tkv {
namespace {

using store::etcd::EtcdCluster;

store::EtcdOptions options_of(const std::string& prefix, const std::string& endpoints) {
  store::EtcdOptions options;
  options.prefix = prefix;
  std::istringstream words(endpoints);
  for (std::string endpoint; std::getline(words, endpoint, ',');) options.endpoints.push_back(endpoint);
  return options;
}

// A cluster without a leader is asked again.
std::shared_ptr<store::Store> open(const store::EtcdOptions& options) {
  std::shared_ptr<store::Store> store;
  while (!store::etcd::open_etcd_store(options, &store).ok()) continue;
  return store;
}

void compact(const EtcdCluster& cluster, store::Store& store) {
  Revision latest = 0;
  if (!store.read([&](store::View& view) { return view.revision(&latest); }).ok()) return;
  cluster.ctl({"compaction", std::to_string(latest)});
}

void kill_leader(EtcdCluster& cluster) {
  int leader = -1;
  store::etcd::eventually([&] { return (leader = cluster.leader()) >= 0; });
  cluster.kill(leader);
  store::etcd::eventually([&] { return cluster.leader() >= 0; });
  cluster.start(leader);
  cluster.wait_until_healthy();
}

bool run(int rounds) {
  EtcdCluster::Options three;
  three.members = 3;
  EtcdCluster cluster(three);
  const store::EtcdOptions registry = cluster.registry();
  std::string endpoints;
  for (const std::string& endpoint : registry.endpoints) endpoints += (endpoints.empty() ? "" : ",") + endpoint;
  const std::shared_ptr<store::Store> store = open(registry);
  const store::etcd::TemporaryDirectory directory;
  WatchTrials trials({registry.prefix, endpoints}, directory.path(), 17);
  for (int round = 0; round < rounds; ++round) {
    for (int kills = 0; kills < 4; ++kills) {
      trials.progress(5);
      trials.kill_one();
    }
    kill_leader(cluster);
    trials.progress(5);
    trials.stop_watcher([&] {
      trials.progress(5, 1);
      compact(cluster, *store);
    });
  }
  trials.progress(5);
  return trials.finish(*store);
}

}  // namespace
}  // namespace tkv

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 4) {
    const tkv::store::EtcdOptions options = tkv::options_of(words[0], words[1]);
    tkv::run_watch_role(words[2], words[3], [&] { return tkv::open(options); });
  }
  const bool is_long = !words.empty() && words[0] == "--long";
  return tkv::run(is_long ? 20 : 1) ? 0 : 1;
}
