#include "coordinator/zunta_snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "coordinator/zunta_coordinator.h"
#include "coordinator/zunta_options.h"
#include "core/zunta_runtime.h"
#include "meshpair/zunta_meshpair.h"
#include "support/capture_stdout.h"
#include "support/test_env.h"

namespace {

const std::string HEAD = R"doc({
  "version": "2.11 (B251017.0000)",
  "systime": "HH:MM:SS",
  "training hour": "4",
  "training frequency (minutes) ": "30",
  "last training": "10:20:30",
  "mesh_pairs": [
)doc";
// The right node is absent from the registry.
const std::string PAIR = R"doc(    {
    "key": "aa:bb:cc:00:00:01-aa:bb:cc:00:00:02",
    "trained": 1,
    "left_node": {
        "mac": "aa:bb:cc:00:00:01",
        "ip": "127.0.2.1",
        "tx_pattern": "0x2",
        "rx_pattern": "0x1",
        "fronthaul_pattern": "0x3",
       },
    "right_node": {
        "mac": "aa:bb:cc:00:00:02",
        "ip": "127.0.2.2",
        "tx_pattern": "0x0",
        "rx_pattern": "0xffffffff",
        "fronthaul_pattern": "0x3",
       }
    },
)doc";
const std::string TAIL = "  ]\n}\n";

class SnapshotTest : public ::testing::Test {
 protected:
  SnapshotTest() {
    INIT_SA_LIST_HEAD(&coord_.ath_list);
    INIT_SA_LIST_HEAD(&coord_.trained_mesh_pair_list);
    zunta_copy_text(left_.ip, "127.0.2.1");
    zunta_copy_text(left_.mac, "aa:bb:cc:00:00:01");
    left_.rx_pattern = 1;
    sa_list_add(&left_.list, &coord_.ath_list);
  }
  ~SnapshotTest() override {
    sa_list_for_each_entry_safe(tp, &coord_.trained_mesh_pair_list, trained_mesh_pair, list) std::free(tp);
  }
  // A trained pair of the left node and the absent right node, found through the registry.
  void add_pair(int32_t left_tx) {
    auto* tp = static_cast<trained_mesh_pair*>(std::calloc(1, sizeof(trained_mesh_pair)));
    zunta_copy_text(tp->left_ip, "127.0.2.1");
    zunta_copy_text(tp->left_mac, "aa:bb:cc:00:00:01");
    zunta_copy_text(tp->right_ip, "127.0.2.2");
    zunta_copy_text(tp->right_mac, "aa:bb:cc:00:00:02");
    zunta_copy_text(tp->meshkey, "aa:bb:cc:00:00:01-aa:bb:cc:00:00:02");
    tp->left_tx_pattern = left_tx;
    tp->trained = tp->active = 1;
    sa_list_add(&tp->list, &coord_.trained_mesh_pair_list);
  }
  // The file written, its clock checked to be "%H:%M:%S" and replaced by HH:MM:SS.
  std::string snapshot() {
    EXPECT_EQ(0, zunta_snapshot_info(&coord_, &opts_));
    std::string text = read_file(zunta_snapshot_path());
    std::smatch time;
    EXPECT_TRUE(
        std::regex_search(text, time, std::regex("\"systime\": \"([0-2][0-9]:[0-5][0-9]:[0-6][0-9])\"")));
    return time.empty() ? text : text.replace(time.position(1), time.length(1), "HH:MM:SS");
  }

  struct coordinator coord_ = {};
  ath left_ = {};
  options opts_ = {0, "", 0, 4, 30};
};

TEST_F(SnapshotTest, DocumentForZeroOneAndTwoTrainedPairs) {
  zunta_copy_text(coord_.last_training, "10:20:30");
  EXPECT_EQ(HEAD + TAIL, snapshot());
  add_pair(2);
  EXPECT_EQ(HEAD + PAIR + TAIL, snapshot()) << "replaced, not appended";
  add_pair(3);
  std::string newer = PAIR;
  newer.replace(newer.find("0x2"), 3, "0x3");
  EXPECT_EQ(HEAD + newer + PAIR + TAIL, snapshot()) << "newest first, each object closed with a comma";
}

TEST_F(SnapshotTest, UnopenablePathOrMissingCoordinatorGivesMinusOne) {
  std::string path = zunta_snapshot_path();
  std::remove(path.c_str());
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));  // a directory where the file should be
  capture_stdout out;
  EXPECT_EQ(-1, zunta_snapshot_info(&coord_, &opts_));
  EXPECT_NE(std::string::npos, out.text().find("ERROR opening file " + path + "!\n"));
  rmdir(path.c_str());
  EXPECT_EQ(-1, zunta_snapshot_info(nullptr, &opts_));
}

}  // namespace
