// The built daemon's start-up as an operator meets it: refusals, the exit path, and its output
// reaching a pipe line by line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

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

TEST(DaemonStartTest, NodeThatIsNotTheRootRefusesToRun) {
  std::string path =
      conf("not-root.conf", "root=false\nbroadcast_address=127.0.2.254\nbroadcast_port=24621\n");
  daemon_process daemon({daemon_path()}, {"ZUNTA_CONF=" + path});
  EXPECT_EQ(0, daemon.wait_exit(WAIT_MS));
  std::string out = daemon.out();
  EXPECT_EQ(0u, out.find(BANNER)) << out;
  EXPECT_TRUE(
      std::regex_search(out, std::regex(R"(ZUNTA: ERROR: \w+:\d+: Problem in the config file\nExit\n$)")))
      << out;
}

TEST(DaemonStartTest, MissingConfigurationEndsTheProgram) {
  // Without a configuration the default broadcast address would apply: keep it off any network.
  if (!can_unshare_network()) GTEST_SKIP() << "no private network namespace available";
  daemon_process daemon({"unshare", "-n", "--", daemon_path()},
                        {"ZUNTA_CONF=" + test_dir() + "/absent.conf"});
  EXPECT_EQ(0, daemon.wait_exit(WAIT_MS));
  EXPECT_TRUE(std::regex_search(daemon.out(), std::regex(R"(: Config file does not exist!\nExit\n$)")))
      << daemon.out();
}

TEST(DaemonStartTest, InvalidOverridesAreRefusedBeforeStartUp) {
  for (const char* scale : {"0", "-1", "fast"}) {
    SCOPED_TRACE(scale);
    daemon_process refused({daemon_path()}, {std::string("ZUNTA_TIME_SCALE=") + scale});
    EXPECT_EQ(2, refused.wait_exit(WAIT_MS));
    EXPECT_EQ("", refused.out());
    EXPECT_TRUE(std::regex_match(refused.err(), std::regex("zunta-coord: ZUNTA_TIME_SCALE [^\n]*\n")))
        << refused.err();
  }
}

TEST(DaemonStartTest, ManualPatternsWithoutTwoValuesAreRefused) {
  std::string path = conf("manual.conf", "root=true\nbroadcast_address=127.0.2.254\nbroadcast_port=24622\n");
  for (std::vector<std::string> args : {std::vector<std::string>{"-2"}, {"-2", "1"}, {"-2", "1", "x"}}) {
    args.insert(args.begin(), daemon_path());
    daemon_process daemon(args, {"ZUNTA_CONF=" + path});
    EXPECT_EQ(0, daemon.wait_exit(WAIT_MS));
    EXPECT_THAT(daemon.out(), HasSubstr(": Option -2 needs two integer patterns: -2 <left> <right>\nExit\n"));
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

}  // namespace
