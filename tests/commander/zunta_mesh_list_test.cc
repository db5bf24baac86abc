// Command 1: the agent's neighbour lines become neighbour records of the node's ath.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "commander/zunta_command.h"
#include "registry/zunta_ath.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

// Each neighbour as "mac radioidx pattern", front to back: the last answer line first.
std::vector<std::string> fetch(const char* ip, fake_agent::script replies) {
  fake_agent agent(ip, test_agent_port(), std::move(replies));
  EXPECT_TRUE(agent.running());
  ath node = {};
  INIT_SA_LIST_HEAD(&node.neighbours);
  zunta_copy_text(node.ip, ip);
  char buffer[COMMAND_SIZE] = {};
  EXPECT_EQ(0, zunta_get_mesh_list(buffer, &node));
  agent.stop();
  EXPECT_FALSE(agent.commands().empty());
  for (const std::string& sent : agent.commands())
    EXPECT_EQ("1,-1,127.0.0.1 00:00:00:00:00:00", sent);
  std::vector<std::string> seen;
  sa_list_for_each_entry_safe(n, &node.neighbours, neighbour, list) {
    seen.push_back(std::string(n->mac) + " " + std::to_string(n->radioidx) + " " +
                   std::to_string(n->pattern));
    std::free(n);
  }
  EXPECT_EQ(static_cast<int32_t>(seen.size()), node.neighbour_count);
  return seen;
}

TEST(MeshListTest, AnswerLinesBecomeNeighbours) {
  struct {
    fake_agent::script replies;
    std::vector<std::string> expected;
  } cases[] = {
      {{{"aa:bb:cc:dd:ee:01,2,3\naa:bb:cc:dd:ee:02,-1,0\naa:bb:cc:dd:ee:03,1,0,more\naa:bb:cc:dd:ee:01,2,3\n",
         "ack"}},
       {"aa:bb:cc:dd:ee:01 2 3", "aa:bb:cc:dd:ee:03 1 0", "aa:bb:cc:dd:ee:01 2 3"}},
      {{{"ack"}}, {}},
      // Case kept; an overlong MAC, a missing field, an empty line and a line without its line
      // feed name no neighbour.
      {{{"AA:BB:CC:DD:EE:0A,1,2\naa:bb:cc:dd:ee:01x,1,2\naa:bb:cc:dd:ee:03,2\n\naa:bb:cc:dd:ee:04,2,1",
         "ack"}},
       {"AA:BB:CC:DD:EE:0A 1 2"}},
      // An unmarked answer is repeated; the lines of every attempt count.
      {{{"aa:bb:cc:dd:ee:01,2,0\n"}, {"aa:bb:cc:dd:ee:02,2,1\n", "ack"}},
       {"aa:bb:cc:dd:ee:02 2 1", "aa:bb:cc:dd:ee:01 2 0"}},
  };
  int host = 100;
  for (const auto& c : cases) {
    std::string ip = "127.0.3." + std::to_string(host++);
    SCOPED_TRACE(ip);
    EXPECT_EQ(c.expected, fetch(ip.c_str(), c.replies));
  }
  char buffer[COMMAND_SIZE] = {};
  EXPECT_EQ(-1, zunta_get_mesh_list(buffer, nullptr));
}

}  // namespace
