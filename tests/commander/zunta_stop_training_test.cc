#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "commander/zunta_command.h"
#include "meshpair/zunta_meshpair.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

TEST(StopTrainingTest, OnlyAFullPeerLineOfRadioTwoFillsTheAnsweringSideOfTheRound) {
  const std::string L = "aa:bb:cc:00:03:01", R = "aa:bb:cc:00:03:02",
                    other = "aa:bb:cc:00:03:09,2,0x1,5,5,5,5\n";
  const std::string figures = ",2,0x2,41000,900,880,40000\n";
  const struct {
    std::string lines;
    bool left;
    int32_t round;
    bool stored;
  } cases[] = {
      {other + R + ",2,0x3\n" + R + figures, true, 5, true},  // other peer and short line passed over
      {other + L + figures, false, 5, true},
      {R + ",2,2,41000,900,880,40000\n", true, 5, false},  // no "0x"
      {"AA:BB:CC:00:03:02" + figures, true, 5, false},
      {R + ",1,0x2,41000,900,880,40000\n", true, 5, false},
      {R + figures.substr(0, figures.size() - 1), true, 5, false},  // no line feed
      {R + figures, true, 16, false},
  };
  char buffer[COMMAND_SIZE] = {};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines + " round " + std::to_string(c.round));
    txcs_block block;
    std::memset(&block, 0x5a, sizeof block);  // every byte written shows against this
    txcs_block want = block;
    mesh_pair mp = {};
    mp.txcs = &block;
    mp.txcs_count = c.round;
    zunta_copy_text(mp.left_mac, L.c_str());
    zunta_copy_text(mp.right_mac, R.c_str());
    fake_agent agent("127.0.3.200", test_agent_port(), {{c.lines, "ack"}});
    EXPECT_EQ(0, zunta_stop_training(buffer, &mp, (c.left ? R : L).c_str(), (c.left ? L : R).c_str(),
                                     "127.0.3.200"));
    agent.stop();
    EXPECT_EQ(std::vector<std::string>{"5,-1,127.0.0.1 00:00:00:00:00:00"}, agent.commands());
    if (c.stored) {
      txcs_record& rec = want.rounds[5];
      (c.left ? rec.left_pattern : rec.right_pattern) = 2;
      (c.left ? rec.left_avg_bitrate : rec.right_avg_bitrate) = 41000.0f;
      (c.left ? rec.left_avg_bitrate_ma : rec.right_avg_bitrate_ma) = 40000.0f;
      (c.left ? rec.left_nframes : rec.right_nframes) = 900;
      (c.left ? rec.left_nfeedback : rec.right_nfeedback) = 880;
    }
    EXPECT_EQ(0, std::memcmp(&want, &block, sizeof block));
    EXPECT_EQ(c.stored ? 2 : 0, mp.radioidx);
  }
  EXPECT_EQ(-1, zunta_stop_training(buffer, nullptr, L.c_str(), R.c_str(), "127.0.3.200"));
}
