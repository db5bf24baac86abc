// Mesh pair generation: mesh node marking, links and pairs from the registry, and the direct
// generation.
#include "meshpair/meshpair_fixture.h"

namespace {

class GenerationTest : public MeshFixture {
 protected:
  uint8_t generate(uint8_t added = 0) {
    EXPECT_EQ(0, zunta_meshpair_generation_table_create(&c_, &added));
    return added;
  }
};

TEST_F(GenerationTest, FirstLinkReachedMakesThePair) {
  ath* a = add_ath(2);  // A's discovery line came first
  ath* b = add_ath(1);
  lists(a, 1, 2);
  lists(b, 2, 1);
  EXPECT_EQ(1, generate());
  EXPECT_EQ(mac(2), sa_list_entry(c_.mesh_link_list.next, mesh_link, list)->left_mac);  // A to B, then B to A
  EXPECT_EQ("12/2 ", pairs());
  EXPECT_EQ(b, sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list)->left_ath);
}

TEST_F(GenerationTest, OnlyMutualListingsOfMeshNodesPair) {
  struct {
    bool b_lists_a, b_mesh, a_lists_twice;
    int links;
    const char* pairs;
  } cases[] = {{false, true, false, 1, ""}, {true, false, false, 2, ""}, {true, true, true, 3, "12/2 "}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.links);
    ath *a = add_ath(1), *b = add_ath(2, c.b_mesh);
    for (int i = c.a_lists_twice ? 2 : 1; i > 0; --i)
      lists(a, 2);
    if (c.b_lists_a) lists(b, 1);
    EXPECT_EQ(c.pairs[0] != '\0' ? 1 : 7, generate(7));  // the flag is set, never cleared
    EXPECT_EQ(c.links, c_.mesh_link_count);
    EXPECT_EQ(c.pairs, pairs());
    TearDown();
    SetUp();
  }
  ath* n[3] = {add_ath(1), add_ath(2), add_ath(3)};
  for (int i = 0; i < 9; ++i) {
    if (i / 3 != i % 3) lists(n[i / 3], i % 3 + 1);
  }
  generate();
  EXPECT_EQ(6, c_.mesh_link_count);
  EXPECT_EQ(3, c_.mesh_pair_count);
}

TEST_F(GenerationTest, DirectGenerationStopsAtAnUnknownNeighbour) {
  ath* a = add_ath(1, 0);
  add_ath(2, 0);
  ath* c = add_ath(3);
  module_client clients[2] = {};
  zunta_copy_text(clients[0].mac, mac(1).c_str());
  zunta_copy_text(clients[1].mac, "AA:BB:CC:00:00:02");  // only exact MACs mark a mesh node
  for (module_client& mc : clients)
    sa_list_add(&mc.list, &c_.module_client_list);
  ASSERT_EQ(0, zunta_add_allow_mac_for_mesh_pair(&c_));
  lists(a, 2, 1);  // 2 is found but is no mesh node
  lists(a, 3, 1);  // a single listing is enough
  lists(c, 1);     // walked after the unknown node 9, so never examined
  lists(c, 9);
  uint8_t not_found = 7, added = 0;
  // The aths are walked 3, 2, 1: the last search, node 1's, found its node.
  EXPECT_EQ(0, zunta_meshpair_generation_process(&c_, &not_found, &added));
  EXPECT_EQ("13/1 ", pairs());
  EXPECT_TRUE(not_found == 0 && added == 1);
}

}  // namespace
