// The configuration file: what is accepted, and the message for each error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "registry/configuration.h"
#include "registry_fixture.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Pair;
using ::testing::StartsWith;

class ConfigurationFile : public ::testing::Test {
 protected:
  Surroundings surroundings() {
    Surroundings made;
    made.variable = [this](const char* name) -> const char* {
      const auto found = variables_.find(name);
      return found == variables_.end() ? nullptr : found->second.c_str();
    };
    made.user = user_;
    made.default_file = default_file_;
    return made;
  }

  void write(const std::string& text) {
    std::ofstream(file_, std::ios::binary) << text;
    variables_["TKV_CONF"] = file_;
  }

  Status read() { return Configuration::read(&configuration_, surroundings()); }

  // Reads `text` and returns a setting as "value from origin", with F for the name of the file.
  std::string setting(const std::string& name) {
    for (const Setting& setting : configuration_.settings) {
      if (setting.name == name) return shortened(setting.value + " from " + setting.origin);
    }
    return "no such setting";
  }

  std::string shortened(std::string text) const {
    for (std::size_t at = 0; (at = text.find(file_)) != std::string::npos;) text.replace(at, file_.size(), "F");
    return text;
  }

  TemporaryDirectory directory_;
  std::string file_ = directory_.path() + "/tkv.conf";
  std::string default_file_ = directory_.path() + "/none.conf";
  std::map<std::string, std::string> variables_;
  uid_t user_ = 1000;
  Configuration configuration_;
};

TEST_F(ConfigurationFile, AbsentForRootMeansVarLib) {
  user_ = 0;
  ASSERT_TRUE(read().ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("/var/lib/tkv"));
  EXPECT_FALSE(configuration_.location_configured);
  EXPECT_TRUE(configuration_.local_only);
  EXPECT_FALSE(configuration_.cluster_configured);
  EXPECT_EQ(configuration_.file, "");
  EXPECT_EQ(configuration_.file_origin, "none");
  EXPECT_EQ(setting("registry.location"), "/var/lib/tkv from default");
  EXPECT_EQ(setting("registry.local_only"), "yes from follows registry.location");
  EXPECT_EQ(setting("etcd.timeout_ms"), "5000 from default");
  EXPECT_EQ(setting("etcd.attempt_ms"), "300 from default");
}

TEST_F(ConfigurationFile, AbsentForOthersMeansTheirStateDirectory) {
  variables_["HOME"] = "/home/alice";
  ASSERT_TRUE(read().ok());
  EXPECT_EQ(setting("registry.location"), "/home/alice/.local/state/tkv from environment HOME");
  variables_["XDG_STATE_HOME"] = "relative";
  ASSERT_TRUE(read().ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("/home/alice/.local/state/tkv"));
  variables_["XDG_STATE_HOME"] = "/state";
  ASSERT_TRUE(read().ok());
  EXPECT_EQ(setting("registry.location"), "/state/tkv from environment XDG_STATE_HOME");
}

TEST_F(ConfigurationFile, AbsentWithoutAHomeIsAnError) {
  const Status status = read();
  EXPECT_EQ(status.code(), PRTKV_INVALID_CONFIGURATION);
  EXPECT_THAT(status.text(),
              StartsWith("no location is configured, and the user has no home directory for a default one; set "
                         "`location` in [registry] of /"));
  EXPECT_THAT(status.text(), EndsWith("/none.conf, or HOME"));
}

TEST_F(ConfigurationFile, TheSystemsRecordsStandForAMissingHome) {
  Surroundings made = surroundings();
  made.home = "/srv/alice";
  ASSERT_TRUE(Configuration::read(&configuration_, made).ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("/srv/alice/.local/state/tkv"));
  made.home = "alice";
  EXPECT_EQ(Configuration::read(&configuration_, made).code(), PRTKV_INVALID_CONFIGURATION) << "a relative path";
}

// Runs `check` in a child process, as a user other than root, with this $HOME or none. Returns its exit code.
int in_child_with_home(const char* home, const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) {
    home == nullptr ? unsetenv("HOME") : setenv("HOME", home, 1);
    if (geteuid() == 0 && setuid(65534) != 0) _exit(2);
    _exit(check() ? 0 : 1);
  }
  int state = -1;
  return waitpid(child, &state, 0) == child && WIFEXITED(state) ? WEXITSTATUS(state) : -1;
}

