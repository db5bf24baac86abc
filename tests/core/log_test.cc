// The logger's three line forms as an operator sees them on standard output.
#include "core/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "support/capture_stdout.h"
#include "support/test_env.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(LoggerTest, ThreeLineFormsAtTheRunTimeLevel) {
  capture_stdout out;
  ZLOG(COMP_CORE, LVL_E, "Connection Failed\n");
  int error_line = __LINE__ - 1;
  ZLOG(COMP_TR, LVL_U, "Training ends\n");
  ZLOG(COMP_MP, LVL_W, "warn %d\n", 7);
  ZLOG(COMP_ATH, LVL_I, "not shown\n");
  ZLOG(COMP_CORE, LVL_D, "not shown either\n");
  std::string text = out.text();
  EXPECT_THAT(text,
              HasSubstr("ZUNTA: ERROR: TestBody:" + std::to_string(error_line) + ": Connection Failed\n"));
  EXPECT_THAT(text, HasSubstr("\nzunta-coord: Training ends\n"));
  // Time stamp right-aligned in eight columns, level letter, component right-aligned in four.
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\[[ \d]{7}\d\] ZUNTA:W:  MP: warn 7\n)"))) << text;
  EXPECT_THAT(text, Not(HasSubstr("not shown")));
  log_level_scope verbose(LVL_D);
  capture_stdout detail;
  ZLOG(COMP_FLOW, LVL_D, "debug\n");
  EXPECT_TRUE(std::regex_match(detail.text(), std::regex(R"(\[ *\d+\] ZUNTA:D:FLOW: debug\n)")))
      << detail.text();
}

TEST(LoggerTest, NothingIsPrintedBeforeLoggingStarts) {
  log_state* saved = g_log;
  g_log = nullptr;
  capture_stdout out;
  ZLOG(COMP_CORE, LVL_E, "too early\n");
  std::string text = out.text();
  g_log = saved;
  EXPECT_EQ("", text);
}

TEST(LoggerTest, DumpRecordAppendsAndDropsTextWhenTheFileCannotBeOpenedOrIsALink) {
  std::string path = test_dir() + "/dump.log";
  char saved[sizeof global_log.dump_file];
  std::snprintf(saved, sizeof saved, "%s", global_log.dump_file);
  std::snprintf(global_log.dump_file, sizeof global_log.dump_file, "%s", path.c_str());
  dump_record("first %d\n", 1);
  dump_record("second\n");
  std::snprintf(global_log.dump_file, sizeof global_log.dump_file, "%s", "/nonexistent-dir/dump.log");
  dump_record("dropped\n");
  std::string link = test_dir() + "/dump-link.log";
  ASSERT_EQ(0, symlink(path.c_str(), link.c_str()));
  std::snprintf(global_log.dump_file, sizeof global_log.dump_file, "%s", link.c_str());
  dump_record("not through a link\n");
  std::snprintf(global_log.dump_file, sizeof global_log.dump_file, "%s", saved);
  EXPECT_EQ("first 1\nsecond\n", read_file(path));
}

}  // namespace
