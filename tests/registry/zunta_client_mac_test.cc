// Client MAC sharing: parsing a node's client list, and the commands each mesh node's agent gets.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "registry/zunta_ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

using lines = std::vector<std::string>;

class ClientMacTest : public ::testing::Test {
 protected:
  void SetUp() override {
    INIT_SA_LIST_HEAD(&c_.ath_list);
    INIT_SA_LIST_HEAD(&c_.module_client_list);
  }
  void TearDown() override {
    sa_list_for_each_entry_safe(a, &c_.ath_list, ath, list) std::free(a);
    sa_list_for_each_entry_safe(client, &c_.module_client_list, module_client, list) std::free(client);
  }
  // Registers an ath directly, at the front as the registry does; no agent is asked.
  ath* add_ath(const char* ip, const char* mac, int32_t eth_index, uint8_t mesh_node) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->ip, ip);
    zunta_copy_text(a->mac, mac);
    a->eth_index = eth_index;
    a->is_mesh_node = mesh_node;
    sa_list_add(&a->list, &c_.ath_list);
    return a;
  }

  struct coordinator c_ = {};
  char buffer_[COMMAND_SIZE] = {};
};

TEST_F(ClientMacTest, ClientListLinesBecomeModuleClients) {
  ath* node = add_ath("127.0.4.40", "aa:bb:cc:dd:ee:40", 0, 0);
  char response[ANSWER_SIZE] =
      "aa:bb:cc:dd:ee:01,x,y\n"
      "\n"
      ",aa:bb:cc:dd:ee:02\n"
      "AA:BB:CC:DD:EE:03\n"                 // case kept
      "aa:bb:cc:dd:ee:04x,1\n"              // longer than a MAC: skipped, not cut into one
      "aa:bb:cc:dd:ee:05000000000000000\n"  // the same without a comma
      "aa:bb:cc:dd:ee:06";                  // no line feed: not a line
  EXPECT_EQ(0, zunta_save_client_macs(&c_, response, node));
  lines macs;
  sa_list_for_each_entry(client, &c_.module_client_list, module_client, list) {
    macs.push_back(client->mac);
    EXPECT_STREQ("127.0.4.40", client->ip);
  }
  EXPECT_EQ((lines{"AA:BB:CC:DD:EE:03", "aa:bb:cc:dd:ee:01"}), macs);
  EXPECT_EQ(2, c_.module_client_count);
  EXPECT_EQ(-1, zunta_save_client_macs(nullptr, response, node));
  EXPECT_EQ(-1, zunta_save_client_macs(&c_, response, nullptr));
  EXPECT_EQ(-1, zunta_share_ath_mac(nullptr, buffer_));
}

// Each mesh node learns the MACs of the other mesh nodes (another MAC, or its own MAC on another
// interface) before its own optimisation command; a node that is not a mesh node is left out.
TEST_F(ClientMacTest, SharingSendsOtherMeshMacsThenOptimisation) {
  fake_agent a("127.0.4.41", test_agent_port(), {{"ack"}});
  fake_agent b("127.0.4.42", test_agent_port(), {{"ack"}});
  fake_agent c("127.0.4.43", test_agent_port(), {{"ack"}});
  fake_agent d("127.0.4.44", test_agent_port(), {{"ack"}});
  ASSERT_TRUE(a.running() && b.running() && c.running() && d.running());
  add_ath("127.0.4.41", "aa:bb:cc:dd:ee:41", 0, 1);
  add_ath("127.0.4.42", "aa:bb:cc:dd:ee:42", 0, 1);
  add_ath("127.0.4.43", "aa:bb:cc:dd:ee:43", 0, 0);
  add_ath("127.0.4.44", "aa:bb:cc:dd:ee:42", 1, 1);
  EXPECT_EQ(0, zunta_share_ath_mac(&c_, buffer_));
  for (fake_agent* agent : {&a, &b, &c, &d})
    agent->stop();
  const std::string to_a = "0,-1,127.0.0.1 aa:bb:cc:dd:ee:41", to_b = "0,-1,127.0.0.1 aa:bb:cc:dd:ee:42";
  EXPECT_EQ((lines{to_b, to_b, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:41"}), a.commands());
  EXPECT_EQ((lines{to_b, to_a, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:42"}), b.commands());
  EXPECT_EQ(lines{}, c.commands());
  EXPECT_EQ((lines{to_b, to_a, "6,-1,127.0.0.1 aa:bb:cc:dd:ee:42"}), d.commands());
}

TEST_F(ClientMacTest, FailedOptimisationStopsSharing) {
  fake_agent later("127.0.4.45", test_agent_port(), {{"ack"}});
  ASSERT_TRUE(later.running());
  add_ath("127.0.4.45", "aa:bb:cc:dd:ee:45", 0, 1);
  add_ath("127.0.4.46", "aa:bb:cc:dd:ee:46", 0, 1);  // served first; no agent listens there
  EXPECT_EQ(-1, zunta_share_ath_mac(&c_, buffer_));
  later.stop();
  EXPECT_EQ(lines{}, later.commands());
}

}  // namespace
