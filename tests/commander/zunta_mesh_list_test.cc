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

struct neighbour_view {
  std::string mac;
  int32_t radioidx;
  int32_t pattern;
  bool operator==(const neighbour_view& o) const {
    return mac == o.mac && radioidx == o.radioidx && pattern == o.pattern;
  }
};

class MeshListTest : public ::testing::Test {
 protected:
  void SetUp() override { INIT_SA_LIST_HEAD(&node_.neighbours); }
  void TearDown() override { clear(); }
  void clear() {
    sa_list_for_each_entry_safe(n, &node_.neighbours, neighbour, list) std::free(n);
    INIT_SA_LIST_HEAD(&node_.neighbours);
    node_.neighbour_count = 0;
  }
  std::vector<neighbour_view> neighbours() {
    std::vector<neighbour_view> seen;
    sa_list_for_each_entry(n, &node_.neighbours, neighbour, list)
        seen.push_back({n->mac, n->radioidx, n->pattern});
    return seen;
  }

  ath node_ = {};
  char buffer_[COMMAND_SIZE] = {};
};

TEST_F(MeshListTest, AnswerLinesBecomeNeighbours) {
  struct {
    const char* name;
    fake_agent::script replies;
    std::vector<neighbour_view> expected;  // front to back: the last line first
  } cases[] = {
      {"radio -1 ignored",
       {{"aa:bb:cc:dd:ee:01,2,3\naa:bb:cc:dd:ee:02,-1,0\n", "ack"}},
       {{"aa:bb:cc:dd:ee:01", 2, 3}}},
      {"order and duplicates",
       {{"aa:bb:cc:dd:ee:01,2,3\naa:bb:cc:dd:ee:02,1,0,extra\naa:bb:cc:dd:ee:01,2,3\n", "ack"}},
       {{"aa:bb:cc:dd:ee:01", 2, 3}, {"aa:bb:cc:dd:ee:02", 1, 0}, {"aa:bb:cc:dd:ee:01", 2, 3}}},
      {"last line without line feed",
       {{"aa:bb:cc:dd:ee:01,2,3\naa:bb:cc:dd:ee:02,2,1", "ack"}},
       {{"aa:bb:cc:dd:ee:01", 2, 3}}},
      {"empty answer", {{"ack"}}, {}},
      {"case kept, short and overlong lines skipped",
       {{"AA:BB:CC:DD:EE:0A,1,2\naa:bb:cc:dd:ee:01x,1,2\naa:bb:cc:dd:ee:03,2\n\n", "ack"}},
       {{"AA:BB:CC:DD:EE:0A", 1, 2}}},
      // An unmarked answer is repeated; the text of every attempt counts.
      {"text of every attempt",
       {{"aa:bb:cc:dd:ee:01,2,0\n"}, {"aa:bb:cc:dd:ee:02,2,1\n", "ack"}},
       {{"aa:bb:cc:dd:ee:02", 2, 1}, {"aa:bb:cc:dd:ee:01", 2, 0}}},
  };
  int host = 100;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    std::string ip = "127.0.3." + std::to_string(host++);
    fake_agent agent(ip.c_str(), test_agent_port(), c.replies);
    ASSERT_TRUE(agent.running());
    zunta_copy_text(node_.ip, ip.c_str());
    EXPECT_EQ(0, zunta_get_mesh_list(buffer_, &node_));
    agent.stop();
    EXPECT_EQ("1,-1,127.0.0.1 00:00:00:00:00:00", agent.commands().at(0));
    EXPECT_EQ(c.expected, neighbours());
    EXPECT_EQ(static_cast<int32_t>(c.expected.size()), node_.neighbour_count);
  }
}

TEST_F(MeshListTest, FailedCommandOrMissingNodeAddsNothing) {
  zunta_copy_text(node_.ip, "127.0.3.120");  // nothing listens there
  EXPECT_EQ(-1, zunta_get_mesh_list(buffer_, &node_));
  EXPECT_TRUE(neighbours().empty());
  EXPECT_EQ(0, node_.neighbour_count);
  EXPECT_EQ(-1, zunta_get_mesh_list(buffer_, nullptr));
}

}  // namespace
