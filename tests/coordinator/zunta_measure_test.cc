#include "coordinator/zunta_measure.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"
#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

class MeasureTest : public ::testing::Test {
 protected:
  MeasureTest() { INIT_SA_LIST_HEAD(&coord_.mesh_pair_list); }
  ~MeasureTest() override {
    sa_list_for_each_entry_safe(mp, &coord_.mesh_pair_list, mesh_pair, list) {
      std::free(mp->txcs);
      std::free(mp);
    }
  }
  mesh_pair* add_pair(const char* left_ip, const char* left_mac, const char* right_ip,
                      const char* right_mac) {
    auto* mp = static_cast<mesh_pair*>(std::calloc(1, sizeof(mesh_pair)));
    mp->txcs = static_cast<txcs_block*>(std::calloc(1, sizeof(txcs_block)));
    zunta_copy_text(mp->left_ip, left_ip);
    zunta_copy_text(mp->left_mac, left_mac);
    zunta_copy_text(mp->right_ip, right_ip);
    zunta_copy_text(mp->right_mac, right_mac);
    sa_list_add(&mp->list, &coord_.mesh_pair_list);
    return mp;
  }
  struct coordinator coord_ = {};
};

// Start dump and start training are acknowledged; stop training answers with the line about the peer.
fake_agent::script measured(const std::string& result_line) {
  return {{"ack"}, {"ack"}, {result_line, "ack"}};
}

TEST_F(MeasureTest, HeaderEveryTenVisitsAndRowsOnlyForPositiveBitrates) {
  fake_agent left("127.0.2.150", test_agent_port(),
                  measured("aa:bb:cc:00:00:02,2,0x1,41000,900,880,40000\n"));
  fake_agent right("127.0.2.151", test_agent_port(),
                   measured("aa:bb:cc:00:00:01,2,0x2,36000,800,790,35400\n"));
  fake_agent silent_left("127.0.2.152", test_agent_port(), measured("aa:bb:cc:00:00:04,2,0x0,0,0,0,0\n"));
  fake_agent silent_right("127.0.2.153", test_agent_port(),
                          measured("aa:bb:cc:00:00:03,2,0x3,300,7,6,290\n"));
  ASSERT_TRUE(left.running() && right.running() && silent_left.running() && silent_right.running());
  mesh_pair* good = add_pair("127.0.2.150", "aa:bb:cc:00:00:01", "127.0.2.151", "aa:bb:cc:00:00:02");
  good->txcs_count = 5;
  add_pair("127.0.2.152", "aa:bb:cc:00:00:03", "127.0.2.153", "aa:bb:cc:00:00:04");  // visited first

  int32_t visits = 0;
  capture_stdout out;
  zunta_mp_measure_pass(&coord_, 1, &visits);
  // The silent pair's visit 0 prints the header alone; the good pair's visit 1 prints no header.
  EXPECT_EQ(
      "zunta-coord:   i, mac_L, antenna-index_L,  bitrate_L, mac_R, antenna-index_R,  bitrate_R\n"
      "zunta-coord:   -, aa:bb:cc:00:00:01, 0x1,    40 Mbps, aa:bb:cc:00:00:02, 0x2,    35 Mbps \n",
      out.text());
  EXPECT_EQ(2, visits);
  EXPECT_EQ(0, good->txcs_count) << "results go to record 0";
  EXPECT_EQ(40000.0f, good->txcs->rounds[0].left_avg_bitrate_ma);
  left.stop();
  right.stop();
  EXPECT_EQ(
      (std::vector<std::string>{"4,-1,127.0.0.1 aa:bb:cc:00:00:02", "8,-1,127.0.2.151 00:00:00:00:00:00",
                                "5,-1,127.0.0.1 00:00:00:00:00:00"}),
      left.commands());
  EXPECT_EQ(
      (std::vector<std::string>{"4,-1,127.0.0.1 aa:bb:cc:00:00:01", "8,-1,127.0.2.150 00:00:00:00:00:00",
                                "5,-1,127.0.0.1 00:00:00:00:00:00"}),
      right.commands());
}

TEST_F(MeasureTest, EmptyListOrMissingCoordinatorWaitsOneIntervalAndReturns) {
  int32_t visits = 3;
  {
    capture_stdout out;
    zunta_mp_measure_pass(&coord_, 1, &visits);
    EXPECT_EQ("", out.text());
  }
  zunta_mp_measure_pass(nullptr, 1, &visits);
  EXPECT_EQ(3, visits);
}

}  // namespace
