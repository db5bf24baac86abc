// Tables for the training tests: a local coordinator whose aths and trained pairs are calloc'ed
// and linked at the front as the daemon does it, all freed with the object.
#ifndef ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_
#define ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_

#include <cstdlib>
#include <type_traits>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"

struct training_records {
  training_records() {
    INIT_SA_LIST_HEAD(&coord.ath_list);
    INIT_SA_LIST_HEAD(&coord.trained_mesh_pair_list);
  }
  ~training_records() {
    for (void* p : owned)
      std::free(p);
  }
  template <typename T>
  T* make() {
    return static_cast<T*>(owned.emplace_back(std::calloc(1, sizeof(T))));
  }
  ath* add_ath(const char* ip, const char* mac, int32_t neighbours, uint8_t mesh = 1) {
    ath* a = make<ath>();
    zunta_copy_text(a->ip, ip);
    zunta_copy_text(a->mac, mac);
    a->neighbour_count = neighbours;
    a->is_mesh_node = mesh;
    sa_list_add(&a->list, &coord.ath_list);
    return a;
  }
  // A mesh_pair (not linked) or a linked trained_mesh_pair on radio 2, its results block zeroed.
  template <typename T = trained_mesh_pair>
  T* add_pair(const ath* left, const ath* right, int32_t left_tx = 0, int32_t right_tx = 0) {
    T* p = make<T>();
    zunta_copy_text(p->left_ip, left->ip);
    zunta_copy_text(p->left_mac, left->mac);
    zunta_copy_text(p->right_ip, right->ip);
    zunta_copy_text(p->right_mac, right->mac);
    p->radioidx = 2;
    p->txcs = make<txcs_block>();
    if constexpr (std::is_same_v<T, trained_mesh_pair>) {
      p->left_tx_pattern = left_tx;
      p->right_tx_pattern = right_tx;
      sa_list_add(&p->list, &coord.trained_mesh_pair_list);
    }
    return p;
  }
  struct coordinator coord = {};
  std::vector<void*> owned;
};

#endif  // ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_
