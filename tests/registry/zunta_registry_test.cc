// The node registry: insertion with and without the client list, lookups, and flushes that leave
// no reference to a freed ath behind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"
#include "registry/zunta_ath.h"
#include "support/capture_stdout.h"
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
  ath* front() { return sa_list_entry(c_.ath_list.next, ath, list); }
  std::vector<std::string> ath_macs() {
    std::vector<std::string> macs;
    sa_list_for_each_entry(a, &c_.ath_list, ath, list) macs.push_back(a->mac);
    return macs;
  }
  void add_neighbour(ath* a, const char* mac) {
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    zunta_copy_text(n->mac, mac);
    sa_list_add(&n->list, &a->neighbours);
    a->neighbour_count++;
  }

  struct coordinator c_ = {};
  char buffer_[COMMAND_SIZE] = {};
};

// Non-zero eth_index: nothing listens on these addresses, so any agent contact would fail the add.
TEST_F(RegistryTest, AddFindAndSearchWithoutAgent) {
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.1", "AA:BB:CC:DD:EE:01", 7, 1));
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.2", "aa:bb:cc:dd:ee:02", 0, 1));
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.1", "aa:bb:cc:dd:ee:03", 0, 2));
  EXPECT_EQ(3, c_.ath_count);
  EXPECT_EQ((std::vector<std::string>{"aa:bb:cc:dd:ee:03", "aa:bb:cc:dd:ee:02", "aa:bb:cc:dd:ee:01"}),
            ath_macs());

  ath* first = sa_list_entry(c_.ath_list.prev, ath, list);
  EXPECT_STREQ("127.0.4.1", first->ip);
  EXPECT_EQ(7, first->discovery_value);
  EXPECT_EQ(0, first->is_mesh_node);
  EXPECT_EQ(0, first->rx_pattern);
  EXPECT_TRUE(sa_list_empty(&first->neighbours));

  struct {
    const char* ip;
    int32_t eth_index;
    int expected;
  } finds[] = {{"127.0.4.1", 1, 1},
               {"127.0.4.1", 2, 1},
               {"127.0.4.1", 3, 0},
               {"127.0.4.2", 1, 1},
               {"127.0.4.3", 1, 0}};
  for (const auto& f : finds) {
    SCOPED_TRACE(std::string(f.ip) + " eth " + std::to_string(f.eth_index));
    EXPECT_EQ(f.expected, zunta_ath_find(&c_, f.ip, f.eth_index));
  }

  ath* found = nullptr;
  EXPECT_EQ(0, zunta_ath_search(&c_, &found, "AA:BB:CC:DD:EE:01"));  // the given MAC is not folded
  EXPECT_EQ(nullptr, found);
  EXPECT_EQ(1, zunta_ath_search(&c_, &found, "aa:bb:cc:dd:ee:01"));
  EXPECT_EQ(first, found);

  // A later record with the same MAC is met first.
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.5", "aa:bb:cc:dd:ee:02", 0, 1));
  EXPECT_EQ(1, zunta_ath_search(&c_, &found, "aa:bb:cc:dd:ee:02"));
  EXPECT_STREQ("127.0.4.5", found->ip);
}

TEST_F(RegistryTest, OverlongTextsAreCutToTheirFields) {
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.000.004.0001", "AA:BB:CC:DD:EE:01:FF", 0, 1));
  EXPECT_STREQ("127.000.004.000", front()->ip);
  EXPECT_STREQ("aa:bb:cc:dd:ee:01", front()->mac);
}

TEST_F(RegistryTest, FirstInterfaceFetchesItsClients) {
  fake_agent agent("127.0.4.20", test_agent_port(), {{"aa:bb:cc:dd:ee:21,5\naa:bb:cc:dd:ee:22\n", "ack"}});
  ASSERT_TRUE(agent.running());
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.20", "aa:bb:cc:dd:ee:20", 1, 0));
  agent.stop();
  EXPECT_EQ(std::vector<std::string>{"9,-1,127.0.0.1 00:00:00:00:00:00"}, agent.commands());
  EXPECT_EQ(1, c_.ath_count);
  ASSERT_EQ(2, c_.module_client_count);
  auto* client = sa_list_entry(c_.module_client_list.next, module_client, list);
  EXPECT_STREQ("aa:bb:cc:dd:ee:22", client->mac);
  EXPECT_STREQ("127.0.4.20", client->ip);
}

