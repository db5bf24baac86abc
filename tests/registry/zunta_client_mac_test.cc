// Client MAC sharing: parsing a node's client list, and the commands each mesh node's agent gets.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "registry/zunta_ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

class ClientMacTest : public ::testing::Test {
 protected:
  void SetUp() override {
    INIT_SA_LIST_HEAD(&c_.ath_list);
    INIT_SA_LIST_HEAD(&c_.module_client_list);
  }
  void TearDown() override {
    sa_list_for_each_entry_safe(a, &c_.ath_list, ath, list) std::free(a);
    clear_clients();
  }
  void clear_clients() {
    sa_list_for_each_entry_safe(client, &c_.module_client_list, module_client, list) std::free(client);
    INIT_SA_LIST_HEAD(&c_.module_client_list);
    c_.module_client_count = 0;
  }
  // Registers an ath directly (no agent involved), at the front as the registry does.
  ath* add_ath(const char* ip, const char* mac, int32_t eth_index, bool mesh_node) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->ip, ip);
    zunta_copy_text(a->mac, mac);
    a->eth_index = eth_index;
    a->is_mesh_node = mesh_node ? 1 : 0;
    INIT_SA_LIST_HEAD(&a->neighbours);
    sa_list_add(&a->list, &c_.ath_list);
    c_.ath_count++;
    return a;
  }
  std::vector<std::string> client_macs() {
    std::vector<std::string> macs;
    sa_list_for_each_entry(client, &c_.module_client_list, module_client, list) {
      macs.push_back(client->mac);
      EXPECT_STREQ("127.0.4.40", client->ip);
    }
    return macs;
  }

  struct coordinator c_ = {};
  char buffer_[COMMAND_SIZE] = {};
};

TEST_F(ClientMacTest, ClientListLinesBecomeModuleClients) {
  ath* node = add_ath("127.0.4.40", "aa:bb:cc:dd:ee:40", 0, false);
  struct {
    const char* response;
    std::vector<std::string> macs;  // front to back
  } cases[] = {
      {"aa:bb:cc:dd:ee:01,x\naa:bb:cc:dd:ee:02\n", {"aa:bb:cc:dd:ee:02", "aa:bb:cc:dd:ee:01"}},
      {"aa:bb:cc:dd:ee:01\naa:bb:cc:dd:ee:02", {"aa:bb:cc:dd:ee:01"}},  // no line feed: not a line
      {"", {}},
      {"\n,aa:bb:cc:dd:ee:03\n", {}},
      {"AA:BB:CC:DD:EE:04,1,2\n", {"AA:BB:CC:DD:EE:04"}},  // case kept
      // A first field longer than a MAC is skipped, not cut into one.
      {"aa:bb:cc:dd:ee:05x,1\naa:bb:cc:dd:ee:0600000000000000000000\naa:bb:cc:dd:ee:07\n",
       {"aa:bb:cc:dd:ee:07"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.response);
    clear_clients();
    char response[ANSWER_SIZE] = {};
    zunta_copy_text(response, c.response);
    EXPECT_EQ(0, zunta_save_client_macs(&c_, response, node));
    EXPECT_EQ(c.macs, client_macs());
    EXPECT_EQ(static_cast<int32_t>(c.macs.size()), c_.module_client_count);
  }
}

// Every mesh node learns the MACs of the other mesh nodes (another MAC, or its own MAC on another
// interface) before its own optimisation command; a node that is not a mesh node is left out.
TEST_F(ClientMacTest, SharingSendsOtherMeshMacsThenOptimisation) {
  const fake_agent::script acks = {{"ack"}};
  fake_agent agent_a("127.0.4.41", test_agent_port(), acks);
  fake_agent agent_b("127.0.4.42", test_agent_port(), acks);
  fake_agent agent_c("127.0.4.43", test_agent_port(), acks);
  fake_agent agent_d("127.0.4.44", test_agent_port(), acks);
  ASSERT_TRUE(agent_a.running() && agent_b.running() && agent_c.running() && agent_d.running());
  add_ath("127.0.4.41", "aa:bb:cc:dd:ee:41", 0, true);
  add_ath("127.0.4.42", "aa:bb:cc:dd:ee:42", 0, true);
  add_ath("127.0.4.43", "aa:bb:cc:dd:ee:43", 0, false);
  add_ath("127.0.4.44", "aa:bb:cc:dd:ee:42", 1, true);  // second interface of B's MAC

  EXPECT_EQ(0, zunta_share_ath_mac(&c_, buffer_));
  for (fake_agent* agent : {&agent_a, &agent_b, &agent_c, &agent_d})
    agent->stop();
  const std::string mac_a = "0,-1,127.0.0.1 aa:bb:cc:dd:ee:41";
  const std::string mac_b = "0,-1,127.0.0.1 aa:bb:cc:dd:ee:42";
  EXPECT_EQ((std::vector<std::string>{mac_b, mac_b, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:41"}), agent_a.commands());
  EXPECT_EQ((std::vector<std::string>{mac_b, mac_a, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:42"}), agent_b.commands());
  EXPECT_TRUE(agent_c.commands().empty());
  EXPECT_EQ((std::vector<std::string>{mac_b, mac_a, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:42"}), agent_d.commands());
}

TEST_F(ClientMacTest, FailedOptimisationStopsSharing) {
  fake_agent later("127.0.4.45", test_agent_port(), {{"ack"}});
  ASSERT_TRUE(later.running());
  add_ath("127.0.4.45", "aa:bb:cc:dd:ee:45", 0, true);
  add_ath("127.0.4.46", "aa:bb:cc:dd:ee:46", 0, true);  // served first; no agent listens there
  EXPECT_EQ(-1, zunta_share_ath_mac(&c_, buffer_));
  later.stop();
  EXPECT_TRUE(later.commands().empty());
}

TEST_F(ClientMacTest, SingleMeshNodeOnlyStartsOptimisation) {
  fake_agent agent("127.0.4.47", test_agent_port(), {{"ack"}});
  ASSERT_TRUE(agent.running());
  add_ath("127.0.4.47", "aa:bb:cc:dd:ee:47", 0, true);
  EXPECT_EQ(0, zunta_share_ath_mac(&c_, buffer_));
  agent.stop();
  EXPECT_EQ(std::vector<std::string>{"6,-1,127.0.0.1 aa:bb:cc:dd:ee:47"}, agent.commands());
}

TEST_F(ClientMacTest, ResetAndMissingArguments) {
  ath* a = add_ath("127.0.4.48", "aa:bb:cc:dd:ee:48", 0, true);
  a->rx_pattern = 2;
  a->rx_score[3] = 5.0f;
  zunta_reset_ath_rx_stats(a);
  EXPECT_EQ(RX_PATTERN_NONE, a->rx_pattern);
  for (float score : a->rx_score)
    EXPECT_EQ(0.0f, score);
  char response[] = "aa:bb:cc:dd:ee:01\n";
  EXPECT_EQ(-1, zunta_save_client_macs(nullptr, response, a));
  EXPECT_EQ(-1, zunta_save_client_macs(&c_, response, nullptr));
  EXPECT_EQ(-1, zunta_share_ath_mac(nullptr, buffer_));
  zunta_reset_ath_rx_stats(nullptr);
}

}  // namespace
