// The training memory file: what is written reads back bit for bit, and a file naming any value
// the writer could not have written is refused whole with its reason.
#include "coordinator/training_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "coordinator/coordinator.h"
#include "core/checksum.h"
#include "meshpair/meshpair.h"
#include "support/capture_stdout.h"
#include "support/test_env.h"
#include "training/training.h"

namespace {

using ::testing::HasSubstr;

class TrainingMemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (sa_list* head : {&coord_.ath_list, &coord_.trained_mesh_pair_list})
      INIT_SA_LIST_HEAD(head);
    // Figures a decimal text could round: a fraction, the largest float, a denormal.
    const float rates[] = {1234.5678f, 3.4028235e38f, 1e-40f, -0.1f};
    for (int r = 0; r < TXCS_ROUNDS; ++r) {
      txcs_record& rec = block_.rounds[r];
      rec.left_pattern = r % 4;
      rec.right_pattern = r / 4;
      rec.left_avg_bitrate = rates[r % 4];
      rec.right_avg_bitrate = rates[(r + 1) % 4];
      rec.left_avg_bitrate_ma = rates[(r + 2) % 4];
      rec.right_avg_bitrate_ma = rates[(r + 3) % 4];
      rec.left_nframes = -r;
      rec.right_nframes = INT32_MAX;
      rec.left_nfeedback = INT32_MIN;
      rec.right_nfeedback = r;
    }
    // Newest first: the pair with no usable pattern and the older copy of a key are not remembered.
    add_pair("aa:00:00:00:00:01", "aa:00:00:00:00:02", 1, 2, 1700000000);
    add_pair("aa:00:00:00:00:02", "aa:00:00:00:00:03", 3, 0, 1700000100);
    add_pair("aa:00:00:00:00:01", "aa:00:00:00:00:02", 0, 0, 1600000000);
    add_pair("aa:00:00:00:00:03", "aa:00:00:00:00:04", TX_PATTERN_NONE, TX_PATTERN_NONE, 1700000200);
    add_ath("aa:00:00:00:00:02", 1, 2);
    add_ath("aa:00:00:00:00:05", 1, RX_PATTERN_NONE);
    add_ath("aa:00:00:00:00:06", 0, 1);
  }

  void add_pair(const char* left, const char* right, int32_t left_tx, int32_t right_tx, int64_t at) {
    trained_mesh_pair& p = pairs_[pair_count_++];
    zunta_format_buffer(p.meshkey, sizeof p.meshkey, "%s-%s", left, right);
    zunta_copy_text(p.left_mac, left);
    zunta_copy_text(p.right_mac, right);
    zunta_format_buffer(p.left_ip, sizeof p.left_ip, "127.0.8.%d", pair_count_);
    zunta_copy_text(p.right_ip, "127.0.8.200");
    p.radioidx = 2;
    p.trained = 1;
    p.txcs = &block_;
    p.left_tx_pattern = left_tx;
    p.right_tx_pattern = right_tx;
    p.trained_at = at;
    // Added oldest last: the table lists the newest first.
    sa_list_add(&p.list, coord_.trained_mesh_pair_list.prev);
    coord_.trained_mesh_pair_count++;
  }
  void add_ath(const char* mac, uint8_t mesh_node, int32_t rx) {
    ath& a = aths_[coord_.ath_count++];
    zunta_copy_text(a.mac, mac);
    a.is_mesh_node = mesh_node;
    a.rx_pattern = rx;
    sa_list_add(&a.list, coord_.ath_list.prev);
  }

  std::string saved() {
    EXPECT_EQ(0, zunta_training_memory_save(path_.c_str(), &coord_));
    return read_file(path_);
  }

  struct coordinator coord_ = {};
  txcs_block block_ = {};
  trained_mesh_pair pairs_[4] = {};
  int pair_count_ = 0;
  ath aths_[3] = {};
  std::string path_ = test_dir() + "/training";
};

// The text with its last line replaced by the checksum of the rest, as the writer would seal it.
std::string resealed(std::string text) {
  text.erase(text.rfind("crc32 "));
  char line[32];
  std::snprintf(line, sizeof line, "crc32 %08" PRIx32 "\n",
                zunta_crc32(CRC32_START, text.data(), text.size()));
  return text + line;
}