TEST_F(ConfigurationFile, HomeOfTheProcessComesFromTheSystemsRecordsWithoutAVariable) {
  for (const char* home : {static_cast<const char*>(nullptr), "", "relative"}) {
    EXPECT_EQ(in_child_with_home(home,
                                 [] {
                                   const passwd* const user = getpwuid(geteuid());
                                   return user != nullptr && *user->pw_dir != '\0' &&
                                          Surroundings::of_process().home == user->pw_dir;
                                 }),
              0)
        << (home == nullptr ? "none" : home);
  }
}

TEST_F(ConfigurationFile, RelocationReplacesTheLocationsOnly) {
  write("[registry]\nlocation = /srv/registry\ngroup = cluster\n");
  ASSERT_TRUE(read().ok());
  ASSERT_TRUE(configuration_.relocate("etcd://a:1,etcd://b:2").ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("etcd://a:1", "etcd://b:2"));
  EXPECT_STREQ(configuration_.store(), "etcd");
  EXPECT_EQ(configuration_.relocate("nowhere").code(), PRTKV_INVALID_CONFIGURATION);
  EXPECT_THAT(configuration_.locations, ElementsAre("etcd://a:1", "etcd://b:2"));
  ASSERT_TRUE(configuration_.relocate("/other place").ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("/other place"));
  EXPECT_STREQ(configuration_.store(), "lmdb");
  EXPECT_THAT(configuration_.store_settings, ElementsAre(Pair("registry.group", "cluster")));
}

TEST_F(ConfigurationFile, TextsAndSettingsHaveTheSameNamesInTheSameOrder) {
  variables_["HOME"] = "/home/alice";
  ASSERT_TRUE(read().ok());
  std::vector<std::string> names;
  for (const Setting& each : configuration_.settings) names.push_back(each.name);
  std::vector<std::string> described;
  for (const SettingText& each : setting_texts()) described.emplace_back(each.name);
  EXPECT_EQ(names, described);
}

// The operator's manual has a table of all settings.
TEST_F(ConfigurationFile, TheOperatorsManualNamesEverySettingAndDefault) {
  variables_["HOME"] = "/home/alice";
  ASSERT_TRUE(read().ok());
  std::ifstream manual(TKV_OPERATIONS_DOCUMENT);
  const std::string text{std::istreambuf_iterator<char>(manual), {}};
  for (const Setting& each : configuration_.settings) {
    const std::string name = "`" + each.name + "`";
    std::string row;
    std::istringstream lines(text);
    for (std::string line; row.empty() && std::getline(lines, line);) {
      if (line.starts_with("|") && line.substr(0, line.find('|', 1)).find(name) != std::string::npos) row = line;
    }
    EXPECT_NE(row, "") << each.name << " is missing in the table";
    if (each.origin != "default") continue;
    EXPECT_NE(row.find(each.value), std::string::npos) << each.name << ": " << row;
  }
}

TEST_F(ConfigurationFile, EveryNameIsUnderstood) {
  write(
      "\xef\xbb\xbf; a comment\r\n"
      "# another\n"
      "[registry]   ; with a comment\n"
      "  location = /srv/registry  ; where it is\n"
      "local_only=no\n"
      "backup_location: /srv/backup\n"
      "map_size = 2G\n"
      "group = cluster\n"
      "\n"
      "[etcd]\n"
      "ca = /etc/ca.pem\n"
      "cert = /etc/cert.pem\n"
      "key = /etc/key.pem\n"
      "user = registry\n"
      "password_file = /etc/password\n"
      "prefix = /site/tkv/\n"
      "timeout_ms = 2500\n"
      "attempt_ms = 700\n"
      "[cluster]\n"
      "configured = on");
  ASSERT_EQ(read().text(), "done");
  EXPECT_THAT(configuration_.locations, ElementsAre("/srv/registry"));
  EXPECT_TRUE(configuration_.location_configured);
  EXPECT_FALSE(configuration_.local_only);
  EXPECT_EQ(configuration_.backup_location, "/srv/backup");
  EXPECT_THAT(
      configuration_.store_settings,
      ElementsAre(Pair("etcd.attempt_ms", "700"), Pair("etcd.ca", "/etc/ca.pem"), Pair("etcd.cert", "/etc/cert.pem"),
                  Pair("etcd.key", "/etc/key.pem"), Pair("etcd.password_file", "/etc/password"),
                  Pair("etcd.prefix", "/site/tkv/"), Pair("etcd.timeout_ms", "2500"), Pair("etcd.user", "registry"),
                  Pair("registry.group", "cluster"), Pair("registry.map_size", "2G")));
  EXPECT_TRUE(configuration_.cluster_configured);
  EXPECT_FALSE(configuration_.is_distributed());
  EXPECT_EQ(setting("registry.location"), "/srv/registry from F:4");
  EXPECT_EQ(setting("cluster.configured"), "yes from F:20");
  EXPECT_EQ(configuration_.file, file_);
  EXPECT_EQ(configuration_.file_origin, "environment TKV_CONF");
}

