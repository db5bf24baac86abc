// Client MAC sharing: a node's client list becomes module clients, and every mesh node's agent
// learns the MACs of the other mesh nodes before it starts its mesh optimisation.
#include "registry/ath.h"

#include <cstdlib>
#include <cstring>

#include "core/log.h"

namespace {

// The client MAC of one answer line: the text before the first comma, when it is a MAC text. A
// longer field cut to fit could equal a real node's MAC, and other texts would reach the log as
// they came, control characters and all, so such a line is skipped. Returns false when the line
// holds no usable field.
bool client_mac_of_line(const char* line, char (&mac)[MAC_TEXT_SIZE]) {
  std::size_t len = std::strcspn(line, ",");
  if (len != MAC_TEXT_SIZE - 1) return false;
  std::memcpy(mac, line, len);
  mac[len] = '\0';
  return zunta_mac_shaped(mac);
}

// -1 when the record cannot be allocated.
int add_module_client(node_tables* coordinator, const char (&mac)[MAC_TEXT_SIZE], const ath* a) {
  auto* client = static_cast<module_client*>(std::calloc(1, sizeof(module_client)));
  if (client == nullptr) return -1;
  INIT_SA_LIST_HEAD(&client->list);
  sa_list_add(&client->list, &coordinator->module_client_list);
  zunta_copy_text(client->mac, mac);
  zunta_copy_text(client->ip, a->ip);
  coordinator->module_client_count++;
  return 0;
}

// Sends node a the MAC of every other mesh node. The result of each command is not examined:
// the transport has logged its own failure, and the remaining MACs are still worth sending.
void send_other_macs(node_tables* coordinator, char (&buffer)[COMMAND_SIZE], ath* a) {
  sa_list_for_each_entry(b, &coordinator->ath_list, ath, list) {
    if (b->is_mesh_node != 1) continue;
    if (zunta_text_equal(b->mac, a->mac) && b->eth_index == a->eth_index) continue;
    ZLOG(COMP_ATH, LVL_D, "ath MAC address: %s\n", b->mac);
    zunta_send_ath_mac(buffer, a, b->mac);
  }
}

}  // namespace

int zunta_save_client_macs(node_tables* coordinator, char* response, ath* a) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (a == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  if (response == nullptr) return 0;
  // Only text ended by a line feed is a line; a trailing piece without one is ignored.
  for (char* line = response; char* end = std::strchr(line, '\n'); line = end + 1) {
    *end = '\0';
    ZLOG(COMP_ATH, LVL_D, "CMD 9: token: %s\n", line);
    char mac[MAC_TEXT_SIZE] = {};
    if (!client_mac_of_line(line, mac)) continue;
    if (add_module_client(coordinator, mac, a) != 0) {
      ZLOG(COMP_ATH, LVL_E, "Memory allocation error for ath\n");
      return -1;
    }
  }
  return 0;
}

int zunta_share_ath_mac(node_tables* coordinator, char (&buffer)[COMMAND_SIZE]) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    if (a->is_mesh_node != 1) continue;
    send_other_macs(coordinator, buffer, a);
    if (zunta_start_mesh_optimization(buffer, a, a->mac) != 0) {
      ZLOG(COMP_ATH, LVL_E, "Error during start mesh optimization\n");
      return -1;
    }
  }
  return 0;
}

void zunta_reset_ath_rx_stats(ath* a) {
  if (a == nullptr) return;
  for (float& score : a->rx_score)
    score = 0.0f;
  a->rx_pattern = RX_PATTERN_NONE;
  a->rx_chosen = 0;
}
