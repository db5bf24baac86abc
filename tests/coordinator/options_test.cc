// The configuration reader on the inputs that can catch faults.
#include "coordinator/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST_F(ConfigReaderTest, ParallelTrainingOnlyWhileTheFileSaysTrue) {
  load("parallel_training=true\n");
  EXPECT_EQ(1, opts_.parallel_training);
  load("parallel_training=yes\n");
  EXPECT_EQ(0, opts_.parallel_training);
  load("parallel_training=true\n");
  load("root=true\n");  // the key gone: one pair at a time again
  EXPECT_EQ(0, opts_.parallel_training);
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

TEST_F(ConfigReaderTest, OverLongAddressIsRefusedAndTheFieldStaysTerminated) {
  load("broadcast_address=127.9.9.255\n");
  capture_stdout out;
  load("broadcast_address=127.100.100.2555\n");
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
  EXPECT_THAT(out.text(), HasSubstr("ZUNTA:W:CORE: broadcast_address longer than 15 characters ignored"));
  load("broadcast_address=   \n");
  EXPECT_STREQ("127.9.9.255", opts_.broadcast_address);
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
