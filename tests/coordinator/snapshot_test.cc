// The status file byte for byte (its clock masked), and an open that fails leaving the old file.
#include "coordinator/snapshot.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "support/test_env.h"

const std::string HEAD = R"doc({
  "version": "2.11 (B251017.0000)",
  "systime": "HH:MM:SS",
  "training hour": "4",
  "training frequency (minutes) ": "30",
  "last training": "10:20:30",
  "mesh_pairs": [
)doc";
// Both nodes are absent from the registry.
const std::string PAIR = R"doc(    {
    "key": "aa:bb:cc:00:00:01-aa:bb:cc:00:00:02",
    "trained": 1,
    "left_node": {
        "mac": "aa:bb:cc:00:00:01",
        "ip": "127.0.2.1",
        "tx_pattern": "0x0",
        "rx_pattern": "0xffffffff",
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

TEST(SnapshotTest, NoPairTwoPairsAndAFailedOpenThatKeepsTheOldFile) {
  // The file as written, its clock ("%H:%M:%S") masked.
  auto written = [] {
    std::string text = read_file(zunta_snapshot_path());
    return text.replace(text.find("systime\": \"") + 11, 8, "HH:MM:SS");
  };
  struct coordinator coord = {};
  INIT_SA_LIST_HEAD(&coord.ath_list);
  INIT_SA_LIST_HEAD(&coord.trained_mesh_pair_list);
  zunta_copy_text(coord.last_training, "10:20:30");
  const options opts = {0, "", 0, 4, 30};
  ASSERT_EQ(0, zunta_snapshot_info(&coord, &opts));
  EXPECT_EQ(HEAD + "  ]\n}\n", written());

  trained_mesh_pair tp[2] = {};
  for (trained_mesh_pair& p : tp) {
    zunta_copy_text(p.meshkey, "aa:bb:cc:00:00:01-aa:bb:cc:00:00:02");
    zunta_copy_text(p.left_mac, "aa:bb:cc:00:00:01");
    zunta_copy_text(p.right_mac, "aa:bb:cc:00:00:02");
    zunta_copy_text(p.left_ip, "127.0.2.1");
    zunta_copy_text(p.right_ip, "127.0.2.2");
    p.trained = 1;
    sa_list_add(&p.list, &coord.trained_mesh_pair_list);
  }
  rlimit saved;
  getrlimit(RLIMIT_NOFILE, &saved);
  const rlimit none = {0, saved.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);  // no descriptor left for the file
  EXPECT_EQ(-1, zunta_snapshot_info(&coord, &opts));
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(HEAD + "  ]\n}\n", written()) << "the old file stays";
  ASSERT_EQ(0, zunta_snapshot_info(&coord, &opts));
  EXPECT_EQ(HEAD + PAIR + PAIR + "  ]\n}\n", written()) << "replaced, each object closed with a comma";
}
