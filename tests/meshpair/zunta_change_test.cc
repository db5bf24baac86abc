// Change detection between mesh pairs and trained pairs, and the flushes of the pair tables.
#include "core/zunta_log.h"
#include "meshpair/meshpair_fixture.h"
#include "support/capture_stdout.h"

namespace {

class ChangeTest : public MeshFixture {
 protected:
  // Nodes a, b and c, and a mesh pair for each of the given two-letter names ("ab", "bc", ...).
  void make_pairs(std::initializer_list<const char*> names) {
    if (sa_list_empty(&c_.ath_list)) {
      for (char n : {'a', 'b', 'c'})
        node_[n - 'a'] = add_ath(ip(n).c_str(), mac(n).c_str());
    }
    char key[MESHKEY_TEXT_SIZE];
    for (const char* n : names) {
      ath *x = node_[n[0] - 'a'], *y = node_[n[1] - 'a'];
      ASSERT_EQ(0, zunta_generate_mesh_pair_key(key, x, y));
      ASSERT_EQ(0, zunta_mesh_pair_add(&c_, x, y, key, 2));
    }
  }
  static std::string ip(char n) { return std::string("127.0.63.") + n; }
  static std::string mac(char n) { return std::string("aa:bb:cc:00:00:0") + n; }
  int change() { return zunta_mesh_pair_change(&c_, &removed_); }
  ath* node_[3] = {};
  uint8_t removed_ = 7;
};

TEST_F(ChangeTest, NewPairsAreAdditionsUntilTrained) {
  EXPECT_EQ(0, change());
  EXPECT_EQ(7, removed_);
  make_pairs({"ab", "bc"});
  EXPECT_EQ(1, change());
  EXPECT_EQ(0, removed_);
  train_all();
  zunta_flush_mesh_pairs(&c_);  // a rebuild: same topology, fresh untrained pairs
  make_pairs({"bc", "ab"});
  removed_ = 7;
  EXPECT_EQ(0, change());
  EXPECT_EQ(7, removed_);
  sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list) EXPECT_EQ(1, p->trained);
}

TEST_F(ChangeTest, RemovedPairsDropOnlyTheirTrainedRecords) {
  make_pairs({"ab", "bc", "ac"});
  train_all();
  zunta_flush_mesh_pairs(&c_);
  make_pairs({"ab", "bc"});
  EXPECT_EQ(1, change());
  EXPECT_EQ(1, removed_);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
  sa_list_for_each_entry(t, &c_.trained_mesh_pair_list, trained_mesh_pair, list) {
    EXPECT_NE(mac('a') + "-" + mac('c'), t->meshkey);
    EXPECT_EQ(1, t->active);
  }
}

TEST_F(ChangeTest, SwappedOrReplacedPairsCountAsAdditions) {
  make_pairs({"ab"});
  train_all();
  auto* t = sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list);
  std::swap(t->left_mac, t->right_mac);  // the same nodes in the other order do not correspond
  EXPECT_EQ(1, change());
  EXPECT_EQ(0, removed_);
  // One pair replaced by another leaves the counts equal: an addition, and the stale record stays.
  zunta_flush_mesh_pairs(&c_);
  make_pairs({"bc"});
  EXPECT_EQ(1, change());
  EXPECT_EQ(0, removed_);
  EXPECT_EQ(1, c_.trained_mesh_pair_count);
}

TEST_F(ChangeTest, FlushesEmptyTheirTablesOnly) {
  make_pairs({"ab", "bc"});
  lists(node_[0], mac('b').c_str());
  ASSERT_EQ(0, zunta_mesh_pair_link_create(&c_, node_[0],
                                           sa_list_entry(node_[0]->neighbours.next, neighbour, list)));
  train_all();
  zunta_flush_mesh_pairs(&c_);
  EXPECT_TRUE(sa_list_empty(&c_.mesh_pair_list) && sa_list_empty(&c_.mesh_link_list));
  EXPECT_EQ(0, c_.mesh_pair_count + c_.mesh_link_count);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
  zunta_flush_trained_mesh_pairs(&c_);
  EXPECT_TRUE(sa_list_empty(&c_.trained_mesh_pair_list));
  EXPECT_EQ(3, c_.ath_count);

  c_.mesh_pair_count = c_.mesh_link_count = c_.trained_mesh_pair_count = 5;
  log_level_scope detail(LVL_A);
  capture_stdout out;
  zunta_flush_mesh_pairs(&c_);
  zunta_flush_trained_mesh_pairs(&c_);
  EXPECT_EQ("", out.text());
  EXPECT_EQ(0, c_.mesh_pair_count + c_.mesh_link_count + c_.trained_mesh_pair_count);
}

}  // namespace
