// Command 5: only a complete line about the peer, of radio 2, fills the answering side of the
// current round; anything else leaves the results block as it was.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "meshpair/meshpair.h"
#include "support/fake_agent.h"
#include "support/test_env.h"
#include "training/training.h"

TEST(StopTrainingTest, OnlyAFullPeerLineOfRadioTwoFillsTheAnsweringSideOfTheRound) {
  const std::string R = "aa:bb:cc:00:03:02", figures = ",2,0x2,41000,900,880,40000\n";
  const std::tuple<std::string, int32_t, bool> cases[] = {
      // Another peer's line and a short line are passed over.
      {"aa:bb:cc:00:03:09,2,0x1,5,5,5,5\n" + R + ",2,0x3\n" + R + figures, 5, true},
      {R + ",2,2,41000,900,880,40000\n", 5, false},  // no "0x"
      {"AA:BB:CC:00:03:02" + figures, 5, false},
      {R + ",1,0x2,41000,900,880,40000\n", 5, false},
      {R + figures.substr(0, figures.size() - 1), 5, false},  // no line feed
      {R + figures, 16, false},
      // Numbers that do not fit 32 bits make the line unusable, whatever scanf would have kept.
      {R + ",2,0x2,2147483648,900,880,40000\n", 5, false},
      {R + ",2,0x100000002,41000,900,880,40000\n", 5, false},
      {R + ",4294967298,0x2,41000,900,880,40000\n", 5, false},
      {R + ",2,0x2,41000,900,880,-2147483649\n", 5, false},
  };
  char buffer[COMMAND_SIZE];
  for (const auto& [lines, round, stored] : cases) {
    SCOPED_TRACE(lines + " round " + std::to_string(round));
    txcs_block block;
    std::memset(&block, 0x5a, sizeof block);  // every byte written shows against this
    txcs_block want = block;
    if (stored) {
      txcs_record& rec = want.rounds[5];
      rec.left_pattern = 2;
      rec.left_avg_bitrate = 41000.0f;
      rec.left_avg_bitrate_ma = 40000.0f;
      rec.left_nframes = 900;
      rec.left_nfeedback = 880;
    }
    mesh_pair mp = {};
    mp.txcs = &block;
    mp.txcs_count = round;
    zunta_copy_text(mp.left_mac, "aa:bb:cc:00:03:01");  // the answering side
    fake_agent agent("127.0.3.200", test_agent_port(), {{lines, "ack"}});
    EXPECT_EQ(0, zunta_stop_training(buffer, &mp, R.c_str(), mp.left_mac, "127.0.3.200"));
    EXPECT_EQ(0, std::memcmp(&want, &block, sizeof block));
    EXPECT_EQ(stored ? 2 : 0, mp.radioidx);
  }
}
