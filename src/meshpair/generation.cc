// Mesh pair generation: marking the mesh nodes, turning every (ath, neighbour) entry into a mesh
// link, and pairing each link with its reverse.
#include "meshpair/meshpair.h"

#include <cstdlib>

#include "core/log.h"

namespace {

void log_ath_info(const ath* a) {
  ZLOG(COMP_CORE, LVL_I, "----------------------------------------------------------------------\n");
  ZLOG(COMP_CORE, LVL_I, "************ ath Info ************\n");
  ZLOG(COMP_CORE, LVL_I, "ath IP address: %s\n", a->ip);
  ZLOG(COMP_CORE, LVL_I, "ath MAC address: %s\n", a->mac);
  ZLOG(COMP_CORE, LVL_I, "ath number of neighbors: %d\n", a->neighbour_count);
  ZLOG(COMP_CORE, LVL_I, "ath nighbour list:\n");
}

void log_neighbour(int number, const neighbour* n) {
  ZLOG(COMP_CORE, LVL_I, "*neighbour%d -> mac: %s - radioidx: %d - pattern: %d\n", number, n->mac,
       n->radioidx, n->pattern);
}

void log_ath_info_end() {
  ZLOG(COMP_CORE, LVL_I, "************************************\n");
}

void set_flag(uint8_t* flag, uint8_t value) {
  if (flag != nullptr) *flag = value;
}

// Phase 1: one link per neighbour of every ath, mesh node or not.
void build_links(mesh_tables* coordinator) {
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    log_ath_info(a);
    int number = 0;
    sa_list_for_each_entry(n, &a->neighbours, neighbour, list) {
      log_neighbour(number++, n);
      zunta_mesh_pair_link_create(coordinator, a, n);
    }
    log_ath_info_end();
  }
  sa_list_for_each_entry(link, &coordinator->mesh_link_list, mesh_link, list) {
    ZLOG(COMP_CORE, LVL_D, "Mesh Link: %s and %s\n", link->left_mac, link->right_mac);
  }
}

bool is_reverse(const mesh_link* l, const mesh_link* m) {
  return zunta_text_equal(m->left_mac, l->right_mac) && zunta_text_equal(m->right_mac, l->left_mac);
}

// Offers the pair of link l and its reverse m. True when the pair was added; false when the key
// cannot be made, already exists, or the add refuses the pair (the caller then tries l's next
// reverse).
bool try_reverse(mesh_tables* coordinator, mesh_link* l, mesh_link* m, char (&key)[MESHKEY_TEXT_SIZE],
                 uint8_t* new_mesh_pair) {
  ZLOG(COMP_CORE, LVL_I, "Generate MeshPair key with MAC: %s and %s...\n", l->left_mac, m->left_mac);
  if (zunta_generate_mesh_pair_key(key, l->ath, m->ath) != 0) {
    ZLOG_AS("zunta_meshpair_generation_table_create", COMP_CORE, LVL_E,
            "Error during mesh pair key generation\n");
    return false;
  }
  ZLOG(COMP_CORE, LVL_I, "Add MeshPair key...\n");
  if (zunta_mesh_pair_find(coordinator, key) != 0 ||
      zunta_mesh_pair_add(coordinator, l->ath, m->ath, key, l->radioidx) != 0) {
    return false;
  }
  ZLOG(COMP_CORE, LVL_I, "MeshPair key: %s correctly added\n", key);
  set_flag(new_mesh_pair, 1);
  return true;
}

// Phase 3: each link meets every other link, from its successor round to its predecessor, and
// pairs with the first reverse whose pair can be added. The cost grows with the square of the
// link count; for meshes of a few hundred nodes it stays far below that of the agent exchanges
// of the same rebuild (bench/ measures it).
void pair_links(mesh_tables* coordinator, char (&key)[MESHKEY_TEXT_SIZE], uint8_t* new_mesh_pair) {
  sa_list* head = &coordinator->mesh_link_list;
  int number = 0;
  sa_list_for_each_entry(l, head, mesh_link, list) {
    ZLOG(COMP_CORE, LVL_D, "Mesh Link %d: %s and %s\n", number++, l->left_mac, l->right_mac);
    for (sa_list* node = l->list.next; node != &l->list; node = node->next) {
      if (node == head) continue;
      mesh_link* m = sa_list_entry(node, mesh_link, list);
      ZLOG(COMP_CORE, LVL_D, "Comparing MACs: %s and %s...\n", l->left_mac, m->left_mac);
      if (is_reverse(l, m) && try_reverse(coordinator, l, m, key, new_mesh_pair)) break;
    }
  }
}

