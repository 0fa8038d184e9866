// Opening the configured registry, and questions about the configuration that need no registry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "prtkv.h"
#include "registry/open_client.h"
#include "registry_fixture.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class OpenRegistry : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TKV_CONF", file_.c_str(), 1); }
  void TearDown() override {
    unsetenv("TKV_CONF");
    unsetenv("TKV_MODULE_DIR");
  }

  void configure(const std::string& text) { std::ofstream(file_) << text; }

  // Opens a session. Returns the code and sets text_ to the message.
  int32_t init(int32_t level = 0, std::uint32_t flags = 0) {
    std::vector<char> text(PRTKV_ERROR_TEXT_SIZE, 'z');
    std::uint64_t size = text.size();
    const int32_t code = prtkv_init_ext(&ctx_, level, text.data(), &size, flags);
    text_ = code == PRTKV_DONE ? "" : std::string(text.data());
    if (code != PRTKV_DONE) {
      EXPECT_EQ(size, text_.size());
    }
    return code;
  }

  int32_t check(const std::string& path, std::uint32_t flags = PRTKV_CHECK_STORAGE_FLAGS) {
    std::vector<char> text(PRTKV_ERROR_TEXT_SIZE, '\0');
    auto size = static_cast<std::int32_t>(text.size());
    const int32_t code = prtkv_check_storage(0, path.c_str(), text.data(), &size, flags);
    text_ = text.data();
    return code;
  }

  TemporaryDirectory directory_;
  std::string file_ = directory_ / "tkv.conf";
  std::string location_ = directory_ / "registry";
  prtkv_ctx ctx_ = 0;
  std::string text_;
};

