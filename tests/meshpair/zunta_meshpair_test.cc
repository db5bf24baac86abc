// Mesh pair records and keys: key generation and splitting, pair and trained pair insertion,
// deletion, and the lookup of a trained pair's current nodes.
#include <cstring>

#include "core/zunta_log.h"
#include "meshpair/meshpair_fixture.h"
#include "support/capture_stdout.h"

namespace {

constexpr char MAC1[] = "aa:bb:cc:00:00:01";
constexpr char MAC2[] = "aa:bb:cc:00:00:02";
constexpr char KEY12[] = "aa:bb:cc:00:00:01-aa:bb:cc:00:00:02";

using MeshPairTest = MeshFixture;

TEST_F(MeshPairTest, KeyPutsTheSmallerMacFirstAndSplitsBack) {
  ath* a2 = add_ath("127.0.61.2", MAC2);
  ath* a1 = add_ath("127.0.61.1", MAC1);
  char key[MESHKEY_TEXT_SIZE];
  for (auto [x, y] : {std::pair{a2, a1}, std::pair{a1, a2}}) {
    ASSERT_EQ(0, zunta_generate_mesh_pair_key(key, x, y));
    EXPECT_STREQ(KEY12, key);
  }
  ath* same = add_ath("127.0.61.3", MAC1);
  std::memset(key, 'x', sizeof key);
  EXPECT_EQ(-1, zunta_generate_mesh_pair_key(key, a1, same));
  EXPECT_EQ(-1, zunta_generate_mesh_pair_key(key, a1, nullptr));
  EXPECT_EQ('x', key[0]);

  char m1[MAC_TEXT_SIZE], m2[MAC_TEXT_SIZE];
  ASSERT_EQ(0, zunta_split_meshkey(KEY12, m1, m2));
  EXPECT_STREQ(MAC1, m1);
  EXPECT_STREQ(MAC2, m2);
  EXPECT_EQ(-1, zunta_split_meshkey("aa:bb:cc:00:00:01", m1, m2));
  EXPECT_EQ(-1, zunta_split_meshkey(nullptr, m1, m2));
}

TEST_F(MeshPairTest, AddTakesTheLeftNodeFromTheKey) {
  ath* a2 = add_ath("127.0.61.2", MAC2);
  ath* a1 = add_ath("127.0.61.1", MAC1);
  EXPECT_EQ(0, zunta_mesh_pair_find(&c_, KEY12));
  ASSERT_EQ(0, zunta_mesh_pair_add(&c_, a2, a1, KEY12, 2));
  mesh_pair* p = first_pair();
  EXPECT_EQ(a1, p->left_ath);
  EXPECT_EQ(a2, p->right_ath);
  EXPECT_STREQ("127.0.61.1", p->left_ip);
  EXPECT_STREQ(MAC2, p->right_mac);
  EXPECT_EQ(2, p->radioidx);
  EXPECT_EQ(1, c_.mesh_pair_count);
  EXPECT_EQ(1, zunta_mesh_pair_find(&c_, KEY12));
  EXPECT_EQ(-1, zunta_mesh_pair_find(nullptr, KEY12));
}

TEST_F(MeshPairTest, RefusedAddLeavesTheTableUnchanged) {
  ath* a1 = add_ath("127.0.61.1", MAC1);
  ath* a2 = add_ath("127.0.61.2", MAC2, 0);
  struct {
    ath *x, *y;
    const char* key;
  } cases[] = {{a1, a2, KEY12}, {a2, a1, KEY12}, {a1, nullptr, KEY12}, {a1, a1, "no separator"}};
  log_level_scope detail(LVL_I);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    capture_stdout out;
    EXPECT_EQ(-1, zunta_mesh_pair_add(&c_, c.x, c.y, c.key, 2));
    EXPECT_TRUE(sa_list_empty(&c_.mesh_pair_list));
    EXPECT_EQ(0, c_.mesh_pair_count);
    if (c.y == a2 || c.x == a2) {
      EXPECT_NE(std::string::npos, out.text().find("One of the macs does not exists\n"));
    }
  }
}

TEST_F(MeshPairTest, TrainedCopyOwnsItsBlockAndFindsItsNodesAgain) {
  ath* a2 = add_ath("127.0.61.2", MAC2);
  ath* a1 = add_ath("127.0.61.1", MAC1);
  ASSERT_EQ(0, zunta_mesh_pair_add(&c_, a1, a2, KEY12, 2));
  first_pair()->txcs->rounds[15].left_avg_bitrate_ma = 42.0f;
  ASSERT_EQ(0, zunta_trained_mesh_pair_add(&c_, first_pair()));
  auto* t = sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list);
  EXPECT_EQ(1, t->active);
  EXPECT_EQ(1, t->trained);
  EXPECT_NE(first_pair()->txcs, t->txcs);
  first_pair()->txcs->rounds[15].left_avg_bitrate_ma = 1.0f;
  EXPECT_EQ(42.0f, t->txcs->rounds[15].left_avg_bitrate_ma);
  EXPECT_EQ(a1, zunta_trained_pair_ath(&c_, t, PAIR_SIDE_LEFT));

  // After a rebuild the reference is cleared: the node is found by MAC and IP, front-most first.
  t->left_ath = nullptr;
  add_ath("127.0.61.9", MAC1);  // same MAC, other IP: not the node
  ath* again = add_ath("127.0.61.1", MAC1);
  EXPECT_EQ(again, zunta_trained_pair_ath(&c_, t, PAIR_SIDE_LEFT));
  EXPECT_EQ(again, t->left_ath);
  t->right_ath = nullptr;
  zunta_copy_text(t->right_ip, "127.0.61.8");
  EXPECT_EQ(nullptr, zunta_trained_pair_ath(&c_, t, PAIR_SIDE_RIGHT));
}

TEST_F(MeshPairTest, DeletesByIpAndDropsInactiveTrainedPairs) {
  ath* a = add_ath("127.0.61.1", MAC1);
  ath* b = add_ath("127.0.61.2", MAC2);
  ath* c = add_ath("127.0.61.3", "aa:bb:cc:00:00:03");
  ath* d = add_ath("127.0.61.4", "aa:bb:cc:00:00:04");
  char key[MESHKEY_TEXT_SIZE];
  for (auto [x, y] : {std::pair{a, b}, std::pair{b, c}, std::pair{c, d}}) {
    ASSERT_EQ(0, zunta_generate_mesh_pair_key(key, x, y));
    ASSERT_EQ(0, zunta_mesh_pair_add(&c_, x, y, key, 2));
  }
  train_all();
  zunta_delete_mesh_pair(&c_, "127.0.61.2");  // right end of a-b, left end of b-c
  EXPECT_EQ(std::vector<std::string>{"aa:bb:cc:00:00:03-aa:bb:cc:00:00:04/2"}, pairs());
  EXPECT_EQ(1, c_.mesh_pair_count);

  auto* newest = sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list);
  newest->active = 0;
  newest->trained = 0;  // untrained records stay whatever their active flag
  sa_list_entry(c_.trained_mesh_pair_list.prev, trained_mesh_pair, list)->active = 0;
  zunta_check_trained_mesh_pair(&c_);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
  EXPECT_EQ(newest, sa_list_entry(c_.trained_mesh_pair_list.next, trained_mesh_pair, list));
}

}  // namespace
