// Millisecond differences, local-time texts, and the intrusive list. (The wrap of the uptime is
// the discovery period's test.)
#include "core/clock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "core/list.h"

namespace {

TEST(TimeTest, MillisecondDifferences) {
  timeval from{10, 900000};
  timeval to{12, 100000};
  EXPECT_EQ(1200, timevaldiff(&from, &to));
  timeval a{10, 0};
  timeval b{10, 999};
  EXPECT_EQ(0, timevaldiff(&a, &b));
  EXPECT_EQ(0, timevaldiff(nullptr, &b));
  EXPECT_EQ(60, timediff(100u, 40u));
  EXPECT_EQ(-60, timediff(40u, 100u));
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
