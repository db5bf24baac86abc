// The commands addressed to a node record: the MACs of the other mesh nodes (0), the start of its
// mesh optimisation (6) and its client list (9). Command 1 lives in mesh_list.cc.
#include <cstdint>

#include "commander/catalogue.h"
#include "core/log.h"
#include "registry/ath.h"

int zunta_send_ath_mac(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  return zunta_send_without_answer(buffer, CMD_SEND_ATH_MAC, -1, PLACEHOLDER_IP, mac, a->ip);
}

int zunta_start_mesh_optimization(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  return zunta_send_without_answer(buffer, CMD_START_MESH_OPTIMIZATION, -1, PLACEHOLDER_IP, mac, a->ip);
}

int zunta_get_module_client_list(char (&buffer)[COMMAND_SIZE], ath* a, char (&answer)[ANSWER_SIZE]) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  return zunta_make_and_send_command(buffer, CMD_GET_MODULE_CLIENT_LIST, -1, PLACEHOLDER_IP, ZERO_MAC, answer,
                                     a->ip) == 0
             ? 0
             : -1;
}
