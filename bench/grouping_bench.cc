// Grouping of the pairs of a training pass on a grid mesh (every node hears its four neighbours),
// 490 pairs and more: the time to form every group, and per pair.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "core/text.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

constexpr int WIDTH = 27;

class grid_mesh {
 public:
  explicit grid_mesh(int pair_count) {
    INIT_SA_LIST_HEAD(&t_.ath_list);
    for (int n = 0; static_cast<int>(pairs_.size()) < pair_count; ++n) {
      if (n % WIDTH != WIDTH - 1) add_pair(n, n + 1);
      if (static_cast<int>(pairs_.size()) < pair_count) add_pair(n, n + WIDTH);
    }
    for (mesh_pair& p : pairs_)
      order_.push_back(&p);
  }
  ~grid_mesh() { zunta_flush_ath(&t_); }
  grid_mesh(const grid_mesh&) = delete;
  grid_mesh& operator=(const grid_mesh&) = delete;

  int32_t group(std::vector<int32_t>& out) {
    return zunta_group_mesh_pairs(&t_, order_.data(), static_cast<int32_t>(order_.size()), out.data());
  }
  std::size_t size() const { return order_.size(); }

 private:
  static void mac_of(char (&mac)[MAC_TEXT_SIZE], int n) {
    zunta_format_buffer(mac, sizeof mac, "aa:00:00:00:%02x:%02x", (n >> 8) & 0xff, n & 0xff);
  }
  ath* node(int n) {
    if (static_cast<int>(aths_.size()) <= n) aths_.resize(n + 1, nullptr);
    if (aths_[n] == nullptr) {
      auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
      mac_of(a->mac, n);
      INIT_SA_LIST_HEAD(&a->neighbours);
      sa_list_add(&a->list, &t_.ath_list);
      ++t_.ath_count;
      aths_[n] = a;
    }
    return aths_[n];
  }
  void lists(int n, int peer) {
    auto* nb = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    mac_of(nb->mac, peer);
    nb->radioidx = 2;
    sa_list_add(&nb->list, &node(n)->neighbours);
  }
  void add_pair(int a, int b) {
    lists(a, b);
    lists(b, a);
    mesh_pair p = {};
    mac_of(p.left_mac, a);
    mac_of(p.right_mac, b);
    pairs_.push_back(p);
  }

  node_tables t_{};
  std::vector<ath*> aths_;
  std::vector<mesh_pair> pairs_;
  std::vector<mesh_pair*> order_;
};

void BM_GroupPairs(benchmark::State& state) {
  grid_mesh mesh(static_cast<int>(state.range(0)));
  std::vector<int32_t> groups(mesh.size());
  int32_t count = 0;
  for (auto _ : state) {
    count = mesh.group(groups);
    benchmark::DoNotOptimize(groups.data());
  }
  state.counters["groups"] = count;
  state.counters["per_pair"] = benchmark::Counter(static_cast<double>(state.iterations() * mesh.size()),
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GroupPairs)->Arg(490)->Arg(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
