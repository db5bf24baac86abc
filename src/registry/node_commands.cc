// The commands addressed to a node record: the MACs of the other mesh nodes (0), the start of its
// mesh optimisation (6) and its client list (9). Command 1 lives in mesh_list.cc.
#include <cstdint>

#include "commander/catalogue.h"
#include "core/log.h"
#include "registry/ath.h"
#include "registry/unanswering.h"

int zunta_node_command(char (&buffer)[COMMAND_SIZE], const ath* a, int32_t index, const char* mac,
                       char (&answer)[ANSWER_SIZE]) {
  if (zunta_agent_unanswering(a->ip, AGENT_FAILED_REGISTRY)) {
    ZLOG(COMP_ATH, LVL_D, "CMD %d to %s not sent: its agent is not answering\n", index, a->ip);
    return -1;
  }
  if (zunta_make_and_send_command(buffer, index, -1, PLACEHOLDER_IP, mac, answer, a->ip) == 0) return 0;
  zunta_note_unanswering_agent(a->ip, index, AGENT_FAILED_REGISTRY);
  return -1;
}

int zunta_send_ath_mac(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  char answer[ANSWER_SIZE] = {};
  return zunta_node_command(buffer, a, CMD_SEND_ATH_MAC, mac, answer);
}

int zunta_start_mesh_optimization(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  char answer[ANSWER_SIZE] = {};
  return zunta_node_command(buffer, a, CMD_START_MESH_OPTIMIZATION, mac, answer);
}

int zunta_get_module_client_list(char (&buffer)[COMMAND_SIZE], ath* a, char (&answer)[ANSWER_SIZE]) {
  if (a == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for ath\n");
    return -1;
  }
  return zunta_node_command(buffer, a, CMD_GET_MODULE_CLIENT_LIST, ZERO_MAC, answer);
}
