// The status file byte for byte (its clock masked); failures that leave the old file; a reader
// never sees part of a document; a link at the name is replaced, never written through.
#include "coordinator/snapshot.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "support/capture_stdout.h"
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
  INIT_SA_LIST_HEAD(&coord.mesh_pair_list);
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

TEST(SnapshotTest, ReadersSeeWholeDocumentsAndALinkAtTheNameIsReplacedNotFollowed) {
  struct coordinator coord = {};
  INIT_SA_LIST_HEAD(&coord.ath_list);
  INIT_SA_LIST_HEAD(&coord.trained_mesh_pair_list);
  INIT_SA_LIST_HEAD(&coord.mesh_pair_list);
  const options opts = {0, "", 0, 4, 30};
  const std::string path = zunta_snapshot_path();
  // Daemons killed by other tests may have left new files of their own.
  auto before = dir_entries(test_dir(), "zunta-sa.log.");
  const std::string victim = test_dir() + "/victim";
  write_file(victim, "kept\n");
  unlink(path.c_str());
  ASSERT_EQ(0, symlink(victim.c_str(), path.c_str()));
  ASSERT_EQ(0, zunta_snapshot_info(&coord, &opts));
  EXPECT_EQ("kept\n", read_file(victim));
  struct stat st = {};
  ASSERT_EQ(0, lstat(path.c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0644u, st.st_mode & 07777u) << "other processes read it";

  std::atomic<bool> done{false};
  int reads = 0, partial = 0;
  std::thread reader([&] {
    for (; !done; ++reads) {
      std::string text = read_file(path);
      if (text.rfind("{\n", 0) != 0 || text.size() < 4 || text.compare(text.size() - 4, 4, "]\n}\n") != 0)
        ++partial;
    }
  });
  for (int i = 0; i < 300; ++i)
    zunta_snapshot_info(&coord, &opts);
  done = true;
  reader.join();
  EXPECT_EQ(0, partial) << "of " << reads << " reads";
  EXPECT_EQ(before, dir_entries(test_dir(), "zunta-sa.log."));
}

TEST(SnapshotTest, AFailedWriteIsLoggedOnceAndKeepsThePreviousDocument) {
  struct coordinator coord = {};
  INIT_SA_LIST_HEAD(&coord.ath_list);
  INIT_SA_LIST_HEAD(&coord.trained_mesh_pair_list);
  INIT_SA_LIST_HEAD(&coord.mesh_pair_list);
  const options opts = {0, "", 0, 4, 30};
  ASSERT_EQ(0, zunta_snapshot_info(&coord, &opts));
  const std::string before = read_file(zunta_snapshot_path());
  auto left_before = dir_entries(test_dir(), "zunta-sa.log.");
  trained_mesh_pair tp[4] = {};
  for (trained_mesh_pair& p : tp)
    sa_list_add(&p.list, &coord.trained_mesh_pair_list);
  capture_stdout out;
  {
    file_size_limit full(before.size() + 100);  // room for the log line, not for four pairs
    EXPECT_EQ(-1, zunta_snapshot_info(&coord, &opts));
  }
  EXPECT_EQ(before, read_file(zunta_snapshot_path()));
  EXPECT_EQ(left_before, dir_entries(test_dir(), "zunta-sa.log."));
  // The JSON document that follows it fails as well and says so on a line of its own.
  std::string text = out.text();
  EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n')) << text;
  EXPECT_EQ(0u, text.find("ZUNTA: ERROR: zunta_snapshot_info:")) << text;
  EXPECT_NE(std::string::npos, text.find("\nZUNTA: ERROR: zunta_status_json_write:")) << text;
  EXPECT_NE(std::string::npos, text.find(std::string(zunta_snapshot_path()) + ": File too large\n")) << text;
}
