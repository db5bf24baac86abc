// Integers and fields read where scanf's %d, %x and %17[^,] would, minus their overflow.
#include "core/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

TEST(TextScanTest, IntegersReadAsScanfDoesButRefuseValuesOutsideTheirRange) {
  struct {
    const char* text;
    int base;
    int32_t min, max;
    bool ok;
    int32_t value;
    std::size_t used;  // characters taken
  } cases[] = {
      {"  -42,7", 10, INT32_MIN, INT32_MAX, true, -42, 5},
      {"+2147483647", 10, INT32_MIN, INT32_MAX, true, INT32_MAX, 11},
      {"-2147483648x", 10, INT32_MIN, INT32_MAX, true, INT32_MIN, 11},
      {"2147483648", 10, INT32_MIN, INT32_MAX, false, 0, 0},
      {"-2147483649", 10, INT32_MIN, INT32_MAX, false, 0, 0},
      {"99999999999999999999999", 10, INT32_MIN, INT32_MAX, false, 0, 0},
      {"4", 10, 0, 3, false, 0, 0},
      {"-1", 10, 0, 3, false, 0, 0},
      {",5", 10, INT32_MIN, INT32_MAX, false, 0, 0},
      {"", 10, INT32_MIN, INT32_MAX, false, 0, 0},
      {"7fffffff", 16, 0, INT32_MAX, true, INT32_MAX, 8},
      {"0x1f,", 16, 0, INT32_MAX, true, 31, 4},
      {"80000000", 16, 0, INT32_MAX, false, 0, 0},
      {"100000002", 16, 0, INT32_MAX, false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    int32_t value = 0;
    const char* rest = nullptr;
    EXPECT_EQ(c.ok, zunta_scan_int32(c.text, c.base, c.min, c.max, &value, &rest));
    EXPECT_EQ(c.value, value);
    EXPECT_EQ(c.ok ? c.text + c.used : nullptr, rest);
  }
}

TEST(TextScanTest, AFieldIsOneToSeventeenCharactersEndedByAComma) {
  char mac[MAC_TEXT_SIZE];
  EXPECT_STREQ("2", zunta_scan_text_field("aa:bb:cc:dd:ee:01,2", mac));
  EXPECT_STREQ("aa:bb:cc:dd:ee:01", mac);
  for (const char* text : {"aa:bb:cc:dd:ee:012,2", ",2", "aa:bb:cc:dd:ee:01", ""}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(nullptr, zunta_scan_text_field(text, mac));
  }
}

}  // namespace
