// The off-target overrides: invalid values are refused as a whole, and every wait scales.
#include "core/runtime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/test_env.h"

namespace {

TEST(RuntimeTest, InvalidOverridesAreRefusedAndChangeNothing) {
  struct {
    const char* name;
    const char* value;
  } cases[] = {
      // clang-format off
      {"ZUNTA_TIME_SCALE", "abc"}, {"ZUNTA_TIME_SCALE", "0"}, {"ZUNTA_TIME_SCALE", "-1"}, {"ZUNTA_TIME_SCALE", "0.5x"},
      {"ZUNTA_TIME_SCALE", ""}, {"ZUNTA_TIME_SCALE", "1000.5"}, {"ZUNTA_TIME_SCALE", "1e300"}, {"ZUNTA_AGENT_PORT", "0"}, {"ZUNTA_AGENT_PORT", "70000"}, {"ZUNTA_CONF", ""},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + "=" + c.value);
    std::string saved = std::getenv(c.name) != nullptr ? std::getenv(c.name) : "";
    setenv(c.name, c.value, 1);
    char error[256] = {};
    EXPECT_EQ(-1, zunta_runtime_init(error, sizeof error));
    EXPECT_NE(std::string::npos, std::string(error).find(c.name)) << error;
    setenv(c.name, saved.c_str(), 1);
    EXPECT_DOUBLE_EQ(TEST_TIME_SCALE, zunta_time_scale());
    EXPECT_EQ(test_agent_port(), zunta_agent_port());
  }
}

}  // namespace
