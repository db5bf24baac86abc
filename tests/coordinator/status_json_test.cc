// The JSON status document read back by a real parser and checked against the shipped schema:
// texts from the network come back byte for byte, pairs are merged by key with their gains and
// the reason they are untrained, and the waits rewrite it only while a training pass runs.
#include "coordinator/status_json.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>

#include "commander/failures.h"
#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "support/test_env.h"
#include "training/pass.h"

namespace {

using flat_json = std::map<std::string, std::string>;

// The document's leaves by path ("pairs.0.rounds.9.2"), as tests/support/json_flat.py prints them
// after parsing the document and validating it against the schema.
flat_json read_back(std::string* failure) {
  const std::string source = ZUNTA_SOURCE_DIR;
  const std::string command = "/usr/bin/python3 " + source + "/tests/support/json_flat.py '" +
                              zunta_status_json_path() + "' " + source +
                              "/packaging/zunta-status.schema.json 2>&1";
  flat_json out;
  std::FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string text(line);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    const auto tab = text.find('\t');
    if (tab == std::string::npos) *failure += text + "\n";
    if (tab != std::string::npos) out[text.substr(0, tab)] = text.substr(tab + 1);
  }
  if (pclose(pipe) != 0) *failure += "the parser or the schema refused the document";
  return out;
}

// The rounds a pair lists.
std::size_t rounds_of(const flat_json& doc, const std::string& pair) {
  std::size_t n = 0;
  while (doc.count(pair + "rounds." + std::to_string(n) + ".3") == 1)
    ++n;
  return n;
}

// A text as json_flat.py prints it: the hex of its bytes.
std::string s(const std::string& bytes) {
  std::string out = "s:";
  char hex[3];
  for (unsigned char c : bytes) {
    std::snprintf(hex, sizeof hex, "%02x", c);
    out += hex;
  }
  return out;
}

// The field of the node with this address.
std::string node_field(const flat_json& doc, const std::string& ip_text, const std::string& field) {
  for (int i = 0; doc.count("nodes." + std::to_string(i) + ".ip") == 1; ++i) {
    const std::string node = "nodes." + std::to_string(i) + ".";
    if (doc.at(node + "ip") == s(ip_text)) return doc.at(node + field);
  }
  return "(no node " + ip_text + ")";
}

class StatusJsonTest : public ::testing::Test {
 protected:
  StatusJsonTest() {
    for (sa_list* h : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                       &c_.module_client_list})
      INIT_SA_LIST_HEAD(h);
  }
  ~StatusJsonTest() override {
    zunta_flush_mesh_pairs(&c_);
    zunta_flush_trained_mesh_pairs(&c_);
    zunta_forget_ath_references(&c_);
    zunta_flush_ath(&c_);
  }

  ath* add_node(const char* ip, const char* mac) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    std::memcpy(a->ip, ip, std::min(std::strlen(ip), sizeof a->ip));
    std::memcpy(a->mac, mac, std::min(std::strlen(mac), sizeof a->mac));
    INIT_SA_LIST_HEAD(&a->neighbours);
    sa_list_add(&a->list, &c_.ath_list);
    return a;
  }

  // A mesh pair "aa:..:0<left>-aa:..:0<right>" whose round r reports patterns (r % 4, r / 4) and
  // left and right bitrates rate(r) and rate(r) + 1000.
  mesh_pair* add_pair(int left, int right, int (*rate)(int)) {
    ath* a = add_node(("127.0.62." + std::to_string(left)).c_str(),
                      ("aa:bb:cc:00:00:0" + std::to_string(left)).c_str());
    ath* b = add_node(("127.0.62." + std::to_string(right)).c_str(),
                      ("aa:bb:cc:00:00:0" + std::to_string(right)).c_str());
    a->is_mesh_node = b->is_mesh_node = 1;
    char key[MESHKEY_TEXT_SIZE];
    EXPECT_EQ(0, zunta_generate_mesh_pair_key(key, a, b));
    EXPECT_EQ(0, zunta_mesh_pair_add(&c_, a, b, key, 2));
    mesh_pair* mp = sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list);
    for (int r = 0; r < 16; ++r) {
      txcs_record& rec = mp->txcs->rounds[r];
      rec.left_pattern = r % 4;
      rec.right_pattern = r / 4;
      rec.left_avg_bitrate_ma = static_cast<float>(rate(r));
      rec.right_avg_bitrate_ma = static_cast<float>(rate(r) + 1000);
    }
    return mp;
  }

  flat_json write_and_read() {
    EXPECT_EQ(0, zunta_status_json_write(&coord_, &opts_));
    std::string failure;
    flat_json doc = read_back(&failure);
    EXPECT_EQ("", failure);
    return doc;
  }

  struct coordinator coord_ = {};
  mesh_tables& c_ = coord_;
  options opts_ = {1, "127.0.62.255", 12101, 3, 30};
};

