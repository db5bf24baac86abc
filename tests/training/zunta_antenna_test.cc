#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training_records.h"
#include "training/zunta_training.h"

using commands = std::vector<std::string>;

TEST(PatternApplicationTest, EachEndGetsItsPatternWhateverTheOtherDoes) {
  training_records t;
  ath* left = t.add_ath("127.0.6.21", "aa:00:00:00:06:21", 1);
  ath* right = t.add_ath("127.0.6.22", "aa:00:00:00:06:22", 1);
  auto* mp = t.add_pair<mesh_pair>(left, right);
  trained_mesh_pair* tp = t.add_pair(left, right, 1, 2);
  std::memset(command, 'x', sizeof command - 1);  // leftovers the default setting must not carry
  fake_agent right_agent(right->ip, test_agent_port(), {{"ack"}});
  {
    fake_agent left_agent(left->ip, test_agent_port(), {{"ack"}});
    zunta_set_default_antenna_pattern(mp);
    zunta_set_manual_antenna_pattern(mp, command, 1, 2);
    left_agent.stop();
    EXPECT_EQ((commands{"2,3,127.0.0.1 aa:00:00:00:06:22", "2,1,127.0.0.1 aa:00:00:00:06:22"}),
              left_agent.commands());
  }
  zunta_set_best_antenna_pattern(tp, command);  // the left agent is gone: the right one still gets its own
  // Trained on another radio, or outside 0..3: nothing is applied.
  for (int32_t bad : {4, -1}) {
    tp->right_tx_pattern = bad;
    zunta_set_best_antenna_pattern(tp, command);
  }
  tp->right_tx_pattern = 2;
  tp->radioidx = 1;
  zunta_set_best_antenna_pattern(tp, command);
  right_agent.stop();
  EXPECT_EQ((commands{"2,3,127.0.0.1 aa:00:00:00:06:21", "2,2,127.0.0.1 aa:00:00:00:06:21",
                      "10,2,127.0.0.1 aa:00:00:00:06:21"}),
            right_agent.commands());
  const std::string frame = right_agent.frames().at(0);
  EXPECT_EQ(std::string::npos, frame.find_first_not_of('\0', frame.find('\n') + 1));
}
