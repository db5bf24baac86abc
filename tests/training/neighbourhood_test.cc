// Which pairs of a pass may train at once: pairs within two hops (a shared node, or a node of one
// that a node of the other lists or is listed by) never do, and claims add up and release.
#include "training/neighbourhood.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "core/text.h"
#include "meshpair/meshpair.h"

namespace {

using ::testing::ElementsAre;

// Aths that list one another, and pairs in training order. Node n has the MAC aa:00:00:00:HH:LL.
class two_hop_mesh {
 public:
  two_hop_mesh() { INIT_SA_LIST_HEAD(&t_.ath_list); }
  ~two_hop_mesh() { zunta_flush_ath(&t_); }

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
  pair_neighbourhoods& hoods() {
    mesh_pair* const* pairs = order();
    EXPECT_TRUE(hoods_.build(&t_, pairs, static_cast<int32_t>(order_.size())));
    return hoods_;
  }
  const node_tables* tables() const { return &t_; }
  mesh_pair* const* order() {
    order_.clear();
    for (mesh_pair& p : pairs_)
      order_.push_back(&p);
    return order_.data();
  }
  // Which pairs are free while `claimed` trains (1 free, 0 held, 9 the claimed pair itself).
  std::vector<int> free_while(std::vector<int> claimed) {
    pair_neighbourhoods& h = hoods();
    for (int p : claimed)
      h.claim(p);
    std::vector<int> out;
    for (int p = 0; p < static_cast<int>(pairs_.size()); ++p) {
      const bool self = std::find(claimed.begin(), claimed.end(), p) != claimed.end();
      out.push_back(self ? 9 : h.free(p) ? 1 : 0);
    }
    return out;
  }
  std::vector<int32_t> conflicts() {
    pair_neighbourhoods& h = hoods();
    std::vector<int32_t> out;
    for (int p = 0; p < static_cast<int>(pairs_.size()); ++p)
      out.push_back(h.conflicts(p));
    return out;
  }

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
  std::vector<mesh_pair*> order_;
  pair_neighbourhoods hoods_;
};

TEST(NeighbourhoodTest, PairsWithinTwoHopsHoldEachOther) {
  two_hop_mesh chain;
  for (int n = 1; n < 7; ++n)
    chain.pair(n, n + 1);  // 1-2, 2-3, ..., 6-7
  EXPECT_THAT(chain.free_while({0}), ElementsAre(9, 0, 0, 1, 1, 1));
  EXPECT_THAT(chain.conflicts(), ElementsAre(2, 3, 4, 4, 3, 2));

  // Listed in one direction only, and in upper case, a neighbour still holds a pair.
  two_hop_mesh one_sided;
  one_sided.pair(1, 2);
  one_sided.pair(3, 4);
  one_sided.pair(5, 6);
  one_sided.lists(3, 2, true);  // 3 hears 2; 2 does not list 3
  EXPECT_THAT(one_sided.free_while({1}), ElementsAre(0, 9, 1));
  EXPECT_THAT(one_sided.conflicts(), ElementsAre(1, 1, 0));

  two_hop_mesh star;
  for (int leaf = 2; leaf < 6; ++leaf)
    star.pair(1, leaf);
  EXPECT_THAT(star.free_while({2}), ElementsAre(0, 0, 9, 0));

  // 3 hears 1 and 4 hears 2; 7 neighbours 6 only.
  two_hop_mesh m;
  m.pair(1, 2);
  m.pair(3, 4);
  m.lists(3, 1);
  m.lists(4, 2);
  m.pair(5, 6);
  m.pair(7, 8);
  m.lists(6, 7);
  EXPECT_THAT(m.free_while({0, 2}), ElementsAre(9, 0, 9, 0));
  EXPECT_THAT(m.conflicts(), ElementsAre(1, 1, 1, 1));
}

TEST(NeighbourhoodTest, AReleasedPairFreesOnlyWhatNoOtherTrainingPairHolds) {
  two_hop_mesh m;
  m.pair(1, 2);
  m.pair(4, 5);
  m.pair(3, 6);  // 3 hears 2 and 4: held by both of the others
  m.lists(3, 2);
  m.lists(3, 4);
  pair_neighbourhoods& h = m.hoods();
  h.claim(0);
  h.claim(1);
  h.release(0);
  EXPECT_FALSE(h.free(2));
  EXPECT_FALSE(h.free(1));
  h.release(1);
  EXPECT_TRUE(h.free(2));
  EXPECT_TRUE(h.free(0));
}

// A 27 x 19 grid, each node hearing its four neighbours: the first 490 of its pairs in row order.
TEST(NeighbourhoodTest, FourHundredNinetyGridPairsMatchTheTwoHopRuleAndTakeTheirTurns) {
  two_hop_mesh m;
  constexpr int WIDTH = 27;
  std::vector<std::pair<int, int>> pairs;
  for (int n = 0; pairs.size() < 490; ++n) {
    if (n % WIDTH != WIDTH - 1) pairs.push_back({n, n + 1});
    if (pairs.size() < 490) pairs.push_back({n, n + WIDTH});
  }
  for (auto [a, b] : pairs)
    m.pair(a, b);
  // Two pairs are within two hops when an end of one is an end of the other or lists it: the grid
  // nodes list only the nodes they form a pair with.
  std::set<std::pair<int, int>> listed;
  for (auto [a, b] : pairs) {
    listed.insert({a, b});
    listed.insert({b, a});
  }
  auto near = [&](std::size_t a, std::size_t b) {
    auto touches = [&](int x, int y) { return x == y || listed.count({x, y}) > 0; };
    return touches(pairs[a].first, pairs[b].first) || touches(pairs[a].first, pairs[b].second) ||
           touches(pairs[a].second, pairs[b].first) || touches(pairs[a].second, pairs[b].second);
  };
  pair_neighbourhoods& h = m.hoods();
  for (std::size_t i = 0; i < pairs.size(); i += 7) {
    SCOPED_TRACE(i);
    int32_t expected = 0;
    h.claim(static_cast<int32_t>(i));
    for (std::size_t j = 0; j < pairs.size(); ++j) {
      if (j == i) continue;
      expected += near(i, j) ? 1 : 0;
      ASSERT_EQ(!near(i, j), h.free(static_cast<int32_t>(j))) << j;
    }
    h.release(static_cast<int32_t>(i));
    EXPECT_EQ(expected, h.conflicts(static_cast<int32_t>(i)));
  }

  // A pass whose pairs last 96 to 99 s, each started as soon as pair_turns lets it: it lasts its
  // turns of the longest pair, no more (starting pairs greedily, by most conflicts, takes over a
  // fifth longer on this grid: pairs that start late in a dense neighbourhood leave gaps there).
  pair_turns turns;
  mesh_pair* const* order = m.order();
  ASSERT_TRUE(turns.build(m.tables(), order, static_cast<int32_t>(pairs.size())));
  constexpr int64_t SECOND = 1000000;
  std::vector<int64_t> lasts(pairs.size());
  for (std::size_t p = 0; p < pairs.size(); ++p)
    lasts[p] = 96 * SECOND + static_cast<int64_t>(p * 37 % 31) * SECOND / 10;
  std::vector<int32_t> due(pairs.size());
  std::multimap<int64_t, int32_t> ends;
  int64_t now = 0;
  std::size_t started = 0;
  for (;;) {
    const int32_t n = turns.start_due(now, 97 * SECOND + SECOND / 2, due.data());
    for (int32_t i = 0; i < n; ++i) {
      for (const auto& [end, other] : ends)
        ASSERT_FALSE(near(static_cast<std::size_t>(due[i]), static_cast<std::size_t>(other)));
      ends.insert({now + lasts[due[i]], due[i]});
    }
    started += static_cast<std::size_t>(n);
    if (ends.empty()) break;
    now = ends.begin()->first;
    turns.end(ends.begin()->second, false);
    ends.erase(ends.begin());
  }
  EXPECT_EQ(pairs.size(), started);
  EXPECT_LE(now, turns.turns() * 99 * SECOND);
  EXPECT_LT(turns.turns(), 12);
}

}  // namespace
