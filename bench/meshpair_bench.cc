// Mesh pair generation and change detection on synthetic meshes of 16, 64 and 250 nodes. Every
// node hears 3 to 8 nodes near it on a ring; one listing in ten is one-sided. Logging stays at
// level 2, as in the daemon.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "coordinator/coordinator.h"
#include "core/log.h"
#include "meshpair/meshpair.h"

namespace {

class synthetic_mesh {
 public:
  explicit synthetic_mesh(int nodes) {
    for (sa_list* head : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                          &c_.module_client_list}) {
      INIT_SA_LIST_HEAD(head);
    }
    std::vector<ath*> aths;
    for (int i = 0; i < nodes; ++i)
      aths.push_back(add_ath(i));
    std::mt19937 rng(1234);
    for (auto [i, j] : links(nodes, rng)) {
      // One listing in ten is missing from one side.
      bool one_sided = rng() % 10 == 0;
      bool drop_back = rng() % 2 == 0;
      if (!one_sided || !drop_back) lists(aths[i], aths[j], 2);
      if (!one_sided || drop_back) lists(aths[j], aths[i], 2);
    }
  }
  ~synthetic_mesh() {
    zunta_flush_mesh_pairs(&c_);
    zunta_flush_trained_mesh_pairs(&c_);
    sa_list_for_each_entry_safe(a, &c_.ath_list, ath, list) {
      sa_list_for_each_entry_safe(n, &a->neighbours, neighbour, list) std::free(n);
      std::free(a);
    }
  }
  synthetic_mesh(const synthetic_mesh&) = delete;
  synthetic_mesh& operator=(const synthetic_mesh&) = delete;
  struct coordinator* get() {
    return &c_;
  }

 private:
  // Undirected links between nodes at most six places apart on a ring, 3 to 8 per node.
  static std::set<std::pair<int, int>> links(int nodes, std::mt19937& rng) {
    std::set<std::pair<int, int>> out;
    std::vector<int> degree(nodes, 0);
    for (int i = 0; i < nodes; ++i) {
      int wanted = 3 + static_cast<int>(rng() % 6);
      for (int tries = 0; degree[i] < wanted && tries < 50; ++tries) {
        int j = (i + nodes + static_cast<int>(rng() % 13) - 6) % nodes;
        if (j == i || degree[j] >= 8 || !out.insert({std::min(i, j), std::max(i, j)}).second) continue;
        degree[i]++;
        degree[j]++;
      }
    }
    return out;
  }
  ath* add_ath(int i) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_format_buffer(a->ip, sizeof a->ip, "127.0.%d.%d", i / 200, 1 + i % 200);
    zunta_format_buffer(a->mac, sizeof a->mac, "02:00:00:00:%02x:%02x", i / 256, i % 256);
    a->is_mesh_node = 1;
    INIT_SA_LIST_HEAD(&a->neighbours);
    sa_list_add(&a->list, &c_.ath_list);
    c_.ath_count++;
    return a;
  }
  static void lists(ath* a, const ath* other, int32_t radioidx) {
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    zunta_copy_text(n->mac, other->mac);
    n->radioidx = radioidx;
    sa_list_add(&n->list, &a->neighbours);
    a->neighbour_count++;
  }
  struct coordinator c_ {};
};

void report(benchmark::State& state, struct coordinator* c) {
  state.counters["links"] = c->mesh_link_count;
  state.counters["pairs"] = c->mesh_pair_count;
}

void BM_PairGeneration(benchmark::State& state) {
  synthetic_mesh mesh(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    zunta_flush_mesh_pairs(mesh.get());
    state.ResumeTiming();
    uint8_t added = 0;
    zunta_meshpair_generation_table_create(mesh.get(), &added);
    benchmark::DoNotOptimize(added);
  }
  report(state, mesh.get());
}

void BM_ChangeDetection(benchmark::State& state) {
  synthetic_mesh mesh(static_cast<int>(state.range(0)));
  struct coordinator* c = mesh.get();
  uint8_t added = 0;
  zunta_meshpair_generation_table_create(c, &added);
  sa_list_for_each_entry(p, &c->mesh_pair_list, mesh_pair, list) zunta_trained_mesh_pair_add(c, p);
  uint8_t removed = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(zunta_mesh_pair_change(c, &removed));
  report(state, c);
}

BENCHMARK(BM_PairGeneration)->Arg(16)->Arg(64)->Arg(250)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChangeDetection)->Arg(16)->Arg(64)->Arg(250)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  log_init(LVL_U, -1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