TEST_F(ConfigurationFile, HistorySettingsOfADirectoryMayStayWhenItIsRelocatedToEtcd) {
  write("[registry]\nlocation = /srv/registry\n[history]\nage = 4w\n");
  ASSERT_EQ(read().text(), "done");
  EXPECT_EQ(configuration_.store_settings["history.age"], "4w");
  EXPECT_TRUE(configuration_.relocate("etcd://one:2379").ok());
}

TEST_F(ConfigurationFile, DefaultFileIsReadWhenTheEnvironmentNamesNone) {
  std::ofstream(default_file_) << "[registry]\nlocation = /srv/default\n";
  variables_["TKV_CONF"] = "";
  ASSERT_TRUE(read().ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("/srv/default"));
  EXPECT_EQ(configuration_.file, default_file_);
  EXPECT_EQ(configuration_.file_origin, "default");
}

TEST_F(ConfigurationFile, EtcdLocationsStandOnOneLineOrOnSeveral) {
  write("[registry]\nlocation = etcd://a:2379, etcd://[::1]:2380\nlocation = etcd://10.0.0.3:2379\n");
  ASSERT_TRUE(read().ok());
  EXPECT_THAT(configuration_.locations, ElementsAre("etcd://a:2379", "etcd://[::1]:2380", "etcd://10.0.0.3:2379"));
  EXPECT_TRUE(configuration_.is_distributed());
  EXPECT_FALSE(configuration_.local_only);
  EXPECT_TRUE(configuration_.cluster_configured);
  EXPECT_EQ(setting("registry.location"), "etcd://a:2379, etcd://[::1]:2380 etcd://10.0.0.3:2379 from F:2, F:3");
  write("[cluster]\nconfigured=no\n[registry]\nlocation = etcd://a:2379\n");
  ASSERT_TRUE(read().ok());
  EXPECT_FALSE(configuration_.cluster_configured);
}

TEST_F(ConfigurationFile, DirectoryMayHaveBlanksAndBeVeryLong) {
  const std::string path = "/srv/our registry/" + std::string(4096 - 18, 'x');
  write("[registry]\nlocation = " + path + "\n");
  ASSERT_EQ(read().text(), "done");
  EXPECT_THAT(configuration_.locations, ElementsAre(path));
}

struct Mistake {
  const char* text;
  const char* error;
};

class MalformedConfiguration : public ConfigurationFile, public ::testing::WithParamInterface<Mistake> {};

TEST_P(MalformedConfiguration, NamesFileAndLine) {
  write(GetParam().text);
  configuration_.backup_location = "as it was";
  const Status status = read();
  EXPECT_EQ(status.code(), PRTKV_INVALID_CONFIGURATION);
  EXPECT_EQ(shortened(status.text()), GetParam().error);
  EXPECT_EQ(configuration_.backup_location, "as it was");
}

