// A local coordinator whose registry the tests build from calloc'ed records. Node n has the MAC
// aa:bb:cc:00:00:0n and, unless another is given, the ip 127.0.61.n.
#ifndef ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_
#define ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "meshpair/meshpair.h"

inline std::string mac(int n) {
  return "aa:bb:cc:00:00:0" + std::to_string(n);
}

class MeshFixture : public ::testing::Test {
 protected:
  MeshFixture() {
    for (sa_list* h : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                       &c_.module_client_list}) {
      INIT_SA_LIST_HEAD(h);
    }
  }
  ~MeshFixture() override {
    zunta_flush_mesh_pairs(&c_);
    zunta_flush_trained_mesh_pairs(&c_);
    zunta_flush_ath(&c_);
  }
  ath* add_ath(int n, uint8_t mesh = 1, int ip = 0) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->ip, ("127.0.61." + std::to_string(ip != 0 ? ip : n)).c_str());
    zunta_copy_text(a->mac, mac(n).c_str());
    a->is_mesh_node = mesh;
    INIT_SA_LIST_HEAD(&a->neighbours);
    sa_list_add(&a->list, &c_.ath_list);
    return a;
  }
  void lists(ath* a, int n, int32_t radioidx = 2) {
    auto* nb = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    zunta_copy_text(nb->mac, mac(n).c_str());
    nb->radioidx = radioidx;
    sa_list_add(&nb->list, &a->neighbours);
  }
  // A mesh pair of two nodes on radio 2, keyed as generation keys it. 0, or -1.
  int pair(ath* x, ath* y) {
    char key[MESHKEY_TEXT_SIZE];
    return zunta_generate_mesh_pair_key(key, x, y) == 0 ? zunta_mesh_pair_add(&c_, x, y, key, 2) : -1;
  }
  // "<left node><right node>/<radioidx> " for every mesh pair, front to back.
  std::string pairs() {
    std::string out;
    sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list) {
      out += std::string{p->left_mac[16], p->right_mac[16], '/'} + std::to_string(p->radioidx) + " ";
    }
    return out;
  }
  void train_all() {
    sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list) zunta_trained_mesh_pair_add(&c_, p);
  }
  mesh_tables c_{};
};

#endif  // ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_
