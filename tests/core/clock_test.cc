// Millisecond differences across wraps, local-time texts, and the intrusive list.
#include "core/clock.h"

#include <gtest/gtest.h>

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
  // The 32-bit millisecond counter wrapping between two readings.
  EXPECT_EQ(21, timediff(5u, 4294967280u));
  EXPECT_EQ(60, timediff(100u, 40u));
  EXPECT_EQ(-60, timediff(40u, 100u));
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
