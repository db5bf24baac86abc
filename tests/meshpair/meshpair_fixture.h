// A local coordinator whose registry the tests build directly from calloc'ed records.
#ifndef ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_
#define ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "coordinator/zunta_coordinator.h"
#include "meshpair/zunta_meshpair.h"

class MeshFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    for (sa_list* head : {&c_.ath_list, &c_.mesh_pair_list, &c_.trained_mesh_pair_list, &c_.mesh_link_list,
                          &c_.module_client_list}) {
      INIT_SA_LIST_HEAD(head);
    }
  }
  void TearDown() override {
    zunta_flush_mesh_pairs(&c_);
    zunta_flush_trained_mesh_pairs(&c_);
    sa_list_for_each_entry_safe(a, &c_.ath_list, ath, list) {
      sa_list_for_each_entry_safe(n, &a->neighbours, neighbour, list) std::free(n);
      std::free(a);
    }
    sa_list_for_each_entry_safe(mc, &c_.module_client_list, module_client, list) std::free(mc);
  }
  ath* add_ath(const char* ip, const char* mac, uint8_t mesh = 1) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->ip, ip);
    zunta_copy_text(a->mac, mac);
    a->is_mesh_node = mesh;
    INIT_SA_LIST_HEAD(&a->neighbours);
    sa_list_add(&a->list, &c_.ath_list);
    c_.ath_count++;
    return a;
  }
  void lists(ath* a, const char* mac, int32_t radioidx = 2) {
    auto* n = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
    zunta_copy_text(n->mac, mac);
    n->radioidx = radioidx;
    sa_list_add(&n->list, &a->neighbours);
    a->neighbour_count++;
  }
  void add_client(const char* mac) {
    auto* mc = static_cast<module_client*>(std::calloc(1, sizeof(module_client)));
    zunta_copy_text(mc->mac, mac);
    sa_list_add(&mc->list, &c_.module_client_list);
    c_.module_client_count++;
  }
  mesh_pair* first_pair() { return sa_list_entry(c_.mesh_pair_list.next, mesh_pair, list); }
  // "key/radioidx" of every mesh pair, front to back.
  std::vector<std::string> pairs() {
    std::vector<std::string> out;
    sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list) {
      out.push_back(std::string(p->meshkey) + "/" + std::to_string(p->radioidx));
    }
    return out;
  }
  void train_all() {
    sa_list_for_each_entry(p, &c_.mesh_pair_list, mesh_pair, list)
        ASSERT_EQ(0, zunta_trained_mesh_pair_add(&c_, p));
  }
  struct coordinator c_ {};
};

#endif  // ZUNTA_TESTS_MESHPAIR_MESHPAIR_FIXTURE_H_
