// Mesh pair definition after each registry rebuild, the topology check, and the module client flush.
#ifndef ZUNTA_COORDINATOR_MESH_DEFINITION_H_
#define ZUNTA_COORDINATOR_MESH_DEFINITION_H_

#include <cstdint>

struct coordinator;

// Marks mesh nodes, shares their MACs, fetches every node's neighbours and generates the pairs;
// sets *new_mesh_pair when a pair was added (never clears it).
void zunta_define_mesh_pairs(struct coordinator* coordinator, uint8_t* new_mesh_pair);

// 0 when the mesh pairs differ from the trained ones (*topology_changed set to 1, *rx_update set
// by the change check), -1 when they do not or the coordinator is missing.
int zunta_check_topology_mesh(struct coordinator* coordinator, uint8_t* topology_changed, uint8_t* rx_update);

// Frees every module client and sets module_client_count to 0.
void zunta_flush_module_client(struct coordinator* coordinator);

#endif  // ZUNTA_COORDINATOR_MESH_DEFINITION_H_