TEST_F(StatusJsonTest, NetworkTextsReadBackByteForByteEvenWithoutTheirTerminator) {
  struct text_case {
    const char* ip;
    const char* mac;
  };
  const text_case cases[] = {
      {"1\"2\\3", "quote\"back\\slash"},
      {"\x01\n\t\x1f", "ctl\b\f\r\x7f end"},
      {"\x80\xff\xc3\xa9", "bytes \xe2\x82\xac"},
      {"0123456789abcdef", "0123456789abcdefgh"},  // every byte of the field used, no NUL in it
  };
  for (const text_case& c : cases)
    add_node(c.ip, c.mac);
  const flat_json doc = write_and_read();
  // The newest record comes first.
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const text_case& c = cases[std::size(cases) - 1 - i];
    SCOPED_TRACE(i);
    const std::string node = "nodes." + std::to_string(i) + ".";
    EXPECT_EQ(s(std::string(c.ip).substr(0, IP_TEXT_SIZE)), doc.at(node + "ip"));
    EXPECT_EQ(s(std::string(c.mac).substr(0, MAC_TEXT_SIZE)), doc.at(node + "mac"));
  }
}

int rising(int r) {
  return 100000 + 1000 * r + (r == 9 ? 300000 : 0);  // round 9 is best
}

