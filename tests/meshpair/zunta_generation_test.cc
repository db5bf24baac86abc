// Mesh pair generation: mesh node marking, links and pairs from the registry, the direct
// generation, and the side of a node in a trained pair.
#include "core/zunta_log.h"
#include "meshpair/meshpair_fixture.h"
#include "support/capture_stdout.h"

namespace {

constexpr char MAC1[] = "aa:bb:cc:00:00:01";
constexpr char MAC2[] = "aa:bb:cc:00:00:02";
constexpr char MAC3[] = "aa:bb:cc:00:00:03";

class GenerationTest : public MeshFixture {
 protected:
  uint8_t generate() {
    uint8_t added = 0;
    EXPECT_EQ(0, zunta_meshpair_generation_table_create(&c_, &added));
    return added;
  }
  // The links front to back, as "left>right".
  std::vector<std::string> links() {
    std::vector<std::string> out;
    sa_list_for_each_entry(l, &c_.mesh_link_list, mesh_link, list)
        out.push_back(std::string(l->left_mac) + ">" + l->right_mac);
    return out;
  }
};

TEST_F(GenerationTest, FirstLinkReachedMakesThePair) {
  ath* a = add_ath("127.0.62.1", MAC2);  // A's discovery line came first
  ath* b = add_ath("127.0.62.2", MAC1);
  lists(a, MAC1, 2);
  lists(b, MAC2, 1);
  EXPECT_EQ(1, generate());
  EXPECT_EQ((std::vector<std::string>{std::string(MAC2) + ">" + MAC1, std::string(MAC1) + ">" + MAC2}),
            links());
  EXPECT_EQ(std::vector<std::string>{std::string(MAC1) + "-" + MAC2 + "/2"}, pairs());
  EXPECT_EQ(b, first_pair()->left_ath);
  EXPECT_EQ(a, first_pair()->right_ath);
}

TEST_F(GenerationTest, OnlyMutualListingsOfMeshNodesPair) {
  struct {
    const char* name;
    bool b_lists_a, b_mesh, a_lists_twice;
    size_t links, pairs;
  } cases[] = {{"mutual", true, true, false, 2, 1},
               {"one-sided", false, true, false, 1, 0},
               {"not a mesh node", true, false, false, 2, 0},
               {"listed twice", true, true, true, 3, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ath* a = add_ath("127.0.62.1", MAC1);
    ath* b = add_ath("127.0.62.2", MAC2, c.b_mesh);
    lists(a, MAC2);
    if (c.a_lists_twice) lists(a, MAC2);
    if (c.b_lists_a) lists(b, MAC1);
    EXPECT_EQ(c.pairs, size_t{generate()});
    EXPECT_EQ(c.links, links().size());
    EXPECT_EQ(c.pairs, pairs().size());
    TearDown();
    SetUp();
  }
}

TEST_F(GenerationTest, FullMeshOfThreeGivesThreePairs) {
  const char* macs[] = {MAC1, MAC2, MAC3};
  ath* a[3];
  for (int i = 0; i < 3; ++i)
    a[i] = add_ath(("127.0.62." + std::to_string(i + 1)).c_str(), macs[i]);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      if (i != j) lists(a[i], macs[j]);
    }
  }
  EXPECT_EQ(1, generate());
  EXPECT_EQ(6, c_.mesh_link_count);
  EXPECT_EQ(3, c_.mesh_pair_count);
}

TEST_F(GenerationTest, EmptyRegistryLogsNothing) {
  log_level_scope detail(LVL_A);
  capture_stdout out;
  EXPECT_EQ(0, generate());
  EXPECT_EQ("", out.text());
}

TEST_F(GenerationTest, DirectGenerationStopsAtAnUnknownNeighbour) {
  ath* a = add_ath("127.0.62.1", MAC1);
  add_ath("127.0.62.2", MAC2);
  ath* c = add_ath("127.0.62.3", MAC3);
  lists(a, MAC2, 1);              // a single listing is enough
  lists(c, MAC2);                 // walked after the unknown one, so never examined
  lists(c, "aa:bb:cc:00:00:09");  // walked first
  uint8_t not_found = 7, added = 0;
  // The ath list is walked c, b, a: the last search (a's) found its node.
  EXPECT_EQ(0, zunta_meshpair_generation_process(&c_, &not_found, &added));
  EXPECT_EQ(std::vector<std::string>{std::string(MAC1) + "-" + MAC2 + "/1"}, pairs());
  EXPECT_EQ(0, not_found);
  EXPECT_EQ(1, added);
}

TEST_F(GenerationTest, MeshNodesAreMarkedByExactClientMac) {
  ath* a = add_ath("127.0.62.1", MAC1, 0);
  ath* b = add_ath("127.0.62.2", MAC2, 0);
  add_client(MAC1);
  add_client("AA:BB:CC:00:00:02");
  EXPECT_EQ(0, zunta_add_allow_mac_for_mesh_pair(&c_));
  EXPECT_EQ(1, a->is_mesh_node);
  EXPECT_EQ(0, b->is_mesh_node);
  EXPECT_EQ(-1, zunta_add_allow_mac_for_mesh_pair(nullptr));
}

TEST_F(GenerationTest, SideOfANodeIsDecidedByIp) {
  trained_mesh_pair tp{};
  zunta_copy_text(tp.left_ip, "127.0.62.1");
  zunta_copy_text(tp.right_ip, "127.0.62.2");
  ath* left = add_ath("127.0.62.1", MAC1);
  ath* right = add_ath("127.0.62.2", MAC2);
  ath* other = add_ath("127.0.62.3", MAC3);
  EXPECT_EQ(PAIR_SIDE_LEFT, zunta_check_ath_in_mesh_pair(&tp, left));
  EXPECT_EQ(PAIR_SIDE_RIGHT, zunta_check_ath_in_mesh_pair(&tp, right));
  EXPECT_EQ(-1, zunta_check_ath_in_mesh_pair(&tp, other));
  zunta_copy_text(tp.right_ip, "127.0.62.1");
  EXPECT_EQ(PAIR_SIDE_LEFT, zunta_check_ath_in_mesh_pair(&tp, left));
}

}  // namespace
