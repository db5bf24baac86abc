#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "core/zunta_runtime.h"
#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training_records.h"
#include "training/zunta_training.h"

class TrainingRunTest : public ::testing::Test {
 protected:
  training_records t_;
  ath* left_ = t_.add_ath("127.0.6.1", "aa:00:00:00:06:01", 1);
  ath* right_ = t_.add_ath("127.0.6.2", "aa:00:00:00:06:02", 1);
  mesh_pair* mp_ = t_.add_pair<mesh_pair>(left_, right_);
};

TEST_F(TrainingRunTest, BestReportedRoundSoFarIsTheFallbackAndMarksTheTable) {
  // The left end reports moving averages (Mbps) and patterns; the right end never reports.
  // Round 2 ties round 1, round 3 reports a pattern no node can apply, round 4 reports 2 where 0
  // was commanded, round 15 ties round 4.
  const int mbps[16] = {10, 30, 30, 90, 50, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 50};
  const int fallback[16] = {0, 0, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2};
  auto reported = [](int r) { return r == 3 ? 7 : r == 4 ? 2 : r % 4; };
  fake_agent::script left_script, right_script;
  std::string want_left, want_right, rows;  // rows 2, 4, 6, 10 and 14 reported the best pair 2-0
  char text[160];
  for (int r = 0; r < 16; ++r) {
    std::snprintf(text, sizeof text, "%s,2,0x%d,%d,1,1,%d\n", right_->mac, reported(r), mbps[r] * 1000,
                  mbps[r] * 1000);
    left_script.insert(left_script.end(), {{"ack"}, {"ack"}, {"ack"}, {text, "ack"}});
    right_script.insert(right_script.end(), 4, {"ack"});
    const char* round =
        "2,%d,1.8.0.%d %s|4,-1,127.0.0.1 %s|8,-1,%s 00:00:00:00:00:00|5,-1,127.0.0.1 00:00:00:00:00:00|";
    std::snprintf(text, sizeof text, round, r % 4, fallback[r], right_->mac, right_->mac, right_->ip);
    want_left += text;
    std::snprintf(text, sizeof text, round, r / 4, 0, left_->mac, left_->mac, left_->ip);
    want_right += text;
    std::snprintf(text, sizeof text, "zunta-coord: %3d, %s, 0x%d, %5d Mbps, %s, 0x0,     0 Mbps %s\n", r,
                  left_->mac, reported(r), mbps[r], right_->mac, reported(r) == 2 ? "*" : "");
    rows += text;
  }
  fake_agent left(left_->ip, test_agent_port(), left_script);
  fake_agent right(right_->ip, test_agent_port(), right_script);
  capture_stdout out;
  zunta_mp_training(mp_, command);
  left.stop();
  right.stop();
  auto joined = [](const fake_agent& agent) {
    std::string all;
    for (const std::string& c : agent.commands())
      all += c + "|";
    return all;
  };
  EXPECT_EQ(want_left, joined(left));
  EXPECT_EQ(want_right, joined(right));
  EXPECT_EQ(16, mp_->txcs_count);
  EXPECT_EQ(1, mp_->trained);
  const std::string log = out.text();
  EXPECT_NE(std::string::npos, log.find(rows + "zunta-coord: TABLE_END\n"));
  for (int r = 1; r <= 16; ++r) {
    std::snprintf(text, sizeof text, "zunta-coord:  - Training progress: %.2f%%\n", r * 6.25);
    EXPECT_NE(std::string::npos, log.find(text)) << text;
  }
}

TEST_F(TrainingRunTest, PairNotAtRoundZeroOrWithoutBlockIsRefusedBeforeAnyCommand) {
  fake_agent left(left_->ip, test_agent_port(), {{"ack"}});
  mp_->txcs_count = 3;
  zunta_mp_training(mp_, command);
  mp_->txcs_count = 0;
  mp_->txcs = nullptr;  // the block stays owned by t_
  zunta_mp_training(mp_, command);
  left.stop();
  EXPECT_TRUE(left.commands().empty());
  EXPECT_EQ(0, mp_->trained);
}

TEST(TrainingStatusTest, StatusFileHoldsOneLine) {
  EXPECT_EQ(0, zunta_write_mp_training_status(-7));
  EXPECT_EQ("-7\n", read_file(zunta_training_status_path()));
}
