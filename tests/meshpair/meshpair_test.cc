// Mesh pair records and keys: keys, insertion and its refusals, trained copies, deletion, and the
// lookup of a trained pair's current nodes.
#include <cstring>

#include "meshpair/meshpair_fixture.h"

using MeshPairTest = MeshFixture;
const std::string KEY12 = mac(1) + "-" + mac(2);

TEST_F(MeshPairTest, KeyPutsTheSmallerMacFirstAndSplitsBackWithinTheMacWidth) {
  ath *a2 = add_ath(2), *a1 = add_ath(1), *twin = add_ath(1, 1, 9);
  char key[MESHKEY_TEXT_SIZE], other[MESHKEY_TEXT_SIZE], m1[MAC_TEXT_SIZE], m2[MAC_TEXT_SIZE];
  ASSERT_EQ(0, zunta_generate_mesh_pair_key(key, a2, a1));
  ASSERT_EQ(0, zunta_generate_mesh_pair_key(other, a1, a2));
  EXPECT_EQ(KEY12 + KEY12, std::string(key) + other);
  ASSERT_EQ(0, zunta_split_meshkey((KEY12 + "99").c_str(), m1, m2));  // each half is cut to a MAC
  EXPECT_EQ(mac(1) + mac(2), std::string(m1) + m2);
  std::memset(key, 'x', sizeof key);
  EXPECT_EQ(-1, zunta_generate_mesh_pair_key(key, a1, twin));
  EXPECT_EQ('x', key[0]);
  EXPECT_EQ(-1, zunta_split_meshkey(m1, m1, m2));
}

TEST_F(MeshPairTest, AddTakesTheLeftNodeFromTheKeyOrLeavesTheTableAlone) {
  ath *a2 = add_ath(2), *a1 = add_ath(1), *plain = add_ath(3, 0);
  EXPECT_EQ(-1, zunta_mesh_pair_add(&c_, a1, plain, KEY12.c_str(), 2));
  EXPECT_EQ(-1, zunta_mesh_pair_add(&c_, plain, a1, KEY12.c_str(), 2));
  EXPECT_EQ(-1, zunta_mesh_pair_add(&c_, a1, nullptr, KEY12.c_str(), 2));
  EXPECT_EQ(-1, zunta_mesh_pair_add(&c_, a1, a2, "no separator", 2));
  EXPECT_EQ(0, c_.mesh_pair_count + zunta_mesh_pair_find(&c_, KEY12.c_str()));
  ASSERT_EQ(0, zunta_mesh_pair_add(&c_, a2, a1, KEY12.c_str(), 2));
  auto* p = sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list);
  EXPECT_TRUE(p->left_ath == a1 && p->right_ath == a2);
  EXPECT_EQ("12/2 ", pairs());
}

TEST_F(MeshPairTest, TrainedCopyOwnsItsBlockAndFindsItsNodesAgain) {
  ath *a2 = add_ath(2), *a1 = add_ath(1);
  ASSERT_EQ(0, pair(a1, a2));
  auto* p = sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list);
  p->txcs->rounds[15].left_avg_bitrate_ma = 42.0f;
  ASSERT_EQ(0, zunta_trained_mesh_pair_add(&c_, p));
  auto* t = sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list);
  p->txcs->rounds[15].left_avg_bitrate_ma = 1.0f;
  EXPECT_EQ(42.0f, t->txcs->rounds[15].left_avg_bitrate_ma);
  // Before a rebuild frees the aths, no link, pair or trained pair keeps pointing at one.
  neighbour n = {};
  ASSERT_EQ(0, zunta_mesh_pair_link_create(&c_, a1, &n));
  zunta_forget_ath_references(&c_);
  EXPECT_EQ(nullptr, sa_list_entry(c_.mesh_link_list.next, mesh_link, list)->ath);
  EXPECT_TRUE(!p->left_ath && !p->right_ath && !t->left_ath && !t->right_ath);
  // Afterwards a node is found by its MAC alone, front-most first, even under a new IP.
  add_ath(1);
  ath* moved = add_ath(1, 1, 9);
  EXPECT_EQ(moved, zunta_trained_pair_ath(&c_, t, PAIR_SIDE_LEFT));
  EXPECT_EQ(moved, t->left_ath);
  zunta_copy_text(t->right_mac, "0a:00:00:00:00:99");
  EXPECT_EQ(nullptr, zunta_trained_pair_ath(&c_, t, PAIR_SIDE_RIGHT));
}

TEST_F(MeshPairTest, DeletesByIpAndDropsOnlyInactiveTrainedPairs) {
  ath* n[4] = {add_ath(1), add_ath(2), add_ath(3), add_ath(4)};
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(0, pair(n[i], n[i + 1]));
  train_all();
  zunta_delete_mesh_pair(&c_, "127.0.61.2");  // right end of 12, left end of 23
  EXPECT_EQ("34/2 ", pairs());

  auto* untrained = sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list);
  untrained->active = untrained->trained = 0;  // kept: only trained records are dropped
  sa_list_entry(c_.trained_mesh_pair_list.prev, trained_mesh_pair, list)->active = 0;
  zunta_check_trained_mesh_pair(&c_);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
}
