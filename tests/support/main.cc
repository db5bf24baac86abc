// Test main: points the overrides at test values, starts logging as the daemon does, runs the tests.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "core/log.h"
#include "core/runtime.h"
#include "support/test_env.h"

namespace {

constexpr uint16_t TEST_AGENT_PORT = 24581;

std::string make_test_dir() {
  char pattern[] = "/tmp/zunta-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  return made != nullptr ? made : "/tmp";
}

}  // namespace

uint16_t test_agent_port() {
  return TEST_AGENT_PORT;
}

const std::string& test_dir() {
  static const std::string dir = make_test_dir();
  return dir;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::vector<std::string> dir_entries(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name).rfind(prefix, 0) == 0) names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const std::string& dir = test_dir();
  setenv("ZUNTA_TIME_SCALE", "0.05", 1);
  setenv("ZUNTA_AGENT_PORT", std::to_string(TEST_AGENT_PORT).c_str(), 1);
  setenv("ZUNTA_CONF", (dir + "/zunta.conf").c_str(), 1);
  setenv("ZUNTA_SNAPSHOT", (dir + "/zunta-sa.log").c_str(), 1);
  setenv("ZUNTA_STATUS_JSON", (dir + "/zunta-status.json").c_str(), 1);
  setenv("ZUNTA_DUMP_FILE", (dir + "/zunta-dump.log").c_str(), 1);
  setenv("ZUNTA_TRAINING_STATUS_FILE", (dir + "/training_status.log").c_str(), 1);
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) {
    std::fprintf(stderr, "test set-up: %s\n", error);
    return 2;
  }
  log_init(LVL_U, -1);
  int result = RUN_ALL_TESTS();
  std::string remove = "rm -rf '" + dir + "'";
  if (dir.rfind("/tmp/zunta-test-", 0) == 0) std::system(remove.c_str());
  return result;
}