INSTANTIATE_TEST_SUITE_P(
    Table, MalformedConfiguration,
    ::testing::Values(
        Mistake{"[registry]\nlocation /srv\n", "F:2: malformed line"},
        Mistake{"[registry\nlocation=/srv\n", "F:1: malformed line"},
        Mistake{"[registry] location=/srv\n", "F:1: malformed line"},
        Mistake{"\n\nnonsense\n[registry]\nnonsense=1\n", "F:3: malformed line"},
        Mistake{"[registry]\nnonsense=1\nnonsense\n",
                "F:2: unknown name 'nonsense' in [registry]; it has location, local_only, backup_location, map_size, "
                "group, timeout_ms"},
        Mistake{"[registry]\n= 1\n",
                "F:2: unknown name '' in [registry]; it has location, local_only, backup_location, map_size, group, "
                "timeout_ms"},
        Mistake{"[Registry]\n", "F:1: unknown section [Registry]; there are [registry], [history], [etcd], [cluster]"},
        Mistake{"[registry]\nlocation=/srv\n[other]\n",
                "F:3: unknown section [other]; there are [registry], [history], [etcd], [cluster]"},
        Mistake{"ca=/ca\n", "F:1: 'ca' stands before the first section; put it below [etcd]"},
        Mistake{"location=/srv\n", "F:1: 'location' stands before the first section; put it below [registry]"},
        Mistake{"[etcd]\nlocation=/srv\n",
                "F:2: unknown name 'location' in [etcd]; it has ca, cert, key, user, password_file, prefix, "
                "timeout_ms, attempt_ms"},
        Mistake{"[registry]\ngroup=a\n\ngroup=a\n", "F:4: 'group' is given twice, first at F:2"},
        Mistake{"[registry]\nlocation=/a\nlocation=/b\n",
                "F:3: location: a location is one directory or up to five etcd addresses"},
        Mistake{"[registry]\nlocation=/a\nlocation=etcd://a:1\n",
                "F:3: location: a location is one directory or up to five etcd addresses"},
        Mistake{"[registry]\nlocation=etcd://a:1\nlocation=/a\n",
                "F:3: location: a location is one directory or up to five etcd addresses"},
        Mistake{"[registry]\nlocation=etcd://a:1 etcd://a:1\n", "F:2: location: 'etcd://a:1' is given twice"},
        Mistake{"[registry]\nlocation=etcd://a:1 etcd://a:2 etcd://a:3 etcd://a:4 etcd://a:5 etcd://a:6\n",
                "F:2: location: a location is one directory or up to five etcd addresses"},
        Mistake{"[registry]\nlocation=etcd://a\n", "F:2: location: 'etcd://a' is not of the form etcd://host:port"},
        Mistake{"[registry]\nlocation=srv\n", "F:2: location: 'srv' is not an absolute path"},
        Mistake{"[registry]\nlocation=\n", "F:2: 'location' has no value"},
        Mistake{"[registry]\nlocation= ; later\n", "F:2: 'location' has no value"},
        Mistake{"[registry]\nbackup_location=b\n", "F:2: backup_location: 'b' is not an absolute path"},
        Mistake{"[registry]\nlocal_only=maybe\n", "F:2: local_only: 'maybe' is neither yes nor no"},
        Mistake{"[registry]\nmap_size=1023K\n", "F:2: map_size: '1023K' is not between 1M and 16T"},
        Mistake{"[history]\nchanges=0\n", "F:2: changes: '0' is not a number of changes from 1 to 1000000000"},
        Mistake{"[history]\nchanges=many\n", "F:2: changes: 'many' is not a number of changes from 1 to 1000000000"},
        Mistake{"[history]\nsize=1K\n", "F:2: size: '1K' is not between 64K and 16T"},
        Mistake{"[history]\nsize=much\n", "F:2: size: 'much' is not a size in bytes, as in 512M"},
        Mistake{"[history]\nage=90\n", "F:2: age: '90' is not an age, as in 12h, 90d or 4w"},
        Mistake{"[history]\nage=0d\n", "F:2: age: '0d' is not between 1h and 5200w"},
        Mistake{"[history]\noff=maybe\n", "F:2: off: 'maybe' is neither yes nor no"},
        Mistake{"[history]\nage=90d\n[registry]\nlocation=etcd://a:1\n",
                "F:2: history.age is given, but a registry on etcd keeps as much of its past as etcd does: set etcd's "
                "--auto-compaction-retention instead"},
        Mistake{"[registry]\nmap_size=17T\n", "F:2: map_size: '17T' is not between 1M and 16T"},
        Mistake{"[registry]\nmap_size=99999999999999999999\n",
                "F:2: map_size: '99999999999999999999' is not a size in bytes, as in 512M"},
        Mistake{"[registry]\nmap_size=1GB\n", "F:2: map_size: '1GB' is not a size in bytes, as in 512M"},
        Mistake{"[registry]\nmap_size=-1G\n", "F:2: map_size: '-1G' is not a size in bytes, as in 512M"},
        Mistake{"[registry]\nmap_size=G\n", "F:2: map_size: 'G' is not a size in bytes, as in 512M"},
        Mistake{"[registry]\ngroup=two words\n", "F:2: group: 'two words' is not a name"},
        Mistake{"[etcd]\nca=ca.pem\n", "F:2: ca: 'ca.pem' is not an absolute path"},
        Mistake{"[etcd]\nca=/ca\ncert=/c\n", "F:3: etcd.cert is given without etcd.key"},
        Mistake{"[etcd]\nca=/ca\nkey=/k\n", "F:3: etcd.key is given without etcd.cert"},
        Mistake{"[etcd]\ncert=/c\nkey=/k\n", "F:2: etcd.cert is given without etcd.ca"},
        Mistake{"[etcd]\nuser=u\n", "F:2: etcd.user is given without etcd.password_file"},
        Mistake{"[etcd]\npassword_file=/p\n", "F:2: etcd.password_file is given without etcd.user"},
        Mistake{"[etcd]\nprefix=tkv/\n", "F:2: prefix: 'tkv/' does not begin and end with '/'"},
        Mistake{"[etcd]\nprefix=/tkv\n", "F:2: prefix: '/tkv' does not begin and end with '/'"},
        Mistake{"[etcd]\ntimeout_ms=99\n", "F:2: timeout_ms: '99' is not between 100 and 600000"},
        Mistake{"[etcd]\ntimeout_ms=600001\n", "F:2: timeout_ms: '600001' is not between 100 and 600000"},
        Mistake{"[etcd]\ntimeout_ms=5s\n", "F:2: timeout_ms: '5s' is not a number of milliseconds"},
        Mistake{"[etcd]\nattempt_ms=9\n", "F:2: attempt_ms: '9' is not between 10 and 600000"},
        Mistake{"[etcd]\nattempt_ms=600001\n", "F:2: attempt_ms: '600001' is not between 10 and 600000"},
        Mistake{"[cluster]\nconfigured=\n", "F:2: 'configured' has no value"},
        Mistake{"[registry]\nlocation=/a\x01\n", "F:2: the line holds a control character"}));