TEST_F(RegistryTest, UnreachableAgentLeavesTheRegistryAsItWas) {
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.1", "aa:bb:cc:dd:ee:01", 0, 1));
  ath* before = front();
  EXPECT_EQ(-1, zunta_ath_add(&c_, buffer_, "127.0.4.30", "aa:bb:cc:dd:ee:30", 0, 0));
  EXPECT_EQ(1, c_.ath_count);
  EXPECT_EQ(before, front());
  EXPECT_EQ(&c_.ath_list, before->list.next);
  EXPECT_EQ(0, c_.module_client_count);
}

TEST_F(RegistryTest, FlushLogsEachAthThenItsNeighbours) {
  log_level_scope verbose(3);
  {
    capture_stdout out;
    zunta_flush_ath(&c_);
    EXPECT_EQ("", out.text());
  }
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.1", "aa:bb:cc:dd:ee:01", 0, 1));
  add_neighbour(front(), "aa:bb:cc:dd:ee:0a");
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.2", "aa:bb:cc:dd:ee:02", 0, 1));
  add_neighbour(front(), "aa:bb:cc:dd:ee:0b");
  add_neighbour(front(), "aa:bb:cc:dd:ee:0c");
  capture_stdout out;
  zunta_flush_ath(&c_);
  std::string log = out.text();
  std::vector<std::string> order = {"ip: 127.0.4.2", "mac: aa:bb:cc:dd:ee:0c", "mac: aa:bb:cc:dd:ee:0b",
                                    "ip: 127.0.4.1", "mac: aa:bb:cc:dd:ee:0a"};
  std::size_t at = 0;
  for (const std::string& piece : order) {
    SCOPED_TRACE(piece);
    at = log.find(piece, at);
    ASSERT_NE(std::string::npos, at);
  }
  EXPECT_EQ(0, c_.ath_count);
  EXPECT_TRUE(sa_list_empty(&c_.ath_list));
}

// Mesh pairs and trained pairs outlive the aths they point at; the flush must not leave them
// pointing at freed records.
TEST_F(RegistryTest, FlushClearsEveryReferenceToTheFreedAths) {
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.1", "aa:bb:cc:dd:ee:01", 0, 1));
  ath* left = front();
  ASSERT_EQ(0, zunta_ath_add(&c_, buffer_, "127.0.4.2", "aa:bb:cc:dd:ee:02", 0, 1));
  ath* right = front();
  auto* link = static_cast<mesh_link*>(std::calloc(1, sizeof(mesh_link)));
  auto* mp = static_cast<mesh_pair*>(std::calloc(1, sizeof(mesh_pair)));
  auto* tp = static_cast<trained_mesh_pair*>(std::calloc(1, sizeof(trained_mesh_pair)));
  link->ath = left;
  mp->left_ath = tp->left_ath = left;
  mp->right_ath = tp->right_ath = right;
  sa_list_add(&link->list, &c_.mesh_link_list);
  sa_list_add(&mp->list, &c_.mesh_pair_list);
  sa_list_add(&tp->list, &c_.trained_mesh_pair_list);

  zunta_flush_ath(&c_);
  EXPECT_EQ(nullptr, link->ath);
  EXPECT_EQ(nullptr, mp->left_ath);
  EXPECT_EQ(nullptr, mp->right_ath);
  EXPECT_EQ(nullptr, tp->left_ath);
  EXPECT_EQ(nullptr, tp->right_ath);
  EXPECT_EQ(&tp->list, c_.trained_mesh_pair_list.next);  // the pairs themselves stay
  for (sa_list* node : {&link->list, &mp->list, &tp->list}) sa_list_del(node);
  std::free(link);
  std::free(mp);
  std::free(tp);
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