TEST_F(OpenRegistry, FirstUseMakesItAndItsRootBelongsToWhoMadeIt) {
  configure("[registry]\nlocation = " + location_ + "\n");
  ASSERT_EQ(init(), PRTKV_DONE) << text_;
  prtkv_key root = 0;
  sec_attr security{};
  ASSERT_EQ(prtkv_open_key(ctx_, &root, ""), PRTKV_DONE);
  ASSERT_EQ(prtkv_get_key_security(ctx_, root, &security), PRTKV_DONE);
  Identity identity;
  ASSERT_TRUE(identity_of_process(&identity).ok());
  EXPECT_EQ(user_of(security), identity.user);
  EXPECT_EQ(group_of(security), identity.group());
  EXPECT_EQ(security.user_perm, 0x3f);
  EXPECT_EQ(security.group_perm, 0x34);
  EXPECT_EQ(security.other_perm, 0x3);
  EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
  struct stat found {};
  ASSERT_EQ(stat(location_.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0700U);
}

TEST_F(OpenRegistry, KeepsWhatEarlierSessionsWrote) {
  configure("[registry]\nlocation = " + location_ + "\n");
  prtkv_key root = 0;
  prtkv_key key = 0;
  std::int32_t word = 0;
  ASSERT_EQ(init(), PRTKV_DONE);
  ASSERT_EQ(prtkv_open_key(ctx_, &root, ""), PRTKV_DONE);
  ASSERT_EQ(prtkv_create_n_set_key(ctx_, root, "a", &key, &word, 3, open_to_all(), "kept", 4), PRTKV_DONE);
  ASSERT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
  ASSERT_EQ(init(), PRTKV_DONE);
  char value[10];
  std::uint32_t size = sizeof value;
  ASSERT_EQ(prtkv_open_key(ctx_, &key, "a"), PRTKV_DONE);
  ASSERT_EQ(prtkv_get_value(ctx_, key, &word, value, &size), PRTKV_DONE);
  EXPECT_EQ(std::string(value, size), "kept");
  EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
}

TEST_F(OpenRegistry, SessionsOfOneProcessShareTheRegistry) {
  configure("[registry]\nlocation = " + location_ + "\n");
  ASSERT_EQ(init(), PRTKV_DONE);
  const prtkv_ctx first = ctx_;
  ASSERT_EQ(init(), PRTKV_DONE);
  prtkv_key key = 0;
  std::int32_t word = 0;
  ASSERT_EQ(prtkv_open_key(first, &key, ""), PRTKV_DONE);
  ASSERT_EQ(prtkv_create_key(first, key, "a", &key, &word, open_to_all()), PRTKV_DONE);
  EXPECT_EQ(prtkv_open_key(ctx_, &key, "a"), PRTKV_DONE);
  EXPECT_EQ(prtkv_terminate(first), PRTKV_DONE);
  EXPECT_EQ(prtkv_close_key(ctx_, key), PRTKV_DONE);
  EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
}

TEST_F(OpenRegistry, RefusesANegativeLevelAndFlagsWithATextBeforeAnythingIsMade) {
  configure("[registry]\nlocation = " + location_ + "\n");
  EXPECT_EQ(init(-1), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(text_, "TKV-0008: invalid argument: level -1");
  EXPECT_EQ(init(0, 1), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(text_, "TKV-0008: invalid argument: flags 1");
  EXPECT_NE(access(location_.c_str(), F_OK), 0);
  EXPECT_EQ(init(2147483647), PRTKV_DONE);
  EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
}

TEST_F(OpenRegistry, NullArgumentsAreReportedWithATextWhereThereIsRoomForOne) {
  char text[PRTKV_ERROR_TEXT_SIZE] = "";
  std::uint64_t size = sizeof text;
  EXPECT_EQ(prtkv_init_ext(nullptr, 0, text, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_STREQ(text, "TKV-0013: null argument: out");
  EXPECT_EQ(prtkv_init_ext(&ctx_, 0, nullptr, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_init_ext(&ctx_, 0, text, nullptr, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(ctx_, 0U);
}

TEST_F(OpenRegistry, FailureFitsTheBufferThatThereIs) {
  configure("nonsense\n");
  char text[8] = {'z', 'z', 'z', 'z', 'z', 'z', 'z', 'z'};
  std::uint64_t size = 5;
  EXPECT_EQ(prtkv_init_ext(&ctx_, 0, text, &size, 0), PRTKV_INVALID_CONFIGURATION);
  EXPECT_EQ(std::string(text, 8), std::string("TKV-\0zzz", 8));
  EXPECT_EQ(size, 4U);
  size = 0;
  text[0] = 'z';
  EXPECT_EQ(prtkv_init_ext(&ctx_, 0, text, &size, 0), PRTKV_INVALID_CONFIGURATION);
  EXPECT_EQ(text[0], 'z');
}

TEST_F(OpenRegistry, ConfigurationErrorsNameTheirPlace) {
  configure("[registry]\nlocation = " + location_ + "\nlocatoin = x\n");
  EXPECT_EQ(init(), PRTKV_INVALID_CONFIGURATION);
  EXPECT_EQ(text_, "TKV-0041: " + file_ +
                       ":3: unknown name 'locatoin' in [registry]; it has location, local_only, backup_location, "
                       "map_size, group, timeout_ms");
  unlink(file_.c_str());
  EXPECT_EQ(init(), PRTKV_CONFIGURATION_UNREADABLE);
  EXPECT_EQ(text_,
            "TKV-0042: the configuration file " + file_ +
                " cannot be read: No such file or directory; name one that exists in TKV_CONF, or unset TKV_CONF");
}

TEST_F(OpenRegistry, LocationWithoutItsParentFailsWithPathAndReason) {
  configure("[registry]\nlocation = " + location_ + "/below/it\n");
  EXPECT_NE(init(), PRTKV_DONE);
  EXPECT_THAT(text_, HasSubstr(location_));
  EXPECT_NE(access(location_.c_str(), F_OK), 0) << "nothing above a configured location is made";
}

TEST_F(OpenRegistry, LocationThatIsAFileFailsAndLeavesIt) {
  std::ofstream(location_) << "precious";
  configure("[registry]\nlocation = " + location_ + "\n");
  EXPECT_NE(init(), PRTKV_DONE);
  EXPECT_THAT(text_, HasSubstr(location_));
  std::string kept;
  std::ifstream(location_) >> kept;
  EXPECT_EQ(kept, "precious");
}

TEST_F(OpenRegistry, DefaultLocationIsMadeWithTheDirectoriesAboveIt) {
  Configuration configuration;
  configuration.locations = {directory_ / "home/.local/state/tkv"};
  std::shared_ptr<Client> client;
  const Status status = open_client(configuration, {}, &client);
  ASSERT_EQ(status.text(), "done");
  struct stat found {};
  ASSERT_EQ(stat((directory_ / "home/.local").c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0700U);
}

TEST_F(OpenRegistry, DefaultLocationThatCannotBeMadeSaysWhy) {
  std::ofstream(directory_ / "home") << "a file";
  Configuration configuration;
  configuration.locations = {directory_ / "home/.local/state/tkv"};
  std::shared_ptr<Client> client;
  const Status status = open_client(configuration, {}, &client);
  EXPECT_EQ(status.code(), PRTKV_UNUSABLE);
  EXPECT_EQ(status.text(), "cannot use '" + directory_ / "home/.local/state/tkv" +
                               "': Not a directory; set `location` to another directory");
}

TEST_F(OpenRegistry, NothingIsMadeWhenItIsNotToBeCreated) {
  configure("[registry]\nlocation = " + location_ + "\n");
  std::shared_ptr<Client> client;
  EXPECT_FALSE(open_client({false, false}, &client).ok());
  EXPECT_NE(access(location_.c_str(), F_OK), 0);
}

// The store for etcd

TEST_F(OpenRegistry, TellsWhetherThereIsOneYetAndWhetherThereCanBe) {
  Configuration configuration;
  configuration.locations = {location_};
  EXPECT_TRUE(is_absent(configuration));
  EXPECT_TRUE(check_location(configuration).ok());
  EXPECT_NE(::access(location_.c_str(), F_OK), 0) << "asking makes nothing";

  configure("[registry]\nlocation = " + location_ + "\n");
  ASSERT_EQ(init(), PRTKV_DONE) << text_;
  EXPECT_FALSE(is_absent(configuration));
  EXPECT_TRUE(check_location(configuration).ok());
  EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);

  configuration.locations = {directory_ / "no/such/place"};
  EXPECT_TRUE(is_absent(configuration));
  EXPECT_TRUE(check_location(configuration).ok()) << "what is missing above a default location is created";
  configuration.location_configured = true;
  EXPECT_FALSE(check_location(configuration).ok());
  configuration.locations = {"etcd://127.0.0.1:1"};
  EXPECT_FALSE(is_absent(configuration));
  EXPECT_TRUE(check_location(configuration).ok());
}

TEST_F(OpenRegistry, MissingModuleForEtcdSaysWhereItWasLookedFor) {
  setenv("TKV_MODULE_DIR", (directory_ / "modules").c_str(), 1);
  configure("[registry]\nlocation = etcd://127.0.0.1:1\n");
  EXPECT_EQ(init(), PRTKV_UNUSABLE);
  EXPECT_THAT(text_, StartsWith("TKV-0018: the store for etcd cannot be loaded: " +
                                directory_ / "modules/libtkv_etcd.so: no such file; /"));
  EXPECT_THAT(text_, HasSubstr("/lib/libtkv_etcd.so: "));
  EXPECT_THAT(text_, HasSubstr("; install TKV anew, with its module for etcd (make install)"));
}

TEST_F(OpenRegistry, ModuleForEtcdThatIsNoneEndsTheSearch) {
  ASSERT_EQ(mkdir((directory_ / "modules").c_str(), 0700), 0);
  std::ofstream(directory_ / "modules/libtkv_etcd.so") << std::string(1000, 'x');
  setenv("TKV_MODULE_DIR", (directory_ / "modules").c_str(), 1);
  configure("[registry]\nlocation = etcd://127.0.0.1:1\n");
  EXPECT_EQ(init(), PRTKV_UNUSABLE);
  EXPECT_THAT(text_, HasSubstr(directory_ / "modules/libtkv_etcd.so"));
  EXPECT_THAT(text_, HasSubstr("invalid ELF header"));
}

TEST_F(OpenRegistry, RootRefusesAModuleThatOthersCanReplace) {
  if (geteuid() != 0) GTEST_SKIP() << "root takes more care than others";
  ASSERT_EQ(mkdir((directory_ / "modules").c_str(), 0700), 0);
  const std::string module = directory_ / "modules/libtkv_etcd.so";
  std::ofstream(module) << "anything";
  setenv("TKV_MODULE_DIR", (directory_ / "modules").c_str(), 1);
  configure("[registry]\nlocation = etcd://127.0.0.1:1\n");
  ASSERT_EQ(chmod((directory_ / "modules").c_str(), 0777), 0);
  EXPECT_EQ(init(), PRTKV_UNUSABLE);
  EXPECT_THAT(text_, HasSubstr(directory_ / "modules" + " is refused to root: users other than root can write to it"));
  ASSERT_EQ(chmod((directory_ / "modules").c_str(), 0755), 0);
  ASSERT_EQ(chown(module.c_str(), 54321, 0), 0);
  EXPECT_EQ(init(), PRTKV_UNUSABLE);
  EXPECT_THAT(text_,
              HasSubstr(module + " is refused to root: it belongs to user 54321, not to root; type: chown root: '" +
                        module + "' && chmod go-w '" + module + "'"));
}

TEST_F(OpenRegistry, RootRefusesAConfigurationThatOthersCanChange) {
  if (geteuid() != 0) GTEST_SKIP() << "root takes more care than others";
  configure("[registry]\nlocation = " + location_ + "\n");
  const struct {
    uid_t owner;
    gid_t group;
    mode_t mode;
    bool refused;
  } kRows[] = {{0, 0, 0644, false},     {0, 0, 0664, false},    {0, 0, 0646, true},
               {0, 54321, 0644, false}, {0, 54321, 0664, true}, {54321, 0, 0600, true}};
  for (const auto& row : kRows) {
    ASSERT_EQ(chown(file_.c_str(), row.owner, row.group), 0);
    ASSERT_EQ(chmod(file_.c_str(), row.mode), 0);
    const int32_t code = init();
    EXPECT_EQ(code, row.refused ? PRTKV_CONFIGURATION_UNREADABLE : PRTKV_DONE) << row.owner << " " << row.mode;
    if (code == PRTKV_DONE) {
      EXPECT_EQ(prtkv_terminate(ctx_), PRTKV_DONE);
    } else {
      EXPECT_THAT(text_, AllOf(HasSubstr(file_ + " is refused to root: "),
                               HasSubstr("; type: chown root: '" + file_ + "' && chmod go-w '" + file_ + "'")));
    }
  }
}

// Storage check and configuration, without a session

TEST_F(OpenRegistry, StorageCheckTellsKindsApart) {
  EXPECT_EQ(check(location_), PRTKV_DONE);
  EXPECT_EQ(check(directory_.path(), 0), PRTKV_DONE);
  EXPECT_NE(access(location_.c_str(), F_OK), 0) << "a check changes nothing";
  EXPECT_EQ(check("etcd://node-1:2379"), PRTKV_DISTRIBUTED);
  EXPECT_EQ(text_, "TKV-0037: 'etcd://node-1:2379' names a distributed registry");
  EXPECT_EQ(check("etcd://node-1"), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(text_, "TKV-0008: 'etcd://node-1' is not of the form etcd://host:port");
  for (const std::string& path :
       {std::string("relative"), std::string(), location_ + "/below", file_ + "/x", "/" + std::string(10000, 'x')}) {
    SCOPED_TRACE(path.substr(0, 100));
    EXPECT_NE(check(path), PRTKV_DONE);
    EXPECT_NE(check(path), PRTKV_DISTRIBUTED);
    EXPECT_THAT(text_, StartsWith("TKV-00"));
  }
}

TEST_F(OpenRegistry, StorageCheckRefusesWhatIsNoArgument) {
  char text[100] = "";
  std::int32_t size = sizeof text;
  EXPECT_EQ(prtkv_check_storage(0, nullptr, text, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_STREQ(text, "TKV-0013: null argument: path");
  EXPECT_EQ(prtkv_check_storage(0, "/", nullptr, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_check_storage(0, "/", text, nullptr, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(check("/", 5), PRTKV_INVALID_ARGUMENT);
  size = -1;
  EXPECT_EQ(prtkv_check_storage(0, "/", text, &size, 0), PRTKV_INVALID_ARGUMENT);
}

class Conf : public OpenRegistry {
 protected:
  int32_t get(std::uint32_t flags = PRTKV_GET_CONF_FLAGS, void* reserved = nullptr) {
    char text[PRTKV_ERROR_TEXT_SIZE] = "";
    std::uint64_t size = sizeof text;
    const int32_t code = prtkv_get_conf(0, &configured_, &local_only_, reserved, locations_.data(), text, &size, flags);
    text_ = text;
    return code;
  }

  std::string slot(std::size_t index) const { return locations_.data() + index * PRTKV_LOCATION_SLOT_SIZE; }

  std::int32_t configured_ = 77;
  std::int32_t local_only_ = 77;
  std::vector<char> locations_ = std::vector<char>(PRTKV_LOCATION_SLOTS * PRTKV_LOCATION_SLOT_SIZE, 'z');
};

TEST_F(Conf, GivesADirectoryAsLocal) {
  const std::string longest = "/" + std::string(4095, 'd');
  configure("[registry]\nlocation = " + longest + "\n");
  ASSERT_EQ(get(), PRTKV_DONE) << text_;
  EXPECT_EQ(configured_, 1);
  EXPECT_EQ(local_only_, 1);
  EXPECT_EQ(slot(0), longest);
  for (std::size_t index = 1; index < 5; ++index) EXPECT_EQ(slot(index), "");
}

TEST_F(Conf, GivesFiveEndpointsInOrderAsShared) {
  configure("[registry]\nlocation = etcd://e:1 etcd://d:2 etcd://c:3\nlocation = etcd://b:4\nlocation = etcd://a:5\n");
  ASSERT_EQ(get(0), PRTKV_DONE) << text_;
  EXPECT_EQ(configured_, 1);
  EXPECT_EQ(local_only_, 0);
  const char* expected[] = {"etcd://e:1", "etcd://d:2", "etcd://c:3", "etcd://b:4", "etcd://a:5"};
  for (std::size_t index = 0; index < 5; ++index) EXPECT_EQ(slot(index), expected[index]);
}

TEST_F(Conf, TellsThatTheLocationIsTheDefaultOne) {
  configure("# nothing\n");
  ASSERT_EQ(get(), PRTKV_DONE) << text_;
  EXPECT_EQ(configured_, 0);
  EXPECT_EQ(local_only_, 1);
  EXPECT_THAT(slot(0), StartsWith("/"));
}

TEST_F(Conf, FailuresLeaveTheWordsAndHaveATheirTexts) {
  configure("[registry]\nlocal_only = perhaps\n");
  EXPECT_EQ(get(), PRTKV_INVALID_CONFIGURATION);
  EXPECT_EQ(text_, "TKV-0041: " + file_ + ":2: local_only: 'perhaps' is neither yes nor no");
  unlink(file_.c_str());
  EXPECT_EQ(get(), PRTKV_CONFIGURATION_UNREADABLE);
  EXPECT_EQ(get(1), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(get(0, this), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(configured_, 77);
  EXPECT_EQ(local_only_, 77);
  EXPECT_EQ(locations_[0], 'z');
  char text[10];
  std::uint64_t size = sizeof text;
  EXPECT_EQ(prtkv_get_conf(0, nullptr, &local_only_, nullptr, locations_.data(), text, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_get_conf(0, &configured_, nullptr, nullptr, locations_.data(), text, &size, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(prtkv_get_conf(0, &configured_, &local_only_, nullptr, nullptr, text, &size, 0), PRTKV_NULL_ARGUMENT);
}

}  // namespace
}  // namespace tkv::registry
