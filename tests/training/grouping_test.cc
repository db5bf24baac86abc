// Grouping of the pairs of a training pass: pairs within two hops (a shared node, or a node of one
// that a node of the other lists or is listed by) never share a group, and each pair joins the
// first group it fits, in training order.
#include <gmock/gmock.h>

#include <cstdlib>
#include <deque>
#include <vector>

#include "core/text.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

using ::testing::ElementsAre;

// Aths that list one another, and pairs in training order. Node n has the MAC aa:00:00:00:HH:LL.
class grouping_mesh {
 public:
  grouping_mesh() { INIT_SA_LIST_HEAD(&t_.ath_list); }
  ~grouping_mesh() { zunta_flush_ath(&t_); }

  static void mac_of(char (&mac)[MAC_TEXT_SIZE], int n) {
    zunta_format_buffer(mac, sizeof mac, "aa:00:00:00:%02x:%02x", (n >> 8) & 0xff, n & 0xff);
  }
  // n lists peer as its neighbour (peer's MAC as given, in upper case when `upper`).
  void lists(int n, int peer, bool upper = false) {
    auto* nb = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    mac_of(nb->mac, peer);
    if (upper) {
      for (char& c : nb->mac)
        c = (c >= 'a' && c <= 'f') ? static_cast<char>(c - 'a' + 'A') : c;
    }
    nb->radioidx = 2;
    sa_list_add(&nb->list, &node(n)->neighbours);
  }
  void pair(int a, int b) {
    lists(a, b);
    lists(b, a);
    mesh_pair p = {};
    mac_of(p.left_mac, a);
    mac_of(p.right_mac, b);
    pairs_.push_back(p);
  }
  std::vector<int32_t> groups() {
    std::vector<mesh_pair*> order;
    for (mesh_pair& p : pairs_)
      order.push_back(&p);
    std::vector<int32_t> out(order.size(), -2);
    count_ = zunta_group_mesh_pairs(&t_, order.data(), static_cast<int32_t>(order.size()), out.data());
    return out;
  }
  int32_t count() const { return count_; }

 private:
  ath* node(int n) {
    char mac[MAC_TEXT_SIZE];
    mac_of(mac, n);
    sa_list_for_each_entry(a, &t_.ath_list, ath, list) {
      if (zunta_text_equal(a->mac, mac)) return a;
    }
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->mac, mac);
    INIT_SA_LIST_HEAD(&a->neighbours);
    a->is_mesh_node = 1;
    sa_list_add(&a->list, &t_.ath_list);
    ++t_.ath_count;
    return a;
  }

  node_tables t_{};
  std::deque<mesh_pair> pairs_;
  int32_t count_ = -1;
};

TEST(GroupingTest, ChainsTakeEveryThirdPairTogether) {
  grouping_mesh m;
  for (int n = 1; n < 7; ++n)
    m.pair(n, n + 1);  // 1-2, 2-3, ..., 6-7
  EXPECT_THAT(m.groups(), ElementsAre(0, 1, 2, 0, 1, 2));
  EXPECT_EQ(3, m.count());

  // Listed in one direction only, and in upper case, a neighbour still separates two pairs.
  grouping_mesh one_sided;
  one_sided.pair(1, 2);
  one_sided.pair(3, 4);
  one_sided.pair(5, 6);
  one_sided.lists(3, 2, true);  // 3 hears 2; 2 does not list 3
  EXPECT_THAT(one_sided.groups(), ElementsAre(0, 1, 0));
}

TEST(GroupingTest, StarsAndCliquesTrainOnePairAtATime) {
  grouping_mesh star;
  for (int leaf = 2; leaf < 7; ++leaf)
    star.pair(1, leaf);
  EXPECT_THAT(star.groups(), ElementsAre(0, 1, 2, 3, 4));

  grouping_mesh clique;
  for (int a = 1; a < 5; ++a) {
    for (int b = a + 1; b < 5; ++b)
      clique.pair(a, b);
  }
  EXPECT_THAT(clique.groups(), ElementsAre(0, 1, 2, 3, 4, 5));
  EXPECT_EQ(6, clique.count());
}

TEST(GroupingTest, PairWhoseNodesBothNeighbourAnotherWaitsAndLaterPairsFillIn) {
  grouping_mesh m;
  m.pair(1, 2);
  m.pair(3, 4);  // 3 hears 1 and 4 hears 2: within two hops of 1-2 on both sides
  m.lists(3, 1);
  m.lists(4, 2);
  m.pair(5, 6);  // far from both
  m.pair(7, 8);  // 7 neighbours 6 only
  m.lists(6, 7);
  EXPECT_THAT(m.groups(), ElementsAre(0, 1, 0, 1));
  EXPECT_EQ(2, m.count());
}

// A 27 x 19 grid, each node hearing its four neighbours: the first 490 of its pairs in row order.
TEST(GroupingTest, FourHundredNinetyPairsFormValidGreedyGroups) {
  grouping_mesh m;
  constexpr int WIDTH = 27;
  std::vector<std::pair<int, int>> pairs;
  for (int n = 0; pairs.size() < 490; ++n) {
    if (n % WIDTH != WIDTH - 1) pairs.push_back({n, n + 1});
    if (pairs.size() < 490) pairs.push_back({n, n + WIDTH});
  }
  for (auto [a, b] : pairs)
    m.pair(a, b);
  const std::vector<int32_t> g = m.groups();
  ASSERT_GT(m.count(), 1);
  ASSERT_LT(m.count(), 490);
  // Two pairs are within two hops when an end of one is an end of the other or a grid neighbour.
  auto near = [&](int a, int b) {
    auto touches = [&](int x, int y) {
      int dx = std::abs(x % WIDTH - y % WIDTH), dy = std::abs(x / WIDTH - y / WIDTH);
      return dx + dy <= 1;
    };
    return touches(pairs[a].first, pairs[b].first) || touches(pairs[a].first, pairs[b].second) ||
           touches(pairs[a].second, pairs[b].first) || touches(pairs[a].second, pairs[b].second);
  };
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    ASSERT_GE(g[i], 0);
    for (std::size_t j = 0; j < pairs.size(); ++j)
      EXPECT_FALSE(j != i && g[j] == g[i] && near(i, j)) << i << " and " << j;
    // Greedy: every earlier group holds a pair, placed before this one, that is near it.
    for (int32_t earlier = 0; earlier < g[i]; ++earlier) {
      bool blocked = false;
      for (std::size_t j = 0; j < i && !blocked; ++j)
        blocked = g[j] == earlier && near(i, j);
      EXPECT_TRUE(blocked) << "pair " << i << " fits group " << earlier;
    }
  }
}

}  // namespace
