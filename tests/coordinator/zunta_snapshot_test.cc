#include "coordinator/zunta_snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "coordinator/zunta_coordinator.h"
#include "coordinator/zunta_options.h"
#include "core/zunta_runtime.h"
#include "meshpair/zunta_meshpair.h"
#include "registry/zunta_ath.h"
#include "support/capture_stdout.h"
#include "support/test_env.h"

namespace {

const char HEAD[] =
    "{\n"
    "  \"version\": \"2.11 (B251017.0000)\",\n"
    "  \"systime\": \"HH:MM:SS\",\n"
    "  \"training hour\": \"4\",\n"
    "  \"training frequency (minutes) \": \"30\",\n"
    "  \"last training\": \"%s\",\n"
    "  \"mesh_pairs\": [\n";
const char TAIL[] =
    "  ]\n"
    "}\n";
const char PAIR_A[] =
    "    {\n"
    "    \"key\": \"aa:bb:cc:00:00:01-aa:bb:cc:00:00:02\",\n"
    "    \"trained\": 1,\n"
    "    \"left_node\": {\n"
    "        \"mac\": \"aa:bb:cc:00:00:01\",\n"
    "        \"ip\": \"127.0.2.1\",\n"
    "        \"tx_pattern\": \"0x2\",\n"
    "        \"rx_pattern\": \"0x1\",\n"
    "        \"fronthaul_pattern\": \"0x3\",\n"
    "       },\n"
    "    \"right_node\": {\n"
    "        \"mac\": \"aa:bb:cc:00:00:02\",\n"
    "        \"ip\": \"127.0.2.2\",\n"
    "        \"tx_pattern\": \"0x0\",\n"
    "        \"rx_pattern\": \"0xffffffff\",\n"
    "        \"fronthaul_pattern\": \"0x3\",\n"
    "       }\n"
    "    },\n";
// Its right node is absent from the registry.
const char PAIR_B[] =
    "    {\n"
    "    \"key\": \"aa:bb:cc:00:00:01-aa:bb:cc:00:00:03\",\n"
    "    \"trained\": 1,\n"
    "    \"left_node\": {\n"
    "        \"mac\": \"aa:bb:cc:00:00:01\",\n"
    "        \"ip\": \"127.0.2.1\",\n"
    "        \"tx_pattern\": \"0x3\",\n"
    "        \"rx_pattern\": \"0x1\",\n"
    "        \"fronthaul_pattern\": \"0x3\",\n"
    "       },\n"
    "    \"right_node\": {\n"
    "        \"mac\": \"aa:bb:cc:00:00:03\",\n"
    "        \"ip\": \"127.0.2.3\",\n"
    "        \"tx_pattern\": \"0x1\",\n"
    "        \"rx_pattern\": \"0xffffffff\",\n"
    "        \"fronthaul_pattern\": \"0x3\",\n"
    "       }\n"
    "    },\n";

class SnapshotTest : public ::testing::Test {
 protected:
  SnapshotTest() {
    INIT_SA_LIST_HEAD(&coord_.ath_list);
    INIT_SA_LIST_HEAD(&coord_.trained_mesh_pair_list);
    opts_.training_start_hour = 4;
    opts_.training_frequency_minutes = 30;
  }
  ~SnapshotTest() override {
    sa_list_for_each_entry_safe(tp, &coord_.trained_mesh_pair_list, trained_mesh_pair, list) std::free(tp);
    sa_list_for_each_entry_safe(a, &coord_.ath_list, ath, list) std::free(a);
  }

  ath* add_ath(const char* ip, const char* mac, int32_t rx_pattern) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->ip, ip);
    zunta_copy_text(a->mac, mac);
    INIT_SA_LIST_HEAD(&a->neighbours);
    a->is_mesh_node = 1;
    a->rx_pattern = rx_pattern;
    sa_list_add(&a->list, &coord_.ath_list);
    ++coord_.ath_count;
    return a;
  }

  void add_pair(ath* left, ath* right, const char* right_ip, const char* right_mac, int32_t left_tx,
                int32_t right_tx) {
    auto* tp = static_cast<trained_mesh_pair*>(std::calloc(1, sizeof(trained_mesh_pair)));
    tp->left_ath = left;
    tp->right_ath = right;
    zunta_copy_text(tp->left_ip, left->ip);
    zunta_copy_text(tp->left_mac, left->mac);
    zunta_copy_text(tp->right_ip, right_ip);
    zunta_copy_text(tp->right_mac, right_mac);
    zunta_format_buffer(tp->meshkey, sizeof tp->meshkey, "%s-%s", left->mac, right_mac);
    tp->left_tx_pattern = left_tx;
    tp->right_tx_pattern = right_tx;
    tp->trained = 1;
    tp->active = 1;
    sa_list_add(&tp->list, &coord_.trained_mesh_pair_list);
    ++coord_.trained_mesh_pair_count;
  }

  // The snapshot with its clock value replaced, after checking that it is a "%H:%M:%S" time.
  std::string snapshot() {
    EXPECT_EQ(0, zunta_snapshot_info(&coord_, &opts_));
    std::string text = read_file(zunta_snapshot_path());
    std::smatch time;
    EXPECT_TRUE(
        std::regex_search(text, time, std::regex("\"systime\": \"([0-2][0-9]:[0-5][0-9]:[0-6][0-9])\"")));
    if (!time.empty()) text.replace(time.position(1), time.length(1), "HH:MM:SS");
    return text;
  }

  std::string head(const char* last_training) {
    std::string text = HEAD;
    return text.replace(text.find("%s"), 2, last_training);
  }

  struct coordinator coord_ = {};
  options opts_ = {};
};

TEST_F(SnapshotTest, DocumentForZeroOneAndTwoTrainedPairs) {
  EXPECT_EQ(head("") + TAIL, snapshot());

  ath* left = add_ath("127.0.2.1", "aa:bb:cc:00:00:01", 1);
  ath* right = add_ath("127.0.2.2", "aa:bb:cc:00:00:02", RX_PATTERN_NONE);
  add_pair(left, right, right->ip, right->mac, 2, 0);
  zunta_copy_text(coord_.last_training, "10:20:30");
  EXPECT_EQ(head("10:20:30") + PAIR_A + TAIL, snapshot()) << "replaced, not appended";

  // The newest pair comes first; its right node has no ath record at all.
  add_pair(left, nullptr, "127.0.2.3", "aa:bb:cc:00:00:03", 3, 1);
  EXPECT_EQ(head("10:20:30") + PAIR_B + PAIR_A + TAIL, snapshot());
}

TEST_F(SnapshotTest, UnopenablePathOrMissingCoordinatorGivesMinusOne) {
  std::string dir = test_dir() + "/snapshot-dir";
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  std::string saved = zunta_snapshot_path();
  char error[256];
  setenv("ZUNTA_SNAPSHOT", dir.c_str(), 1);
  ASSERT_EQ(0, zunta_runtime_init(error, sizeof error));
  std::string log;
  {
    capture_stdout out;
    EXPECT_EQ(-1, zunta_snapshot_info(&coord_, &opts_));
    log = out.text();
  }
  setenv("ZUNTA_SNAPSHOT", saved.c_str(), 1);
  ASSERT_EQ(0, zunta_runtime_init(error, sizeof error));
  EXPECT_THAT(log, ::testing::HasSubstr("ERROR opening file " + dir + "!\n"));
  struct stat st {};
  EXPECT_TRUE(stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  EXPECT_EQ(-1, zunta_snapshot_info(nullptr, &opts_));
}

}  // namespace
