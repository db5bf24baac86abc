// A dead agent costs one command's attempts per discovery: the registry steps do not ask it again
// until the agents are forgotten at the next discovery.
#include "registry/unanswering.h"

#include <gtest/gtest.h>

#include "registry/ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

TEST(UnansweringAgentTest, AnAgentThatLeftACommandUnansweredIsNotAskedAgainUntilTheNextDiscovery) {
  fake_agent::script refusals(21, {"nack"});
  refusals.push_back({"ack"});
  fake_agent agent("127.0.3.110", test_agent_port(), refusals);
  ASSERT_TRUE(agent.running());
  ath node = {};
  INIT_SA_LIST_HEAD(&node.neighbours);
  zunta_copy_text(node.ip, "127.0.3.110");
  char buffer[COMMAND_SIZE] = {};
  char answer[ANSWER_SIZE] = {};
  EXPECT_EQ(-1, zunta_get_mesh_list(buffer, &node));  // 21 refusals
  EXPECT_TRUE(zunta_agent_unanswering("127.0.3.110", AGENT_FAILED_REGISTRY));
  EXPECT_FALSE(zunta_agent_unanswering("127.0.3.110", AGENT_FAILED_TRAINING));
  EXPECT_EQ(-1, zunta_get_module_client_list(buffer, &node, answer));
  EXPECT_EQ(-1, zunta_send_ath_mac(buffer, &node, "aa:bb:cc:dd:ee:01"));
  EXPECT_EQ(-1, zunta_start_mesh_optimization(buffer, &node, "aa:bb:cc:dd:ee:01"));
  zunta_forget_unanswering_agents();
  EXPECT_FALSE(zunta_agent_unanswering("127.0.3.110", AGENT_FAILED_REGISTRY));
  EXPECT_EQ(0, zunta_send_ath_mac(buffer, &node, "aa:bb:cc:dd:ee:01"));
  agent.stop();
  EXPECT_EQ(22u, agent.commands().size());
  EXPECT_EQ("0,-1,127.0.0.1 aa:bb:cc:dd:ee:01", agent.commands().back());
  zunta_forget_unanswering_agents();
}
