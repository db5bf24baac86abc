// Mesh links, mesh pairs and trained mesh pairs: keys, and the creation, lookup and deletion of
// single records.
#include "meshpair/meshpair.h"

#include <cstdlib>
#include <cstring>

#include "core/clock.h"
#include "core/log.h"

namespace {

void free_mesh_pair(mesh_pair* mp) {
  sa_list_del(&mp->list);
  std::free(mp->txcs);
  std::free(mp);
}

void free_trained_mesh_pair(trained_mesh_pair* tp) {
  sa_list_del(&tp->list);
  std::free(tp->txcs);
  std::free(tp);
}

// Fills the left or right end of a new pair from its node.
void assign_end(ath* node, ath** ref, char (&mac)[MAC_TEXT_SIZE], char (&ip)[IP_TEXT_SIZE]) {
  *ref = node;
  zunta_copy_text(mac, node->mac);
  zunta_copy_text(ip, node->ip);
}

// The refusals that follow the allocation of a new pair; 0 when the pair may be inserted.
int check_new_pair(mesh_pair* mp, const ath* ath1, const ath* ath2, const char* key) {
  mp->txcs = static_cast<txcs_block*>(std::calloc(1, sizeof(txcs_block)));
  if (mp->txcs == nullptr) {
    ZLOG_AS("zunta_mesh_pair_add", COMP_ATH, LVL_E, "Memory allocation error\n");
    return -1;
  }
  if (ath1->is_mesh_node != 1 || ath2->is_mesh_node != 1) {
    ZLOG(COMP_MP, LVL_I, "***key: %s***\n", key);
    ZLOG(COMP_MP, LVL_I, "One of the macs does not exists\n");
    return -1;
  }
  // Two aths that share an eth_index are not refused: both ends are mesh nodes, and that rule
  // already decides which interfaces may pair.
  return 0;
}

}  // namespace

int zunta_mesh_pair_link_create(mesh_tables* coordinator, struct ath* a, neighbour* neigh) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  // A link needs both of its ends; a missing neighbour is refused like a missing ath.
  if (a == nullptr || neigh == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  auto* link = static_cast<mesh_link*>(std::calloc(1, sizeof(mesh_link)));
  if (link == nullptr) {
    ZLOG(COMP_MP, LVL_E, "Memory allocation error for mesh_link\n");
    return -1;
  }
  ZLOG(COMP_MP, LVL_I, "Adding mesh link between %s and %s\n", a->mac, neigh->mac);
  zunta_copy_text(link->left_mac, a->mac);
  zunta_copy_text(link->right_mac, neigh->mac);
  link->ath = a;
  link->radioidx = neigh->radioidx;
  sa_list_add(&link->list, &coordinator->mesh_link_list);
  coordinator->mesh_link_count++;
  return 0;
}

int zunta_generate_mesh_pair_key(char (&key)[MESHKEY_TEXT_SIZE], struct ath* ath1, struct ath* ath2) {
  if (ath1 == nullptr || ath2 == nullptr) return -1;
  int order = std::strncmp(ath1->mac, ath2->mac, MAC_TEXT_SIZE);
  if (order == 0) return -1;
  const ath* first = order > 0 ? ath2 : ath1;
  const ath* second = order > 0 ? ath1 : ath2;
  zunta_format_buffer(key, sizeof key, "%s-%s", first->mac, second->mac);
  ZLOG(COMP_MP, LVL_I, "Generated key: %s\n", key);
  return 0;
}

int zunta_split_meshkey(const char* key, char (&mac1)[MAC_TEXT_SIZE], char (&mac2)[MAC_TEXT_SIZE]) {
  if (key == nullptr) return -1;
  const char* dash = std::strchr(key, '-');
  if (dash == nullptr) {
    ZLOG(COMP_MP, LVL_E, "Invalid key format: (%s), missing separator\n", key);
    return -1;
  }
  // Each half is cut to 17 characters; for a key of two MACs these are exactly the two MACs.
  zunta_copy_text(mac1, key);
  zunta_copy_text(mac2, dash + 1);
  ZLOG(COMP_MP, LVL_D, "Split key: %s into mac1: %s and mac2: %s\n", key, mac1, mac2);
  return 0;
}

int zunta_mesh_pair_find(mesh_tables* coordinator, const char* key) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (key == nullptr) return -1;
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (zunta_text_equal(mp->meshkey, key, MESHKEY_TEXT_SIZE)) {
      ZLOG(COMP_MP, LVL_I, "MeshPair key: %s already exists\n", key);
      return 1;
    }
  }
  return 0;
}

int zunta_mesh_pair_add(mesh_tables* coordinator, struct ath* ath1, struct ath* ath2, const char* key,
                        int32_t radioidx) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (ath1 == nullptr || ath2 == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for ath or neigh\n");
    return -1;
  }
  char mac1[MAC_TEXT_SIZE] = {};
  char mac2[MAC_TEXT_SIZE] = {};
  if (zunta_split_meshkey(key, mac1, mac2) != 0) {
    ZLOG(COMP_MP, LVL_E, "Error splitting mesh key: %s\n", key != nullptr ? key : "");
    return -1;
  }
  auto* mp = static_cast<mesh_pair*>(std::calloc(1, sizeof(mesh_pair)));
  if (mp == nullptr) {
    ZLOG(COMP_MP, LVL_E, "Memory allocation error for meshpair\n");
    return -1;
  }
  zunta_copy_text(mp->left_mac, ZERO_MAC);
  zunta_copy_text(mp->right_mac, ZERO_MAC);
  mp->radioidx = radioidx;
  zunta_copy_text(mp->meshkey, key);
  if (check_new_pair(mp, ath1, ath2, key) != 0) {
    ZLOG(COMP_MP, LVL_I, "Error during mesh pair add\n");
    std::free(mp->txcs);
    std::free(mp);
    return -1;
  }
  bool first_is_left = zunta_text_equal(ath1->mac, mac1);
  ath* left = first_is_left ? ath1 : ath2;
  ath* right = first_is_left ? ath2 : ath1;
  assign_end(left, &mp->left_ath, mp->left_mac, mp->left_ip);
  assign_end(right, &mp->right_ath, mp->right_mac, mp->right_ip);
  sa_list_add(&mp->list, &coordinator->mesh_pair_list);
  coordinator->mesh_pair_count++;
  return 0;
}

