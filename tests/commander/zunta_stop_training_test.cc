#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commander/zunta_command.h"
#include "meshpair/zunta_meshpair.h"
#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

constexpr char AGENT_IP[] = "127.0.3.200";
constexpr char LEFT[] = "aa:bb:cc:00:03:01";
constexpr char RIGHT[] = "aa:bb:cc:00:03:02";

class StopTrainingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mp_ = static_cast<mesh_pair*>(std::calloc(1, sizeof(mesh_pair)));
    mp_->txcs = static_cast<txcs_block*>(std::calloc(1, sizeof(txcs_block)));
    std::memset(mp_->txcs, 0x5a, sizeof(txcs_block));  // anything written shows against this
    zunta_copy_text(mp_->left_mac, LEFT);
    zunta_copy_text(mp_->right_mac, RIGHT);
    mp_->txcs_count = 5;
    before_ = *mp_->txcs;
  }
  void TearDown() override {
    std::free(mp_->txcs);
    std::free(mp_);
  }
  // One command 5 to an agent that sends `lines`, then "ack"; returns the log.
  std::string stop(const std::string& lines, const char* own, const char* peer) {
    fake_agent agent(AGENT_IP, test_agent_port(), {{lines, "ack"}});
    EXPECT_TRUE(agent.running());
    capture_stdout out;
    EXPECT_EQ(0, zunta_stop_training(buffer_, mp_, peer, own, AGENT_IP));
    agent.stop();
    EXPECT_EQ(std::vector<std::string>{"5,-1,127.0.0.1 00:00:00:00:00:00"}, agent.commands());
    return out.text();
  }
  mesh_pair* mp_ = nullptr;
  txcs_block before_;
  char buffer_[COMMAND_SIZE] = {};
};

TEST_F(StopTrainingTest, PeerLineFillsTheSideOfTheAnsweringNode) {
  const std::string other = "aa:bb:cc:00:03:09,2,0x1,5,5,5,5\n";
  // The left node reports on the right one and the other way round; a short line and a line about
  // another peer come first and are passed over.
  stop(other + RIGHT + ",2,0x2\n" + RIGHT + ",2,0x2,41000,900,880,40000\n", LEFT, RIGHT);
  txcs_record& want = before_.rounds[5];
  want.left_pattern = 2;
  want.left_avg_bitrate = 41000.0f;
  want.left_avg_bitrate_ma = 40000.0f;
  want.left_nframes = 900;
  want.left_nfeedback = 880;
  stop(other + LEFT + ",2,0x3,7000,70,60,6000\n", RIGHT, LEFT);
  want.right_pattern = 3;
  want.right_avg_bitrate = 7000.0f;
  want.right_avg_bitrate_ma = 6000.0f;
  want.right_nframes = 70;
  want.right_nfeedback = 60;
  EXPECT_EQ(0, std::memcmp(&before_, mp_->txcs, sizeof before_));
  EXPECT_EQ(2, mp_->radioidx);
}

TEST_F(StopTrainingTest, AnswersWithoutAUsablePeerLineRecordNothing) {
  const std::string good = std::string(RIGHT) + ",2,0x2,41000,900,880,40000\n";
  const struct {
    std::string lines;
    int32_t round;
    const char* error;  // the error line expected, if any
  } cases[] = {
      {std::string(RIGHT) + ",2,2,41000,900,880,40000\n", 5, nullptr},  // no "0x"
      {"AA:BB:CC:00:03:02,2,0x2,41000,900,880,40000\n", 5, nullptr},
      {std::string(RIGHT) + ",1,0x2,41000,900,880,40000\n", 5, "UNEXPECTED radio index\n"},
      {"aa:bb:cc:00:03:09,2,0x2,41000,900,880,40000\n", 5, nullptr},
      {good.substr(0, good.size() - 1), 5, nullptr},  // no line feed
      {good, 16, "Round 16 outside"},
      {good, -1, "Round -1 outside"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines + " round " + std::to_string(c.round));
    mp_->txcs_count = c.round;
    std::string log = stop(c.lines, LEFT, RIGHT);
    EXPECT_EQ(0, std::memcmp(&before_, mp_->txcs, sizeof before_));
    EXPECT_EQ(0, mp_->radioidx);
    EXPECT_EQ(c.error != nullptr, log.find("ERROR") != std::string::npos);
    if (c.error != nullptr) {
      EXPECT_NE(std::string::npos, log.find(c.error));
    }
  }
}

TEST_F(StopTrainingTest, MissingRecordsAndUnreachableNode) {
  capture_stdout out;
  EXPECT_EQ(-1, zunta_stop_training(buffer_, nullptr, LEFT, RIGHT, AGENT_IP));
  std::free(mp_->txcs);
  mp_->txcs = nullptr;
  EXPECT_EQ(-1, zunta_stop_training(buffer_, mp_, LEFT, RIGHT, AGENT_IP));
  EXPECT_NE(std::string::npos, out.text().find("NULL pointer exception for mesh_pair->txcs\n"));
  mp_->txcs = static_cast<txcs_block*>(std::calloc(1, sizeof(txcs_block)));
  EXPECT_EQ(0, zunta_stop_training(buffer_, mp_, LEFT, RIGHT, "127.0.3.219"));  // nobody listens
  EXPECT_EQ(0, mp_->txcs->rounds[5].left_pattern);
}

}  // namespace
