// Change detection between the current mesh pairs and the trained ones, and the flushes of the
// mesh pair tables.
#include "meshpair/meshpair.h"

#include <cstdlib>

#include "core/log.h"

namespace {

bool corresponds(const mesh_pair* p, const trained_mesh_pair* t) {
  return zunta_text_equal(p->left_mac, t->left_mac) && zunta_text_equal(p->right_mac, t->right_mac);
}

// Marks p trained when a trained pair has its two MACs, and that trained pair active.
void match_trained(mesh_tables* coordinator, mesh_pair* p) {
  ZLOG(COMP_CORE, LVL_I, "Check if Mesh Pair: %s and %s exists\n", p->left_mac, p->right_mac);
  sa_list_for_each_entry(t, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    ZLOG(COMP_CORE, LVL_I, "Comparing with trained Mesh Pair: %s and %s and checking if it is active\n",
         t->left_mac, t->right_mac);
    if (corresponds(p, t)) {
      p->trained = 1;
      t->active = 1;
      ZLOG(COMP_CORE, LVL_I, "Mesh Pair: %s and %s already trained and active\n", t->left_mac, t->right_mac);
      return;
    }
  }
}

}  // namespace

int zunta_mesh_pair_change(mesh_tables* coordinator, uint8_t* removed) {
  // The caller checks the coordinator; without one nothing can have changed.
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return 0;
  }
  sa_list_for_each_entry(t, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) t->active = 0;
  int32_t needing = 0;
  int32_t pairs = 0;
  sa_list_for_each_entry(p, &coordinator->mesh_pair_list, mesh_pair, list) {
    match_trained(coordinator, p);
    if (p->trained != 1) {
      ZLOG(COMP_CORE, LVL_I, "Mesh Pair: %s and %s is not trained\n", p->left_mac, p->right_mac);
      needing++;
    }
    pairs++;
  }
  ZLOG(COMP_CORE, LVL_I, "Number of mesh pairs: %d\n", pairs);
  ZLOG(COMP_CORE, LVL_I, "Number of mesh pairs needing training: %d\n", needing);
  int32_t trained = coordinator->trained_mesh_pair_count;
  if (needing == 0 && pairs == trained) return 0;
  ZLOG(COMP_CORE, LVL_I, "Topology has changed from %d to %d\n", trained, pairs);
  // A pair added and another removed in the same change leave the counts equal and take this
  // branch; the stale trained record goes at a later check that finds fewer pairs.
  if (pairs >= trained) {
    ZLOG(COMP_CORE, LVL_I, "New mesh pairs have been added\n");
    if (removed != nullptr) *removed = 0;
    return 1;
  }
  ZLOG(COMP_CORE, LVL_I, "Some mesh pairs have been removed\n");
  zunta_check_trained_mesh_pair(coordinator);
  if (removed != nullptr) *removed = 1;
  return 1;
}

void zunta_flush_trained_mesh_pairs(mesh_tables* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  sa_list_for_each_entry_safe(t, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    ZLOG(COMP_MP, LVL_I, "Deleting trained mesh_pair left ip: %s - right ip: %s\n", t->left_ip, t->right_ip);
    sa_list_del(&t->list);
    std::free(t->txcs);
    std::free(t);
  }
  coordinator->trained_mesh_pair_count = 0;
}

void zunta_flush_mesh_pairs(mesh_tables* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  sa_list_for_each_entry_safe(p, &coordinator->mesh_pair_list, mesh_pair, list) {
    ZLOG(COMP_MP, LVL_I, "Deleting mesh_pair left ip: %s - right ip: %s\n", p->left_ip, p->right_ip);
    sa_list_del(&p->list);
    std::free(p->txcs);
    std::free(p);
  }
  coordinator->mesh_pair_count = 0;
  sa_list_for_each_entry_safe(l, &coordinator->mesh_link_list, mesh_link, list) {
    ZLOG(COMP_MP, LVL_I, "Deleting mesh_links left mac: %s - right mac: %s\n", l->left_mac, l->right_mac);
    sa_list_del(&l->list);
    std::free(l);
  }
  coordinator->mesh_link_count = 0;
}
