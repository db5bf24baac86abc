#include <gtest/gtest.h>

#include <cstring>

#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training_records.h"
#include "training/zunta_training.h"

TEST(TrainingRunTest, BadStartsSendNothingAndAnAnswerWithoutResultsRecordsNothing) {
  txcs_block block = {};
  const txcs_block zero = {};
  auto mp = pair_of<mesh_pair>(1, 2, &block);
  fake_agent left(mp.left_ip, test_agent_port(), {{"ack"}});
  mp.txcs_count = 3;  // round r would fill record 3 + r
  zunta_mp_training(&mp, command);
  mp.txcs_count = 0;
  mp.txcs = nullptr;
  zunta_mp_training(&mp, command);
  EXPECT_TRUE(left.commands().empty());
  EXPECT_EQ(0, mp.trained);
  // A node that acknowledges the stop of a round without a result line about its peer.
  mp.txcs = &block;
  EXPECT_EQ(0, zunta_stop_training(command, &mp, mp.right_mac, mp.left_mac, mp.left_ip));
  EXPECT_EQ(1u, left.commands().size());
  EXPECT_EQ(0, std::memcmp(&zero, &block, sizeof block));
}
