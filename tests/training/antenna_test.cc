// Choice of the transmit and receive patterns and their application to the nodes.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "meshpair/meshpair.h"
#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training.h"
#include "training/training_records.h"

using commands = std::vector<std::string>;

TEST(BestPatternTest, HighestSumOfAQualifyingReportedRoundWinsAndTheEarlierRoundWinsTies) {
  // Rounds 6 and 12 sum to the given values, every other round to its index; round 12 reports
  // the given left pattern where 0 was commanded. Then the expected left and right patterns.
  const int32_t cases[][6] = {
      {2, 6, 12, 0, 3, 3},    // rising: round 15
      {2, 50, 50, 0, 2, 1},   // tie: the earlier round
      {2, 6, 50, 2, 2, 3},    // the reported pattern, not the commanded one
      {2, 20, 50, 4, 2, 1},   // a report outside 0..3 is never best
      {1, 6, 12, 0, -1, -1},  // another radio: no round qualifies, no pattern
  };
  for (const auto& [radio, sum6, sum12, left12, left, right] : cases) {
    SCOPED_TRACE(left12 * 100 + sum6);
    txcs_block block = {};
    auto tp = pair_of<trained_mesh_pair>(91, 92, &block);
    tp.radioidx = radio;
    tp.left_tx_pattern = tp.right_tx_pattern = 1;
    for (int i = 0; i < 16; ++i) {
      txcs_record& rec = block.rounds[i];
      rec.left_pattern = i == 12 ? left12 : i % 4;
      rec.right_pattern = i / 4;
      const float sum = i == 6 ? sum6 : i == 12 ? sum12 : i;
      rec.left_avg_bitrate_ma = i % 2 == 0 ? sum : 0;  // both ends count, unevenly
      rec.right_avg_bitrate_ma = sum - rec.left_avg_bitrate_ma;
    }
    zunta_compute_best_mp_training(&tp);
    EXPECT_EQ(left, tp.left_tx_pattern);
    EXPECT_EQ(right, tp.right_tx_pattern);
  }
}

TEST(RxAntennaTest, ScoresSumBothSidesAgainstTheBenchmarkAndPatternsOutOfRangeCountNothing) {
  // a (11) is the left end of 11-12, the right end of 14-11 and the left end of 11-15; d (12) has
  // this one neighbour and a trained pattern that names no round; e (13) has two neighbours and no pair.
  mesh_tables c = {};
  INIT_SA_LIST_HEAD(&c.ath_list);
  INIT_SA_LIST_HEAD(&c.trained_mesh_pair_list);
  ath n[3] = {};
  for (int i = 0; i < 3; ++i) {
    name_node(n[i].ip, n[i].mac, 11 + i);
    n[i].neighbour_count = i == 1 ? 1 : 2;
    n[i].is_mesh_node = 1;
    sa_list_add(&n[i].list, &c.ath_list);
  }
  n[0].rx_score[0] = 999;  // left from an earlier run
  std::vector<txcs_block> b(3);
  trained_mesh_pair tp[3] = {pair_of<trained_mesh_pair>(11, 12, &b[0]),
                             pair_of<trained_mesh_pair>(14, 11, &b[1]),
                             pair_of<trained_mesh_pair>(11, 15, &b[2])};
  const int32_t tx[3][2] = {{0, 9}, {2, 1}, {2, 3}};
  for (int i = 0; i < 3; ++i) {
    tp[i].left_tx_pattern = tx[i][0];
    tp[i].right_tx_pattern = tx[i][1];
    sa_list_add(&tp[i].list, &c.trained_mesh_pair_list);
  }
  // a in 11-12: nothing, although any round read against its benchmark would show (rounds 36 to
  // 39 of b[0], were pattern 9 used, lie in b[2]); a in 14-11: rounds 2, 6, 10, 14 against 15 give
  // -300, -100, -200, -300; a in 11-15: rounds 12 to 15 against 15 give 100, -300, 50, 0.
  b[0].rounds[15].right_avg_bitrate_ma = 1000;
  const float left_of_a[] = {100, 300, 200, 100}, right_of_a[] = {500, 100, 450, 400};
  for (int p = 0; p < 4; ++p) {
    b[1].rounds[2 + 4 * p].left_avg_bitrate_ma = left_of_a[p];
    b[2].rounds[12 + p].right_avg_bitrate_ma = right_of_a[p];
  }
  b[1].rounds[15].left_avg_bitrate_ma = 400;
  fake_agent agent_a(n[0].ip, test_agent_port(), {{"ack"}}), agent_e(n[2].ip, test_agent_port(), {{"ack"}});
  EXPECT_EQ(0, zunta_compute_rx_antennas(&c, command));
  // All worse than the benchmark: the least bad wins. All equal (e): pattern 0.
  EXPECT_EQ((std::vector<float>{-200, -400, -150, -300}),
            std::vector<float>(n[0].rx_score, n[0].rx_score + 4));
  EXPECT_EQ(commands{"11,2,127.0.0.1 00:00:00:00:00:00"}, agent_a.commands());
  EXPECT_EQ(commands{"11,0,127.0.0.1 00:00:00:00:00:00"}, agent_e.commands());
  EXPECT_EQ((std::vector<int32_t>{2, -1, 0}),
            (std::vector<int32_t>{n[0].rx_pattern, n[1].rx_pattern, n[2].rx_pattern}));
}

TEST(PatternApplicationTest, RightEndIsServedWithoutTheLeftAndRefusedPairsSendNothing) {
  auto tp = pair_of<trained_mesh_pair>(21, 22, nullptr);  // nobody listens on the left end
  fake_agent right(tp.right_ip, test_agent_port(), {{"ack"}});
  // Trained on another radio, or a stored pattern outside 0..3 at either end: nothing is sent.
  for (const auto& [radio, left_tx, right_tx] : {std::array{1, 1, 2}, {2, 4, 2}, {2, 1, -1}}) {
    tp.radioidx = radio;
    tp.left_tx_pattern = left_tx;
    tp.right_tx_pattern = right_tx;
    zunta_set_best_antenna_pattern(&tp, command);
  }
  tp.right_tx_pattern = 2;
  zunta_set_best_antenna_pattern(&tp, command);
  EXPECT_EQ(commands{"10,2,127.0.0.1 aa:00:00:00:06:21"}, right.commands());
}