TEST_F(TrainingMemoryTest, WhatIsSavedReadsBackBitForBit) {
  EXPECT_EQ(0xcbf43926u, zunta_crc32(CRC32_START, "123456789", 9));  // the checksum others compute
  saved();
  training_memory* m = zunta_training_memory_load(path_.c_str());
  ASSERT_NE(nullptr, m);
  ASSERT_EQ(2, m->pair_count);
  for (int i = 0; i < 2; ++i) {
    const trained_mesh_pair& p = pairs_[i];
    const remembered_pair& r = m->pairs[i];
    SCOPED_TRACE(p.meshkey);
    EXPECT_STREQ(p.meshkey, r.meshkey);
    EXPECT_EQ(std::string(p.left_mac) + p.left_ip + p.right_mac + p.right_ip,
              std::string(r.left_mac) + r.left_ip + r.right_mac + r.right_ip);
    EXPECT_EQ(p.left_tx_pattern * 10 + p.right_tx_pattern, r.left_tx_pattern * 10 + r.right_tx_pattern);
    EXPECT_EQ(p.trained_at, r.trained_at);
    EXPECT_EQ(0, std::memcmp(&block_, &r.txcs, sizeof block_));
  }
  ASSERT_EQ(1, m->node_count);
  EXPECT_STREQ("aa:00:00:00:00:02", m->nodes[0].mac);
  EXPECT_EQ(2, m->nodes[0].rx_pattern);
  EXPECT_STREQ(path_.c_str(), m->path);
  zunta_training_memory_free(m);
}

TEST_F(TrainingMemoryTest, AFileWithAnyImpossibleValueIsRefusedWhole) {
  const std::string good = saved();
  const std::string pair1 =
      good.substr(good.find("pair "), good.find("\npair ", good.find("pair ")) - good.find("pair ") + 1);
  auto swap = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::size_t rate = good.find("\nround 2 2 0 ") + 13;
  std::string nan = good;
  nan.replace(rate, good.find(' ', rate) - rate, "nan");
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {resealed(swap(" 127.0.8.1 aa:00:00:00:00:02 127.0.8.200 1 2 ",
                     " 127.0.8.1 aa:00:00:00:00:02 127.0.8.200 4 2 ")),
       "line 3: pair out of range"},
      {resealed(swap("\nround 3 3 0 ", "\nround 3 -1 0 ")), "line 7: round 3 out of range"},
      {resealed(nan), "line 6: round 2 out of range"},
      {resealed(swap(" aa:00:00:00:00:01 127", " AA:00:00:00:00:01 127")), "line 3: pair out of range"},
      {resealed(swap("pair aa:00:00:00:00:01-aa:00:00:00:00:02", "pair aa:00:00:00:00:02-aa:00:00:00:00:01")),
       "line 3: key is not its two MACs"},
      {resealed(swap("pair aa:00:00:00:00:01-aa:00:00:00:00:02 aa:00:00:00:00:01 127.0.8.1 aa:00:00:00:00:02 "
                     "127.0.8.200",
                     "pair aa:00:00:00:00:02-aa:00:00:00:00:01 aa:00:00:00:00:02 127.0.8.200 "
                     "aa:00:00:00:00:01 127.0.8.1")),
       "line 3: key is not its two MACs"},  // the larger MAC on the left
      {resealed(swap("pairs 2 nodes 1\n", "pairs 3 nodes 1\n" + pair1)), "line 20: duplicate key"},
      {resealed(swap("pairs 2 ", "pairs 2049 ")), "line 2: counts out of range"},
      {resealed(swap("pairs 2 ", "pairs 3 ")), "line 37: malformed pair line"},
      {resealed(swap("nodes 1\n", "nodes 2\n")), "line 38: node line expected, checksum line found"},
      {resealed(swap("nodes 1\n", "nodes 0\n")), "line 37: more lines than the counts say"},
      {resealed(swap("node aa:00:00:00:00:02 2", "node aa:00:00:00:00:02 7")), "line 37: node out of range"},
      {resealed(swap("round 0 0 0", "round 0  0 0")), "line 4: malformed round line"},
      {swap("zunta training memory 1", "zunta training memory 01x"), "format version 01x"},
      {good.substr(0, good.size() - 1), "truncated"},
      {"", "empty file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    char reason[TRAINING_MEMORY_REASON_SIZE];
    EXPECT_EQ(nullptr, zunta_training_memory_parse(c.text.data(), c.text.size(), reason));
    EXPECT_THAT(reason, HasSubstr(c.reason));
  }
}

// The loader takes only a regular file, not a link, of at most 8 MiB, and says once why not.
TEST_F(TrainingMemoryTest, TheLoaderRefusesLinksLargeFilesAndDamageWithOneWarning) {
  const std::string good = saved();
  std::string flipped = good;
  flipped[good.find("\nround 5 ") + 9] ^= 1;
  const std::string elsewhere = test_dir() + "/training-elsewhere";
  write_file(elsewhere, good);
  const struct {
    std::function<int()> make;
    const char* reason;
  } cases[] = {
      {[&] { return write_file(path_, flipped), 0; }, "checksum mismatch"},
      {[&] { return write_file(path_, good), truncate(path_.c_str(), TRAINING_MEMORY_MAX_BYTES + 1); },
       "larger than"},
      {[&] { return symlink(elsewhere.c_str(), path_.c_str()); }, "a symbolic link"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    std::remove(path_.c_str());
    ASSERT_EQ(0, c.make());
    capture_stdout out;
    EXPECT_EQ(nullptr, zunta_training_memory_load(path_.c_str()));
    const std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("ZUNTA:W:CORE: Training memory " + path_ + " ignored: " + c.reason));
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;
  }
}

}  // namespace