TEST_F(StatusJsonTest, PairsMergeByKeyWithTheirGainsAndWhyTheyAreUntrained) {
  // 1-2: trained and current. 3-4: trained, its nodes gone, its default round all zero. 5-6:
  // trained on an unexpected radio. 7-8: never trained. 1-9: stopped for a silent node.
  mesh_pair* current = add_pair(1, 2, rising);
  current->trained = 1;
  zunta_trained_mesh_pair_add(&c_, current);
  sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list)->left_tx_pattern = 1;
  sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list)->right_tx_pattern = 2;
  mesh_pair* gone = add_pair(3, 4, rising);
  gone->txcs->rounds[15] = txcs_record{};
  zunta_trained_mesh_pair_add(&c_, gone);
  mesh_pair* radio = add_pair(5, 6, rising);
  radio->radioidx = 0;
  zunta_trained_mesh_pair_add(&c_, radio);
  zunta_delete_mesh_pair(&c_, "127.0.62.3");
  zunta_delete_mesh_pair(&c_, "127.0.62.5");
  add_pair(7, 8, rising);
  mesh_pair* stopped = add_pair(1, 9, rising);
  zunta_pass_note_stopped(stopped->meshkey, "127.0.62.9", "aa:bb:cc:00:00:09");
  // Under way in a running pass: 3-5 has measured five rounds, 4-6 has completed its sixteen but
  // has no trained copy yet.
  zunta_pass_begin(4, true);
  zunta_pass_pair_begins(nullptr);
  mesh_pair* measuring = add_pair(3, 5, rising);
  measuring->txcs_count = 5;
  mesh_pair* uncopied = add_pair(4, 6, rising);
  uncopied->trained = 1;
  zunta_count_failure("127.0.62.9");
  zunta_count_failure("127.0.62.9");
  ath* chosen = add_node("127.0.62.10", "aa:bb:cc:00:00:10");
  chosen->rx_pattern = 2;
  chosen->rx_chosen = 1;

  const flat_json doc = write_and_read();
  zunta_pass_end();
  zunta_pass_forget_stopped(stopped->meshkey);

  struct expected_pair {
    const char* key;
    const char* trained;
    const char* current;
    std::string untrained;
    std::string chosen;
    std::string gain;
    std::size_t rounds;
  };
  // (409000 + 410000 - 115000 - 116000) / (115000 + 116000): round 9 over round 15.
  const expected_pair pairs[] = {
      {"1-2", "true", "true", "null", "n:9", "n:254.55", 16},
      {"1-9", "false", "true", s("stopped: node not answering"), "null", "null", 0},
      {"3-4", "true", "false", "null", "n:9", "null", 16},
      {"3-5", "false", "true", s("training"), "null", "null", 5},
      {"4-6", "true", "true", "null", "n:9", "n:254.55", 16},
      {"5-6", "true", "false", "null", "null", "null", 16},  // no round of radio 2
      {"7-8", "false", "true", s("never trained"), "null", "null", 0},
  };
  for (std::size_t i = 0; i < std::size(pairs); ++i) {
    const expected_pair& e = pairs[i];
    SCOPED_TRACE(e.key);
    const std::string p = "pairs." + std::to_string(i) + ".";
    const std::string key = std::string("aa:bb:cc:00:00:0") + e.key[0] + "-aa:bb:cc:00:00:0" + e.key[2];
    EXPECT_EQ(s(key), doc.at(p + "key"));
    EXPECT_EQ(e.trained, doc.at(p + "trained"));
    EXPECT_EQ(e.current, doc.at(p + "current"));
    EXPECT_EQ(e.untrained, doc.at(p + "untrained"));
    EXPECT_EQ(e.chosen, doc.at(p + "chosen_round"));
    EXPECT_EQ(e.gain, doc.at(p + "gain_percent"));
    EXPECT_EQ(e.rounds, rounds_of(doc, p));
  }
  EXPECT_EQ("n:1", doc.at("pairs.0.left.tx_pattern"));
  EXPECT_EQ("null", doc.at("pairs.4.left.tx_pattern")) << "not chosen before the selection";
  EXPECT_EQ("n:409000", doc.at("pairs.0.rounds.9.2"));
  EXPECT_EQ(s("127.0.62.9"), doc.at("pairs.1.stopped_node.ip"));
  EXPECT_EQ("n:2", node_field(doc, "127.0.62.10", "rx_pattern"));
  EXPECT_EQ("null", node_field(doc, "127.0.62.7", "rx_pattern")) << "0 in a new record is no choice";
  EXPECT_EQ("n:2", node_field(doc, "127.0.62.9", "failed_exchanges"));
  EXPECT_EQ("n:0", node_field(doc, "127.0.62.7", "failed_exchanges"));
  EXPECT_EQ("true", doc.at("pass.running"));
  EXPECT_NE("null", doc.at("pass.estimated_end"));
}

TEST_F(StatusJsonTest, TheWaitsRewriteItOnlyWhileAPassRuns) {
  struct coordinator* const saved = coordinator;
  coordinator = &coord_;  // the task writes the daemon's own record
  zunta_status_json_watch(&opts_);
  const std::string path = zunta_status_json_path();
  unlink(path.c_str());
  zunta_pass_begin(1, false);
  zunta_pause_us(2 * STATUS_JSON_PASS_PERIOD_US);
  EXPECT_EQ(0, access(path.c_str(), F_OK));
  zunta_pass_end();
  unlink(path.c_str());
  zunta_pause_us(2 * STATUS_JSON_PASS_PERIOD_US);
  zunta_status_json_unwatch();
  coordinator = saved;
  EXPECT_NE(0, access(path.c_str(), F_OK)) << "no pass, no document";
}

}  // namespace
