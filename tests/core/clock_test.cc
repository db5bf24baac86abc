// Millisecond differences across wraps, local-time texts, and the intrusive list.
#include "core/clock.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include "core/list.h"
#include "support/fake_clock.h"

namespace {

TEST(TimeTest, MillisecondDifferences) {
  timeval from{10, 900000};
  timeval to{12, 100000};
  EXPECT_EQ(1200, timevaldiff(&from, &to));
  timeval a{10, 0};
  timeval b{10, 999};
  EXPECT_EQ(0, timevaldiff(&a, &b));
  EXPECT_EQ(0, timevaldiff(nullptr, &b));
  // The 32-bit millisecond counter wrapping between two readings.
  EXPECT_EQ(21, timediff(5u, 4294967280u));
  EXPECT_EQ(60, timediff(100u, 40u));
  EXPECT_EQ(-60, timediff(40u, 100u));
}

// Uptime runs on the monotonic clock: setting the time of day back a day moves the dates only.
// The signed 32-bit count wraps after 2^31 ms (24.8 days) and differences stay right across it.
TEST(TimeTest, UptimeIgnoresTheTimeOfDayAndWrapsAfter24Days) {
  fake_clock clock;
  int32_t before = uptime_ms();
  char date_before[TIME_TEXT_SIZE];
  print_datetime(date_before);
  clock.set_wall_by_ms(-86400000);
  EXPECT_EQ(before, uptime_ms());
  char date_after[TIME_TEXT_SIZE];
  print_datetime(date_after);
  EXPECT_NE(std::string(date_before).substr(0, 10), std::string(date_after).substr(0, 10));
  EXPECT_EQ(std::string(date_before).substr(11), std::string(date_after).substr(11));

  // The readings keep their sub-millisecond parts, which the millisecond difference truncates
  // towards zero: a count may land one off the whole milliseconds advanced.
  clock.advance_ms(static_cast<int64_t>(INT32_MAX) - before - 500);
  int32_t last = uptime_ms();
  EXPECT_NEAR(INT32_MAX - 500, last, 1);
  clock.advance_ms(1000);
  EXPECT_LT(uptime_ms(), 0);
  EXPECT_EQ(1000, timediff(static_cast<uint32_t>(uptime_ms()), static_cast<uint32_t>(last)));
}

// Local times for other programs carry their offset, also west of UTC and off the whole hour.
TEST(TimeTest, IsoTimesCarryTheOffsetFromUtc) {
  const char* saved = std::getenv("TZ");
  const std::string kept = saved != nullptr ? saved : "";
  const struct {
    const char* tz;
    const char* text;
  } cases[] = {
      {"UTC0", "2026-11-25T14:04:05+00:00"},
      {"CET-1", "2026-11-25T15:04:05+01:00"},
      {"<-0330>3:30", "2026-11-25T10:34:05-03:30"},
      {"<+0545>-5:45", "2026-11-25T19:49:05+05:45"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tz);
    setenv("TZ", c.tz, 1);
    tzset();
    char text[TIME_TEXT_SIZE];
    EXPECT_TRUE(print_iso_time(text, 1795615445));
    EXPECT_STREQ(c.text, text);
  }
  if (saved != nullptr) setenv("TZ", kept.c_str(), 1);
  if (saved == nullptr) unsetenv("TZ");
  tzset();
}

struct item {
  int value;
  sa_list list;
};

TEST(ListTest, WalksNewestFirstAndSurvivesDeletionWhileWalking) {
  sa_list head;
  INIT_SA_LIST_HEAD(&head);
  item items[3] = {{1, {}}, {2, {}}, {3, {}}};
  for (item& i : items)
    sa_list_add(&i.list, &head);
  std::vector<int> seen;
  sa_list_for_each_entry_safe(pos, &head, item, list) {
    seen.push_back(pos->value);
    if (pos->value == 2) sa_list_del(&pos->list);
  }
  EXPECT_EQ((std::vector<int>{3, 2, 1}), seen);
  EXPECT_EQ(nullptr, items[1].list.next);
  EXPECT_EQ(nullptr, items[1].list.prev);
  sa_list_del(&items[0].list);
  sa_list_del(&items[2].list);
  EXPECT_TRUE(sa_list_empty(&head));
  EXPECT_EQ(&head, head.prev);
}

}  // namespace
