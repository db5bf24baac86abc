// The node registry: insertion, lookups and the flush. Nothing listens on 127.0.4.x: an ath with a
// non-zero eth_index is added without asking an agent, one with eth_index 0 is refused.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>

#include "registry/ath.h"

namespace {

ath* front(node_tables* c) {
  return sa_list_entry(c->ath_list.next, ath, list);
}

TEST(RegistryTest, AddFindSearchAndFlush) {
  node_tables c = {};
  for (sa_list* head : {&c.ath_list, &c.module_client_list})
    INIT_SA_LIST_HEAD(head);
  char buffer[COMMAND_SIZE];
  ASSERT_EQ(0, zunta_ath_add(&c, buffer, "127.0.4.1", "AA:BB:CC:DD:EE:01", 7, 1));
  ath* first = front(&c);
  ASSERT_EQ(0, zunta_ath_add(&c, buffer, "127.0.4.1", "aa:bb:cc:dd:ee:02", 7, 2));
  ASSERT_EQ(0, zunta_ath_add(&c, buffer, "127.000.004.0003", "AA:BB:CC:DD:EE:02:FF", 7, 1));  // cut to fit
  ath* last = front(&c);
  EXPECT_EQ(-1, zunta_ath_add(&c, buffer, "127.0.4.30", "aa:bb:cc:dd:ee:30", 7, 0))
      << "its agent is unreachable";
  EXPECT_EQ(3, c.ath_count);
  EXPECT_EQ(last, front(&c));
  EXPECT_STREQ("127.000.004.000", last->ip);
  EXPECT_STREQ("aa:bb:cc:dd:ee:02", last->mac);
  EXPECT_STREQ("aa:bb:cc:dd:ee:01", first->mac);
  EXPECT_EQ(1, zunta_ath_find(&c, "127.0.4.1", 2));
  EXPECT_EQ(0, zunta_ath_find(&c, "127.0.4.1", 3));
  EXPECT_EQ(0, zunta_ath_find(&c, "127.0.4.2", 1));
  ath* found = nullptr;
  EXPECT_EQ(0, zunta_ath_search(&c, &found, "AA:BB:CC:DD:EE:01"));  // the given MAC is not folded
  EXPECT_EQ(nullptr, found);
  EXPECT_EQ(1, zunta_ath_search(&c, &found, "aa:bb:cc:dd:ee:01"));
  EXPECT_EQ(first, found);
  EXPECT_EQ(1, zunta_ath_search(&c, &found, "aa:bb:cc:dd:ee:02"));  // the front-most of two
  EXPECT_EQ(last, found);

  zunta_flush_ath(&c);
  EXPECT_EQ(0, c.ath_count);
  EXPECT_TRUE(sa_list_empty(&c.ath_list));

  // Every discovery fills and flushes the registry: a hundred of them leave nothing behind, the
  // neighbours of the aths included (the allocator's own caches account for a few hundred bytes).
  auto discovery = [&] {
    zunta_ath_add(&c, buffer, "127.0.4.1", "aa:bb:cc:dd:ee:01", 7, 1);
    char lines[] = "aa:bb:cc:dd:ee:0a,2,1\naa:bb:cc:dd:ee:0b,2,1\n";
    zunta_parse_mesh_list(front(&c), lines);
    zunta_flush_ath(&c);
  };
  discovery();
  const auto in_use = static_cast<int64_t>(mallinfo2().uordblks);
  for (int i = 0; i < 100; ++i)
    discovery();
  EXPECT_LT(static_cast<int64_t>(mallinfo2().uordblks) - in_use, 1024);
}

}  // namespace