// The direct generation's step for one found neighbour: key, then the add unless it exists.
void pair_with_neighbour(mesh_tables* coordinator, ath* a, ath* found, int32_t radioidx,
                         char (&key)[MESHKEY_TEXT_SIZE], uint8_t* new_mesh_pair) {
  ZLOG(COMP_CORE, LVL_I, "Generate MeshPair key...\n");
  if (zunta_generate_mesh_pair_key(key, a, found) != 0) {
    ZLOG_AS("zunta_meshpair_generation_process", COMP_CORE, LVL_E, "Error during mesh pair key generation\n");
    return;
  }
  ZLOG(COMP_CORE, LVL_I, "Add MeshPair key...\n");
  if (zunta_mesh_pair_find(coordinator, key) == 0 &&
      zunta_mesh_pair_add(coordinator, a, found, key, radioidx) == 0) {
    ZLOG(COMP_CORE, LVL_I, "MeshPair key: %s correctly added\n", key);
    set_flag(new_mesh_pair, 1);
  }
}

}  // namespace

int zunta_add_allow_mac_for_mesh_pair(mesh_tables* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    ZLOG(COMP_MP, LVL_D, "Check mac: %s eth: %d...\n", a->mac, a->eth_index);
    sa_list_for_each_entry(mc, &coordinator->module_client_list, module_client, list) {
      ZLOG(COMP_MP, LVL_D, "compare with mac: %s...\n", mc->mac);
      if (zunta_text_equal(a->mac, mc->mac)) {
        ZLOG(COMP_MP, LVL_D, "Client %s exists and it is a mesh node\n", mc->mac);
        a->is_mesh_node = 1;
        break;
      }
    }
  }
  return 0;
}

int zunta_meshpair_generation_table_create(mesh_tables* coordinator, uint8_t* new_mesh_pair) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return 0;
  }
  char key[MESHKEY_TEXT_SIZE] = {};
  build_links(coordinator);
  pair_links(coordinator, key, new_mesh_pair);
  return 0;
}

int zunta_meshpair_generation_process(mesh_tables* coordinator, uint8_t* not_found, uint8_t* new_mesh_pair) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return 0;
  }
  char key[MESHKEY_TEXT_SIZE] = {};
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    log_ath_info(a);
    int number = 0;
    sa_list_for_each_entry(n, &a->neighbours, neighbour, list) log_neighbour(number++, n);
    log_ath_info_end();
    number = 0;
    sa_list_for_each_entry(n, &a->neighbours, neighbour, list) {
      ZLOG(COMP_CORE, LVL_I, "MeshPair generation process starts for neighbour%d: %s\n", number++, n->mac);
      ZLOG(COMP_CORE, LVL_I, "Search neighbour in the coordinator ath list...\n");
      ath* found = nullptr;
      if (zunta_ath_search(coordinator, &found, n->mac) != 1 || found == nullptr) {
        // The rest of this ath's neighbours are left unexamined.
        ZLOG(COMP_CORE, LVL_I, "ath %s not found\n", n->mac);
        set_flag(not_found, 1);
        break;
      }
      ZLOG(COMP_CORE, LVL_I, "ath %s found\n", n->mac);
      set_flag(not_found, 0);
      pair_with_neighbour(coordinator, a, found, n->radioidx, key, new_mesh_pair);
    }
  }
  return 0;
}

int zunta_check_ath_in_mesh_pair(const trained_mesh_pair* tp, const struct ath* a) {
  if (tp == nullptr || a == nullptr) return -1;
  if (zunta_text_equal(a->ip, tp->left_ip)) return PAIR_SIDE_LEFT;
  if (zunta_text_equal(a->ip, tp->right_ip)) return PAIR_SIDE_RIGHT;
  return -1;
}