int zunta_trained_mesh_pair_add(mesh_tables* coordinator, mesh_pair* mp) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (mp == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for mesh_pair\n");
    return -1;
  }
  auto* tp = static_cast<trained_mesh_pair*>(std::calloc(1, sizeof(trained_mesh_pair)));
  if (tp == nullptr) {
    ZLOG(COMP_MP, LVL_E, "Memory allocation error for trained_mesh_pair\n");
    return -1;
  }
  zunta_copy_text(tp->left_mac, mp->left_mac);
  zunta_copy_text(tp->right_mac, mp->right_mac);
  tp->radioidx = mp->radioidx;
  zunta_copy_text(tp->meshkey, mp->meshkey);
  tp->trained = 1;
  tp->txcs = static_cast<txcs_block*>(std::calloc(1, sizeof(txcs_block)));
  if (tp->txcs == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "Memory allocation error\n");
    ZLOG(COMP_MP, LVL_I, "Error during trained mesh pair add\n");
    std::free(tp);
    return -1;
  }
  // A pair without results (never the case for a generated one) leaves the copy zero-filled.
  if (mp->txcs != nullptr) std::memcpy(tp->txcs, mp->txcs, sizeof(txcs_block));
  tp->left_ath = mp->left_ath;
  tp->right_ath = mp->right_ath;
  zunta_copy_text(tp->left_ip, mp->left_ip);
  zunta_copy_text(tp->right_ip, mp->right_ip);
  tp->active = 1;
  timeval now{};
  zunta_wall_time(&now);
  tp->trained_at = static_cast<int64_t>(now.tv_sec);
  sa_list_add(&tp->list, &coordinator->trained_mesh_pair_list);
  coordinator->trained_mesh_pair_count++;
  ZLOG(COMP_MP, LVL_I, "Trained mesh pair added: %s\n", tp->meshkey);
  return 0;
}

void zunta_delete_mesh_pair(mesh_tables* coordinator, const char* ip) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  if (ip == nullptr) return;
  sa_list_for_each_entry_safe(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (!zunta_text_equal(mp->left_ip, ip, IP_TEXT_SIZE) &&
        !zunta_text_equal(mp->right_ip, ip, IP_TEXT_SIZE)) {
      continue;
    }
    ZLOG(COMP_MP, LVL_I, "Deleting mesh_pair containing ip: %s\n", ip);
    free_mesh_pair(mp);
    coordinator->mesh_pair_count--;
  }
}

void zunta_check_trained_mesh_pair(mesh_tables* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  sa_list_for_each_entry_safe(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    if (tp->active == 1 || tp->trained == 0) continue;
    ZLOG(COMP_MP, LVL_I, "Deleting trained_mesh_pair with key %s\n", tp->meshkey);
    free_trained_mesh_pair(tp);
    coordinator->trained_mesh_pair_count--;
  }
}

struct ath* zunta_trained_pair_ath(mesh_tables* coordinator, trained_mesh_pair* tp, int side) {
  if (tp == nullptr || (side != PAIR_SIDE_LEFT && side != PAIR_SIDE_RIGHT)) return nullptr;
  bool left = side == PAIR_SIDE_LEFT;
  ath** ref = left ? &tp->left_ath : &tp->right_ath;
  if (*ref != nullptr) return *ref;
  if (coordinator == nullptr) {
    ZLOG(COMP_MP, LVL_E, "NULL pointer exception for coordinator\n");
    return nullptr;
  }
  // The reference is cleared before the aths are freed (zunta_forget_ath_references), so a stale
  // record is never returned. The node is found again by its MAC alone: a node that answers
  // discovery under a new address is still the same end of the pair.
  const char(&mac)[MAC_TEXT_SIZE] = left ? tp->left_mac : tp->right_mac;
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    if (zunta_text_equal(a->mac, mac)) {
      *ref = a;
      return a;
    }
  }
  return nullptr;
}

void zunta_trained_pairs_follow_nodes(mesh_tables* coordinator) {
  if (coordinator == nullptr) return;
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    for (int side = PAIR_SIDE_LEFT; side <= PAIR_SIDE_RIGHT; ++side) {
      const ath* a = zunta_trained_pair_ath(coordinator, tp, side);
      char(&ip)[IP_TEXT_SIZE] = side == PAIR_SIDE_LEFT ? tp->left_ip : tp->right_ip;
      if (a == nullptr || zunta_text_equal(a->ip, ip)) continue;
      ZLOG(COMP_MP, LVL_U, "Trained mesh pair %s: node %s moved from %s to %s\n", tp->meshkey, a->mac, ip,
           a->ip);
      zunta_copy_text(ip, a->ip);
    }
  }
}

void zunta_forget_ath_references(mesh_tables* coordinator) {
  if (coordinator == nullptr) return;
  sa_list_for_each_entry(link, &coordinator->mesh_link_list, mesh_link, list) link->ath = nullptr;
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    mp->left_ath = nullptr;
    mp->right_ath = nullptr;
  }
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    tp->left_ath = nullptr;
    tp->right_ath = nullptr;
  }
}
