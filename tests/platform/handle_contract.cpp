// Handles end with their keys, in every store and whoever ended them.
#include <functional>
#include <string>
#include <vector>

#include "registry/local_client.h"
#include "registry/session.h"
#include "store_contract.h"

namespace tkv::store {
namespace {

using registry::SessionGate;

testing::AssertionResult done(const Status& status) {
  if (status.ok()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << status.code() << " " << status.text();
}

// A session without a context.
class Session : private SessionGate, public registry::Session {
 public:
  explicit Session(std::shared_ptr<registry::Client> client) : registry::Session(std::move(client), *this) {}

  Status open_key(std::string_view name, prtkv_key* key) {
    Visit visit(*this);
    return registry::Session::open_key(visit, name, key);
  }

  Status get_value(prtkv_key key, std::int32_t* type, void* buffer, std::uint32_t* size) {
    Visit visit(*this);
    return registry::Session::get_value(visit, key, type, buffer, size);
  }

  Status next_subkey(prtkv_key key, char* name, std::uint32_t* size, std::int32_t* remaining) {
    Visit visit(*this);
    return registry::Session::next_subkey(visit, key, name, size, remaining);
  }
};

std::unique_ptr<Session> session_on(std::shared_ptr<Store> store) {
  return std::make_unique<Session>(std::make_shared<registry::LocalClient>(
      registry::Configuration(), Identity{"root", {"root"}, true}, std::move(store)));
}

prtkv_key open(Session& session, std::string_view name) {
  prtkv_key key = 0;
  EXPECT_TRUE(done(session.open_key(name, &key))) << name;
  return key;
}

prtkv_key create(Session& session, std::string_view parent, std::string_view name) {
  prtkv_key key = 0;
  EXPECT_TRUE(done(session.create_key(open(session, parent), name, sec_attr{}, 0, {}, &key))) << name;
  return key;
}

prtkv_key move(Session& session, std::string_view key, std::string_view parent, std::string_view name) {
  prtkv_key moved = 0;
  EXPECT_TRUE(done(session.move_key(open(session, key), open(session, parent), name, false, &moved))) << key;
  return moved;
}

void remove(Session& session, std::string_view name) {
  EXPECT_TRUE(done(session.delete_key(open(session, name), true))) << name;
}

// What a handle is used for. One that has answered PRTKV_NO_SUCH_KEY does not ask the store again, so each use needs a
// handle of its own.
using Use = std::function<Status(Session&, prtkv_key)>;
const std::pair<const char*, Use> kUses[] = {
    {"reading the value",
     [](Session& session, prtkv_key key) {
       char buffer[8];
       std::int32_t type = 0;
       std::uint32_t size = sizeof buffer;
       return session.get_value(key, &type, buffer, &size);
     }},
    {"writing the value", [](Session& session, prtkv_key key) { return session.set_value(key, 3, {}); }},
    {"reading the security",
     [](Session& session, prtkv_key key) {
       sec_attr security{};
       return session.get_security(key, &security);
     }},
    {"writing the security", [](Session& session, prtkv_key key) { return session.set_security(key, sec_attr{}); }},
    {"listing",
     [](Session& session, prtkv_key key) {
       char name[PRTKV_SUBKEY_NAME_SIZE];
       std::uint32_t size = sizeof name;
       std::int32_t remaining = 0;
       return session.next_subkey(key, name, &size, &remaining);
     }},
    {"creating below it",
     [](Session& session, prtkv_key key) {
       prtkv_key created = 0;
       return session.create_key(key, "n", sec_attr{}, 0, {}, &created);
     }},
    {"moving it",
     [](Session& session, prtkv_key key) {
       prtkv_key moved = 0;
       return session.move_key(key, open(session, "z"), "m", false, &moved);
     }},
    {"moving into it",
     [](Session& session, prtkv_key key) {
       prtkv_key moved = 0;
       return session.move_key(open(session, "z"), key, "m", false, &moved);
     }},
    {"deleting it", [](Session& session, prtkv_key key) { return session.delete_key(key, true); }},
};

struct Ending {
  const char* what;
  std::function<void(Session&)> end;
};

const Ending kEndings[] = {
    {"moved away", [](Session& session) { move(session, "a.b", "z", "b"); }},
    {"moved away and back",
     [](Session& session) {
       move(session, "a.b", "z", "b");
       move(session, "z.b", "a", "b");
     }},
    {"moved with the key above it, and back",
     [](Session& session) {
       move(session, "a", "z", "a");
       move(session, "z.a", "", "a");
     }},
    {"replaced by another",
     [](Session& session) {
       move(session, "a.b", "z", "b");
       create(session, "a", "b");
     }},
    {"deleted and created again",
     [](Session& session) {
       remove(session, "a.b");
       create(session, "a", "b");
     }},
};

// The keys that all of this is about.
void make_keys(Session& session) {
  create(session, "", "a");
  create(session, "", "z");
}

void remove_keys(Session& session) {
  remove(session, "a");
  remove(session, "z");
}

}  // namespace

TEST_P(StoreContract, HandlesEndWithTheirKeysWhoeverEndsThem) {
  const auto own = session_on(store_);
  const auto stranger = session_on(factory_->open_again());
  const std::pair<const char*, Session*> sessions[] = {{"this session", own.get()}, {"another", stranger.get()}};
  for (const auto& [who, session] : sessions) {
    for (const Ending& ending : kEndings) {
      SCOPED_TRACE(std::string(ending.what) + " by " + who);
      make_keys(*own);
      std::vector<prtkv_key> keys{create(*own, "a", "b")};
      while (keys.size() < std::size(kUses)) keys.push_back(open(*own, "a.b"));
      ending.end(*session);
      for (std::size_t i = 0; i < keys.size(); ++i) {
        const auto& [what, use] = kUses[i];
        EXPECT_EQ(use(*own, keys[i]).code(), PRTKV_NO_SUCH_KEY) << what;
      }
      remove_keys(*own);
    }
  }
}

TEST_P(StoreContract, HandlesOfKeysThatWereJustPutInTheirPlacesEndLikeAnyOthers) {
  const auto own = session_on(store_);
  const auto stranger = session_on(factory_->open_again());
  make_keys(*own);
  const prtkv_key created = create(*own, "a", "b");
  const prtkv_key deep = create(*own, "", "a.b.c");
  move(*stranger, "a.b", "z", "b");
  move(*stranger, "z.b", "a", "b");
  const prtkv_key moved = move(*own, "a.b", "z", "b");
  const prtkv_key below = open(*own, "z.b.c");
  move(*stranger, "z.b", "a", "b");
  move(*stranger, "a.b", "z", "b");
  const auto& read = kUses[0].second;
  for (const prtkv_key key : {created, deep, moved, below}) {
    EXPECT_EQ(read(*own, key).code(), PRTKV_NO_SUCH_KEY);
  }
}

TEST_P(StoreContract, HandlesOutliveWhateverElseHappensAroundThem) {
  const auto own = session_on(store_);
  const auto stranger = session_on(factory_->open_again());
  make_keys(*own);
  std::vector<prtkv_key> keys{open(*own, ""),  create(*own, "a", "b"),    open(*own, "a"),
                              open(*own, "z"), create(*own, "", "a.b.c"), create(*own, "a", "moved")};
  keys.back() = move(*own, "a.moved", "z", "m");
  for (const char* name : {"", "a", "a.b", "z.m"}) {
    EXPECT_TRUE(done(stranger->set_security(open(*stranger, name), sec_attr{})));
    EXPECT_TRUE(done(stranger->set_value(open(*stranger, name), 3, {})));
  }
  create(*stranger, "a.b", "d");
  move(*stranger, "a.b.d", "z", "d");
  move(*stranger, "z.d", "a.b", "d");
  remove(*stranger, "a.b.d");
  const auto& read = kUses[0].second;
  for (const prtkv_key key : keys) EXPECT_TRUE(done(read(*own, key)));
}

}  // namespace tkv::store
