// Mesh pair generation: marking the mesh nodes, turning every (ath, neighbour) entry into a mesh
// link, and pairing each link with its reverse.
#include "meshpair/zunta_meshpair.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "coordinator/zunta_coordinator.h"
#include "core/zunta_log.h"

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
void build_links(struct coordinator* coordinator) {
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
bool try_reverse(struct coordinator* coordinator, mesh_link* l, mesh_link* m, char (&key)[MESHKEY_TEXT_SIZE],
                 uint8_t* new_mesh_pair) {
  ZLOG(COMP_CORE, LVL_I, "Generate MeshPair key with MAC: %s and %s...\n", l->left_mac, m->left_mac);
  if (zunta_generate_mesh_pair_key(key, l->ath, m->ath) != 0) {
    ZLOG(COMP_CORE, LVL_E, "Error during mesh pair key generation\n");
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

// Phase 3 as a plain walk: every other link, from l's successor round to l's predecessor.
void pair_links_by_walk(struct coordinator* coordinator, char (&key)[MESHKEY_TEXT_SIZE],
                        uint8_t* new_mesh_pair) {
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

// A link with its place in the table, sorted by (left_mac, right_mac, place).
struct link_slot {
  mesh_link* link;
  int32_t place;
};

int compare_macs(const char* left_a, const char* right_a, const char* left_b, const char* right_b) {
  int order = std::strncmp(left_a, left_b, MAC_TEXT_SIZE);
  return order != 0 ? order : std::strncmp(right_a, right_b, MAC_TEXT_SIZE);
}

bool slot_before(const link_slot& a, const link_slot& b) {
  int order = compare_macs(a.link->left_mac, a.link->right_mac, b.link->left_mac, b.link->right_mac);
  return order != 0 ? order < 0 : a.place < b.place;
}

// The reverse candidates of l: the slots whose left MAC is l's right MAC and whose right MAC is
// l's left MAC, in table order.
void reverse_range(link_slot* slots, int32_t count, const mesh_link* l, link_slot** first, link_slot** last) {
  auto below = [](const link_slot& s, const mesh_link* probe) {
    return compare_macs(s.link->left_mac, s.link->right_mac, probe->right_mac, probe->left_mac) < 0;
  };
  auto above = [](const mesh_link* probe, const link_slot& s) {
    return compare_macs(probe->right_mac, probe->left_mac, s.link->left_mac, s.link->right_mac) < 0;
  };
  *first = std::lower_bound(slots, slots + count, l, below);
  *last = std::upper_bound(*first, slots + count, l, above);
}

// Phase 3 through an index of the links by their MACs. It offers exactly the reverse links that
// the walk would offer, in the same circular order after l, and so adds the same pairs with the
// same logs; only the comparisons with links that are not reverses (level D lines) are left out.
// False when the index cannot be allocated.
bool pair_links_by_index(struct coordinator* coordinator, char (&key)[MESHKEY_TEXT_SIZE],
                         uint8_t* new_mesh_pair) {
  sa_list* head = &coordinator->mesh_link_list;
  int32_t count = 0;
  for (sa_list* node = head->next; node != head; node = node->next)
    count++;
  if (count == 0) return true;
  auto* slots = static_cast<link_slot*>(std::calloc(count, sizeof(link_slot)));
  if (slots == nullptr) return false;
  int32_t place = 0;
  sa_list_for_each_entry(link, head, mesh_link, list) {
    slots[place] = {link, place};
    place++;
  }
  std::sort(slots, slots + count, slot_before);
  place = 0;
  sa_list_for_each_entry(l, head, mesh_link, list) {
    ZLOG(COMP_CORE, LVL_D, "Mesh Link %d: %s and %s\n", place, l->left_mac, l->right_mac);
    link_slot *first, *last;
    reverse_range(slots, count, l, &first, &last);
    int32_t here = place++;
    link_slot* after =
        std::upper_bound(first, last, here, [](int32_t p, const link_slot& s) { return p < s.place; });
    // Candidates after l first, then from the front of the table up to l; l itself is skipped.
    for (int32_t k = 0, n = static_cast<int32_t>(last - first); k < n; ++k) {
      link_slot* s = after + k < last ? after + k : first + (after + k - last);
      if (s->place == here) continue;
      if (try_reverse(coordinator, l, s->link, key, new_mesh_pair)) break;
    }
  }
  std::free(slots);
  return true;
}

// The direct generation's step for one found neighbour: key, then the add unless it exists.
void pair_with_neighbour(struct coordinator* coordinator, ath* a, ath* found, int32_t radioidx,
                         char (&key)[MESHKEY_TEXT_SIZE], uint8_t* new_mesh_pair) {
  ZLOG(COMP_CORE, LVL_I, "Generate MeshPair key...\n");
  if (zunta_generate_mesh_pair_key(key, a, found) != 0) {
    ZLOG(COMP_CORE, LVL_E, "Error during mesh pair key generation\n");
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

int zunta_add_allow_mac_for_mesh_pair(struct coordinator* coordinator) {
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

int zunta_meshpair_generation_table_create(struct coordinator* coordinator, uint8_t* new_mesh_pair) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return 0;
  }
  char key[MESHKEY_TEXT_SIZE] = {};
  build_links(coordinator);
  // Comparing every link with every other grows with the square of the table. The index gives
  // the same pairs; the full walk is kept for when the per-comparison lines are being logged.
  bool comparisons_logged = g_log != nullptr && g_log->components[COMP_CORE].level >= LVL_D;
  if (comparisons_logged || !pair_links_by_index(coordinator, key, new_mesh_pair)) {
    pair_links_by_walk(coordinator, key, new_mesh_pair);
  }
  return 0;
}

int zunta_meshpair_generation_process(struct coordinator* coordinator, uint8_t* not_found,
                                      uint8_t* new_mesh_pair) {
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
