// The built daemon's start-up as an operator meets it: refusals, the exit path, and its output
// reaching a pipe line by line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon_process.h"
#include "support/test_env.h"

namespace {

using ::testing::HasSubstr;

constexpr char BANNER[] =
    "zunta-coord: Zunta Smart Antenna Coordinator Application: Version 2.11-OSK-WIFI7(B251017.0000)\n";
constexpr int WAIT_MS = 20000;

std::string conf(const std::string& name, const std::string& text) {
  std::string path = test_dir() + "/" + name;
  write_file(path, text);
  return path;
}

TEST(DaemonStartTest, MissingConfigurationEndsTheProgram) {
  // Without a configuration the default broadcast address would apply: keep it off any network.
  if (!can_unshare_network()) GTEST_SKIP() << "no private network namespace available";
  daemon_process daemon({"unshare", "-n", "--", daemon_path()},
                        {"ZUNTA_CONF=" + test_dir() + "/absent.conf"});
  EXPECT_EQ(0, daemon.wait_exit(WAIT_MS));
  EXPECT_TRUE(std::regex_search(
      daemon.out(), std::regex(R"(ZUNTA: ERROR: main:\d+: Config file does not exist!\nExit\n$)")))
      << daemon.out();
}

// Which values are refused is the runtime's test; the daemon refuses before it logs anything.
TEST(DaemonStartTest, AnInvalidOverrideIsRefusedBeforeStartUp) {
  daemon_process refused({daemon_path()}, {"ZUNTA_TIME_SCALE=fast"});
  EXPECT_EQ(2, refused.wait_exit(WAIT_MS));
  EXPECT_EQ("", refused.out());
  EXPECT_TRUE(std::regex_match(refused.err(), std::regex("zunta-coord: ZUNTA_TIME_SCALE [^\n]*\n")))
      << refused.err();
}

// Refusals at start-up come after the banner, under the procedure's name, and end the program.
TEST(DaemonStartTest, NotTheRootOrManualPatternsWithoutTwoValuesAreRefused) {
  const char* not_root = "root=false\nbroadcast_address=127.0.2.254\nbroadcast_port=24621\n";
  const char* root = "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24622\n";
  const char* no_root = "Problem in the config file";
  const char* no_patterns = "Option -2 needs two integer patterns: -2 <left> <right>";
  const struct {
    const char* conf;
    std::vector<std::string> args;
    const char* error;
  } cases[] = {{not_root, {}, no_root},
               {root, {"-2"}, no_patterns},
               {root, {"-2", "1"}, no_patterns},
               {root, {"-2", "1", "x"}, no_patterns},
               {root, {"-2", "1", "2x"}, no_patterns}};
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    args.insert(args.begin(), daemon_path());
    daemon_process daemon(args, {"ZUNTA_CONF=" + conf("refused.conf", c.conf)});
    EXPECT_EQ(0, daemon.wait_exit(WAIT_MS));
    EXPECT_EQ(0u, daemon.out().find(BANNER)) << daemon.out();
    EXPECT_TRUE(std::regex_search(
        daemon.out(), std::regex(std::string(R"(ZUNTA: ERROR: main:\d+: )") + c.error + "\nExit\n$")))
        << daemon.out();
  }
}

TEST(DaemonStartTest, RunningDaemonWritesEachLineWhenItIsLogged) {
  // Nobody answers on this address: the daemon keeps cycling, so only line buffering can bring the
  // banner through the pipe.
  std::string path = conf("idle.conf", "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24623\n");
  daemon_process daemon({daemon_path(), "-e"}, {"ZUNTA_CONF=" + path});
  EXPECT_TRUE(daemon.wait_for_output(BANNER, WAIT_MS)) << daemon.out();
  EXPECT_EQ(-1, daemon.wait_exit(0));
}

TEST(DaemonStartTest, ConfigurationRemovedWhileRunningIsReportedByTheCycle) {
  // The record loaded at start-up stays in use, so the loopback address keeps applying.
  std::string path = conf("removed.conf", "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24624\n");
  std::string status = test_dir() + "/removed-sa.log";
  daemon_process daemon({daemon_path()}, {"ZUNTA_CONF=" + path, "ZUNTA_SNAPSHOT=" + status});
  // The first status file is written once start-up has read the configuration.
  for (int waited = 0; read_file(status).empty() && waited < WAIT_MS; waited += 10)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(0, std::remove(path.c_str()));
  EXPECT_TRUE(daemon.wait_for_output("Error loading the configuration file\n", WAIT_MS)) << daemon.out();
  EXPECT_TRUE(std::regex_search(
      daemon.out(), std::regex(R"(\nZUNTA: ERROR: main:\d+: Error loading the configuration file\n)")))
      << daemon.out();
  EXPECT_EQ(-1, daemon.wait_exit(0));
}