TEST_F(ConfigurationFile, OverlongLinesNamesAndPathsAreRefusedNotCut) {
  write("[registry]\nlocation = /" + std::string(9000, 'x') + "\n");
  EXPECT_EQ(shortened(read().text()), "F:2: the line is longer than 8189 bytes");
  write("[registry]\nlocation = /" + std::string(4096, 'x') + "\n");
  EXPECT_EQ(shortened(read().text()), "F:2: location: the path is longer than 4096 bytes");
  write("[registry]\n" + std::string(60, 'n') + " = 1\n");
  EXPECT_EQ(shortened(read().text()), "F:2: the name is too long");
  write("[" + std::string(60, 's') + "]\n");
  EXPECT_EQ(shortened(read().text()), "F:1: the section's name is too long");
  write("[etcd]\nprefix = /" + std::string(300, 'p') + "/\n");
  EXPECT_EQ(shortened(read().text()), "F:2: prefix: the prefix is longer than 256 bytes");
  write("[registry]\ngroup = " + std::string(64, 'g') + "\n");
  EXPECT_EQ(shortened(read().text()), "F:2: group: the name is longer than 63 bytes");
  write(std::string((1 << 20) + 1, ' '));
  EXPECT_EQ(shortened(read().text()), "the configuration file F is larger than 1 MiB");
}

TEST_F(ConfigurationFile, NulByteIsAControlCharacter) {
  write(std::string("[registry]\nlocation=/a\0b\n", 25));
  EXPECT_EQ(shortened(read().text()), "F:2: the line holds a control character");
}

TEST_F(ConfigurationFile, UnreadableOneIsReportedAsSuch) {
  variables_["TKV_CONF"] = file_;
  Status status = read();
  EXPECT_EQ(status.code(), PRTKV_CONFIGURATION_UNREADABLE);
  EXPECT_EQ(shortened(status.text()),
            "the configuration file F cannot be read: No such file or directory; name one that exists in TKV_CONF, or "
            "unset TKV_CONF");
  ASSERT_EQ(mkdir(file_.c_str(), 0700), 0);
  status = read();
  EXPECT_EQ(status.code(), PRTKV_CONFIGURATION_UNREADABLE);
  EXPECT_EQ(shortened(status.text()),
            "the configuration file F is not a regular file; name one in TKV_CONF, or put one in its place");
  variables_["TKV_CONF"] = file_ + "/below/" + std::string(300, 'x');
  EXPECT_EQ(read().code(), PRTKV_CONFIGURATION_UNREADABLE);
}

TEST_F(ConfigurationFile, PipeIsRefusedWithoutWaitingForAWriter) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  variables_["TKV_CONF"] = file_;
  EXPECT_EQ(read().code(), PRTKV_CONFIGURATION_UNREADABLE);
}

}  // namespace
}  // namespace tkv::registry
