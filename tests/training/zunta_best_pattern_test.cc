#include <gtest/gtest.h>

#include "training/training_records.h"
#include "training/zunta_training.h"

TEST(BestPatternTest, HighestSumOfAQualifyingReportedRoundWinsAndTheEarlierRoundWinsTies) {
  const struct {
    int32_t radioidx;
    float top[2];      // sums of rounds 6 and 12; every other round sums to its index
    int32_t odd_left;  // round 12 reports this left pattern instead of the commanded 0
    int32_t left, right;
  } cases[] = {
      {2, {6, 12}, 0, 3, 3},   // rising: round 15
      {2, {50, 50}, 0, 2, 1},  // tie: the earlier round
      {2, {6, 50}, 2, 2, 3},   // the reported pattern, not the commanded one
      {2, {20, 50}, 4, 2, 1},  // a report outside 0..3 is never best
      {1, {6, 12}, 0, 1, 1},   // another radio: no round qualifies, the patterns stay
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.odd_left * 100 + c.top[0]);
    training_records t;
    trained_mesh_pair* tp = t.add_pair(t.add_ath("127.0.6.91", "aa:00:00:00:00:01", 1),
                                       t.add_ath("127.0.6.92", "aa:00:00:00:00:02", 1), 1, 1);
    tp->radioidx = c.radioidx;
    for (int i = 0; i < 16; ++i) {
      txcs_record& rec = tp->txcs->rounds[i];
      rec.left_pattern = i == 12 ? c.odd_left : i % 4;
      rec.right_pattern = i / 4;
      const float sum = i == 6 ? c.top[0] : i == 12 ? c.top[1] : i;
      rec.left_avg_bitrate_ma = sum / 4;
      rec.right_avg_bitrate_ma = sum - sum / 4;
    }
    zunta_compute_best_mp_training(tp);
    EXPECT_EQ(c.left, tp->left_tx_pattern);
    EXPECT_EQ(c.right, tp->right_tx_pattern);
  }
}
