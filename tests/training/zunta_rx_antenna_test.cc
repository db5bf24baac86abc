#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training_records.h"
#include "training/zunta_training.h"

namespace {

using commands = std::vector<std::string>;

TEST(RxAntennaTest, SummedScoresChooseAndSingleLinksReceiveAsTheySend) {
  training_records t;
  // b - a - c, a on the right of one pair and on the left of the other; e has two neighbours but
  // no trained pair; d is no mesh node, and its pair with a holds a pattern that names no round.
  ath* a = t.add_ath("127.0.6.11", "aa:00:00:00:06:11", 2);
  ath* b = t.add_ath("127.0.6.12", "aa:00:00:00:06:12", 1);
  ath* c = t.add_ath("127.0.6.13", "aa:00:00:00:06:13", 1);
  ath* d = t.add_ath("127.0.6.14", "aa:00:00:00:06:14", 2, 0);
  ath* e = t.add_ath("127.0.6.15", "aa:00:00:00:06:15", 2);
  for (float& s : a->rx_score)
    s = 999;  // left from an earlier run
  d->rx_pattern = 3;
  trained_mesh_pair* ba = t.add_pair(b, a, 2, 1);
  trained_mesh_pair* ac = t.add_pair(a, c, 2, 3);
  trained_mesh_pair* ad = t.add_pair(a, d, 0, 9);
  // a in b-a: rounds 2, 6, 10, 14 against 15 give -300, -100, -200, -300;
  // a in a-c: rounds 12 to 15 against 15 give 100, -300, 50, 0; a in a-d: nothing.
  const float ba_left[] = {100, 300, 200, 100}, ac_right[] = {500, 100, 450, 400};
  for (int p = 0; p < 4; ++p) {
    ba->txcs->rounds[2 + 4 * p].left_avg_bitrate_ma = ba_left[p];
    ac->txcs->rounds[12 + p].right_avg_bitrate_ma = ac_right[p];
  }
  ba->txcs->rounds[15].left_avg_bitrate_ma = 400;
  for (txcs_record& rec : ad->txcs->rounds)
    rec.right_avg_bitrate_ma = 1000;
  std::vector<std::unique_ptr<fake_agent>> agents;
  for (const ath* n : {a, b, c, e})
    agents.push_back(std::make_unique<fake_agent>(n->ip, test_agent_port(), fake_agent::script{{"ack"}}));
  EXPECT_EQ(0, zunta_compute_rx_antennas(&t.coord, command));
  for (auto& agent : agents)
    agent->stop();
  const float want[] = {-200, -400, -150, -300};  // all worse than the benchmark
  for (int p = 0; p < 4; ++p)
    EXPECT_FLOAT_EQ(want[p], a->rx_score[p]);
  EXPECT_EQ(commands{"11,2,127.0.0.1 00:00:00:00:00:00"}, agents[0]->commands());
  EXPECT_EQ(commands{"2,2,127.0.0.1 aa:00:00:00:06:11"}, agents[1]->commands());   // b: left tx to a
  EXPECT_EQ(commands{"2,3,127.0.0.1 aa:00:00:00:06:11"}, agents[2]->commands());   // c: right tx to a
  EXPECT_EQ(commands{"11,0,127.0.0.1 00:00:00:00:00:00"}, agents[3]->commands());  // all equal
  EXPECT_EQ(
      (std::vector<int32_t>{2, 2, 3, -1, 0}),
      (std::vector<int32_t>{a->rx_pattern, b->rx_pattern, c->rx_pattern, d->rx_pattern, e->rx_pattern}));
}

}  // namespace
