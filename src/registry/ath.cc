// The node registry: insertion, lookup and flushing of ath records and their neighbours.
#include "registry/ath.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "core/clock.h"
#include "core/log.h"

namespace {

// The first 17 characters of mac, every one of them lower-cased, NUL-terminated.
void copy_lower_mac(char (&dst)[MAC_TEXT_SIZE], const char* mac) {
  char work[MAC_TEXT_SIZE] = {};
  zunta_copy_text(work, mac);
  for (char& c : work)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  zunta_copy_text(dst, work);
}

// Takes the new record back out of the registry and frees it.
void discard_ath(node_tables* coordinator, ath* a) {
  sa_list_del(&a->list);
  coordinator->ath_count--;
  std::free(a);
}

// Asks the agent of a freshly inserted node for its clients and records them as module clients.
// -1 when the client list command failed.
int fetch_module_clients(node_tables* coordinator, char (&buffer)[COMMAND_SIZE], ath* a) {
  char response[ANSWER_SIZE] = {};
  if (zunta_get_module_client_list(buffer, a, response) != 0) return -1;
  ZLOG(COMP_ATH, LVL_I, "ath: %s -> saving client macs with buffer: %s\n", a->mac, response);
  zunta_save_client_macs(coordinator, response, a);
  ZLOG(COMP_ATH, LVL_I, "ath: %s -> successfully inserted\n", a->mac);
  return 0;
}

}  // namespace

int zunta_ath_add(node_tables* coordinator, char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                  int32_t discovery_value, int32_t eth_index) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  // Discovery always passes scanned texts; a missing one is refused before anything changes.
  if (ip == nullptr || mac == nullptr) return -1;
  auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
  if (a == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "Memory allocation error for ath\n");
    return -1;
  }
  INIT_SA_LIST_HEAD(&a->list);
  sa_list_add(&a->list, &coordinator->ath_list);
  coordinator->ath_count++;
  INIT_SA_LIST_HEAD(&a->neighbours);
  a->neighbour_count = 0;
  zunta_copy_text(a->ip, ip);
  copy_lower_mac(a->mac, mac);
  a->eth_index = eth_index;
  a->discovery_value = discovery_value;
  a->is_mesh_node = 0;
  // Discovery makes every record anew from the answers of one request: the record's birth is
  // when its node last answered.
  timeval now{};
  zunta_wall_time(&now);
  a->answered_at = static_cast<int64_t>(now.tv_sec);
  // Only the node's first interface is asked for its clients.
  if (eth_index != 0) return 0;
  if (fetch_module_clients(coordinator, buffer, a) != 0) {
    ZLOG(COMP_ATH, LVL_E, "Error during get module client list\n");
    discard_ath(coordinator, a);
    return -1;
  }
  return 0;
}

int zunta_ath_find(node_tables* coordinator, const char* ip, int32_t eth_index) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (ip == nullptr) return 0;
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    if (zunta_text_equal(a->ip, ip, IP_TEXT_SIZE) && a->eth_index == eth_index) return 1;
  }
  return 0;
}

int zunta_ath_search(node_tables* coordinator, ath** out, const char* mac) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (out == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for math\n");
    return -1;
  }
  if (mac == nullptr) return 0;
  ZLOG(COMP_ATH, LVL_I, "Mac to search: %s\n", mac);
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    char work[MAC_TEXT_SIZE];
    copy_lower_mac(work, a->mac);
    ZLOG(COMP_ATH, LVL_I, "-> compared with: %s\n", work);
    // The given MAC is not folded: only its lower-case spelling matches.
    if (zunta_text_equal(mac, work, MAC_TEXT_SIZE)) {
      *out = a;
      return 1;
    }
  }
  return 0;
}

void zunta_flush_ath(node_tables* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  sa_list_for_each_entry_safe(a, &coordinator->ath_list, ath, list) {
    ZLOG(COMP_CORE, LVL_I, "Deleting ath containing ip: %s\n", a->ip);
    zunta_flush_ath_neighbors(a);
    sa_list_del(&a->list);
    std::free(a);
  }
  coordinator->ath_count = 0;
}

void zunta_flush_ath_neighbors(ath* a) {
  if (a == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for ath\n");
    return;
  }
  sa_list_for_each_entry_safe(n, &a->neighbours, neighbour, list) {
    ZLOG(COMP_CORE, LVL_I, "Deleting neighbor containing mac: %s\n", n->mac);
    sa_list_del(&n->list);
    std::free(n);
  }
  a->neighbour_count = 0;
}
