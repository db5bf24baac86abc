#include "coordinator/zunta_measure.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"
#include "support/capture_stdout.h"
#include "support/fake_agent.h"
#include "support/test_env.h"

namespace {

constexpr char HEADER[] =
    "zunta-coord:   i, mac_L, antenna-index_L,  bitrate_L, mac_R, antenna-index_R,  bitrate_R\n";
constexpr char GOOD_ROW[] =
    "zunta-coord:   -, aa:bb:cc:00:00:01, 0x1,    40 Mbps, aa:bb:cc:00:00:02, 0x2,    35 Mbps \n";

// One end of a pair: answers start dump and start training with "ack", and stop training with
// its result line about the peer, for `passes` passes.
fake_agent::script agent_script(const std::string& result_line, int passes) {
  fake_agent::script s;
  for (int i = 0; i < passes; ++i) {
    s.push_back({"ack"});
    s.push_back({"ack"});
    s.push_back({result_line, "ack"});
  }
  return s;
}

std::vector<std::string> both_passes(const std::vector<std::string>& pass) {
  std::vector<std::string> lines = pass;
  lines.insert(lines.end(), pass.begin(), pass.end());
  return lines;
}

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
    ++coord_.mesh_pair_count;
    return mp;
  }

  fake_agent& start_agent(const char* ip, fake_agent::script replies) {
    agents_.push_back(std::make_unique<fake_agent>(ip, test_agent_port(), std::move(replies)));
    EXPECT_TRUE(agents_.back()->running()) << "cannot listen on " << ip;
    return *agents_.back();
  }

  struct coordinator coord_ = {};
  std::vector<std::unique_ptr<fake_agent>> agents_;
};

TEST_F(MeasureTest, RowsOnlyForPositiveBitratesAndHeaderEveryTenVisits) {
  fake_agent& left =
      start_agent("127.0.2.150", agent_script("aa:bb:cc:00:00:02,2,0x1,41000,900,880,40000\n", 2));
  fake_agent& right =
      start_agent("127.0.2.151", agent_script("aa:bb:cc:00:00:01,2,0x2,36000,800,790,35400\n", 2));
  start_agent("127.0.2.152", agent_script("aa:bb:cc:00:00:04,2,0x0,0,0,0,0\n", 2));
  start_agent("127.0.2.153", agent_script("aa:bb:cc:00:00:03,2,0x3,30000,700,690,29000\n", 2));
  mesh_pair* good = add_pair("127.0.2.150", "aa:bb:cc:00:00:01", "127.0.2.151", "aa:bb:cc:00:00:02");
  good->txcs_count = 5;
  add_pair("127.0.2.152", "aa:bb:cc:00:00:03", "127.0.2.153", "aa:bb:cc:00:00:04");  // visited first

  int32_t rows = 0;
  capture_stdout out;
  zunta_mp_measure_pass(&coord_, 1, &rows);
  EXPECT_EQ(2, rows);
  EXPECT_EQ(std::string(HEADER) + GOOD_ROW, out.text()) << "the header stands alone at visit 0";
  EXPECT_EQ(0, good->txcs_count);
  EXPECT_EQ(40000.0f, good->txcs->rounds[0].left_avg_bitrate_ma);
  EXPECT_EQ(0.0f, good->txcs->rounds[5].left_avg_bitrate_ma);

  rows = 9;  // the silent pair takes visit 9, so the header comes at visit 10 with the good row
  zunta_mp_measure_pass(&coord_, 1, &rows);
  EXPECT_EQ(11, rows);
  EXPECT_EQ(std::string(HEADER) + GOOD_ROW + HEADER + GOOD_ROW, out.text());

  // Each end starts its dump towards the other's MAC and its training towards the other's IP.
  left.stop();
  right.stop();
  EXPECT_EQ(both_passes({"4,-1,127.0.0.1 aa:bb:cc:00:00:02", "8,-1,127.0.2.151 00:00:00:00:00:00",
                         "5,-1,127.0.0.1 00:00:00:00:00:00"}),
            left.commands());
  EXPECT_EQ(both_passes({"4,-1,127.0.0.1 aa:bb:cc:00:00:01", "8,-1,127.0.2.150 00:00:00:00:00:00",
                         "5,-1,127.0.0.1 00:00:00:00:00:00"}),
            right.commands());
}

TEST_F(MeasureTest, EmptyListOrMissingCoordinatorWaitsOneIntervalAndReturns) {
  int32_t rows = 3;
  capture_stdout out;
  zunta_mp_measure_pass(&coord_, 1, &rows);
  EXPECT_EQ(3, rows);
  EXPECT_EQ("", out.text());
  zunta_mp_measure_pass(nullptr, 1, &rows);
  EXPECT_EQ(3, rows);
}

}  // namespace
