// Writing the JSON status document for meshes of 16, 64 and 250 nodes with about two trained pairs
// per node, each pair with sixteen measured rounds: the time of one whole write (build, escape,
// rename) and the document's size. The document goes to a temporary directory.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "coordinator/status_json.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"

namespace {

std::string mac(int i) {
  char text[32];
  std::snprintf(text, sizeof text, "02:5a:00:00:%02x:%02x", (i / 256) % 256, i % 256);
  return text;
}

class trained_mesh {
 public:
  explicit trained_mesh(int nodes) {
    for (sa_list* head : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                          &c_.module_client_list})
      INIT_SA_LIST_HEAD(head);
    std::mt19937 rng(7);
    for (int i = 0; i < nodes; ++i) {
      auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
      zunta_copy_text(a->ip,
                      ("127.0." + std::to_string(100 + i / 250) + "." + std::to_string(1 + i % 250)).c_str());
      zunta_copy_text(a->mac, mac(i).c_str());
      a->is_mesh_node = 1;
      a->answered_at = 1795615445;
      INIT_SA_LIST_HEAD(&a->neighbours);
      sa_list_add(&a->list, &c_.ath_list);
    }
    // Each node pairs with its next two on a ring: two pairs per node, all trained.
    for (int i = 0; i < nodes; ++i) {
      for (int step = 1; step <= 2; ++step) {
        mesh_pair mp{};
        zunta_copy_text(mp.left_mac, mac(i).c_str());
        zunta_copy_text(mp.right_mac, mac((i + step) % nodes).c_str());
        zunta_copy_text(mp.meshkey, (mac(i) + "-" + mac((i + step) % nodes)).c_str());
        mp.radioidx = 2;
        txcs_block block{};
        for (int r = 0; r < TXCS_ROUNDS; ++r) {
          block.rounds[r] = {{},
                             r % 4,
                             r / 4,
                             0,
                             0,
                             static_cast<float>(200000 + rng() % 600000),
                             static_cast<float>(200000 + rng() % 600000),
                             0,
                             0,
                             0,
                             0,
                             0};
        }
        mp.txcs = &block;
        zunta_trained_mesh_pair_add(&c_, &mp);
      }
    }
  }
  ~trained_mesh() {
    zunta_flush_trained_mesh_pairs(&c_);
    sa_list_for_each_entry_safe(a, &c_.ath_list, ath, list) std::free(a);
  }
  trained_mesh(const trained_mesh&) = delete;
  trained_mesh& operator=(const trained_mesh&) = delete;
  struct coordinator* get() {
    return &c_;
  }

 private:
  struct coordinator c_ {};
};

void BM_StatusDocument(benchmark::State& state) {
  trained_mesh mesh(static_cast<int>(state.range(0)));
  options opts{1, "127.0.100.255", 12101, 0, 0};
  for (auto _ : state)
    benchmark::DoNotOptimize(zunta_status_json_write(mesh.get(), &opts));
  struct stat st {};
  stat(zunta_status_json_path(), &st);
  state.counters["pairs"] = static_cast<double>(mesh.get()->trained_mesh_pair_count);
  state.counters["bytes"] = static_cast<double>(st.st_size);
}
BENCHMARK(BM_StatusDocument)->Arg(16)->Arg(64)->Arg(250)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  char dir[] = "/tmp/zunta-status-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  const std::string path = std::string(dir) + "/zunta-status.json";
  setenv("ZUNTA_STATUS_JSON", path.c_str(), 1);
  char error[256];
  if (zunta_runtime_init(error, sizeof error) != 0) return 2;
  log_init(LVL_U, -1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  unlink(path.c_str());
  rmdir(dir);
  return 0;
}
