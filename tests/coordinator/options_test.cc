// The configuration reader on the inputs that can catch faults.
#include "coordinator/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/capture_stdout.h"
#include "support/test_env.h"

namespace {

using ::testing::HasSubstr;

class ConfigReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { zunta_init_config_options(&opts_); }
  int load(const std::string& text) {
    write_file(path_, text);
    return zunta_config_load_options(path_.c_str(), &opts_);
  }
  std::string path_ = test_dir() + "/reader.conf";
  options opts_{};
};

TEST_F(ConfigReaderTest, ValuesAreTakenExactlyAsWritten) {
  ASSERT_EQ(0, load("root=true\nbroadcast_address=127.9.9.255 lan\r\nbroadcast_port=40000\n"));
  EXPECT_EQ(1, opts_.root);
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
  EXPECT_EQ(40000, opts_.broadcast_port);
  // Only "true" itself is true; a key with a blank before "=" is another key.
  for (const char* line : {"root=TRUE\n", "root=yes\n", "root=true \n"}) {
    SCOPED_TRACE(line);
    opts_.root = 1;
    load(line);
    EXPECT_EQ(0, opts_.root);
  }
  opts_.root = 1;
  load("root = false\n#root=false\n");
  EXPECT_EQ(1, opts_.root);
}

TEST_F(ConfigReaderTest, ScheduleFieldsOutsideTheirRangesBecomeZero) {
  struct {
    const char* text;
    int32_t hour, minutes;
  } cases[] = {
      // clang-format off
      {"training_start_hour=24\n", 0, 0}, {"training_start_hour=-1\n", 0, 0}, {"training_start_hour=23\n", 23, 0},
      {"training_start_hour=99999999999\n", 0, 0}, {"training_start_hour=x\n", 0, 0},
      {"training_frequency_minutes=4\n", 0, 0}, {"training_frequency_minutes=1381\n", 0, 0},
      {"training_frequency_minutes=5\n", 0, 5}, {"training_frequency_minutes=1380\n", 0, 1380},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    load(c.text);
    EXPECT_EQ(c.hour, opts_.training_start_hour);
    EXPECT_EQ(c.minutes, opts_.training_frequency_minutes);
  }
}

TEST_F(ConfigReaderTest, EveryLoadResetsTheScheduleAndKeepsTheRest) {
  load(
      "root=true\nbroadcast_address=127.9.9.255\nbroadcast_port=24999\ntraining_start_hour=5\n"
      "training_frequency_minutes=30\n");
  load("broadcast_port=none\n");
  EXPECT_EQ(1, opts_.root);
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
  EXPECT_EQ(24999, opts_.broadcast_port);
  EXPECT_EQ(0, opts_.training_start_hour);
  EXPECT_EQ(0, opts_.training_frequency_minutes);
  opts_.training_start_hour = 5;
  EXPECT_EQ(-1, zunta_config_load_options((test_dir() + "/missing.conf").c_str(), &opts_));
  EXPECT_EQ(0, opts_.training_start_hour);
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
}

TEST_F(ConfigReaderTest, OnlyADottedQuadBecomesTheBroadcastAddress) {
  load("broadcast_address=127.9.9.255\n");
  for (const char* word :
       {"127.77.5", "127.0.0.256", "127.100.100.2555", "1.2.3.4.5", "0x7f.1.1.1", "127.9.9.1x"}) {
    SCOPED_TRACE(word);
    capture_stdout out;
    load(std::string("# keep\nbroadcast_address=") + word + "\n");
    EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
    EXPECT_THAT(out.text(),
                HasSubstr("ZUNTA:W:CORE: broadcast_address at line 2 is not a dotted IPv4 address: " +
                          std::string(word) + "; 127.9.9.255 kept\n"));
  }
  load("broadcast_address=   \n");
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
}

// A FIFO would block the open and /dev/zero would be read for ever, so each load runs in a child
// that an alarm ends; a file over 64 KiB is refused whole. Nothing of a refused file is applied.
TEST_F(ConfigReaderTest, OnlyARegularFileOfAtMost64KiBIsLoaded) {
  std::string fifo = test_dir() + "/fifo.conf", zero = test_dir() + "/zero.conf";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  ASSERT_EQ(0, symlink("/dev/zero", zero.c_str()));
  std::string fits = "root=true\n" + std::string(CONFIG_MAX_BYTES - 11, '#') + "\n";
  ASSERT_EQ(CONFIG_MAX_BYTES, fits.size());
  write_file(test_dir() + "/fits.conf", fits);
  write_file(test_dir() + "/over.conf", "root=true\n" + std::string(CONFIG_MAX_BYTES, '#'));
  // Exit status of the child: 0 loaded, 1 refused with nothing applied.
  struct {
    const char* name;
    int status;
  } cases[] = {{"fifo.conf", 1}, {"zero.conf", 1}, {"over.conf", 1}, {"fits.conf", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = test_dir() + "/" + c.name;
    pid_t child = fork();
    if (child == 0) {
      alarm(20);
      options opts{};
      int result = zunta_config_load_options(path.c_str(), &opts);
      _exit(result == 0 && opts.root == 1 ? 0 : result == -1 && opts.root == 0 ? 1 : 2);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << "the load did not return";
    EXPECT_EQ(c.status, WEXITSTATUS(status));
  }
}

// Both switches and the memory path follow the file: on only when a line says "true" (names an
// absolute path), off when the key is gone, unchanged when the file cannot be read.
TEST_F(ConfigReaderTest, SwitchesFollowTheFile) {
  EXPECT_EQ(0, opts_.discovery_check_sender);
  load("discovery_check_sender=true\nparallel_training=true\ntraining_memory=/var/lib/zunta/training x\n");
  EXPECT_EQ(1, opts_.discovery_check_sender);
  EXPECT_EQ(1, opts_.parallel_training);
  EXPECT_STREQ("/var/lib/zunta/training", opts_.training_memory);
  EXPECT_EQ(-1, zunta_config_load_options((test_dir() + "/missing.conf").c_str(), &opts_));
  EXPECT_EQ(2, opts_.discovery_check_sender + opts_.parallel_training);  // both kept
  EXPECT_STREQ("/var/lib/zunta/training", opts_.training_memory);
  load("root=true\n");
  EXPECT_EQ(0, opts_.discovery_check_sender + opts_.parallel_training);
  EXPECT_STREQ("", opts_.training_memory);
  capture_stdout out;
  load("training_memory=/var/lib/zunta/training\ntraining_memory=training\n");
  EXPECT_STREQ("", opts_.training_memory);
  EXPECT_THAT(out.text(),
              HasSubstr("ZUNTA:W:CORE: training_memory at line 2 is not an absolute path: training"));
}

TEST_F(ConfigReaderTest, WarningsCountReadsSoALongLineCountsTwice) {
  capture_stdout out;
  // Line 1: 200 characters without "=" (two reads), then an empty line, then a comment.
  load(std::string(200, 'x') + "\n\n# comment\nroot=true\n");
  std::string text = out.text();
  EXPECT_THAT(text, HasSubstr("WARN: no '=' found at line 1\n"));
  EXPECT_THAT(text, HasSubstr("WARN: no '=' found at line 2\n"));
  EXPECT_THAT(text, HasSubstr("WARN: no '=' found at line 3\n"));
  EXPECT_EQ(std::string::npos, text.find("line 4"));
  EXPECT_EQ(1, opts_.root);
}

}  // namespace
