#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training.h"
#include "training/training_records.h"

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

TEST(TrainingRunTest, BestIsTheHighestSumWhateverPatternItReportsAndTiesKeepTheEarlierRound) {
  txcs_block block = {};
  auto mp = pair_of<mesh_pair>(3, 4, &block);  // nobody listens for the right node
  // The left agent answers its four commands of a round; the fourth (command 5) reports
  // (pattern, moving average): round 1 ties round 0, round 2 is the best although its pattern is
  // out of range, round 3 reports 2 where 3 was commanded; the later rounds are worse.
  const std::pair<int, int> reports[] = {{0, 100}, {1, 100}, {7, 900}, {2, 200}};
  fake_agent::script script;
  for (int r = 0; r < 16; ++r) {
    auto [pattern, ma] = r < 4 ? reports[r] : std::pair<int, int>{r % 4, 50};
    char line[80];
    std::snprintf(line, sizeof line, "%s,2,0x%x,%d,1,1,%d\n", mp.right_mac, pattern, ma, ma);
    script.insert(script.end(), {{"ack"}, {"ack"}, {"ack"}, {line, "ack"}});
  }
  fake_agent left(mp.left_ip, test_agent_port(), script);
  capture_stdout out;
  zunta_mp_training(&mp, command);
  left.stop();
  std::vector<std::string> fallbacks;
  for (const std::string& c : left.commands())
    if (c.rfind("2,", 0) == 0) fallbacks.push_back(c.substr(c.find(",1.8.0.") + 7, 1));
  EXPECT_EQ((std::vector<std::string>{"0", "0", "0", "7", "7", "7", "7", "7", "7", "7", "7", "7", "7", "7",
                                      "7", "7"}),
            fallbacks);
  EXPECT_EQ(1, mp.trained);
  // Only round 2 reports (7, 0): it alone carries the mark.
  std::string table = out.text();
  EXPECT_EQ(1, static_cast<int>(std::count(table.begin(), table.end(), '*'))) << table;
  EXPECT_NE(std::string::npos, table.find(std::string("  2, ") + mp.left_mac + ", 0x7,     1 Mbps, " +
                                          mp.right_mac + ", 0x0,     0 Mbps *\n"))
      << table;
}
