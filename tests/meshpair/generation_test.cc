// Mesh pair generation: the pairs from the registry's links, and the direct generation.
#include "meshpair/meshpair_fixture.h"

using GenerationTest = MeshFixture;

TEST_F(GenerationTest, FirstLinkReachedMakesThePairAndItsReverseFindsTheKey) {
  ath* a = add_ath(2);  // A's discovery line came first
  ath* b = add_ath(1);
  lists(a, 1, 2);
  lists(b, 2, 1);
  uint8_t added = 0;
  EXPECT_EQ(0, zunta_meshpair_generation_table_create(&c_, &added));
  EXPECT_EQ(1, added);
  EXPECT_EQ(mac(2), sa_list_entry(c_.mesh_link_list.next, mesh_link, list)->left_mac);  // A to B, then B to A
  EXPECT_EQ("12/2 ", pairs());
  EXPECT_EQ(b, sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list)->left_ath);
}

TEST_F(GenerationTest, DirectGenerationPairsSingleListingsAndStopsAtAnUnknownNeighbour) {
  ath* n[4] = {add_ath(1), add_ath(2, 0), add_ath(3), add_ath(4)};
  lists(n[0], 2, 1);  // found, but no mesh node
  lists(n[0], 3, 1);  // a single listing is enough
  lists(n[2], 4);     // behind the unknown node 9, so never examined
  lists(n[2], 9);
  uint8_t not_found = 7, added = 0;
  // The aths are walked 4, 3, 2, 1: the last search, node 1's, found its node.
  EXPECT_EQ(0, zunta_meshpair_generation_process(&c_, &not_found, &added));
  EXPECT_EQ("13/1 ", pairs());
  EXPECT_TRUE(not_found == 0 && added == 1);
}

TEST_F(GenerationTest, ThreeNodesListingEachOtherGiveSixLinksAndThreePairs) {
  ath* n[3] = {add_ath(1), add_ath(2), add_ath(3)};
  for (int i = 0; i < 3; ++i)
    for (int j = 1; j <= 3; ++j)
      if (j != i + 1) lists(n[i], j);
  uint8_t added = 0;
  zunta_meshpair_generation_table_create(&c_, &added);
  EXPECT_EQ(6, c_.mesh_link_count);
  EXPECT_EQ("23/2 13/2 12/2 ", pairs());
}
