// The interference model through the agents' commands: two pairs trained in the same rounds pick
// other winners when they are one hop apart, and exactly their own when they are farther apart.
#include "meshsim/interference.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

#include "meshsim/agent.h"
#include "meshsim/commands.h"

namespace meshsim {
namespace {

// a1-a2 and b1-b2 are pairs; "neighbour a2 b1" alone puts them one hop apart. Pair b's best round
// is b1 on pattern 1 with b2 on pattern 2, but a1 on pattern 1 (+10 dB) drowns whatever b measures
// meanwhile. Every other pattern is at -30 dB, so its interference is a thousandth of the signal.
// c measures towards d all along, far from both pairs, and so keeps every stopped window.
constexpr char PAIRS[] = R"(
node a1 127.0.9.1 0a:00:00:00:09:01
node a2 127.0.9.2 0a:00:00:00:09:02
node b1 127.0.9.3 0a:00:00:00:09:03
node b2 127.0.9.4 0a:00:00:00:09:04
node c 127.0.9.5 0a:00:00:00:09:05
node d 127.0.9.6 0a:00:00:00:09:06
neighbour a1 a2
neighbour a2 a1
neighbour b1 b2
neighbour b2 b1
neighbour b2 a1 -1 0
table a1 a2  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1300
table a2 a1  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1000
table b1 b2  1000 1000 1000 1000  1000 1000 1500 1000  1000 1000 1000 1000  1000 1000 1000 1000
table b2 b1  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1000  1000 1000 1000 1000
gains a1 -30 10 -30 -30
gains a2 -30 -30 -30 -30
gains b1 -30 -30 -30 -30
gains b2 -30 -30 -30 -30
)";

struct training_run {
  int best[2] = {-1, -1};  // each pair's best round, 4 * right pattern + left pattern
  std::string answers;     // every command 5 answer, in order
};

class pair_trainer {
 public:
  explicit pair_trainer(const std::string& statements) {
    std::string error;
    EXPECT_EQ(0, load_topology(topo_, statements, &error)) << error;
    ctx_.rng = &rng_;
  }

  // The sixteen rounds of both pairs as the coordinator runs them: per round, one pair after the
  // other, or both started before either is stopped.
  training_run train(bool together) {
    training_run run;
    float best_sum[2] = {-1, -1};
    send(topo_.nodes[4], "4,-1,127.0.0.1 " + topo_.nodes[5].mac);
    for (int r = 0; r < 16; ++r) {
      for (int p = 0; p < 2; ++p) {
        start(p, r % 4, r / 4);
        if (!together) stop_into(p, r, &run, &best_sum[p]);
      }
      for (int p = 0; together && p < 2; ++p)
        stop_into(p, r, &run, &best_sum[p]);
    }
    return run;
  }

  const topology& topo() const { return topo_; }

 private:
  node& end(int pair, int side) { return topo_.nodes[static_cast<std::size_t>(2 * pair + side)]; }

  std::string send(node& n, const std::string& line) {
    command_line cmd;
    EXPECT_TRUE(parse_command_line(line, &cmd)) << line;
    reply r = act_on_command(topo_, n, cmd, ctx_);
    EXPECT_TRUE(r.accepted) << line << ": " << r.note;
    return r.text;
  }

  void start(int pair, int left_pattern, int right_pattern) {
    node& left = end(pair, 0);
    node& right = end(pair, 1);
    send(left, "2," + std::to_string(left_pattern) + ",127.0.0.1 " + right.mac);
    send(right, "2," + std::to_string(right_pattern) + ",127.0.0.1 " + left.mac);
    send(left, "4,-1,127.0.0.1 " + right.mac);
    send(right, "4,-1,127.0.0.1 " + left.mac);
    send(left, "8,-1," + right.ip + " 00:00:00:00:00:00");
    send(right, "8,-1," + left.ip + " 00:00:00:00:00:00");
  }

  // Stops both ends; a round sum strictly above the best so far makes the round the best.
  void stop_into(int pair, int round, training_run* run, float* best_sum) {
    float sum = 0;
    for (int side = 0; side < 2; ++side) {
      std::string text = send(end(pair, side), "5,-1,127.0.0.1 00:00:00:00:00:00");
      run->answers += text;
      char mac[18];
      int radio, pattern, avg, frames, feedback, ma;
      EXPECT_EQ(7, std::sscanf(text.c_str(), "%17[^,],%d,0x%x,%d,%d,%d,%d", mac, &radio, &pattern, &avg,
                               &frames, &feedback, &ma))
          << text;
      sum += static_cast<float>(ma);
    }
    if (sum > *best_sum) {
      *best_sum = sum;
      run->best[pair] = round;
    }
  }

  topology topo_;
  uint64_t rng_ = 1;
  command_context ctx_;
};

TEST(InterferenceTest, PairsOneHopApartTrainedTogetherPickAnotherWinner) {
  const std::string near = std::string(PAIRS) + "neighbour a2 b1\n";
  training_run apart = pair_trainer(near).train(false);
  EXPECT_EQ(15, apart.best[0]);                                 // a1 and a2 on pattern 3
  EXPECT_EQ(1 + 4 * 2, apart.best[1]);                          // b1 on 1, b2 on 2
  EXPECT_NE(std::string::npos, apart.answers.find(",1500\n"));  // the table figures exactly

  training_run together = pair_trainer(near).train(true);
  EXPECT_EQ(15, together.best[0]);  // b's -30 dB patterns cost a only a thousandth
  EXPECT_EQ(0, together.best[1]);   // every round with a1 on pattern 1 lost, the rest tie

  // Farther apart (the radio -1 line does not count), the same rounds leave every figure alone.
  EXPECT_EQ(apart.answers, pair_trainer(PAIRS).train(true).answers);
}

TEST(InterferenceTest, PairsWithinTwoHopsShareANodeOrANeighbourInEitherDirection) {
  pair_trainer far(PAIRS);
  pair_trainer near(std::string(PAIRS) + "neighbour a2 b1\n");
  EXPECT_FALSE(pairs_within_two_hops(far.topo(), "a1", "a2", "b1", "b2"));
  EXPECT_TRUE(pairs_within_two_hops(far.topo(), "a1", "a2", "a2", "b1"));
  // Either order of the ends, and from either side of the one-sided "neighbour a2 b1".
  for (const auto& [x, y] : {std::pair("a1", "a2"), std::pair("a2", "a1")}) {
    EXPECT_TRUE(pairs_within_two_hops(near.topo(), x, y, "b2", "b1"));
    EXPECT_TRUE(pairs_within_two_hops(near.topo(), "b1", "b2", x, y));
  }
  EXPECT_FALSE(pairs_within_two_hops(near.topo(), "a1", "a2", "b1", "nobody"));
}

}  // namespace
}  // namespace meshsim
