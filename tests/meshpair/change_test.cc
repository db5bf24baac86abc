// Change detection between the mesh pairs of each new generation and the trained pairs.
#include "meshpair/meshpair_fixture.h"

namespace {

class ChangeTest : public MeshFixture {
 protected:
  // The result of a check after a fresh generation with a mesh pair per name ("12", "23", ...).
  int change_to(std::initializer_list<const char*> names) {
    zunta_flush_mesh_pairs(&c_);
    for (const char* n : names)
      pair(node_[n[0] - '0'], node_[n[1] - '0']);
    removed_ = 7;
    return zunta_mesh_pair_change(&c_, &removed_);
  }
  ath* node_[4] = {nullptr, add_ath(1), add_ath(2), add_ath(3)};
  uint8_t removed_ = 7;
};

TEST_F(ChangeTest, ChecksFollowTheTrainedPairs) {
  EXPECT_EQ(0, change_to({}));
  EXPECT_EQ(1, change_to({"12", "23", "13"}));
  EXPECT_EQ(0, removed_);
  train_all();
  EXPECT_EQ(0, change_to({"23", "13", "12"}));
  EXPECT_EQ(7, removed_);
  sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list) EXPECT_EQ(1, p->trained);

  EXPECT_EQ(1, change_to({"12", "23"}));
  EXPECT_EQ(1, removed_);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
  sa_list_for_each_entry(t, &c_.trained_mesh_pair_list, trained_mesh_pair, list) EXPECT_EQ(1, t->active);

  // 23 replaced by 13 leaves the counts equal: an addition, and 23's record stays.
  EXPECT_EQ(1, change_to({"12", "13"}));
  EXPECT_EQ(0, removed_);
  EXPECT_EQ(2, c_.trained_mesh_pair_count);
}

}  // namespace
