// The node registry: insertion with and without the client list, lookups, and flushes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"
#include "registry/zunta_ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (sa_list* head : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                          &c_.module_client_list}) {
      INIT_SA_LIST_HEAD(head);
    }
  }
  void TearDown() override {
    zunta_flush_ath(&c_);
    sa_list_for_each_entry_safe(client, &c_.module_client_list, module_client, list) std::free(client);
  }
  int add(const char* ip, const char* mac, int32_t eth_index) {
    return zunta_ath_add(&c_, buffer_, ip, mac, 7, eth_index);
  }
  ath* front() { return sa_list_entry(c_.ath_list.next, ath, list); }
  void add_neighbour(const char* mac) {
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    zunta_copy_text(n->mac, mac);
    sa_list_add(&n->list, &front()->neighbours);
  }

  struct coordinator c_ = {};
  char buffer_[COMMAND_SIZE] = {};
};

// Non-zero eth_index: nothing listens on these addresses, so contacting an agent would fail the add.
TEST_F(RegistryTest, AddFindAndSearch) {
  ASSERT_EQ(0, add("127.0.4.1", "AA:BB:CC:DD:EE:01", 1));
  ath* first = front();
  ASSERT_EQ(0, add("127.0.4.1", "aa:bb:cc:dd:ee:02", 2));
  ASSERT_EQ(0, add("127.000.004.0003", "AA:BB:CC:DD:EE:02:FF", 1));  // cut to their fields
  EXPECT_EQ(3, c_.ath_count);
  EXPECT_STREQ("127.000.004.000", front()->ip);
  EXPECT_STREQ("aa:bb:cc:dd:ee:02", front()->mac);
  EXPECT_STREQ("aa:bb:cc:dd:ee:01", first->mac);
  EXPECT_EQ(7, first->discovery_value);
  EXPECT_EQ(1, zunta_ath_find(&c_, "127.0.4.1", 2));
  EXPECT_EQ(0, zunta_ath_find(&c_, "127.0.4.1", 3));
  EXPECT_EQ(0, zunta_ath_find(&c_, "127.0.4.2", 1));
  ath* found = nullptr;
  EXPECT_EQ(0, zunta_ath_search(&c_, &found, "AA:BB:CC:DD:EE:01"));  // the given MAC is not folded
  EXPECT_EQ(nullptr, found);
  EXPECT_EQ(1, zunta_ath_search(&c_, &found, "aa:bb:cc:dd:ee:01"));
  EXPECT_EQ(first, found);
  EXPECT_EQ(1, zunta_ath_search(&c_, &found, "aa:bb:cc:dd:ee:02"));  // the later of two
  EXPECT_EQ(front(), found);
}

TEST_F(RegistryTest, FirstInterfaceFetchesClientsAndUnreachableAgentAddsNothing) {
  fake_agent agent("127.0.4.20", test_agent_port(), {{"aa:bb:cc:dd:ee:21,5\naa:bb:cc:dd:ee:22\n", "ack"}});
  ASSERT_TRUE(agent.running());
  ASSERT_EQ(0, add("127.0.4.20", "aa:bb:cc:dd:ee:20", 0));
  agent.stop();
  EXPECT_EQ(std::vector<std::string>{"9,-1,127.0.0.1 00:00:00:00:00:00"}, agent.commands());
  EXPECT_EQ(2, c_.module_client_count);
  EXPECT_STREQ("127.0.4.20", sa_list_entry(c_.module_client_list.next, module_client, list)->ip);
  ath* before = front();
  EXPECT_EQ(-1, add("127.0.4.30", "aa:bb:cc:dd:ee:30", 0));
  EXPECT_EQ(1, c_.ath_count);
  EXPECT_EQ(before, front());
  EXPECT_EQ(&c_.ath_list, before->list.next);
}

// The neighbours go with their ath, and no link or pair keeps pointing at a freed ath.
TEST_F(RegistryTest, FlushFreesNeighboursAndClearsPairReferences) {
  ASSERT_EQ(0, add("127.0.4.1", "aa:bb:cc:dd:ee:01", 1));
  add_neighbour("aa:bb:cc:dd:ee:0a");
  ASSERT_EQ(0, add("127.0.4.2", "aa:bb:cc:dd:ee:02", 1));
  add_neighbour("aa:bb:cc:dd:ee:0b");
  add_neighbour("aa:bb:cc:dd:ee:0c");
  mesh_link link = {};
  mesh_pair mp = {};
  trained_mesh_pair tp = {};
  link.ath = mp.left_ath = tp.left_ath = front();
  mp.right_ath = tp.right_ath = sa_list_entry(c_.ath_list.prev, ath, list);
  sa_list_add(&link.list, &c_.mesh_link_list);
  sa_list_add(&mp.list, &c_.mesh_pair_list);
  sa_list_add(&tp.list, &c_.trained_mesh_pair_list);
  zunta_flush_ath(&c_);
  EXPECT_EQ(0, c_.ath_count);
  EXPECT_TRUE(sa_list_empty(&c_.ath_list));
  EXPECT_TRUE(!link.ath && !mp.left_ath && !mp.right_ath && !tp.left_ath && !tp.right_ath);
  EXPECT_EQ(&tp.list, c_.trained_mesh_pair_list.next);  // the pairs themselves stay
  for (sa_list* head : {&c_.mesh_link_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list})
    INIT_SA_LIST_HEAD(head);
}

TEST_F(RegistryTest, MissingArgumentsAreRefused) {
  ath* out = nullptr;
  EXPECT_EQ(-1, zunta_ath_add(nullptr, buffer_, "127.0.4.1", "aa:bb:cc:dd:ee:01", 0, 1));
  EXPECT_EQ(-1, zunta_ath_find(nullptr, "127.0.4.1", 1));
  EXPECT_EQ(-1, zunta_ath_search(nullptr, &out, "aa:bb:cc:dd:ee:01"));
  EXPECT_EQ(-1, zunta_ath_search(&c_, nullptr, "aa:bb:cc:dd:ee:01"));
  zunta_flush_ath(nullptr);
  zunta_flush_ath_neighbors(nullptr);
}

}  // namespace
