// Mesh pair definition after a registry rebuild, the topology check against the trained pairs,
// and the module client flush that precedes every rebuild.
#include "coordinator/mesh_definition.h"

#include <cstdlib>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"
#include "registry/unanswering.h"

namespace {

void log_module_clients(struct coordinator* coordinator) {
  ZLOG(COMP_CORE, LVL_I, "Module client count: %d\n", coordinator->module_client_count);
  sa_list_for_each_entry(client, &coordinator->module_client_list, module_client, list) {
    ZLOG(COMP_CORE, LVL_I, "module client: %s -> %s\n", client->ip, client->mac);
  }
}

}  // namespace

void zunta_define_mesh_pairs(struct coordinator* coordinator, uint8_t* new_mesh_pair) {
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return;
  }
  if (coordinator->ath_count <= 0) return;
  uint8_t unused_flag = 0;
  if (new_mesh_pair == nullptr) new_mesh_pair = &unused_flag;
  log_module_clients(coordinator);
  // Mark the mesh nodes first: sharing serves only them, and every agent must know the other
  // mesh nodes before it is asked for its neighbours.
  zunta_add_allow_mac_for_mesh_pair(coordinator);
  if (zunta_share_ath_mac(coordinator, command) != 0) ZLOG(COMP_CORE, LVL_E, "Error during share ath mac\n");
  // A node whose list cannot be fetched contributes no links; the others still do. An agent given
  // up on in this cycle has said so once: its other interfaces are passed over without a line.
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    if (zunta_agent_unanswering(a->ip, AGENT_FAILED_REGISTRY)) continue;
    if (zunta_get_mesh_list(command, a) == -1) ZLOG(COMP_CORE, LVL_E, "Error during get mesh list\n");
  }
  zunta_meshpair_generation_table_create(coordinator, new_mesh_pair);
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    ZLOG(COMP_CORE, LVL_I, "Mesh pair key: `%s`\n", mp->meshkey);
  }
}

int zunta_check_topology_mesh(struct coordinator* coordinator, uint8_t* topology_changed,
                              uint8_t* rx_update) {
  ZLOG(COMP_CORE, LVL_I, "Checking topology changes\n");
  if (coordinator == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return -1;
  }
  ZLOG(COMP_CORE, LVL_I, "Check if Mesh pairs are same\n");
  uint8_t unused_flag = 0;
  if (rx_update == nullptr) rx_update = &unused_flag;
  if (zunta_mesh_pair_change(coordinator, rx_update) == 0) return -1;
  ZLOG(COMP_CORE, LVL_I, "Mesh pairs changed\n");
  if (topology_changed != nullptr) *topology_changed = 1;
  return 0;
}

void zunta_flush_module_client(struct coordinator* coordinator) {
  if (coordinator == nullptr) {
    ZLOG(COMP_ATH, LVL_E, "NULL pointer exception for coordinator\n");
    return;
  }
  sa_list_for_each_entry_safe(client, &coordinator->module_client_list, module_client, list) {
    sa_list_del(&client->list);
    std::free(client);
  }
  coordinator->module_client_count = 0;
}