// Only "-3" with exactly one value takes that value; a value that is not a positive number falls
// back to 6 with a warning.
TEST(DaemonStartTest, MeasurementIntervalFromTheCommandLine) {
  std::string path = conf("measure.conf", "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24625\n");
  const struct {
    std::vector<std::string> args;
    const char* interval;
    bool warned;
  } cases[] = {{{"-3"}, "6", false},
               {{"-3", "10", "20"}, "6", false},
               {{"-3", "0"}, "0", true},
               {{"-3", "-4"}, "-4", true},
               {{"-3", "ten"}, "0", true}};
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    SCOPED_TRACE(args.back());
    args.insert(args.begin(), daemon_path());
    daemon_process daemon(args, {"ZUNTA_CONF=" + path});
    std::string measuring =
        std::string("zunta-coord: Measuring bitrate (interval = ") + c.interval + " sec)...\n";
    std::string warning =
        std::string("Invalid measurement interval ") + c.interval + " sec. Set to default (6 sec)\n";
    EXPECT_TRUE(daemon.wait_for_output(c.warned ? warning : measuring, WAIT_MS)) << daemon.out();
    daemon.terminate();
    EXPECT_THAT(daemon.out(), HasSubstr(measuring));
    EXPECT_EQ(c.warned, daemon.out().find("Invalid measurement interval") != std::string::npos)
        << daemon.out();
  }
}

// Both answer on standard output without the banner, the configuration or the network; -h is
// --help.
TEST(DaemonStartTest, VersionAndHelpAnswerAndExit) {
  std::string path = conf("answers.conf", "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24626\n");
  std::string status = test_dir() + "/answers-sa.log";
  std::vector<std::string> env = {"ZUNTA_CONF=" + path, "ZUNTA_SNAPSHOT=" + status};
  daemon_process version({daemon_path(), "--version"}, env);
  EXPECT_EQ(0, version.wait_exit(WAIT_MS));
  EXPECT_EQ("zunta-coord 2.11 (B251017.0000)\n", version.out());
  EXPECT_EQ("", version.err());
  for (const char* option : {"--help", "-h"}) {
    SCOPED_TRACE(option);
    daemon_process help({daemon_path(), option}, env);
    EXPECT_EQ(0, help.wait_exit(WAIT_MS));
    std::string out = help.out();
    for (const char* line : {"\n  -e ", "\n  -0 ", "\n  -1 ", "\n  -2 LEFT RIGHT ", "\n  -3 [SECONDS] ",
                             "\n  --version ", "\n  -h, --help "})
      EXPECT_THAT(out, HasSubstr(line));
    EXPECT_THAT(out, HasSubstr("\nConfiguration file: " + path + "\nStatus file: " + status + "\n"));
    EXPECT_EQ(std::string::npos, out.find("Zunta Smart Antenna")) << out;
    EXPECT_EQ("", help.err());
  }
  EXPECT_TRUE(read_file(status).empty());
}

// A status file the daemon cannot write is named in its error line with the reason: a directory
// that does not exist, or a file another user left in a sticky directory such as /tmp, which only
// its owner may replace.
TEST(DaemonStartTest, UnwritableStatusFileIsNamedWithTheReason) {
  if (geteuid() != 0) GTEST_SKIP() << "running the daemon as another user needs root";
  char sticky[] = "/tmp/zunta-sticky-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(sticky));
  const std::string dir = sticky;
  ASSERT_EQ(0, chmod(sticky, 01777));
  const std::string path = dir + "/zunta.conf";
  write_file(path, "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24627\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  write_file(dir + "/zunta-sa.log", "left by root\n");
  const std::string missing = dir + "/missing/zunta-sa.log";
  const struct {
    std::vector<std::string> as_user;
    std::string status;
    std::string lines;
  } cases[] = {
      {{},
       missing,
       "ERROR opening file " + missing + "!\nZUNTA: ERROR: zunta_snapshot_info:\\d+: No new file for " +
           missing + " can be created in its directory: No such file or directory\n"},
      {{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"},
       dir + "/zunta-sa.log",
       "ERROR writing file " + dir +
           "/zunta-sa.log: Operation not permitted \\(it belongs to uid 0, and only its owner may replace "
           "it\\)\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    std::vector<std::string> args = c.as_user;
    args.push_back(daemon_path());
    daemon_process daemon(args, {"ZUNTA_CONF=" + path, "ZUNTA_SNAPSHOT=" + c.status});
    const std::regex expected("ZUNTA: ERROR: zunta_snapshot_info:\\d+: " + c.lines);
    EXPECT_TRUE(
        daemon.wait_until([&](const std::string& out) { return std::regex_search(out, expected); }, WAIT_MS))
        << daemon.out();
    daemon.terminate();
  }
  EXPECT_EQ("left by root\n", read_file(dir + "/zunta-sa.log"));
  std::system(("rm -rf " + dir).c_str());
}

}  // namespace
